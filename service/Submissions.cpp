#include "Submissions.h"

#include <utility>

namespace configsrvc {

namespace {

size_t bytesOf(const StoredChange& change) {
    size_t bytes = change.key.size();
    for (const std::string& value : change.values) {
        bytes += value.size();
    }
    return bytes;
}

}  // namespace

Submissions::Submissions(Clock::duration idleLimit) : idleLimit_(idleLimit) {}

Submissions::~Submissions() = default;

Submission* Submissions::find(uint32_t connection) {
    auto it = open_.find(connection);
    if (it == open_.end()) {
        return nullptr;
    }
    it->second.lastUsed = Clock::now();
    return &it->second;
}

Submission* Submissions::start(uint32_t connection, std::string scope, std::string instance) {
    auto [it, added] = open_.try_emplace(connection);
    if (!added) {
        return nullptr;
    }
    it->second.scope = std::move(scope);
    it->second.instance = std::move(instance);
    it->second.lastUsed = Clock::now();
    return &it->second;
}

bool Submissions::stage(Submission* submission, StagedWrite write) {
    const std::string& key = write.change.key;
    auto earlier = submission->staged.find(key);
    const size_t replaced =
        earlier == submission->staged.end() ? 0 : bytesOf(earlier->second.change);
    const size_t added = bytesOf(write.change);
    const bool newKey = earlier == submission->staged.end();
    if ((newKey && submission->staged.size() >= kMaxStagedChanges) ||
        stagedBytes_ - replaced + added > kMaxStagedBytes) {
        return false;
    }
    stagedBytes_ = stagedBytes_ - replaced + added;
    submission->bytes = submission->bytes - replaced + added;
    if (newKey) {
        submission->staged.emplace(key, std::move(write));
    } else {
        write.seenVersion = earlier->second.seenVersion;
        earlier->second = std::move(write);
    }
    return true;
}

bool Submissions::end(uint32_t connection) {
    auto it = open_.find(connection);
    if (it == open_.end()) {
        return false;
    }
    stagedBytes_ -= it->second.bytes;
    open_.erase(it);
    return true;
}

std::vector<std::string> Submissions::endAll() {
    std::vector<std::string> ended;
    for (const auto& [connection, submission] : open_) {
        ended.push_back(submission.instance);
    }
    open_.clear();
    stagedBytes_ = 0;
    return ended;
}

std::vector<std::string> Submissions::expire(Clock::time_point now) {
    std::vector<std::string> expired;
    for (auto it = open_.begin(); it != open_.end();) {
        if (now - it->second.lastUsed > idleLimit_) {
            expired.push_back(it->second.instance);
            stagedBytes_ -= it->second.bytes;
            it = open_.erase(it);
        } else {
            ++it;
        }
    }
    return expired;
}

}  // namespace configsrvc

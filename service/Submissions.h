// Submissions: value changes that a connection stages under one instance and then commits
// together.
//
// Between a SubmitReq kSubmitStart and its kSubmitEnd, the writes a connection makes inside the
// submission's scope are checked and kept here instead of being stored; that connection's own
// reads see them, no one else does, and nothing is locked meanwhile. The end hands all of them
// to the store as one change (ConfigService decides whether it still may). A submission belongs
// to its connection and ends unapplied when the connection goes away or stays idle past the
// idle limit.
//
// Bounds, so that no client can make the service hold unbounded memory: at most
// kMaxStagedChanges changes per submission, and kMaxStagedBytes of staged values over all
// submissions together. For the serving thread only.
#ifndef CONFIGSRVC_SUBMISSIONS_H
#define CONFIGSRVC_SUBMISSIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"
#include "Records.h"

namespace configsrvc {

constexpr size_t kMaxStagedChanges = 1024;
constexpr size_t kMaxStagedBytes = 16 * 1024 * 1024;
// How long a submission may wait for its connection's next request before it is dropped.
constexpr std::chrono::seconds kSubmissionIdleLimit{60};

// A write held back by a submission, with what is needed to check it again at the end.
struct StagedWrite {
    StoredChange change;
    CommonIF::eSecurityRole role = CommonIF::kUser;
    bool overriding = false;
    uint64_t seenVersion = 0;  // RecordState::valueVersion() of the key when first staged
};

struct Submission {
    std::string scope;                          // see DeviceModel::resolveScope()
    std::string instance;                       // as the client named it, for messages
    std::map<std::string, StagedWrite> staged;  // by key, so the commit is in key order
    size_t bytes = 0;                           // of the staged values
    std::chrono::steady_clock::time_point lastUsed;

    // The staged write of `key`, or null.
    const StagedWrite* find(const std::string& key) const {
        auto it = staged.find(key);
        return it == staged.end() ? nullptr : &it->second;
    }
};

class Submissions {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Submissions(Clock::duration idleLimit = kSubmissionIdleLimit);
    virtual ~Submissions();

    // The submission open on `connection`, or null. A submission found is marked as used now.
    Submission* find(uint32_t connection);

    // Opens a submission on `connection`; null when one is open there already.
    Submission* start(uint32_t connection, std::string scope, std::string instance);

    // Stages `write` in `submission` (replacing an earlier write of the same key, whose
    // seenVersion stays). False, with nothing staged, when that would pass a bound.
    bool stage(Submission* submission, StagedWrite write);

    // Ends the submission on `connection` (applied or not), freeing what it staged. Returns
    // whether one was open.
    bool end(uint32_t connection);

    // Ends every submission whose connection has been idle since before `now` minus the idle
    // limit; returns the instances they were under.
    std::vector<std::string> expire(Clock::time_point now);
    // Ends every submission; returns the instances they were under.
    std::vector<std::string> endAll();

    size_t open() const { return open_.size(); }

  private:
    Clock::duration idleLimit_;
    std::unordered_map<uint32_t, Submission> open_;
    size_t stagedBytes_ = 0;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_SUBMISSIONS_H

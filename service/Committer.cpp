#include "Committer.h"

#include <algorithm>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace configsrvc {

namespace {

// A batch is bounded so one huge burst cannot hold every answer back behind a single commit.
constexpr size_t kMaxBatch = 1024;

}  // namespace

Committer::Committer(ValueStore* store, size_t maxPending)
    : store_(store), maxPending_(maxPending) {}

Committer::~Committer() {
    stop();
    if (readyFd_ >= 0) {
        close(readyFd_);
    }
}

bool Committer::start(std::string* error) {
    readyFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (readyFd_ < 0) {
        *error = std::string("eventfd: ") + std::strerror(errno);
        return false;
    }
    thread_ = std::thread(&Committer::run, this);
    return true;
}

void Committer::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool Committer::submit(PendingWrite write) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || inPipeline_ >= maxPending_) {
            return false;
        }
        ++inPipeline_;
        queued_.push_back(std::move(write));
    }
    wake_.notify_one();
    return true;
}

void Committer::takeFinished(std::vector<FinishedWrite>* finished) {
    uint64_t count;
    while (::read(readyFd_, &count, sizeof count) < 0 && errno == EINTR) {
    }
    std::lock_guard<std::mutex> lock(mutex_);
    inPipeline_ -= finished_.size();
    for (FinishedWrite& done : finished_) {
        finished->push_back(std::move(done));
    }
    finished_.clear();
}

void Committer::run() {
    std::vector<PendingWrite> batch;
    std::vector<const StoredChange*> changes;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !queued_.empty(); });
            if (queued_.empty()) {
                return;  // stopping, and everything submitted has been committed
            }
            while (!queued_.empty() && batch.size() < kMaxBatch) {
                batch.push_back(std::move(queued_.front()));
                queued_.pop_front();
            }
        }
        changes.clear();
        for (const PendingWrite& write : batch) {
            for (const StoredChange& change : write.changes) {
                changes.push_back(&change);
            }
        }
        std::string error;
        bool committed = store_->commit(changes, &error);
        const bool checkpoint = std::any_of(
            batch.begin(), batch.end(), [](const PendingWrite& write) { return write.checkpoint; });
        if (committed && checkpoint) {
            store_->checkpoint(&error);
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (PendingWrite& write : batch) {
                finished_.push_back({std::move(write), committed, error, store_->lastCommit()});
            }
        }
        batch.clear();
        uint64_t one = 1;
        while (::write(readyFd_, &one, sizeof one) < 0 && errno == EINTR) {
        }
    }
}

}  // namespace configsrvc

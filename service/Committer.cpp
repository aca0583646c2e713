#include "Committer.h"

#include <algorithm>
#include <chrono>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace configsrvc {

namespace {

// A batch is bounded so one huge burst cannot hold every answer back behind a single commit.
constexpr size_t kMaxBatch = 1024;
// The longest a batch waits for the writers of the last one to come back (see run()): half the
// time of the last commit, so a write never waits for others much longer than for the disk.
constexpr std::chrono::microseconds kMaxPatience{1000};

using Clock = std::chrono::steady_clock;

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
    return true;
}

void Committer::release() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (queued_.empty()) {
            return;
        }
        released_ = true;
    }
    wake_.notify_one();
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
    size_t expected = 0;                    // writes the next batch waits for
    std::chrono::microseconds patience{0};  // how long it waits for them at most
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || (released_ && !queued_.empty()); });
            if (queued_.empty()) {
                return;  // stopping, and everything submitted has been committed
            }
            // The writers the last commit answered come back at about the same time. Committing
            // what is queued the moment it is there would split them from those already waiting
            // into two groups that take turns at the disk, each paying a sync for half of them;
            // a moment's wait for them keeps them one group and one sync.
            wake_.wait_for(lock, patience, [&] { return stopping_ || queued_.size() >= expected; });
            released_ = false;
            while (!queued_.empty() && batch.size() < kMaxBatch) {
                batch.push_back(std::move(queued_.front()));
                queued_.pop_front();
            }
        }
        changes.clear();
        for (const PendingWrite& write : batch) {
            if (write.changes != nullptr) {
                for (const StoredChange& change : *write.changes) {
                    changes.push_back(&change);
                }
            }
        }
        const auto start = Clock::now();
        std::string error;
        bool committed = store_->commit(changes, &error);
        const bool checkpoint = std::any_of(
            batch.begin(), batch.end(), [](const PendingWrite& write) { return write.checkpoint; });
        if (committed && checkpoint) {
            store_->checkpoint(&error);
        }
        patience = std::min(kMaxPatience, std::chrono::duration_cast<std::chrono::microseconds>(
                                              (Clock::now() - start) / 2));
        {
            std::lock_guard<std::mutex> lock(mutex_);
            expected = std::min(kMaxBatch, batch.size() + queued_.size());
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

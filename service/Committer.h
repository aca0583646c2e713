// Committer: makes writes durable on a thread of its own, committing together what arrives
// together.
//
// The serving thread submits writes and carries on answering reads. The committer thread takes
// every write queued so far, commits them to the store in one transaction (one fsync for the
// lot), and hands them back as finished; readyFd() becomes readable so the serving thread can
// apply them to memory and answer their clients. While one batch is on its way to the disk the
// next one gathers, which is what lets many concurrent writers share each fsync.
#ifndef CONFIGSRVC_COMMITTER_H
#define CONFIGSRVC_COMMITTER_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Records.h"
#include "ValueStore.h"

namespace configsrvc {

// The changes of one request, stored together or not at all. `ticket` is the submitter's own,
// to tell its writes apart when they come back.
struct PendingWrite {
    ChangeList changes;  // null: none
    uint64_t ticket = 0;
    // Once committed, carry everything committed so far into the main database file.
    bool checkpoint = false;
};

struct FinishedWrite {
    PendingWrite write;
    bool committed = false;
    std::string error;      // why it was not, when it was not; or why its checkpoint failed
    uint64_t sequence = 0;  // the number of the commit that stored it (ValueStore::lastCommit())
};

class Committer {
  public:
    // `maxPending` bounds the writes that may be queued, committing or waiting to be taken.
    Committer(ValueStore* store, size_t maxPending);
    virtual ~Committer();

    Committer(const Committer&) = delete;
    Committer& operator=(const Committer&) = delete;

    bool start(std::string* error);
    // Commits what was submitted, then stops the thread. What it finished can still be taken.
    void stop();

    // Queues a write; false when `maxPending` writes are in the pipeline already. The committer
    // takes queued writes once release() is called, so writes that arrive together (a round of
    // requests) go to the disk together rather than the first one alone.
    bool submit(PendingWrite write);
    // Lets the committer take what was queued.
    void release();
    // Readable while finished writes wait to be taken.
    int readyFd() const { return readyFd_; }
    // Moves every finished write, in submission order, to the end of *finished.
    void takeFinished(std::vector<FinishedWrite>* finished);

  private:
    void run();

    ValueStore* store_;
    size_t maxPending_;
    int readyFd_ = -1;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool released_ = false;  // release() was called since the committer last took writes
    size_t inPipeline_ = 0;  // queued + committing + finished but not taken
    std::deque<PendingWrite> queued_;
    std::vector<FinishedWrite> finished_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_COMMITTER_H

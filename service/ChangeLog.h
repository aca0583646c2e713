// ChangeLog: the notifications of the latest commits, kept for the subscribers that have not
// been sent them yet.
//
// Every commit has a sequence number, durable and increasing across restarts (ValueStore). A
// commit's entries are the notifications it causes: one per record it really changed (a reset
// of what was already default causes none), each encoded once without the subscriber's
// user_context, which is added per registration when it is sent. Entries have indexes that
// increase by one and are never reused; a subscriber is a cursor into them, so a slow one costs
// the service no memory of its own. The log keeps at most a given number of entries and forgets
// whole commits, oldest first, beyond it. For the serving thread only.
#ifndef CONFIGSRVC_CHANGE_LOG_H
#define CONFIGSRVC_CHANGE_LOG_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Callbacks.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "DeviceModel.h"
#include "Records.h"

namespace configsrvc {

// Notifications the log keeps by default, and at most (a service option).
constexpr size_t kDefaultRetainedChanges = 65536;
constexpr size_t kMaxRetainedChanges = 4 * 1024 * 1024;

struct ChangeEntry {
    uint64_t sequence = 0;                                  // the commit's
    ConfigIF::CallbackType type = ConfigIF::kChangeNotify;  // the registrations it is for
    uint32_t msgId = 0;                                     // the notification's id
    uint32_t contextField = 0;       // the field number of the notification's user_context
    std::string path;                // what changed: names joined by '.'
    std::vector<int32_t> instances;  // instance numbers per step of `path`; empty: all
    CommonIF::eSecurityRole level = CommonIF::kUser;  // who may see it: its read level
    std::shared_ptr<const std::string> requester;     // the client that asked for the commit
    std::string body;                                 // the notification without user_context

    ChangeSubject subject() const { return {&path, &instances, level, requester.get()}; }
};

// Appends to *entries the notifications of `change`, just committed: `before` is the record it
// replaced (null: there was none) and `after` the records with it. Nothing when the record
// did not change. Sequence and requester are left for the caller.
void noticesOf(const DeviceModel& model, const Records& after, const StoredChange& change,
               const std::vector<std::string>* before, std::vector<ChangeEntry>* entries);

// The SubmitNtfy entry for a submission under `scope` (a serialised ConfigIF::Inst).
ChangeEntry submitNotice(const std::string& scope, ConfigIF::SubmitType type);

// The notification `entry` as registration `context` receives it: its body and user_context.
std::string encodeNotice(const ChangeEntry& entry, const std::string& userContext);

class ChangeLog {
  public:
    // `lastSequence`: the latest commit before the log starts (its entries are not kept).
    ChangeLog(uint64_t lastSequence, size_t maxEntries);
    virtual ~ChangeLog() = default;

    // Records commit `sequence` (greater than every one before) with its entries, which it
    // takes, and forgets the oldest commits beyond the bound.
    void commit(uint64_t sequence, std::vector<ChangeEntry>* entries);

    uint64_t begin() const { return first_; }
    uint64_t end() const { return first_ + entries_.size(); }
    const ChangeEntry& at(uint64_t index) const { return entries_[index - first_]; }
    uint64_t lastSequence() const { return last_; }
    // Every commit up to this one may have lost entries: a resume from before it cannot be
    // served from the log.
    uint64_t forgottenThrough() const { return forgotten_; }
    // The index of the first entry of a commit after `sequence`, when the log still holds all
    // of them; false otherwise.
    bool indexAfter(uint64_t sequence, uint64_t* index) const;

  private:
    size_t maxEntries_;
    uint64_t first_ = 0;
    uint64_t last_;
    uint64_t forgotten_;
    std::deque<ChangeEntry> entries_;
};

}  // namespace configsrvc

#endif  // CONFIGSRVC_CHANGE_LOG_H

// The server's side of client callbacks: validators asked before a change is stored, appliers
// told after, subscribers sent the change log as their connections drain, and requests that
// conflict with a change under validation held back until it is decided (see Server.h and
// PROTOCOL.md).
#include <algorithm>

#include <google/protobuf/message.h>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Common/protobuf/v3/configwatch.pb.h"
#include "Overrides.h"
#include "Server.h"
#include "logmsg.h"

namespace configsrvc {

namespace {

constexpr char kLogModule[] = "callbacks";
// A subscriber is sent more only while less than this waits in its connection's send queue:
// far below the queue's bound, so that a subscriber that drains slowly is paced, never dropped.
constexpr size_t kPaceBytes = 256 * 1024;
// Requests held back behind changes under validation; beyond this they are dropped (logged).
constexpr size_t kMaxDeferred = 4096;

bool overlaps(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    for (const std::string& one : a) {
        for (const std::string& other : b) {
            if (pathIsUnder(one, other) || pathIsUnder(other, one)) {
                return true;
            }
        }
    }
    return false;
}

// The ReturnMessage of a response, or null when it has none.
ConfigIF::ReturnMessage* returnMessageOf(google::protobuf::Message* response) {
    const google::protobuf::FieldDescriptor* field =
        response->GetDescriptor()->FindFieldByName("ret_message");
    return field == nullptr ? nullptr
                            : static_cast<ConfigIF::ReturnMessage*>(
                                  response->GetReflection()->MutableMessage(response, field));
}

const char* kindWord(RecordKind kind) {
    return kind == RecordKind::kOptions ? ":options" : kind == RecordKind::kLevels ? ":levels" : "";
}

}  // namespace

std::vector<std::string> Server::touchedBy(const std::vector<StoredChange>& changes) const {
    std::vector<std::string> touched;
    for (const StoredChange& change : changes) {
        ResolvedVariable found;
        const bool instance = change.kind == RecordKind::kValue ||
                              change.kind == RecordKind::kOptions ||
                              change.kind == RecordKind::kLevels;
        if (instance && service_->model().resolveKey(change.key, &found)) {
            touched.push_back(found.variable->path);
        } else {
            touched.push_back(change.key);
        }
    }
    return touched;
}

bool Server::conflicts(const std::vector<std::string>& touched, uint32_t sender,
                       bool* asker) const {
    for (const auto& [id, asked] : asked_) {
        if (!asked.applying && overlaps(touched, asked.touched)) {
            *asker = asked.due.count(sender) > 0;
            return true;
        }
    }
    return false;
}

bool Server::deferIfBlocked(uint32_t id, const MSG_Sender& sender, const void* payload,
                            size_t bytes, const Answer* answer) {
    const bool validating = std::any_of(asked_.begin(), asked_.end(),
                                        [](const auto& entry) { return !entry.second.applying; });
    if (!validating && deferred_.empty()) {
        return false;
    }
    // A connection's requests are served in order: once one waits, those after it wait too.
    bool blocked = std::any_of(deferred_.begin(), deferred_.end(), [&](const Deferred& held) {
        return held.sender.address == sender.address;
    });
    if (!blocked) {
        std::vector<std::string> touched;
        if (answer != nullptr) {
            touched = touchedBy(answer->changes);
        } else if (const Submission* open = submissions_.find(sender.address);
                   open != nullptr && id == ConfigProtocol::kSubmitReqMsgId) {
            // Ending a submission cannot be served twice: it is held back before it is served.
            for (const auto& [key, write] : open->staged) {
                touched.push_back(touchedBy({write.change}).front());
            }
        }
        bool asker = false;
        if (touched.empty() || !conflicts(touched, sender.address, &asker)) {
            return false;
        }
        if (asker && answer != nullptr && answer->message != nullptr) {
            // Waiting would wait for itself: the change cannot be decided before this answer.
            setError(CommonIF::kErrBadState,
                     "the change touches a change this client is asked to validate",
                     answer->message);
            send(sender.address, answer->msgId, *answer->message);
            return true;
        }
        if (asker) {
            return false;  // served, and refused once its changes are known
        }
    }
    if (deferred_.size() >= kMaxDeferred) {
        logmsg_warn(kLogModule, "request from pid %d dropped: %zu requests wait for validations\n",
                    static_cast<int>(sender.pid), deferred_.size());
        return true;
    }
    deferred_.push_back({id, sender, std::string(static_cast<const char*>(payload), bytes)});
    return true;
}

void Server::serveDeferred() {
    std::deque<Deferred> queue;
    queue.swap(deferred_);
    for (const Deferred& held : queue) {
        serve(held.msgId, held.sender, held.payload.data(), held.payload.size());
    }
}

uint64_t Server::ask(Change* change, ConfigIF::CallbackType type, Asked* asked) {
    const uint64_t id = nextAsked_;
    const bool applying = type == ConfigIF::kOnChange;
    const Records& records = applying ? state_->committed() : state_->accepted();
    uint64_t sent = 0;
    for (const StoredChange& one : *change->changes) {
        ResolvedVariable found;
        if (one.kind == RecordKind::kAttributes || one.kind == RecordKind::kComponents ||
            !service_->model().resolveKey(one.key, &found)) {
            continue;
        }
        VariableDef scratch;
        const VariableDef& variable = effectiveVariable(records, found, &scratch);
        std::vector<int32_t> numbers;
        ConfigIF::DynamicValidateReq request;  // the same fields as OnChangeReq
        ConfigIF::InstValue* value = request.mutable_instance_val();
        for (const PathStep& step : found.answered) {
            ConfigIF::Node* node = value->mutable_instance()->add_node();
            node->set_name(std::string(step.name));
            node->set_instance(step.instance);
            numbers.push_back(step.instance);
        }
        const std::vector<std::string>* stored = records.find(RecordKind::kValue, found.key);
        const std::vector<std::string>& values =
            one.kind == RecordKind::kValue ? (one.reset ? variable.defaults : one.values)
                                           : (stored != nullptr ? *stored : variable.defaults);
        for (const std::string& item : values) {
            value->add_value(item);
        }
        request.set_name(change->requester);
        request.set_role(change->role);
        request.set_server_context((change->validateOnly ? "validate:" : "change:") +
                                   std::to_string(id) + kindWord(one.kind));
        const ChangeSubject subject{&variable.path, &numbers, variable.writeLevel,
                                    &change->requester};
        for (const Registration& registration : callbacks_.all()) {
            if (registration.type != type || registration.connection == change->address ||
                !covers(registration, subject)) {
                continue;
            }
            request.set_user_context(registration.userContext);
            if (applying) {
                ConfigIF::OnChangeReq tell;
                tell.ParsePartialFromString(request.SerializePartialAsString());
                send(registration.connection, ConfigProtocol::kOnChangeReqMsgId, tell);
            } else {
                send(registration.connection, ConfigProtocol::kDynamicValidateReqMsgId, request);
            }
            asks_[registration.connection].push_back(id);
            ++asked->due[registration.connection];
            ++sent;
        }
    }
    return sent;
}

bool Server::askValidators(Change* change) {
    if (!callbacks_.any(ConfigIF::kDynamicValidator)) {
        return false;
    }
    Asked asked;
    if (ask(change, ConfigIF::kDynamicValidator, &asked) == 0) {
        return false;
    }
    asked.deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(settings_.deadlineMs);
    asked.touched = touchedBy(*change->changes);
    asked.change = std::move(*change);
    asked_.emplace(nextAsked_++, std::move(asked));
    return true;
}

bool Server::askAppliers(Change* change) {
    if (!callbacks_.any(ConfigIF::kOnChange)) {
        return false;
    }
    Asked asked;
    asked.applying = true;
    if (ask(change, ConfigIF::kOnChange, &asked) == 0) {
        return false;
    }
    asked.deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(settings_.deadlineMs);
    asked.change = std::move(*change);
    asked_.emplace(nextAsked_++, std::move(asked));
    return true;
}

void Server::takeCallbackAnswer(const MSG_Sender& sender, uint32_t id, const void* payload,
                                size_t bytes) {
    auto queue = asks_.find(sender.address);
    if (queue == asks_.end() || queue->second.empty()) {
        logmsg_warn(kLogModule, "%s from pid %d answers nothing that was asked: dropped\n",
                    ConfigProtocol::messageNameOf(id), static_cast<int>(sender.pid));
        return;
    }
    const uint64_t askedId = queue->second.front();
    queue->second.pop_front();
    if (queue->second.empty()) {
        asks_.erase(queue);
    }
    auto it = asked_.find(askedId);
    if (it == asked_.end()) {
        return;  // decided already: it timed out
    }
    Asked& asked = it->second;
    auto due = asked.due.find(sender.address);
    if (due != asked.due.end() && --due->second == 0) {
        asked.due.erase(due);
    }
    ConfigIF::DynamicValidateRsp response;  // the same fields as OnChangeRsp
    const bool parsed = response.ParseFromArray(payload, static_cast<int>(bytes));
    const ConfigIF::ReturnMessage& result = response.ret_message();
    std::vector<std::string> messages(result.error_message().begin(), result.error_message().end());
    const std::string who = "pid " + std::to_string(sender.pid);
    if (!asked.applying) {
        if (!parsed) {
            veto(askedId, CommonIF::kErrBadParameter,
                 {"the validator (" + who +
                  ") answered "
                  "with a message that does not parse"});
        } else if (result.error() != CommonIF::kErrNoError) {
            logmsg_info(kLogModule, "change from '%s' vetoed by the validator (%s)\n",
                        asked.change.requester.c_str(), who.c_str());
            veto(askedId, result.error(), messages);
        } else {
            settle(askedId);
        }
        return;
    }
    asked.reboot = asked.reboot || (parsed && result.reboot_required());
    if (!parsed || result.error() != CommonIF::kErrNoError) {
        std::string report = "the applier (" + who + ") failed";
        for (const std::string& message : messages) {
            report += ": " + printable(message, 200);
        }
        logmsg_warn(kLogModule, "change from '%s': %s\n", asked.change.requester.c_str(),
                    report.c_str());
        asked.reports.push_back(report);
    }
    settle(askedId);
}

void Server::settle(uint64_t id) {
    auto it = asked_.find(id);
    if (it == asked_.end() || !it->second.due.empty()) {
        return;
    }
    Asked asked = std::move(it->second);
    asked_.erase(it);
    if (asked.applying) {
        ConfigIF::ReturnMessage* result =
            asked.change.message ? returnMessageOf(asked.change.message.get()) : nullptr;
        if (result != nullptr && asked.reboot) {
            result->set_reboot_required(true);
        }
        for (const std::string& report : asked.reports) {
            if (result != nullptr) {
                result->add_error_message(report);
            }
        }
        reply(asked.change);
        return;
    }
    if (asked.change.validateOnly) {
        reply(asked.change);
    } else {
        submit(std::move(asked.change));
    }
    serveDeferred();
}

void Server::veto(uint64_t id, CommonIF::eErrorType error,
                  const std::vector<std::string>& messages) {
    auto it = asked_.find(id);
    if (it == asked_.end()) {
        return;
    }
    Change change = std::move(it->second.change);
    asked_.erase(it);
    if (change.message != nullptr) {
        setError(error, "", change.message.get());
        if (ConfigIF::ReturnMessage* result = returnMessageOf(change.message.get())) {
            result->set_reboot_required(false);
            for (const std::string& message : messages) {
                result->add_error_message(message);
            }
        }
        reply(change);
    }
    serveDeferred();
}

void Server::expireAsks() {
    if (asked_.empty()) {
        return;  // the common case, and no look at the clock
    }
    const auto now = std::chrono::steady_clock::now();
    // Deadlines grow with the ids, so the expired ones come first.
    while (!asked_.empty() && asked_.begin()->second.deadline <= now) {
        const uint64_t id = asked_.begin()->first;
        Asked& asked = asked_.begin()->second;
        const std::string late = std::to_string(asked.due.size()) + " of its " +
                                 (asked.applying ? "appliers" : "validators") +
                                 " did not answer within " + std::to_string(settings_.deadlineMs) +
                                 " ms";
        logmsg_warn(kLogModule, "change from '%s' (pid %d): %s\n", asked.change.requester.c_str(),
                    static_cast<int>(asked.change.pid), late.c_str());
        if (asked.applying) {
            asked.reports.push_back(late);
            asked.due.clear();
            settle(id);
        } else {
            veto(id, CommonIF::kErrTimeOut, {late});
        }
    }
}

int Server::msUntilNextDeadline(int idleMs) const {
    if (asked_.empty()) {
        return idleMs;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          asked_.begin()->second.deadline - std::chrono::steady_clock::now())
                          .count();
    return static_cast<int>(std::clamp<long long>(left + 1, 0, idleMs));
}

void Server::logCommit(const FinishedWrite& done, const Change& change,
                       const std::vector<const std::vector<std::string>*>& before) {
    std::vector<ChangeEntry> entries;
    const bool submission = !change.submitScope.empty();
    if (submission) {
        entries.push_back(submitNotice(change.submitScope, ConfigIF::kSubmitStart));
    }
    for (size_t i = 0; i < change.changes->size(); ++i) {
        noticesOf(service_->model(), state_->committed(), (*change.changes)[i], before[i],
                  &entries);
    }
    if (submission) {
        entries.push_back(submitNotice(change.submitScope, ConfigIF::kSubmitEnd));
    }
    auto requester = std::make_shared<const std::string>(change.requester);
    for (ChangeEntry& entry : entries) {
        entry.requester = requester;
    }
    log_.commit(done.sequence, &entries);
}

void Server::subscribe(const MSG_Sender& sender) {
    if (subscribers_.count(sender.address) == 0) {
        Subscriber subscriber;
        subscriber.cursor = log_.end();
        subscriber.pid = sender.pid;
        subscribers_.emplace(sender.address, std::move(subscriber));
    }
}

void Server::resume(const MSG_Sender& sender, const void* payload, size_t bytes) {
    ConfigWatch::WatchResumeReq request;
    ConfigWatch::WatchResumeRsp response;
    response.set_sequence(log_.lastSequence());
    std::string reason;
    if (!request.ParseFromArray(payload, static_cast<int>(bytes))) {
        response.set_error(CommonIF::kErrBadParameter);
        reason = "the request does not parse";
    } else if (!service_->mayClaim(request.role(), sender.uid, &reason)) {
        response.set_error(CommonIF::kErrNotAuthorized);
    } else {
        response.set_error(CommonIF::kErrNoError);
    }
    if (response.error() != CommonIF::kErrNoError) {
        logmsg_info(kLogModule, "WatchResumeReq from pid %d refused: %s\n",
                    static_cast<int>(sender.pid), reason.c_str());
        send(sender.address, ConfigProtocol::kWatchResumeRspMsgId, response);
        return;
    }
    subscribe(sender);
    Subscriber& subscriber = subscribers_[sender.address];
    subscriber.marks = true;
    uint64_t index = log_.end();
    if (request.has_after_sequence()) {
        const uint64_t after = request.after_sequence();
        if (after <= log_.lastSequence() && log_.indexAfter(after, &index)) {
            callbacks_.rewind(sender.address, index);
            subscriber.cursor = std::min(subscriber.cursor, index);
        } else {
            ConfigWatch::ResyncNtfy resync;
            resync.set_oldest_sequence(log_.forgottenThrough() + 1);
            resync.set_sequence(log_.lastSequence());
            logmsg_info(kLogModule,
                        "pid %d resumes after commit %llu, which is no longer kept: "
                        "told to read afresh\n",
                        static_cast<int>(sender.pid), static_cast<unsigned long long>(after));
            send(sender.address, ConfigProtocol::kResyncNtfyMsgId, resync);
        }
    }
    send(sender.address, ConfigProtocol::kWatchResumeRspMsgId, response);
    pump(sender.address, &subscriber);
}

void Server::reply(const Change& change) {
    if (change.message == nullptr) {
        return;
    }
    auto it = subscribers_.find(change.address);
    if (it == subscribers_.end() || it->second.cursor >= log_.end()) {
        send(change.address, change.msgId, *change.message);
        return;
    }
    // It watches: the notifications of its own change reach it before this answer.
    it->second.answers.push_back(
        {log_.end(), change.msgId, change.message->SerializePartialAsString()});
    pump(change.address, &it->second);
}

void Server::pumpAll() {
    std::vector<uint32_t> behind;
    for (const auto& [address, subscriber] : subscribers_) {
        if (subscriber.cursor < log_.end() || !subscriber.answers.empty()) {
            behind.push_back(address);
        }
    }
    for (uint32_t address : behind) {
        auto it = subscribers_.find(address);
        if (it != subscribers_.end()) {
            pump(address, &it->second);
        }
    }
}

void Server::pump(uint32_t address, Subscriber* subscriber) {
    uint64_t complete = subscriber->marked;  // the last commit this pass sent whole
    bool advanced = false;
    for (;;) {
        while (!subscriber->answers.empty() &&
               subscriber->answers.front().after <= subscriber->cursor) {
            const HeldAnswer& held = subscriber->answers.front();
            sendEncoded(address, held.msgId, held.encoded);
            subscriber->answers.pop_front();
        }
        // Without registrations it waits where it is: a connection that resumed registers
        // next, and its registrations are to see what it missed.
        if (subscriber->cursor >= log_.end() || !callbacks_.holdsAny(address)) {
            break;
        }
        if (subscriber->cursor < log_.begin()) {
            logmsg_warn(kLogModule,
                        "subscriber %u (pid %d) fell more than %zu notifications behind: "
                        "disconnected, so that it knows it missed some\n",
                        address, static_cast<int>(subscriber->pid), settings_.retainedChanges);
            MSG_CloseConnection(endpoint_.c_str(), address);
            forgetConnection(address);
            return;
        }
        size_t queued = 0;
        if (MSG_GetQueuedBytes(endpoint_.c_str(), address, &queued) != MSG_OK) {
            return;  // gone: forgotten with the closed connections
        }
        if (queued >= kPaceBytes) {
            break;  // sent more as the connection drains, which wakes the loop
        }
        const ChangeEntry& entry = log_.at(subscriber->cursor);
        const ChangeSubject subject = entry.subject();
        for (const Registration& registration : callbacks_.all()) {
            if (registration.connection == address && registration.type == entry.type &&
                subscriber->cursor >= registration.since && covers(registration, subject)) {
                sendEncoded(address, entry.msgId, encodeNotice(entry, registration.userContext));
            }
        }
        ++subscriber->cursor;
        advanced = true;
        if (subscriber->cursor == log_.end() ||
            log_.at(subscriber->cursor).sequence != entry.sequence) {
            complete = entry.sequence;
        }
    }
    if (subscriber->marks && advanced) {
        const uint64_t mark = subscriber->cursor == log_.end() ? log_.lastSequence() : complete;
        if (mark > subscriber->marked) {
            ConfigWatch::CommitMarkNtfy notice;
            notice.set_sequence(mark);
            send(address, ConfigProtocol::kCommitMarkNtfyMsgId, notice);
            subscriber->marked = mark;
        }
    }
}

}  // namespace configsrvc

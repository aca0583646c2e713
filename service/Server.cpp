#include "Server.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

#include <google/protobuf/message.h>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "logmsg.h"

namespace configsrvc {

namespace {

constexpr char kLogModule[] = "server";
// Requests served between two looks at the committer, so answers to writes are not held back
// by a steady stream of reads.
constexpr int kRequestsPerRound = 64;
// The loop also looks at its events this often when nothing wakes it, as a safety net.
constexpr int kIdlePollMs = 1000;

// The first block of the request arena: enough for a batch of a thousand reads.
constexpr size_t kArenaBlockBytes = 512 * 1024;

// Lines about one sender's requests in the log: at most this many every ten seconds.
constexpr size_t kLinesPerSender = 20;
constexpr auto kSenderWindow = std::chrono::seconds(10);

// What run() waits on besides requests, by slot of its poll set.
enum EventSlot { kStopSlot, kCommittedSlot, kPauseSlot, kEventSlotCount };

}  // namespace

Server::Server(const ConfigService& service, RecordState* state, Committer* committer,
               const std::string& endpoint, const CallbackSettings& callbacks)
    : service_(&service),
      state_(state),
      committer_(committer),
      endpoint_(endpoint),
      arenaBlock_(kArenaBlockBytes),
      throttle_([](const std::string& line) { logmsg_warn(kLogModule, "%s\n", line.c_str()); },
                kLinesPerSender, kSenderWindow),
      settings_(callbacks),
      log_(callbacks.lastCommit, callbacks.retainedChanges) {
    google::protobuf::ArenaOptions options;
    options.initial_block = arenaBlock_.data();
    options.initial_block_size = arenaBlock_.size();
    arena_ = std::make_unique<google::protobuf::Arena>(options);
}

Server::~Server() {
    if (open_) {
        MSG_CloseLocal(endpoint_.c_str());
    }
}

bool Server::open(std::string* error) {
    // As a service: a name that no client would trust is refused here, not served in vain.
    int status = MSG_OpenService(endpoint_.c_str());
    if (status != MSG_OK) {
        char dir[4096] = "";
        MSG_GetDir(nullptr, dir, sizeof dir);
        *error = "cannot open the endpoint " + endpoint_ + " in " + dir +
                 ": MSG_OpenService() failed " + std::to_string(status) + " (" +
                 MSG_StatusText(status) + ")";
        return false;
    }
    open_ = true;
    return true;
}

void Server::send(uint32_t address, uint32_t msgId, const google::protobuf::MessageLite& message) {
    // Never waits for the client: one that does not read its answers must not hold up the
    // others. The library queues what the client's socket cannot take yet, and cuts the client
    // off when that queue reaches its bound.
    ConfigProtocol::EncodeFailure failure = ConfigProtocol::kEncodedFine;
    MSG_Msg* reply = ConfigProtocol::encodeMessage(msgId, MSG_SEND_NOWAIT, message, &failure);
    if (reply == nullptr && failure == ConfigProtocol::kAllocFailed) {
        logmsg_err(kLogModule, "MSG_AllocMsg() failed for an answer of %zu bytes\n",
                   message.ByteSizeLong());
        return;
    }
    if (reply == nullptr) {
        logmsg_err(kLogModule, "cannot encode %s\n", message.GetTypeName().c_str());
        return;
    }
    deliver(address, reply);
}

void Server::sendEncoded(uint32_t address, uint32_t msgId, const std::string& encoded) {
    MSG_Msg* reply = MSG_AllocMsg(msgId, MSG_SEND_NOWAIT, static_cast<uint32_t>(encoded.size()));
    if (reply == nullptr) {
        logmsg_err(kLogModule, "MSG_AllocMsg() failed for an answer of %zu bytes\n",
                   encoded.size());
        return;
    }
    std::memcpy(MSG_GetPayloadMutable(reply), encoded.data(), encoded.size());
    deliver(address, reply);
}

void Server::deliver(uint32_t address, MSG_Msg* reply) {
    int status = MSG_SendMsg(endpoint_.c_str(), address, reply);
    if (status == MSG_ERR_PEER_GONE || status == MSG_ERR_NO_ROUTE) {
        logmsg_info(kLogModule, "client %u left before its answer\n", address);
    } else if (status == MSG_ERR_QUEUE_FULL) {
        logmsg_warn(kLogModule, "client %u does not read its answers: disconnected\n", address);
    } else if (status != MSG_OK) {
        logmsg_warn(kLogModule, "MSG_SendMsg() failed %d for client %u\n", status, address);
    }
}

// How many reasons of one request go to the log: a batch may have a thousand refused items.
constexpr size_t kRefusalsLogged = 8;

void Server::logRefusals(uint32_t requestId, const MSG_Sender& sender, const Answer& answer) {
    const char* type = ConfigProtocol::messageNameOf(requestId);
    const size_t count = answer.refusals.size();
    for (size_t i = 0; i < count && i < kRefusalsLogged; ++i) {
        if (!throttle_.admit(sender.uid)) {
            return;
        }
        logmsg_info(kLogModule, "%s from '%s' (pid %d, uid %u) refused: %s\n", type,
                    answer.requester.c_str(), static_cast<int>(sender.pid),
                    static_cast<unsigned>(sender.uid), answer.refusals[i].c_str());
    }
    if (count > kRefusalsLogged && throttle_.admit(sender.uid)) {
        logmsg_info(kLogModule, "%s from '%s' (pid %d): %zu more items refused\n", type,
                    answer.requester.c_str(), static_cast<int>(sender.pid),
                    count - kRefusalsLogged);
    }
}

Server::Change Server::keep(const MSG_Sender& sender, Answer* answer, bool validateOnly) {
    Change change;
    change.address = sender.address;
    change.pid = sender.pid;
    change.msgId = answer->msgId;
    if (answer->message != nullptr) {
        // Into a fresh message, a merge is the copy without CopyFrom's reflective type check.
        change.message.reset(answer->message->New());
        change.message->MergeFrom(*answer->message);
    }
    change.changes = std::make_shared<const std::vector<StoredChange>>(
        std::move(validateOnly ? answer->proposed : answer->changes));
    change.checkpoint = answer->checkpoint;
    change.validateOnly = validateOnly;
    change.requester = answer->requester;
    change.role = answer->role;
    change.submitScope = std::move(answer->submitScope);
    return change;
}

void Server::submit(Change change) {
    const uint64_t ticket = nextTicket_++;
    if (!committer_->submit({change.changes, ticket, change.checkpoint})) {
        logmsg_warn(kLogModule, "change from pid %d refused: too many changes pending\n",
                    static_cast<int>(change.pid));
        if (change.message != nullptr) {
            ConfigService::answerUnstored("too many changes are waiting for the disk; try again",
                                          change.message.get());
            setError(CommonIF::kErrOutOfResources, "", change.message.get());
            send(change.address, change.msgId, *change.message);
        }
        return;
    }
    state_->accept(change.changes);
    waiting_.push_back({ticket, std::move(change)});
    submitted_ = true;
}

void Server::dispatch(MSG_Msg* request) {
    MSG_Sender sender;
    uint32_t id = MSG_GetMsgId(request);
    if (MSG_GetSender(request, &sender) != MSG_OK) {
        logmsg_warn(kLogModule, "message 0x%08x without a sender dropped\n", id);
        return;
    }
    serve(id, sender, MSG_GetPayload(request), static_cast<size_t>(MSG_GetPayloadBytes(request)));
}

void Server::serve(uint32_t id, const MSG_Sender& sender, const void* payload, size_t bytes) {
    if (id == ConfigProtocol::kDynamicValidateRspMsgId || id == ConfigProtocol::kOnChangeRspMsgId) {
        takeCallbackAnswer(sender, id, payload, bytes);
        return;
    }
    if (id == ConfigProtocol::kWatchResumeReqMsgId) {
        resume(sender, payload, bytes);
        return;
    }
    if (!ConfigService::serves(id)) {
        if (throttle_.admit(sender.uid)) {
            logmsg_warn(kLogModule, "unknown message id 0x%08x from pid %d dropped\n", id,
                        static_cast<int>(sender.pid));
        }
        return;
    }
    if (deferIfBlocked(id, sender, payload, bytes, nullptr)) {
        return;
    }
    Answer answer;
    // A connection that resumed registers from its resume point on, so that its registrations
    // are sent what it missed; any other from the changes still to come.
    auto subscriber = subscribers_.find(sender.address);
    const uint64_t firstChange = subscriber != subscribers_.end() && subscriber->second.marks
                                     ? subscriber->second.cursor
                                     : log_.end();
    const Sender from{sender.uid, sender.address, &submissions_, &callbacks_, firstChange};
    if (service_->answerReadFromWire(id, payload, bytes, from, &encoded_, &answer)) {
        sendEncoded(sender.address, answer.msgId, encoded_);
        return;
    }
    service_->handle(id, payload, bytes, from, arena_.get(), &answer);
    logRefusals(id, sender, answer);
    if (ConfigService::isBareCommand(id) && answer.refusals.empty()) {
        logmsg_info(kLogModule, "%s from pid %d (uid %u) obeyed\n",
                    ConfigProtocol::messageNameOf(id), static_cast<int>(sender.pid),
                    static_cast<unsigned>(sender.uid));
    }
    if (id == ConfigProtocol::kRegisterClientCallbackReqMsgId && answer.refusals.empty()) {
        subscribe(sender);
    }
    if (!deferIfBlocked(id, sender, payload, bytes, &answer)) {
        const bool validateOnly = answer.changes.empty() && !answer.proposed.empty();
        // A write that changes nothing is answered without waiting for the disk: nothing
        // commits, so there is nothing to validate or tell either.
        if (!validateOnly && !answer.checkpoint && state_->changesNothing(answer.changes)) {
            if (answer.message != nullptr) {
                send(sender.address, answer.msgId, *answer.message);
            }
        } else {
            Change change = keep(sender, &answer, validateOnly);
            if (!askValidators(&change)) {
                if (validateOnly) {
                    reply(change);
                } else {
                    submit(std::move(change));
                }
            }
        }
    }
    arena_->Reset();
}

void Server::forgetClosedConnections() {
    uint32_t closed[64];
    int taken = 0;
    do {
        if (MSG_TakeClosed(endpoint_.c_str(), closed, 64, &taken) != MSG_OK) {
            return;
        }
        for (int i = 0; i < taken; ++i) {
            forgetConnection(closed[i]);
        }
    } while (taken == 64);
}

void Server::forgetConnection(uint32_t address) {
    const Submission* gone = submissions_.find(address);
    if (gone != nullptr) {
        logmsg_info(kLogModule, "submission under '%s' ended unapplied: its connection closed\n",
                    gone->instance.c_str());
        submissions_.end(address);
    }
    callbacks_.dropConnection(address);
    subscribers_.erase(address);
    auto asked = asks_.find(address);
    if (asked == asks_.end()) {
        return;
    }
    // A callback whose connection went stops counting at once: the change goes on without it.
    std::vector<uint64_t> affected(asked->second.begin(), asked->second.end());
    asks_.erase(asked);
    for (uint64_t id : affected) {
        auto it = asked_.find(id);
        if (it != asked_.end() && it->second.due.erase(address) > 0) {
            logmsg_warn(kLogModule,
                        "callback client %u went away before answering about a "
                        "change from '%s': it no longer counts\n",
                        address, it->second.change.requester.c_str());
            settle(id);
        }
    }
}

bool Server::stillReachable() {
    // The library puts a removed socket file back; when it cannot, no new client will ever
    // find us, and a restart by the supervisor is the way back.
    const int status = MSG_CheckPublished(endpoint_.c_str());
    if (status != MSG_OK) {
        logmsg_err(kLogModule, "the endpoint %s can no longer be reached: %s; stopping\n",
                   endpoint_.c_str(), MSG_StatusText(status));
    }
    return status == MSG_OK;
}

void Server::endIdleSubmissions() {
    if (submissions_.open() == 0) {
        return;
    }
    for (const std::string& instance : submissions_.expire(Submissions::Clock::now())) {
        logmsg_info(kLogModule, "submission under '%s' ended unapplied: idle too long\n",
                    instance.c_str());
    }
}

bool Server::serveRequests(MSG_Msg* first) {
    MSG_Msg* request = first;
    for (int served = 0; request != nullptr; ++served) {
        dispatch(request);
        MSG_ReleaseMsg(request);
        if (served + 1 == kRequestsPerRound) {
            return true;
        }
        request = MSG_RecvQueued(endpoint_.c_str());
    }
    return false;
}

void Server::finishWrites() {
    finished_.clear();
    committer_->takeFinished(&finished_);
    answerUnwatchedWriters();
    for (const FinishedWrite& done : finished_) {
        if (waiting_.empty() || waiting_.front().ticket != done.write.ticket) {
            state_->finish(done.committed);
            logmsg_crit(kLogModule, "a stored change has no answer waiting\n");
            continue;
        }
        Change change = std::move(waiting_.front().change);
        waiting_.pop_front();
        finishWrite(done, std::move(change));
    }
    pumpAll();
}

bool Server::answersFirst(const FinishedWrite& done, const Change& change) const {
    return done.committed && change.message != nullptr && subscribers_.count(change.address) == 0 &&
           !callbacks_.any(ConfigIF::kOnChange);
}

void Server::answerUnwatchedWriters() {
    // The writers of a batch come back together: every answer that waited for the notices and
    // bookkeeping of the writes before it in the batch would hold its writer, and with it the
    // next batch, back that much longer. Nothing a writer can ask next is served before the
    // batch is finished below, so it cannot see the records from before its change.
    auto waiting = waiting_.begin();
    for (const FinishedWrite& done : finished_) {
        if (waiting == waiting_.end() || waiting->ticket != done.write.ticket) {
            return;  // finishWrites() reports the mismatch
        }
        Change& change = waiting->change;
        if (answersFirst(done, change)) {
            send(change.address, change.msgId, *change.message);
            change.answered = true;
        }
        ++waiting;
    }
}

void Server::finishWrite(const FinishedWrite& done, Change change) {
    // What each record held before, for telling what really changed.
    std::vector<const std::vector<std::string>*> before;
    std::vector<std::vector<std::string>> copies;
    copies.reserve(change.changes->size());
    for (const StoredChange& one : *change.changes) {
        const std::vector<std::string>* held = state_->committed().find(one.kind, one.key);
        copies.push_back(held != nullptr ? *held : std::vector<std::string>());
        before.push_back(held != nullptr ? &copies.back() : nullptr);
    }
    state_->finish(done.committed);
    if (!done.committed) {
        logmsg_err(kLogModule, "change for client %u not stored: %s\n", change.address,
                   done.error.c_str());
    } else if (!done.error.empty()) {
        logmsg_err(kLogModule, "%s\n", done.error.c_str());
    }
    if (done.committed) {
        logCommit(done, change, before);
    }
    if (change.message == nullptr || change.answered) {
        return;  // a bare command (nobody waits for an answer), or answered
    }
    if (!done.committed) {
        ConfigService::answerUnstored(done.error, change.message.get());
    } else if (askAppliers(&change)) {
        return;  // answered once the appliers have
    }
    reply(change);
}

void Server::serveFrom(const ConfigService& service, RecordState* state, Committer* committer) {
    service_ = &service;
    state_ = state;
    committer_ = committer;
    // What a submission staged was checked against the records from before, whose change
    // numbers the new ones do not continue: it could no longer tell what changed meanwhile.
    for (const std::string& instance : submissions_.endAll()) {
        logmsg_info(kLogModule, "submission under '%s' ended unapplied: the model was reloaded\n",
                    instance.c_str());
    }
    // Changes under validation were checked against the model from before.
    while (!asked_.empty() && !asked_.begin()->second.applying) {
        veto(asked_.begin()->first, CommonIF::kErrBadState,
             {"the model was reloaded while the change was being validated; try again"});
    }
}

bool Server::drainWrites() {
    while (!waiting_.empty()) {
        committer_->release();
        pollfd committed = {committer_->readyFd(), POLLIN, 0};
        if (poll(&committed, 1, -1) < 0 && errno != EINTR) {
            logmsg_err(kLogModule, "poll: %s\n", std::strerror(errno));
            return false;
        }
        finishWrites();
    }
    return true;
}

bool Server::watchEvents(const pollfd* events, bool watch) {
    for (int slot = 0; slot < kEventSlotCount; ++slot) {
        if (events[slot].fd < 0) {
            continue;
        }
        const int status = watch ? MSG_WatchFd(endpoint_.c_str(), events[slot].fd)
                                 : MSG_UnwatchFd(endpoint_.c_str(), events[slot].fd);
        if (watch && status != MSG_OK) {
            logmsg_err(kLogModule, "MSG_WatchFd() failed: %s\n", MSG_StatusText(status));
            return false;
        }
    }
    return true;
}

Server::Step Server::takeEvents(pollfd* events, bool timedOut, Pause* pause) {
    const int ready = poll(events, kEventSlotCount, 0);
    if (ready < 0 && errno != EINTR) {
        logmsg_err(kLogModule, "poll: %s\n", std::strerror(errno));
        return Step::kFail;
    }
    if (ready > 0 && events[kStopSlot].revents != 0) {
        return Step::kStop;
    }
    if (ready > 0 && events[kPauseSlot].revents != 0) {
        // The committer, and with it its descriptor, may be another one afterwards.
        watchEvents(events, false);
        if (!drainWrites() || !pause->run(this)) {
            return Step::kFail;
        }
        events[kCommittedSlot].fd = committer_->readyFd();
        if (!watchEvents(events, true)) {
            return Step::kFail;
        }
    }
    if ((timedOut && ready == 0) || (ready > 0 && events[kCommittedSlot].revents != 0)) {
        finishWrites();
    }
    return Step::kServe;
}

bool Server::run(int stopFd, Pause* pause) {
    pollfd events[kEventSlotCount] = {};
    events[kStopSlot] = {stopFd, POLLIN, 0};
    events[kCommittedSlot] = {committer_->readyFd(), POLLIN, 0};
    events[kPauseSlot] = {pause != nullptr ? pause->fd() : -1, POLLIN, 0};
    // The endpoint's wait watches these too, so one blocking receive waits for requests and for
    // them: an idle service answers a request with the wait, the read and the answer's write,
    // where a poll loop of its own around the endpoint took a wait and a look more.
    bool healthy = watchEvents(events, true);
    if (healthy) {
        logmsg_info(kLogModule, "serving %s\n", endpoint_.c_str());
    }
    bool moreRequests = false;
    while (healthy) {
        MSG_Msg* request =
            MSG_RecvAny(endpoint_.c_str(), moreRequests ? 0 : msUntilNextDeadline(kIdlePollMs));
        moreRequests = serveRequests(request);
        // A receive ends without a request when an event is ready, a client left, the name
        // changed, or at the deadline; after a full round all that is looked at too, so that
        // neither kind of work starves. A round that served requests alone needs no look.
        if (request == nullptr || moreRequests) {
            const Step step = takeEvents(events, request == nullptr, pause);
            if (step != Step::kServe) {
                healthy = step == Step::kStop;
                break;
            }
            forgetClosedConnections();
            if (!stillReachable()) {
                healthy = false;
                break;
            }
        }
        endIdleSubmissions();
        throttle_.tick();
        expireAsks();
        pumpAll();
        // Whatever this round submitted goes to the disk together.
        if (submitted_) {
            committer_->release();
            submitted_ = false;
        }
    }
    logmsg_info(kLogModule, "stopping: answering the writes already submitted\n");
    committer_->stop();
    finishWrites();
    MSG_CloseLocal(endpoint_.c_str());
    open_ = false;
    throttle_.flush();
    return healthy;
}

}  // namespace configsrvc

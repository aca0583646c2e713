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
// The loop also looks at the endpoint this often when nothing wakes it, so a wake-up that the
// library coalesced can never leave a request waiting.
constexpr int kIdlePollMs = 1000;

// The first block of the request arena: enough for a batch of a thousand reads.
constexpr size_t kArenaBlockBytes = 512 * 1024;

// Lines about one sender's requests in the log: at most this many every ten seconds.
constexpr size_t kLinesPerSender = 20;
constexpr auto kSenderWindow = std::chrono::seconds(10);

// What run() waits on, by slot of its poll set.
enum PollSlot { kStopSlot, kRequestSlot, kCommittedSlot, kPauseSlot, kPollSlotCount };

}  // namespace

Server::Server(const ConfigService& service, RecordState* state, Committer* committer,
               const std::string& endpoint)
    : service_(&service),
      state_(state),
      committer_(committer),
      endpoint_(endpoint),
      arenaBlock_(kArenaBlockBytes),
      throttle_([](const std::string& line) { logmsg_warn(kLogModule, "%s\n", line.c_str()); },
                kLinesPerSender, kSenderWindow) {
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

void Server::submit(const MSG_Sender& sender, Answer* answer) {
    const uint64_t ticket = nextTicket_++;
    if (!committer_->submit({answer->changes, ticket, answer->checkpoint})) {
        logmsg_warn(kLogModule, "change from pid %d refused: too many changes pending\n",
                    static_cast<int>(sender.pid));
        if (answer->message != nullptr) {
            ConfigService::answerUnstored("too many changes are waiting for the disk; try again",
                                          answer->message);
            setError(CommonIF::kErrOutOfResources, "", answer->message);
            send(sender.address, answer->msgId, *answer->message);
        }
        return;
    }
    state_->accept(answer->changes);
    // The answer waits for the disk beyond this request's arena.
    std::unique_ptr<google::protobuf::Message> kept;
    if (answer->message != nullptr) {
        kept.reset(answer->message->New());
        kept->CopyFrom(*answer->message);
    }
    waiting_.push_back({ticket, sender.address, answer->msgId, std::move(kept)});
}

void Server::dispatch(MSG_Msg* request) {
    MSG_Sender sender;
    uint32_t id = MSG_GetMsgId(request);
    if (MSG_GetSender(request, &sender) != MSG_OK) {
        logmsg_warn(kLogModule, "message 0x%08x without a sender dropped\n", id);
        return;
    }
    if (!ConfigService::serves(id)) {
        if (throttle_.admit(sender.uid)) {
            logmsg_warn(kLogModule, "unknown message id 0x%08x from pid %d dropped\n", id,
                        static_cast<int>(sender.pid));
        }
        return;
    }
    Answer answer;
    const void* payload = MSG_GetPayload(request);
    const auto bytes = static_cast<size_t>(MSG_GetPayloadBytes(request));
    const Sender from{sender.uid, sender.address, &submissions_};
    if (id == ConfigProtocol::kBatchReadReqMsgId &&
        service_->answerBatchReadFromWire(payload, bytes, from, &encoded_, &answer)) {
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
    // A write that changes nothing is answered without waiting for the disk: nothing commits.
    if (!answer.checkpoint && state_->changesNothing(answer.changes)) {
        if (answer.message != nullptr) {
            send(sender.address, answer.msgId, *answer.message);
        }
    } else {
        submit(sender, &answer);
    }
    arena_->Reset();
}

void Server::endSubmissionsOfClosedConnections() {
    uint32_t closed[64];
    int taken = 0;
    do {
        if (MSG_TakeClosed(endpoint_.c_str(), closed, 64, &taken) != MSG_OK) {
            return;
        }
        for (int i = 0; i < taken && submissions_.open() > 0; ++i) {
            const Submission* gone = submissions_.find(closed[i]);
            if (gone != nullptr) {
                logmsg_info(kLogModule,
                            "submission under '%s' ended unapplied: its connection closed\n",
                            gone->instance.c_str());
                submissions_.end(closed[i]);
            }
        }
    } while (taken == 64);
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

bool Server::serveRequests() {
    for (int served = 0; served < kRequestsPerRound; ++served) {
        MSG_Msg* request = MSG_RecvAny(endpoint_.c_str(), 0);
        if (request == nullptr) {
            return false;
        }
        dispatch(request);
        MSG_ReleaseMsg(request);
    }
    return true;
}

void Server::finishWrites() {
    finished_.clear();
    committer_->takeFinished(&finished_);
    for (const FinishedWrite& done : finished_) {
        state_->finish(done.committed);
        if (waiting_.empty() || waiting_.front().ticket != done.write.ticket) {
            logmsg_crit(kLogModule, "a stored change has no answer waiting\n");
            continue;
        }
        Waiting waiting = std::move(waiting_.front());
        waiting_.pop_front();
        if (!done.committed) {
            logmsg_err(kLogModule, "change for client %u not stored: %s\n", waiting.address,
                       done.error.c_str());
        } else if (!done.error.empty()) {
            logmsg_err(kLogModule, "%s\n", done.error.c_str());
        }
        if (waiting.message == nullptr) {
            continue;  // a bare command: nobody waits for an answer
        }
        if (!done.committed) {
            ConfigService::answerUnstored(done.error, waiting.message.get());
        }
        send(waiting.address, waiting.msgId, *waiting.message);
    }
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
}

bool Server::drainWrites() {
    while (!waiting_.empty()) {
        pollfd committed = {committer_->readyFd(), POLLIN, 0};
        if (poll(&committed, 1, -1) < 0 && errno != EINTR) {
            logmsg_err(kLogModule, "poll: %s\n", std::strerror(errno));
            return false;
        }
        finishWrites();
    }
    return true;
}

bool Server::run(int stopFd, Pause* pause) {
    int requestFd = MSG_GetPollFd(endpoint_.c_str());
    pollfd watched[kPollSlotCount] = {};
    watched[kStopSlot] = {stopFd, POLLIN, 0};
    watched[kRequestSlot] = {requestFd, POLLIN, 0};
    watched[kCommittedSlot] = {committer_->readyFd(), POLLIN, 0};
    watched[kPauseSlot] = {pause != nullptr ? pause->fd() : -1, POLLIN, 0};
    if (requestFd < 0) {
        logmsg_err(kLogModule, "MSG_GetPollFd() failed; looking for requests every %d ms\n",
                   kIdlePollMs);
    }
    logmsg_info(kLogModule, "serving %s\n", endpoint_.c_str());
    bool moreRequests = false;
    bool healthy = true;
    for (;;) {
        int ready = poll(watched, kPollSlotCount, moreRequests ? 0 : kIdlePollMs);
        if (ready < 0 && errno != EINTR) {
            logmsg_err(kLogModule, "poll: %s\n", std::strerror(errno));
            healthy = false;
            break;
        }
        if (ready > 0 && watched[kStopSlot].revents != 0) {
            break;
        }
        if (ready > 0 && watched[kPauseSlot].revents != 0) {
            if (!drainWrites() || !pause->run(this)) {
                healthy = false;
                break;
            }
            watched[kCommittedSlot].fd = committer_->readyFd();
        }
        if (ready <= 0 || watched[kCommittedSlot].revents != 0) {
            finishWrites();
        }
        endIdleSubmissions();
        throttle_.tick();
        // Served after the writes, and with a cap: neither kind of work can starve the other.
        moreRequests = serveRequests();
        endSubmissionsOfClosedConnections();
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

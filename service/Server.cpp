#include "Server.h"

#include <poll.h>

#include <cerrno>
#include <cstring>

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

// What run() waits on, by slot of its poll set.
enum PollSlot { kStopSlot, kRequestSlot, kCommittedSlot, kPollSlotCount };

}  // namespace

const Server::Command Server::kCommands[] = {
    {ConfigProtocol::kReadReqMsgId, &Server::handleRead},
    {ConfigProtocol::kWriteReqMsgId, &Server::handleWrite},
};

Server::Server(const ConfigService& service, ValueStore* store, Committer* committer,
               const std::string& endpoint)
    : service_(service), store_(store), committer_(committer), endpoint_(endpoint) {}

Server::~Server() {
    if (open_) {
        MSG_CloseLocal(endpoint_.c_str());
    }
}

bool Server::open(std::string* error) {
    int status = MSG_OpenLocal(endpoint_.c_str());
    if (status != MSG_OK) {
        *error = "cannot open the endpoint " + endpoint_ + ": MSG_OpenLocal() failed " +
                 std::to_string(status);
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
    int status = MSG_SendMsg(endpoint_.c_str(), address, reply);
    if (status == MSG_ERR_PEER_GONE || status == MSG_ERR_NO_ROUTE) {
        logmsg_info(kLogModule, "client %u left before its answer\n", address);
    } else if (status == MSG_ERR_QUEUE_FULL) {
        logmsg_warn(kLogModule, "client %u does not read its answers: disconnected\n", address);
    } else if (status != MSG_OK) {
        logmsg_warn(kLogModule, "MSG_SendMsg() failed %d for client %u\n", status, address);
    }
}

void Server::handleRead(const MSG_Msg* request, const MSG_Sender& sender) {
    ConfigIF::ReadRsp response;
    service_.read(MSG_GetPayload(request), static_cast<size_t>(MSG_GetPayloadBytes(request)),
                  sender.uid, &response);
    if (response.error() == CommonIF::kErrBadParameter) {
        logmsg_warn(kLogModule, "unreadable ReadReq from pid %d uid %u\n",
                    static_cast<int>(sender.pid), static_cast<unsigned>(sender.uid));
    }
    send(sender.address, ConfigProtocol::kReadRspMsgId, response);
}

void Server::handleWrite(const MSG_Msg* request, const MSG_Sender& sender) {
    ConfigIF::WriteRsp response;
    PendingWrite write;
    if (!service_.checkWrite(MSG_GetPayload(request),
                             static_cast<size_t>(MSG_GetPayloadBytes(request)), sender.uid, &write,
                             &response)) {
        send(sender.address, ConfigProtocol::kWriteRspMsgId, response);
        return;
    }
    write.replyAddress = sender.address;
    std::string key = write.change.key;
    if (!committer_->submit(std::move(write))) {
        ConfigIF::ReturnMessage* message = response.mutable_ret_message();
        message->set_error(CommonIF::kErrOutOfResources);
        message->add_error_message("too many writes waiting for the disk; try again");
        logmsg_warn(kLogModule, "write of '%s' refused: too many writes pending\n", key.c_str());
        send(sender.address, ConfigProtocol::kWriteRspMsgId, response);
    }
}

void Server::dispatch(MSG_Msg* request) {
    MSG_Sender sender;
    uint32_t id = MSG_GetMsgId(request);
    if (MSG_GetSender(request, &sender) != MSG_OK) {
        logmsg_warn(kLogModule, "message 0x%08x without a sender dropped\n", id);
        return;
    }
    for (const Command& command : kCommands) {
        if (command.requestId == id) {
            (this->*command.handle)(request, sender);
            return;
        }
    }
    logmsg_warn(kLogModule, "unknown message id 0x%08x from pid %d dropped\n", id,
                static_cast<int>(sender.pid));
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
        if (done.committed) {
            store_->apply(done.write.change);
        } else {
            logmsg_err(kLogModule, "write of '%s' not stored: %s\n", done.write.change.key.c_str(),
                       done.error.c_str());
        }
        ConfigIF::WriteRsp response;
        ConfigService::answerCommitted(done, &response);
        send(done.write.replyAddress, ConfigProtocol::kWriteRspMsgId, response);
    }
}

bool Server::run(int stopFd) {
    int requestFd = MSG_GetPollFd(endpoint_.c_str());
    pollfd watched[kPollSlotCount] = {};
    watched[kStopSlot] = {stopFd, POLLIN, 0};
    watched[kRequestSlot] = {requestFd, POLLIN, 0};
    watched[kCommittedSlot] = {committer_->readyFd(), POLLIN, 0};
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
        if (ready <= 0 || watched[kCommittedSlot].revents != 0) {
            finishWrites();
        }
        // Served after the writes, and with a cap: neither kind of work can starve the other.
        moreRequests = serveRequests();
    }
    logmsg_info(kLogModule, "stopping: answering the writes already submitted\n");
    committer_->stop();
    finishWrites();
    MSG_CloseLocal(endpoint_.c_str());
    open_ = false;
    return healthy;
}

}  // namespace configsrvc

#include "ConfigSession.h"

#include <cstring>

// Only for the conversion of the typed requests to MessageLite: the library itself uses no
// message class, so their code stays in the programs (see CMakeLists.txt).
#include "Common/protobuf/v3/configservice.pb.h"

namespace configclient {

namespace {

// The libmsgpass status that stands for a failed MSG_AllocMsg of `bytes`.
int allocFailure(size_t bytes) {
    return bytes > MSG_MAX_PAYLOAD_BYTES ? MSG_ERR_TOO_BIG : MSG_ERR_NO_MEMORY;
}

}  // namespace

ConfigSession::ConfigSession() = default;

ConfigSession::~ConfigSession() {
    if (opened_) {
        MSG_CloseLocal(name_.c_str());
    }
}

ConfigSession::Status ConfigSession::connect(const std::string& clientName, int timeoutMs,
                                             const std::string& serviceName) {
    if (opened_) {
        return connected() ? kOk : kNotConnected;
    }
    transportStatus_ = MSG_OpenLocal(clientName.c_str());
    if (transportStatus_ != MSG_OK) {
        return kNotConnected;
    }
    name_ = clientName;
    opened_ = true;
    transportStatus_ = MSG_OpenRemoteSync(name_.c_str(), serviceName.c_str(), timeoutMs, &address_);
    if (transportStatus_ != MSG_OK) {
        address_ = 0;
        return kNotConnected;
    }
    return kOk;
}

// Sends with flags 0: a client makes one request at a time, so waiting for the socket to take
// it costs nothing and keeps no queue of ours.
ConfigSession::Status ConfigSession::send(MSG_Msg* message) {
    transportStatus_ = MSG_SendMsg(name_.c_str(), address_, message);
    return transportStatus_ == MSG_OK ? kOk : kSendFailed;
}

ConfigSession::Status ConfigSession::call(uint32_t requestId,
                                          const google::protobuf::MessageLite& request,
                                          uint32_t responseId,
                                          google::protobuf::MessageLite* response, int timeoutMs) {
    if (!connected()) {
        return kNotConnected;
    }
    ConfigProtocol::EncodeFailure failure = ConfigProtocol::kEncodedFine;
    MSG_Msg* message = ConfigProtocol::encodeMessage(requestId, 0, request, &failure);
    if (message == nullptr) {
        transportStatus_ =
            failure == ConfigProtocol::kAllocFailed ? allocFailure(request.ByteSizeLong()) : MSG_OK;
        return kSendFailed;
    }
    const Status sent = send(message);
    return sent == kOk ? receive(responseId, response, timeoutMs) : sent;
}

#define CONFIG_SESSION_DEFINE_CALL(method, Type)                                                   \
    ConfigSession::Status ConfigSession::method(const ConfigIF::Type##Req& request,                \
                                                ConfigIF::Type##Rsp* response, int timeoutMs) {    \
        return call(ConfigProtocol::k##Type##ReqMsgId, request, ConfigProtocol::k##Type##RspMsgId, \
                    response, timeoutMs);                                                          \
    }
CONFIG_SESSION_CALLS(CONFIG_SESSION_DEFINE_CALL)
#undef CONFIG_SESSION_DEFINE_CALL

// Both commands have no fields, so their encoding is empty.
ConfigSession::Status ConfigSession::flushAll() {
    return sendRaw(ConfigProtocol::kFlushAllCmdMsgId, "");
}

ConfigSession::Status ConfigSession::clearConfig() {
    return sendRaw(ConfigProtocol::kClearConfigCmdMsgId, "");
}

ConfigSession::Status ConfigSession::sendRaw(uint32_t msgId, const std::string& bytes) {
    if (!connected()) {
        return kNotConnected;
    }
    MSG_Msg* message = MSG_AllocMsg(msgId, 0, static_cast<uint32_t>(bytes.size()));
    if (message == nullptr) {
        transportStatus_ = allocFailure(bytes.size());
        return kSendFailed;
    }
    if (!bytes.empty()) {
        std::memcpy(MSG_GetPayloadMutable(message), bytes.data(), bytes.size());
    }
    return send(message);
}

ConfigSession::Status ConfigSession::receive(uint32_t responseId,
                                             google::protobuf::MessageLite* response,
                                             int timeoutMs) {
    if (!connected()) {
        return kNotConnected;
    }
    MSG_Msg* answer = MSG_RecvMsg(name_.c_str(), responseId, timeoutMs);
    if (answer == nullptr) {
        return kNoAnswer;
    }
    const bool parsed = ConfigProtocol::decodeMessage(answer, response);
    MSG_ReleaseMsg(answer);
    return parsed ? kOk : kBadAnswer;
}

}  // namespace configclient

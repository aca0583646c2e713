#include "MsgEndpoint.h"

#include <unistd.h>

#include <cstdlib>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "LogStream.h"
#include "msgpass.h"

namespace {
// libmsgpass's answer when there was no local endpoint left to close: nothing went wrong.
const int kNothingToClose = 302;
}  // namespace

MsgEndpoint::MsgEndpoint()
    : localName("setvane-"), remoteName(ConfigProtocol::kServiceEndpoint), remoteAddress(0) {
    localName += std::to_string(getpid());

    LogStream& log = LogStream::instance();
    int status = MSG_DebugSetName(localName.c_str());
    if (status != 0) {
        log << "MSG_DebugSetName() failed " << status << '\n';
    }
    status = MSG_OpenLocal(localName.c_str());
    if (status != 0) {
        log << "MSG_OpenLocal() failed " << status << '\n';
        std::exit(1);
    }
    status =
        MSG_OpenRemoteSync(localName.c_str(), remoteName.c_str(), kConnectTimeout, &remoteAddress);
    if (status != 0) {
        log << "MSG_OpenRemoteSync() failed " << status << '\n';
        std::exit(1);
    }
}

MsgEndpoint::~MsgEndpoint() {
    const int status = MSG_CloseLocal(nullptr);
    if (status != 0 && status != kNothingToClose) {
        LogStream::instance() << "MSG_CloseLocal() failed " << status << '\n';
    }
}

int MsgEndpoint::send(uint32_t msgId, const google::protobuf::Message& message) {
    ConfigProtocol::EncodeFailure failure;
    MSG_Msg* handle = ConfigProtocol::encodeMessage(msgId, 0, message, &failure);
    if (handle == nullptr) {
        LogStream::instance() << (failure == ConfigProtocol::kAllocFailed
                                      ? "MSG_AllocMsg() failed\n"
                                      : "SerializeToArray() failed\n");
        return -1;
    }
    // From here on the handle is the library's, whatever MSG_SendMsg answers.
    const int status = MSG_SendMsg(localName.c_str(), remoteAddress, handle);
    if (status != 0) {
        LogStream::instance() << "MSG_SendMsg() failed " << status << '\n';
    }
    return status;
}

int MsgEndpoint::receive(uint32_t msgId, google::protobuf::Message& message) {
    MSG_Msg* handle = MSG_RecvMsg(localName.c_str(), msgId, kReceiveTimeout);
    if (handle == nullptr) {
        LogStream::instance() << "MSG_RecvMsg() failed\n";
        return -1;
    }
    const bool parsed = ConfigProtocol::decodeMessage(handle, &message);
    if (!parsed) {
        LogStream::instance() << "ParseFromArray() failed\n";
    }
    MSG_ReleaseMsg(handle);
    return parsed ? 0 : -1;
}

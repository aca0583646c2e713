// MsgEndpoint: this process's attachment to the configuration service over libmsgpass.
//
// Construction opens the local endpoint "setvane-<pid>" and connects it to "ConfigSrvc"; when
// either step fails the reason is logged and the process ends with status 1, so a constructed
// endpoint is always connected. Destruction closes the local endpoint.
//
// send and receive carry one protobuf message each, framed as its plain binary encoding under
// a message id. Each failure is logged once, where it is found; results are 0, -1 for a
// failure found here, or libmsgpass's own non-zero status.
#ifndef SETVANE_TOOL_TRANSPORT_MSGENDPOINT_H
#define SETVANE_TOOL_TRANSPORT_MSGENDPOINT_H

#include <cstdint>
#include <string>

#include <google/protobuf/message.h>

class MsgEndpoint {
  public:
    // Time-outs handed to libmsgpass, in its own unit.
    static const int kConnectTimeout = 5000;
    static const int kReceiveTimeout = 10000;

    MsgEndpoint();
    virtual ~MsgEndpoint();

    // Encodes `message` into a new libmsgpass message of id `msgId` and sends it to the service.
    // The libmsgpass message belongs to the library once handed to MSG_SendMsg, even on failure.
    int send(uint32_t msgId, const google::protobuf::Message& message);

    // Waits for the service's message of id `msgId` and parses its payload into `message`.
    // After a failed parse `message` may hold part of the payload.
    int receive(uint32_t msgId, google::protobuf::Message& message);

    std::string localName;
    std::string remoteName;
    uint32_t remoteAddress;
};

#endif  // SETVANE_TOOL_TRANSPORT_MSGENDPOINT_H

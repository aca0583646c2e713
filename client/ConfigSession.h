// ConfigSession: one client's conversation with the configuration service, one request at a time.
//
// A session owns a local libmsgpass endpoint of its own name and one connection from it to the
// service's endpoint. Requests and answers are the protocol's messages, carried under the ids of
// ConfigProtocol.h; the caller builds the requests and reads the answers.
//
// Results: every operation returns a Status and never throws. A session whose connect() failed
// stays unconnected, and every request on it answers kNotConnected.
//
// Answers: call() takes the first message of the response id that arrives, so an answer that
// arrives after its call gave up (kNoAnswer) would be taken by the next call of that id. After
// kNoAnswer, drop the session unless the service is known to be gone.
//
// Threads: a session serves one thread at a time. Sessions of different names may be used from
// different threads at once. Endpoints are looked up in $MSGPASS_DIR as libmsgpass does.
#ifndef CLIENT_CONFIGSESSION_H
#define CLIENT_CONFIGSESSION_H

#include <cstdint>
#include <string>

#include "Common/protobuf/v3/ConfigProtocol.h"

// Every request a client sends and the response it waits for: X(method, Type) stands for the
// pair ConfigIF::TypeReq / ConfigIF::TypeRsp, called with method().
#define CONFIG_SESSION_CALLS(X)                               \
    X(read, Read)                                             \
    X(write, Write)                                           \
    X(batchRead, BatchRead)                                   \
    X(validate, Validate)                                     \
    X(getAttribute, GetAttribute)                             \
    X(setAttribute, SetAttribute)                             \
    X(readAttributes, ReadAttributes)                         \
    X(resetAttribute, ResetAttribute)                         \
    X(getAttributeOptions, GetAttributeOptions)               \
    X(getDefaultOptions, GetDefaultOptions)                   \
    X(setAttributeOptions, SetAttributeOptions)               \
    X(getAccessLevels, GetAccessLevels)                       \
    X(setAccessLevels, SetAccessLevels)                       \
    X(getValueOptionsAccess, GetValueOptionsAccess)           \
    X(batchGetValueOptionsAccess, BatchGetValueOptionsAccess) \
    X(resetValue, ResetValue)                                 \
    X(resetNodeValue, ResetNodeValue)                         \
    X(submit, Submit)                                         \
    X(componentChange, ComponentChange)                       \
    X(createProfile, CreateProfile)                           \
    X(applyProfile, ApplyProfile)                             \
    X(registerClientCallback, RegisterClientCallback)         \
    X(unregisterClientCallback, UnregisterClientCallback)     \
    X(unregisterAllClientCallbacks, UnregisterAllClientCallbacks)

namespace ConfigIF {
#define CONFIG_SESSION_DECLARE_TYPES(method, Type) \
    class Type##Req;                               \
    class Type##Rsp;
CONFIG_SESSION_CALLS(CONFIG_SESSION_DECLARE_TYPES)
#undef CONFIG_SESSION_DECLARE_TYPES
}  // namespace ConfigIF

namespace configclient {

class ConfigSession {
  public:
    enum Status {
        kOk = 0,
        kNotConnected,  // connect() has not succeeded
        kSendFailed,    // the request could not be encoded or sent (see transportStatus())
        kNoAnswer,      // no answer within the time-out, or the service closed the connection
        kBadAnswer,     // an answer came but does not parse as the response expected
    };

    ConfigSession();
    // Closes the local endpoint and with it the connection.
    virtual ~ConfigSession();
    ConfigSession(const ConfigSession&) = delete;
    ConfigSession& operator=(const ConfigSession&) = delete;

    // Opens the local endpoint `clientName` and connects it to `serviceName`, waiting up to
    // `timeoutMs` for the service to appear and accept. kOk, or kNotConnected with the
    // libmsgpass status in transportStatus(). A session connects once.
    Status connect(const std::string& clientName, int timeoutMs,
                   const std::string& serviceName = ConfigProtocol::kServiceEndpoint);
    bool connected() const { return address_ != 0; }
    // The local endpoint's name (that of connect()), and the connection's libmsgpass address.
    const std::string& name() const { return name_; }
    uint32_t address() const { return address_; }

    // Sends `request` under `requestId` and waits up to `timeoutMs` for the message of
    // `responseId`, parsed into *response. kBadAnswer leaves *response partly filled.
    Status call(uint32_t requestId, const google::protobuf::MessageLite& request,
                uint32_t responseId, google::protobuf::MessageLite* response, int timeoutMs);

    // One call() per request of the protocol, with its ids, e.g.
    //   Status batchRead(const ConfigIF::BatchReadReq& request, ConfigIF::BatchReadRsp* response,
    //                    int timeoutMs);
#define CONFIG_SESSION_DECLARE_CALL(method, Type) \
    Status method(const ConfigIF::Type##Req& request, ConfigIF::Type##Rsp* response, int timeoutMs);
    CONFIG_SESSION_CALLS(CONFIG_SESSION_DECLARE_CALL)
#undef CONFIG_SESSION_DECLARE_CALL

    // The two commands without a response: sent, never answered.
    Status flushAll();
    Status clearConfig();

    // Sends `bytes` as they are, under any id: for what a well-behaved client never sends.
    Status sendRaw(uint32_t msgId, const std::string& bytes);
    // Waits up to `timeoutMs` for the next message of `responseId` and parses it: the second
    // half of call(), for answers to sendRaw().
    Status receive(uint32_t responseId, google::protobuf::MessageLite* response, int timeoutMs);

    // The libmsgpass status of the last step that failed (MSG_OK when none did).
    int transportStatus() const {
        return transportStatus_;
    }

  private:
    Status send(MSG_Msg* message);

    std::string name_;
    uint32_t address_ = 0;  // the connection to the service; 0 until connected
    bool opened_ = false;   // whether name_ is an endpoint of ours to close
    int transportStatus_ = MSG_OK;
};

}  // namespace configclient

#endif  // CLIENT_CONFIGSESSION_H

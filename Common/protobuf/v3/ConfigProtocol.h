// The configuration service protocol for C++ programs: the endpoint name, the message ids (from
// config_protocol.h, their one home), and the helpers that carry a protocol buffer message in a
// libmsgpass message and back.
//
// The helpers report which step failed and log nothing, so that every caller says it in its own
// words. They use only the libmsgpass operations a client needs (allocate, payload access,
// release). Header-only: the tool links the static protocol buffer runtime and the service the
// shared one, and each compiles these few lines against its own.
#ifndef COMMON_PROTOBUF_V3_CONFIGPROTOCOL_H
#define COMMON_PROTOBUF_V3_CONFIGPROTOCOL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

#include <google/protobuf/message_lite.h>

#include "Common/protobuf/v3/config_protocol.h"
#include "msgpass.h"

namespace ConfigProtocol {

constexpr char kServiceEndpoint[] = CONFIG_SERVICE_ENDPOINT;

#define CONFIG_PROTOCOL_CONSTANT(type, id) constexpr uint32_t k##type##MsgId = id;
CONFIG_PROTOCOL_MESSAGES(CONFIG_PROTOCOL_CONSTANT)
CONFIG_WATCH_MESSAGES(CONFIG_PROTOCOL_CONSTANT)
#undef CONFIG_PROTOCOL_CONSTANT

// Every message type with its id, in the order of the list.
struct MessageType {
    const char* name;  // the message's name in configservice.proto, without the package
    uint32_t id;
};
#define CONFIG_PROTOCOL_ENTRY(type, id) {#type, id},
constexpr MessageType kMessageTypes[] = {CONFIG_PROTOCOL_MESSAGES(CONFIG_PROTOCOL_ENTRY)};
// The same for the extension of configwatch.proto (package ConfigWatch).
constexpr MessageType kWatchMessageTypes[] = {CONFIG_WATCH_MESSAGES(CONFIG_PROTOCOL_ENTRY)};
#undef CONFIG_PROTOCOL_ENTRY

// The id of the message type called `name` ("ReadRsp"), in either list, or 0 when the protocol
// has none.
inline uint32_t messageIdOf(const std::string& name) {
    for (const MessageType& type : kMessageTypes) {
        if (name == type.name) {
            return type.id;
        }
    }
    for (const MessageType& type : kWatchMessageTypes) {
        if (name == type.name) {
            return type.id;
        }
    }
    return 0;
}

// The name of the message type of id `msgId`, or null when the protocol has none.
inline const char* messageNameOf(uint32_t msgId) {
    for (const MessageType& type : kMessageTypes) {
        if (type.id == msgId) {
            return type.name;
        }
    }
    for (const MessageType& type : kWatchMessageTypes) {
        if (type.id == msgId) {
            return type.name;
        }
    }
    return nullptr;
}

namespace detail {

constexpr size_t lengthOf(const char* text) {
    size_t length = 0;
    while (text[length] != '\0') {
        ++length;
    }
    return length;
}

// Whether `response` is `request` with its "Req" suffix turned into "Rsp".
constexpr bool answers(const char* response, const char* request) {
    const size_t length = lengthOf(request);
    if (length < 3 || lengthOf(response) != length) {
        return false;
    }
    for (size_t i = 0; i + 3 < length; ++i) {
        if (response[i] != request[i]) {
            return false;
        }
    }
    const char* tail = request + length - 3;
    const char* answerTail = response + length - 3;
    return tail[0] == 'R' && tail[1] == 'e' && tail[2] == 'q' && answerTail[0] == 'R' &&
           answerTail[1] == 's' && answerTail[2] == 'p';
}

struct Exchange {
    uint32_t request;
    uint32_t response;  // 0: the request has no response in the protocol, or is no request
};

constexpr size_t kTypeCount = std::size(kMessageTypes) + std::size(kWatchMessageTypes);

constexpr const MessageType& typeAt(size_t i) {
    return i < std::size(kMessageTypes) ? kMessageTypes[i]
                                        : kWatchMessageTypes[i - std::size(kMessageTypes)];
}

// Paired once, when compiling: the service asks for every message it receives.
constexpr std::array<Exchange, kTypeCount> pairRequests() {
    std::array<Exchange, kTypeCount> exchanges{};
    for (size_t i = 0; i < kTypeCount; ++i) {
        exchanges[i] = {typeAt(i).id, 0};
        for (size_t j = 0; j < kTypeCount; ++j) {
            if (answers(typeAt(j).name, typeAt(i).name)) {
                exchanges[i].response = typeAt(j).id;
            }
        }
    }
    return exchanges;
}

constexpr std::array<Exchange, kTypeCount> kExchanges = pairRequests();

}  // namespace detail

// The id of the response to the request of id `requestId` ("ReadReq" -> "ReadRsp"), or 0 when
// that id is no request or its response is not in the protocol.
constexpr uint32_t responseIdOf(uint32_t requestId) {
    for (const detail::Exchange& exchange : detail::kExchanges) {
        if (exchange.request == requestId) {
            return exchange.response;
        }
    }
    return 0;
}

// The step of encodeMessage that failed.
enum EncodeFailure {
    kEncodedFine = 0,
    kAllocFailed,      // MSG_AllocMsg returned no handle
    kSerializeFailed,  // the message did not serialise (a required field is missing)
};

// A new libmsgpass message of id `msgId` and MSG_AllocMsg `flags` holding `message`'s binary
// encoding, or null with the failed step in *failure. The caller owns the handle (MSG_SendMsg or
// MSG_ReleaseMsg).
inline MSG_Msg* encodeMessage(uint32_t msgId, int flags,
                              const google::protobuf::MessageLite& message,
                              EncodeFailure* failure) {
    const size_t size = message.ByteSizeLong();
    MSG_Msg* handle = MSG_AllocMsg(msgId, flags, static_cast<uint32_t>(size));
    if (handle == nullptr) {
        *failure = kAllocFailed;
        return nullptr;
    }
    // The sizes ByteSizeLong() cached are used: a second size pass would cost as much again.
    auto* payload = static_cast<uint8_t*>(MSG_GetPayloadMutable(handle));
    if (!message.IsInitialized() ||
        message.SerializeWithCachedSizesToArray(payload) != payload + size) {
        MSG_ReleaseMsg(handle);
        *failure = kSerializeFailed;
        return nullptr;
    }
    *failure = kEncodedFine;
    return handle;
}

// Parses the payload of `handle` into `message`; false when it does not parse (then `message`
// may hold part of it). The handle stays the caller's.
inline bool decodeMessage(const MSG_Msg* handle, google::protobuf::MessageLite* message) {
    const void* payload = MSG_GetPayload(handle);  // in this order: the tool's calls are pinned
    const int bytes = MSG_GetPayloadBytes(handle);
    return message->ParseFromArray(payload, bytes);
}

}  // namespace ConfigProtocol

#endif  // COMMON_PROTOBUF_V3_CONFIGPROTOCOL_H

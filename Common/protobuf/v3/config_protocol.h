/* The configuration service protocol's shared facts: the endpoint the service listens on and the
 * message id that each message type travels under. The id is the only type information a message
 * carries, so every program of the project takes them from here; C programs use this header
 * directly, C++ programs through ConfigProtocol.h.
 *
 * CONFIG_PROTOCOL_MESSAGES(X) calls X(Type, id) once per message type, Type being the message's
 * name in configservice.proto. The ids are fixed: a client built against an older list must keep
 * working, so an id is never changed or reused. */
#ifndef COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H
#define COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H

/* The name under which the configuration service opens its endpoint. */
#define CONFIG_SERVICE_ENDPOINT "ConfigSrvc"

#define CONFIG_PROTOCOL_MESSAGES(X) \
    X(ReadReq, 0x001A0000u)         \
    X(ReadRsp, 0x001A0041u)         \
    X(WriteReq, 0x001A0080u)        \
    X(WriteRsp, 0x001A0191u)

/* For C: enumerators kReadReqMsgId, kReadRspMsgId, ... */
#ifndef __cplusplus
#define CONFIG_PROTOCOL_ENUMERATOR(type, id) k##type##MsgId = id,
enum { CONFIG_PROTOCOL_MESSAGES(CONFIG_PROTOCOL_ENUMERATOR) };
#undef CONFIG_PROTOCOL_ENUMERATOR
#endif

#endif /* COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H */

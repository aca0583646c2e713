/* The configuration service protocol's shared facts: the endpoint the service listens on and the
 * message id that each message type travels under. The id is the only type information a message
 * carries, so every program of the project takes them from here; C programs use this header
 * directly, C++ programs through ConfigProtocol.h.
 *
 * CONFIG_PROTOCOL_MESSAGES(X) calls X(Type, id) once per message type that travels on its own
 * (every request, response, command and notification of configservice.proto, in its declaration
 * order), Type being the message's name there. Messages that only travel inside others (Node,
 * Inst, ReturnMessage, ...) have no id. The ids are fixed: a program built against an older list
 * must keep working, so an id is never changed or reused. Read, write and their responses keep
 * the ids the device's tools were built with (upper half 0x001A, lower halves in no pattern);
 * every other type has 0x001A1000 plus its place in this list, counting from 1. */
#ifndef COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H
#define COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H

/* The name under which the configuration service opens its endpoint. */
#define CONFIG_SERVICE_ENDPOINT "ConfigSrvc"

#define CONFIG_PROTOCOL_MESSAGES(X)                 \
    X(ComponentChangeReq, 0x001A1001u)              \
    X(ComponentChangeRsp, 0x001A1002u)              \
    X(CreateProfileReq, 0x001A1003u)                \
    X(CreateProfileRsp, 0x001A1004u)                \
    X(ApplyProfileReq, 0x001A1005u)                 \
    X(ApplyProfileRsp, 0x001A1006u)                 \
    X(ReadReq, 0x001A0000u)                         \
    X(ReadRsp, 0x001A0041u)                         \
    X(BatchReadReq, 0x001A1007u)                    \
    X(BatchReadRsp, 0x001A1008u)                    \
    X(WriteReq, 0x001A0080u)                        \
    X(WriteRsp, 0x001A0191u)                        \
    X(ValidateReq, 0x001A1009u)                     \
    X(ValidateRsp, 0x001A100Au)                     \
    X(GetAttributeReq, 0x001A100Bu)                 \
    X(GetAttributeRsp, 0x001A100Cu)                 \
    X(SetAttributeReq, 0x001A100Du)                 \
    X(SetAttributeRsp, 0x001A100Eu)                 \
    X(ReadAttributesReq, 0x001A100Fu)               \
    X(ReadAttributesRsp, 0x001A1010u)               \
    X(GetAttributeOptionsReq, 0x001A1011u)          \
    X(GetAttributeOptionsRsp, 0x001A1012u)          \
    X(GetDefaultOptionsReq, 0x001A1013u)            \
    X(GetDefaultOptionsRsp, 0x001A1014u)            \
    X(SetAttributeOptionsReq, 0x001A1015u)          \
    X(SetAttributeOptionsRsp, 0x001A1016u)          \
    X(GetAccessLevelsReq, 0x001A1017u)              \
    X(GetAccessLevelsRsp, 0x001A1018u)              \
    X(SetAccessLevelsReq, 0x001A1019u)              \
    X(GetValueOptionsAccessReq, 0x001A101Au)        \
    X(GetValueOptionsAccessRsp, 0x001A101Bu)        \
    X(BatchGetValueOptionsAccessReq, 0x001A101Cu)   \
    X(BatchGetValueOptionsAccessRsp, 0x001A101Du)   \
    X(SetAccessLevelsRsp, 0x001A101Eu)              \
    X(ResetValueReq, 0x001A101Fu)                   \
    X(ResetValueRsp, 0x001A1020u)                   \
    X(ResetAttributeReq, 0x001A1021u)               \
    X(ResetAttributeRsp, 0x001A1022u)               \
    X(SubmitReq, 0x001A1023u)                       \
    X(SubmitRsp, 0x001A1024u)                       \
    X(ResetNodeValueReq, 0x001A1025u)               \
    X(ResetNodeValueRsp, 0x001A1026u)               \
    X(FlushAllCmd, 0x001A1027u)                     \
    X(ClearConfigCmd, 0x001A1028u)                  \
    X(RegisterClientCallbackReq, 0x001A1029u)       \
    X(RegisterClientCallbackRsp, 0x001A102Au)       \
    X(UnregisterClientCallbackReq, 0x001A102Bu)     \
    X(UnregisterClientCallbackRsp, 0x001A102Cu)     \
    X(UnregisterAllClientCallbacksReq, 0x001A102Du) \
    X(UnregisterAllClientCallbacksRsp, 0x001A102Eu) \
    X(DynamicValidateReq, 0x001A102Fu)              \
    X(DynamicValidateRsp, 0x001A1030u)              \
    X(OnChangeReq, 0x001A1031u)                     \
    X(OnChangeRsp, 0x001A1032u)                     \
    X(ConfigChangedNtfy, 0x001A1033u)               \
    X(AttributeChangedNtfy, 0x001A1034u)            \
    X(OptionsChangedNtfy, 0x001A1035u)              \
    X(AccessLevelChangedNtfy, 0x001A1036u)          \
    X(SubmitNtfy, 0x001A1037u)

/* CONFIG_WATCH_MESSAGES(X): the same for configwatch.proto, the service's own extension for
 * watching changes without a gap (sequence numbers, resuming after a reconnect). Its ids are
 * 0x001A2000 plus the place in this list, and are fixed as well. */
#define CONFIG_WATCH_MESSAGES(X)      \
    X(CommitMarkNtfy, 0x001A2001u)    \
    X(WatchResumeReq, 0x001A2002u)    \
    X(WatchResumeRsp, 0x001A2003u)    \
    X(ResyncNtfy, 0x001A2004u)

/* For C: enumerators kReadReqMsgId, kReadRspMsgId, ... */
#ifndef __cplusplus
#define CONFIG_PROTOCOL_ENUMERATOR(type, id) k##type##MsgId = id,
enum { CONFIG_PROTOCOL_MESSAGES(CONFIG_PROTOCOL_ENUMERATOR) };
enum { CONFIG_WATCH_MESSAGES(CONFIG_PROTOCOL_ENUMERATOR) };
#undef CONFIG_PROTOCOL_ENUMERATOR
#endif

#endif /* COMMON_PROTOBUF_V3_CONFIG_PROTOCOL_H */

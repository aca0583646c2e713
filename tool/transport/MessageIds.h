// Message ids of the configuration service protocol used by this tool. The id is the only type
// information a message carries. The values are the protocol's (Common/protobuf/v3), checked
// against its list when the tool is compiled.
#ifndef SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H
#define SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H

#include <cstdint>

#include "Common/protobuf/v3/config_protocol.h"

const uint32_t kReadReqMsgId = 0x001A0000;   // ConfigIF.ReadReq, to the service
const uint32_t kReadRspMsgId = 0x001A0041;   // ConfigIF.ReadRsp, from the service
const uint32_t kWriteReqMsgId = 0x001A0080;  // ConfigIF.WriteReq, to the service
const uint32_t kWriteRspMsgId = 0x001A0191;  // ConfigIF.WriteRsp, from the service

namespace setvane_message_ids {
#define SETVANE_PROTOCOL_ID(type, id) constexpr uint32_t k##type = id;
CONFIG_PROTOCOL_MESSAGES(SETVANE_PROTOCOL_ID)
#undef SETVANE_PROTOCOL_ID
static_assert(kReadReqMsgId == kReadReq && kReadRspMsgId == kReadRsp &&
                  kWriteReqMsgId == kWriteReq && kWriteRspMsgId == kWriteRsp,
              "the tool's message ids differ from the protocol's");
}  // namespace setvane_message_ids

#endif  // SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H

// Message ids of the configuration service protocol used by this tool. The id is the only type
// information a message carries; the values are fixed by the service and follow no pattern.
#ifndef SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H
#define SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H

#include <cstdint>

const uint32_t kReadReqMsgId = 0x001A0000;   // ConfigIF.ReadReq, to the service
const uint32_t kReadRspMsgId = 0x001A0041;   // ConfigIF.ReadRsp, from the service
const uint32_t kWriteReqMsgId = 0x001A0080;  // ConfigIF.WriteReq, to the service
const uint32_t kWriteRspMsgId = 0x001A0191;  // ConfigIF.WriteRsp, from the service

#endif  // SETVANE_TOOL_TRANSPORT_MESSAGEIDS_H

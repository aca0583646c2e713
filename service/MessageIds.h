// Message ids of the configuration service protocol: the only type information a message
// carries. The lower halves follow no pattern and are taken as they stand.
#ifndef CONFIGSRVC_MESSAGE_IDS_H
#define CONFIGSRVC_MESSAGE_IDS_H

#include <cstdint>

namespace configsrvc {

constexpr uint32_t kReadReqMsgId = 0x001A0000;
constexpr uint32_t kReadRspMsgId = 0x001A0041;
constexpr uint32_t kWriteReqMsgId = 0x001A0080;
constexpr uint32_t kWriteRspMsgId = 0x001A0191;

// The name clients connect to.
constexpr char kServiceEndpoint[] = "ConfigSrvc";

}  // namespace configsrvc

#endif  // CONFIGSRVC_MESSAGE_IDS_H

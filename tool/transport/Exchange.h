// One request/response transaction over the tool's endpoint.
#ifndef SETVANE_TOOL_TRANSPORT_EXCHANGE_H
#define SETVANE_TOOL_TRANSPORT_EXCHANGE_H

#include <cstdint>

#include <google/protobuf/message.h>

#include "transport/MsgEndpoint.h"

// Sends `request` under `requestId` and fills `response` from the reply of `responseId`, tracing
// both on standard error while debugTrace is set. Returns 0 or the status of the first step that
// failed (already reported on the LogStream); after a failure `response` must not be used.
int exchangeMessages(MsgEndpoint& endpoint, uint32_t requestId,
                     const google::protobuf::Message& request, uint32_t responseId,
                     google::protobuf::Message& response);

#endif  // SETVANE_TOOL_TRANSPORT_EXCHANGE_H

#include "transport/Exchange.h"

#include "transport/DebugTrace.h"

int exchangeMessages(MsgEndpoint& endpoint, uint32_t requestId,
                     const google::protobuf::Message& request, uint32_t responseId,
                     google::protobuf::Message& response) {
    if (debugTrace) {
        traceMessage("sending", request, "to", endpoint.remoteName);
    }
    int status = endpoint.send(requestId, request);
    if (status != 0) {
        return status;
    }
    status = endpoint.receive(responseId, response);
    if (status != 0) {
        return status;
    }
    if (debugTrace) {
        traceMessage("received", response, "from", endpoint.remoteName);
    }
    return 0;
}

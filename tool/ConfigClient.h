// ConfigClient: the tool's one client of the configuration service.
//
// Constructing it connects to the service (or ends the process, see MsgEndpoint). Each
// operation is one request/response transaction and returns 0, the exchange's failure status
// (already reported), or the service's non-zero error code (reported here as one LogStream line).
#ifndef SETVANE_TOOL_CONFIGCLIENT_H
#define SETVANE_TOOL_CONFIGCLIENT_H

#include <cstdint>

#include <google/protobuf/message.h>

#include "Common/protobuf/v3/configservice.pb.h"
#include "transport/MsgEndpoint.h"

class ConfigClient {
  public:
    ConfigClient() {}
    virtual ~ConfigClient() {}

    // Reads `instance` and prints each value on its own line on standard output.
    // A null clientName sends the endpoint's own name; an unknown roleName ends the process.
    int read(const char* clientName, const char* roleName, const ConfigIF::Inst& instance);

    // Writes the values of `instanceValue` (possibly none) to its instance. Prints nothing on
    // success; a reboot the service asks for is not acted on.
    int write(const char* clientName, const char* roleName,
              const ConfigIF::InstValue& instanceValue);

    // One transaction over `endpoint`: see exchangeMessages (transport/Exchange.h).
    int exchange(uint32_t requestId, const google::protobuf::Message& request, uint32_t responseId,
                 google::protobuf::Message& response);

    MsgEndpoint endpoint;

  private:
    const char* nameToSend(const char* clientName) const;
};

#endif  // SETVANE_TOOL_CONFIGCLIENT_H

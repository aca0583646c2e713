// Service: vanectl's one session with the configuration service, and how its failures are told.
//
// Every failure is reported where it is found, as one line on standard error that names the path
// it is about and gives the reason ("vanectl: audio.volume: value 101 of 'volume' is above the
// maximum 100 (kErrBadParameter)"), and comes back as the process's exit status: 1 for usage and
// set-up errors, -1 (seen as 255) when the service does not answer, otherwise the service's
// error code, as setvane ends.
//
// Threads: one thread at a time, like the session it owns.
#ifndef VANECTL_SERVICE_H
#define VANECTL_SERVICE_H

#include <string>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"

namespace vanectl {

const int kUsageStatus = 1;
const int kTransportStatus = -1;

// Prints "vanectl: SUBJECT: REASON" on standard error (no subject: "vanectl: REASON").
void reportLine(const std::string& subject, const std::string& reason);
// Reports a usage error and returns kUsageStatus.
int usageError(const std::string& subject, const std::string& reason);

// The schema's name of `error` ("kErrItemNotFound", "kNotEnabled"), or its number.
std::string errorName(int error);

class Service {
  public:
    struct Settings {
        std::string clientName;  // sent as each request's `name`; empty: the endpoint's name
        CommonIF::eSecurityRole role = CommonIF::kUser;
        int timeoutMs = 10000;  // for the connection and for each answer
    };

    explicit Service(const Settings& settings);
    virtual ~Service() {}

    // Opens the endpoint "vanectl-<pid>" and connects to the service: 0, or kUsageStatus after
    // the reason was reported (as setvane: a failed set-up is a status-1 error).
    int connect();

    // Sends `request` through `method` with this session's name and role filled in and waits for
    // the answer: 0, or kTransportStatus after reporting it against `subject`.
    template <typename Request, typename Response>
    int call(configclient::ConfigSession::Status (configclient::ConfigSession::*method)(
                 const Request&, Response*, int),
             Request& request, Response* response, const std::string& subject) {
        request.set_name(clientName());
        request.set_role(settings_.role);
        return transportResult((session_.*method)(request, response, settings_.timeoutMs), subject);
    }

    // Reports the service's `error` about `subject` with `reason` (the service's own words, or ""
    // for the usual meaning of the code) and returns it; 0 for kErrNoError, unreported.
    int serviceError(int error, const std::string& subject, const std::string& reason = "") const;
    // A ReturnMessage's error, with its reason.
    int serviceError(const ConfigIF::ReturnMessage& message, const std::string& subject) const;

    const Settings& settings() const { return settings_; }
    configclient::ConfigSession& session() { return session_; }

  private:
    std::string clientName() const;
    int transportResult(configclient::ConfigSession::Status status, const std::string& subject);

    Settings settings_;
    std::string endpointName_;
    configclient::ConfigSession session_;
};

}  // namespace vanectl

#endif  // VANECTL_SERVICE_H

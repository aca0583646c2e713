#include "Service.h"

#include <unistd.h>

#include <cstdio>

namespace vanectl {

namespace {

// What a bare error code means, for the answers that carry no reason of their own.
std::string usualReason(int error, CommonIF::eSecurityRole role) {
    switch (error) {
        case CommonIF::kErrGenericError:
            return "the service failed to carry it out";
        case CommonIF::kErrOutOfMemory:
            return "the service ran out of memory";
        case CommonIF::kErrBadParameter:
            return "the service refused the request as malformed or out of range";
        case CommonIF::kErrBadState:
            return "refused in the service's current state";
        case CommonIF::kErrOutOfResources:
            return "more than the service takes at once";
        case CommonIF::kErrNotYetSupported:
            return "not supported by the service";
        case CommonIF::kErrItemNotFound:
            return "not in the model";
        case CommonIF::kErrNotAuthorized:
            return "not allowed for the role " + CommonIF::eSecurityRole_Name(role);
        case CommonIF::kErrAlreadyExists:
            return "already exists";
        case CommonIF::kErrTimeOut:
            return "the service timed out";
        case CommonIF::kNotEnabled:
            return "its component is detached";
        default:
            return "refused by the service";
    }
}

}  // namespace

void reportLine(const std::string& subject, const std::string& reason) {
    std::fflush(stdout);
    if (subject.empty()) {
        std::fprintf(stderr, "vanectl: %s\n", reason.c_str());
    } else {
        std::fprintf(stderr, "vanectl: %s: %s\n", subject.c_str(), reason.c_str());
    }
}

int usageError(const std::string& subject, const std::string& reason) {
    reportLine(subject, reason);
    return kUsageStatus;
}

std::string errorName(int error) {
    if (CommonIF::eErrorType_IsValid(error)) {
        return CommonIF::eErrorType_Name(static_cast<CommonIF::eErrorType>(error));
    }
    return std::to_string(error);
}

Service::Service(const Settings& settings)
    : settings_(settings), endpointName_("vanectl-" + std::to_string(getpid())) {}

int Service::connect() {
    if (session_.connect(endpointName_, settings_.timeoutMs) == configclient::ConfigSession::kOk) {
        return 0;
    }
    return usageError("", "cannot reach the configuration service " +
                              std::string(ConfigProtocol::kServiceEndpoint) + ": " +
                              MSG_StatusText(session_.transportStatus()));
}

std::string Service::clientName() const {
    return settings_.clientName.empty() ? endpointName_ : settings_.clientName;
}

int Service::transportResult(configclient::ConfigSession::Status status,
                             const std::string& subject) {
    switch (status) {
        case configclient::ConfigSession::kOk:
            return 0;
        case configclient::ConfigSession::kNoAnswer:
            reportLine(subject, "no answer from the configuration service within " +
                                    std::to_string(settings_.timeoutMs) + " ms");
            break;
        case configclient::ConfigSession::kBadAnswer:
            reportLine(subject, "the configuration service's answer does not parse");
            break;
        default:
            reportLine(subject, std::string("the request could not be sent: ") +
                                    MSG_StatusText(session_.transportStatus()));
            break;
    }
    return kTransportStatus;
}

int Service::serviceError(int error, const std::string& subject, const std::string& reason) const {
    if (error == CommonIF::kErrNoError) {
        return 0;
    }
    const std::string why = reason.empty() ? usualReason(error, settings_.role) : reason;
    reportLine(subject, why + " (" + errorName(error) + ")");
    return error;
}

int Service::serviceError(const ConfigIF::ReturnMessage& message,
                          const std::string& subject) const {
    std::string reason;
    for (const std::string& line : message.error_message()) {
        reason += (reason.empty() ? "" : "; ") + line;
    }
    return serviceError(message.error(), subject, reason);
}

}  // namespace vanectl

// The requests that register and unregister client callbacks (see Callbacks.h for what a
// registration covers, and PROTOCOL.md).
#include <algorithm>

#include "ConfigService.h"

namespace configsrvc {

using CommonIF::eErrorType;

namespace {

bool isWatch(ConfigIF::CallbackType type) {
    return type != ConfigIF::kDynamicValidator && type != ConfigIF::kOnChange;
}

std::string parentOf(const std::string& path) {
    const size_t dot = path.rfind('.');
    return dot == std::string::npos ? "" : path.substr(0, dot);
}

}  // namespace

eErrorType ConfigService::callbackOf(const std::string& name, CommonIF::eSecurityRole role,
                                     const std::string& path, int32_t instance,
                                     ConfigIF::CallbackType type, const Sender& sender,
                                     Registration* registration, std::string* reason) const {
    if (sender.callbacks == nullptr || sender.connection == 0) {
        *reason = "callbacks need a connection to be called on";
        return CommonIF::kErrBadState;
    }
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    if (!model_.findByPath(path, &node, &variable)) {
        *reason = noNode(path);
        return CommonIF::kErrItemNotFound;
    }
    // The instance is of the deepest node: the one named, or the variable's own.
    const NodeDef* counted = node;
    if (variable != nullptr) {
        const VariableDef* none = nullptr;
        model_.findByPath(parentOf(path), &counted, &none);
    }
    if (instance < 0 || (instance > 0 && (counted == nullptr || counted->path.empty() ||
                                          instance > counted->instances))) {
        *reason = "'" + printable(path, 200) + "' has no instance " + std::to_string(instance);
        return CommonIF::kErrBadParameter;
    }
    if (variable != nullptr) {
        const bool watch = isWatch(type);
        if (!reaches(role, watch ? variable->readLevel : variable->writeLevel,
                     watch ? "watch" : "validate or apply", path, reason)) {
            return CommonIF::kErrNotAuthorized;
        }
    }
    registration->connection = sender.connection;
    registration->name = name;
    registration->type = type;
    registration->path = path;
    registration->instance = instance;
    registration->instanceDepth =
        counted == nullptr || counted->path.empty()
            ? 0
            : static_cast<size_t>(std::count(counted->path.begin(), counted->path.end(), '.'));
    registration->role = role;
    registration->since = sender.changeIndex;
    return CommonIF::kErrNoError;
}

void ConfigService::registerCallback(const ConfigIF::RegisterClientCallbackReq& request,
                                     const Sender& sender,
                                     ConfigIF::RegisterClientCallbackRsp* response,
                                     Answer* answer) const {
    Registration registration;
    std::string reason;
    eErrorType error =
        callbackOf(request.name(), request.role(), request.node_name(), request.instance(),
                   request.type(), sender, &registration, &reason);
    if (error == CommonIF::kErrNoError) {
        registration.userContext = request.user_context();
        registration.skipName = request.validate_skipname();
        error = sender.callbacks->add(registration, &reason);
    }
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

void ConfigService::unregisterCallback(const ConfigIF::UnregisterClientCallbackReq& request,
                                       const Sender& sender,
                                       ConfigIF::UnregisterClientCallbackRsp* response,
                                       Answer* answer) const {
    Registration key;
    std::string reason;
    // Unregistering needs no level: it only ever takes away what the connection holds.
    eErrorType error = CommonIF::kErrNoError;
    if (sender.callbacks == nullptr) {
        error = CommonIF::kErrBadState;
        reason = "callbacks need a connection to be called on";
    } else {
        key.connection = sender.connection;
        key.name = request.name();
        key.type = request.type();
        key.path = request.node_name();
        key.instance = request.instance();
        error = sender.callbacks->remove(key, &reason);
    }
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

void ConfigService::unregisterAllCallbacks(const ConfigIF::UnregisterAllClientCallbacksReq& request,
                                           const Sender& sender,
                                           ConfigIF::UnregisterAllClientCallbacksRsp* response,
                                           Answer*) const {
    if (sender.callbacks != nullptr) {
        sender.callbacks->removeAll(sender.connection, request.name());
    }
    response->set_error(CommonIF::kErrNoError);
}

}  // namespace configsrvc

#include "ConfigService.h"

#include "ValueCheck.h"

namespace configsrvc {

namespace {

using CommonIF::eErrorType;

// Parses a request, telling a payload that is no such message apart from one that lacks
// required fields, in words for the client.
template <typename Request>
bool parseRequest(const void* payload, size_t bytes, Request* request, std::string* reason) {
    if (bytes > kMaxRequestBytes) {
        *reason = "request of " + std::to_string(bytes) + " bytes is larger than the " +
                  std::to_string(kMaxRequestBytes) + " accepted";
        return false;
    }
    if (!request->ParsePartialFromArray(payload, static_cast<int>(bytes))) {
        *reason = "request does not parse as " + request->GetTypeName();
        return false;
    }
    if (!request->IsInitialized()) {
        *reason = request->GetTypeName() +
                  " lacks required fields: " + request->InitializationErrorString();
        return false;
    }
    return true;
}

std::vector<PathStep> pathOf(const ConfigIF::Inst& instance) {
    std::vector<PathStep> path;
    path.reserve(instance.node_size());
    for (const ConfigIF::Node& node : instance.node()) {
        path.push_back({node.name(), node.instance()});
    }
    return path;
}

// The instance as the service answered it: the request's scope, the model's instance numbers.
void fillAnswered(const ConfigIF::Inst& requested, const ResolvedVariable& found,
                  ConfigIF::Inst* answered) {
    if (requested.has_scope()) {
        answered->set_scope(requested.scope());
    }
    for (const PathStep& step : found.answered) {
        ConfigIF::Node* node = answered->add_node();
        node->set_name(step.name);
        node->set_instance(step.instance);
    }
}

// A path for messages: the names as the client sent them, cut to stay readable.
std::string describePath(const ConfigIF::Inst& instance) {
    std::string text;
    for (const ConfigIF::Node& node : instance.node()) {
        if (text.size() > 200) {
            return text + "/...";
        }
        std::string name = node.name().substr(0, 64);
        for (char& c : name) {  // the reason must stay printable text whatever the client sent
            c = (c < 0x20 || c > 0x7e) ? '?' : c;
        }
        text += (text.empty() ? "" : "/") + name;
        if (node.instance() != 0) {
            text += " " + std::to_string(node.instance());
        }
    }
    return text;
}

void refuse(eErrorType error, const std::string& reason, ConfigIF::WriteRsp* response) {
    ConfigIF::ReturnMessage* message = response->mutable_ret_message();
    message->set_error(error);
    message->add_error_message(reason);
}

}  // namespace

ConfigService::ConfigService(const DeviceModel& model, const ValueStore& store, uid_t serviceUid)
    : model_(model), store_(store), serviceUid_(serviceUid) {}

ConfigService::~ConfigService() = default;

eErrorType ConfigService::checkClaim(CommonIF::eSecurityRole role, uid_t senderUid,
                                     std::string* reason) const {
    const CommonIF::eSecurityRole highest = model_.highestClaim(senderUid, serviceUid_);
    if (role > highest) {
        *reason = "uid " + std::to_string(senderUid) + " may not act as " +
                  CommonIF::eSecurityRole_Name(role) + " (at most " +
                  CommonIF::eSecurityRole_Name(highest) + ")";
        return CommonIF::kErrNotAuthorized;
    }
    return CommonIF::kErrNoError;
}

void ConfigService::read(const void* payload, size_t bytes, uid_t senderUid,
                         ConfigIF::ReadRsp* response) const {
    ConfigIF::ReadReq request;
    std::string reason;
    ResolvedVariable found;
    if (!parseRequest(payload, bytes, &request, &reason)) {
        response->set_error(CommonIF::kErrBadParameter);
        return;
    }
    if (checkClaim(request.role(), senderUid, &reason) != CommonIF::kErrNoError) {
        response->set_error(CommonIF::kErrNotAuthorized);
        return;
    }
    if (!model_.resolve(pathOf(request.instance()), &found)) {
        response->set_error(CommonIF::kErrItemNotFound);
        return;
    }
    if (request.role() < found.variable->readLevel) {
        response->set_error(CommonIF::kErrNotAuthorized);
        return;
    }
    const std::vector<std::string>* stored = store_.find(found.key);
    const std::vector<std::string>& values = stored ? *stored : found.variable->defaults;
    response->set_error(CommonIF::kErrNoError);
    for (const std::string& value : values) {
        response->add_value(value);
    }
    response->set_is_default(stored == nullptr);
    fillAnswered(request.instance(), found, response->mutable_instance());
}

bool ConfigService::checkWrite(const void* payload, size_t bytes, uid_t senderUid,
                               PendingWrite* write, ConfigIF::WriteRsp* response) const {
    ConfigIF::WriteReq request;
    std::string reason;
    ResolvedVariable found;
    if (!parseRequest(payload, bytes, &request, &reason)) {
        refuse(CommonIF::kErrBadParameter, reason, response);
        return false;
    }
    if (checkClaim(request.role(), senderUid, &reason) != CommonIF::kErrNoError) {
        refuse(CommonIF::kErrNotAuthorized, reason, response);
        return false;
    }
    const ConfigIF::InstValue& target = request.instance_val();
    if (!model_.resolve(pathOf(target.instance()), &found)) {
        refuse(CommonIF::kErrItemNotFound,
               "no variable '" + describePath(target.instance()) + "' in the model", response);
        return false;
    }
    const VariableDef& variable = *found.variable;
    bool overriding = request.override_security();
    if (overriding && model_.highestClaim(senderUid, serviceUid_) < CommonIF::eSecurityRole_MAX) {
        refuse(CommonIF::kErrNotAuthorized,
               "override_security is honoured only for users who may claim every role", response);
        return false;
    }
    if (!overriding && request.role() < variable.writeLevel) {
        refuse(CommonIF::kErrNotAuthorized,
               CommonIF::eSecurityRole_Name(request.role()) + " may not write '" + found.key +
                   "' (needs " + CommonIF::eSecurityRole_Name(variable.writeLevel) + ")",
               response);
        return false;
    }
    std::vector<std::string> values(target.value().begin(), target.value().end());
    StoredChange& change = write->change;
    change.key = found.key;
    if (values.empty() && !variable.isList) {
        change.reset = true;
    } else if (!checkValues(variable, values, &change.values, &reason)) {
        refuse(CommonIF::kErrBadParameter, reason, response);
        return false;
    } else {
        change.reset = change.values == variable.defaults;
    }
    if (change.reset) {
        change.values.clear();
    }
    write->rebootRequired = variable.rebootRequired;
    return true;
}

void ConfigService::answerCommitted(const FinishedWrite& finished, ConfigIF::WriteRsp* response) {
    ConfigIF::ReturnMessage* message = response->mutable_ret_message();
    if (!finished.committed) {
        message->set_error(CommonIF::kErrGenericError);
        message->add_error_message("the value could not be stored: " + finished.error);
        return;
    }
    message->set_error(CommonIF::kErrNoError);
    if (finished.write.rebootRequired) {
        message->set_reboot_required(true);
    }
}

}  // namespace configsrvc

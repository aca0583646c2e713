#include "ConfigService.h"

#include <type_traits>
#include <utility>

#include <google/protobuf/descriptor.h>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Overrides.h"
#include "ValueCheck.h"

namespace configsrvc {

namespace {

// Detaching a part of the device takes everything in it out of service.
constexpr CommonIF::eSecurityRole kComponentLevel = CommonIF::kSystem;

using CommonIF::eErrorType;
using CommonIF::eSecurityRole;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

template <typename Type>
const Message& prototype() {
    return Type::default_instance();
}

// Parses a request, telling a payload that is no such message apart from one that lacks
// required fields, in words for the client.
bool parseRequest(const void* payload, size_t bytes, Message* request, std::string* reason) {
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

// The instance as the service answered it: the request's scope, the model's instance numbers.
void fillAnswered(const ConfigIF::Inst& requested, const ResolvedVariable& found,
                  ConfigIF::Inst* answered) {
    if (requested.has_scope()) {
        answered->set_scope(requested.scope());
    }
    for (const PathStep& step : found.answered) {
        ConfigIF::Node* node = answered->add_node();
        node->set_name(step.name.data(), step.name.size());
        node->set_instance(step.instance);
    }
}

// Whether the key of a stored record lies under the node or variable at `path` ("" is all).
bool isUnder(const VariableDef& variable, const std::string& path) {
    return path.empty() || variable.path == path ||
           (variable.path.size() > path.size() &&
            variable.path.compare(0, path.size(), path) == 0 && variable.path[path.size()] == '.');
}

}  // namespace

// Who asks, as what: the `name` and `role` fields that nearly every request carries.
struct Asker {
    const std::string* name = nullptr;  // null when the request has no name
    bool claims = false;                // whether it has a role
    eSecurityRole role = CommonIF::kUser;
};

template <typename T, typename = void>
struct HasRole : std::false_type {};
template <typename T>
struct HasRole<T, std::void_t<decltype(std::declval<const T&>().role())>> : std::true_type {};
template <typename T, typename = void>
struct HasName : std::false_type {};
template <typename T>
struct HasName<T, std::void_t<decltype(std::declval<const T&>().name())>> : std::true_type {};

template <typename Request>
Asker askerOf(const Message& message) {
    const auto& request = static_cast<const Request&>(message);
    Asker asker;
    if constexpr (HasRole<Request>::value) {
        asker.claims = true;
        asker.role = request.role();
    }
    if constexpr (HasName<Request>::value) {
        asker.name = &request.name();
    }
    return asker;
}

struct ConfigService::Command {
    uint32_t requestId;
    uint32_t responseId;
    const Message& (*request)();
    const Message& (*response)();
    void (*handle)(const ConfigService&, const Message&, const Sender&, Message*, Answer*);
    Asker (*asker)(const Message&);  // read without a look at the descriptor, on every request
};

template <typename Request, typename Response,
          void (ConfigService::*Handle)(const Request&, const Sender&, Response*, Answer*) const>
void ConfigService::adapt(const ConfigService& service, const Message& request,
                          const Sender& sender, Message* response, Answer* answer) {
    (service.*Handle)(static_cast<const Request&>(request), sender,
                      static_cast<Response*>(response), answer);
}

#define CONFIG_COMMAND(Type, handler)                                         \
    {                                                                         \
        ConfigProtocol::k##Type##ReqMsgId, ConfigProtocol::k##Type##RspMsgId, \
            &prototype<ConfigIF::Type##Req>, &prototype<ConfigIF::Type##Rsp>, \
            &ConfigService::adapt<ConfigIF::Type##Req, ConfigIF::Type##Rsp,   \
                                  &ConfigService::handler>,                   \
            &askerOf<ConfigIF::Type##Req>                                     \
    }

const ConfigService::Command ConfigService::kCommands[] = {
    CONFIG_COMMAND(Read, read),
    CONFIG_COMMAND(BatchRead, batchRead),
    CONFIG_COMMAND(Write, write),
    CONFIG_COMMAND(Validate, validate),
    CONFIG_COMMAND(GetAttribute, getAttribute),
    CONFIG_COMMAND(SetAttribute, setAttribute),
    CONFIG_COMMAND(ReadAttributes, readAttributes),
    CONFIG_COMMAND(GetAttributeOptions, getOptions),
    CONFIG_COMMAND(GetDefaultOptions, getDefaultOptions),
    CONFIG_COMMAND(SetAttributeOptions, setOptions),
    CONFIG_COMMAND(GetAccessLevels, getLevels),
    CONFIG_COMMAND(SetAccessLevels, setLevels),
    CONFIG_COMMAND(GetValueOptionsAccess, getValueOptionsAccess),
    CONFIG_COMMAND(BatchGetValueOptionsAccess, batchGetValueOptionsAccess),
    CONFIG_COMMAND(ResetValue, resetValue),
    CONFIG_COMMAND(ResetAttribute, resetAttribute),
    CONFIG_COMMAND(ResetNodeValue, resetNodeValue),
    CONFIG_COMMAND(Submit, submit),
    CONFIG_COMMAND(CreateProfile, createProfile),
    CONFIG_COMMAND(ApplyProfile, applyProfile),
    CONFIG_COMMAND(ComponentChange, componentChange),
    CONFIG_COMMAND(RegisterClientCallback, registerCallback),
    CONFIG_COMMAND(UnregisterClientCallback, unregisterCallback),
    CONFIG_COMMAND(UnregisterAllClientCallbacks, unregisterAllCallbacks),
};

#undef CONFIG_COMMAND

void pathOf(const ConfigIF::Inst& instance, std::vector<PathStep>* path) {
    path->clear();
    for (const ConfigIF::Node& node : instance.node()) {
        path->push_back({node.name(), node.instance()});
    }
}

std::vector<PathStep> pathOf(const ConfigIF::Inst& instance) {
    std::vector<PathStep> path;
    pathOf(instance, &path);
    return path;
}

std::string printable(const std::string& text, size_t maxBytes) {
    std::string shown = text.substr(0, maxBytes);
    for (char& c : shown) {
        c = (c < 0x20 || c > 0x7e) ? '?' : c;
    }
    return shown;
}

std::string describePath(const ConfigIF::Inst& instance) {
    std::string text;
    for (const ConfigIF::Node& node : instance.node()) {
        if (text.size() > 200) {
            return text + "/...";
        }
        text += (text.empty() ? "" : "/") + printable(node.name(), 64);
        if (node.instance() != 0) {
            text += " " + std::to_string(node.instance());
        }
    }
    return text;
}

void setError(eErrorType error, const std::string& reason, Message* response) {
    const google::protobuf::Descriptor* type = response->GetDescriptor();
    const google::protobuf::Reflection* fields = response->GetReflection();
    if (const FieldDescriptor* field = type->FindFieldByName("ret_message")) {
        auto* message =
            static_cast<ConfigIF::ReturnMessage*>(fields->MutableMessage(response, field));
        message->set_error(error);
        if (!reason.empty()) {
            message->add_error_message(reason);
        }
    } else if (const FieldDescriptor* field = type->FindFieldByName("error")) {
        fields->SetEnumValue(response, field, error);
    }
    for (int i = 0; i < type->field_count(); ++i) {
        const FieldDescriptor* field = type->field(i);
        if (!field->is_required() || fields->HasField(*response, field)) {
            continue;
        }
        if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
            fields->SetString(response, field, "");
        } else if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) {
            fields->MutableMessage(response, field);
        }
    }
}

ConfigService::ConfigService(const DeviceModel& model, const RecordState& state, uid_t serviceUid,
                             const ProfileFolder* profiles)
    : model_(model), state_(state), serviceUid_(serviceUid), profiles_(profiles) {}

ConfigService::~ConfigService() = default;

bool ConfigService::serves(uint32_t requestId) {
    return ConfigProtocol::responseIdOf(requestId) != 0 || isBareCommand(requestId);
}

bool ConfigService::isBareCommand(uint32_t requestId) {
    return requestId == ConfigProtocol::kFlushAllCmdMsgId ||
           requestId == ConfigProtocol::kClearConfigCmdMsgId;
}

void ConfigService::obeyCommand(uint32_t requestId, const void* payload, size_t bytes,
                                const Sender& sender, Answer* answer) const {
    ConfigIF::FlushAllCmd empty;  // both commands are empty messages
    std::string reason;
    if (!parseRequest(payload, bytes, &empty, &reason)) {
        answer->refusals.push_back(reason + ": ignored");
        return;
    }
    if (model_.highestClaim(sender.uid, serviceUid_) < CommonIF::eSecurityRole_MAX) {
        answer->refusals.push_back("uid " + std::to_string(sender.uid) +
                                   " may not claim every role, which it takes: ignored");
        return;
    }
    if (requestId == ConfigProtocol::kFlushAllCmdMsgId) {
        answer->checkpoint = true;
        return;
    }
    for (const auto& [key, values] : state_.accepted().all(RecordKind::kValue)) {
        answer->changes.push_back({RecordKind::kValue, key, true, {}});
    }
}

// The answer to a request of the protocol that this service does not carry out (yet): its
// response, refusing with kErrNotYetSupported, rather than silence until the client gives up.
void answerUnsupported(uint32_t requestId, google::protobuf::Arena* arena, Answer* answer) {
    answer->msgId = ConfigProtocol::responseIdOf(requestId);
    const google::protobuf::Descriptor* type =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
            std::string("ConfigIF.") + ConfigProtocol::messageNameOf(answer->msgId));
    answer->message =
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New(arena);
    const std::string reason =
        std::string(ConfigProtocol::messageNameOf(requestId)) + " is not supported by this service";
    setError(CommonIF::kErrNotYetSupported, reason, answer->message);
    answer->refusals.push_back(reason);
}

void ConfigService::handle(uint32_t requestId, const void* payload, size_t bytes,
                           const Sender& sender, google::protobuf::Arena* arena,
                           Answer* answer) const {
    if (isBareCommand(requestId)) {
        obeyCommand(requestId, payload, bytes, sender, answer);
        return;
    }
    const Command* command = nullptr;
    for (const Command& candidate : kCommands) {
        if (candidate.requestId == requestId) {
            command = &candidate;
            break;
        }
    }
    if (command == nullptr) {
        answerUnsupported(requestId, arena, answer);
        return;
    }
    answer->msgId = command->responseId;
    answer->message = command->response().New(arena);
    Message* request = command->request().New(arena);
    std::string reason;
    eErrorType error = CommonIF::kErrNoError;
    const bool parsed = parseRequest(payload, bytes, request, &reason);
    const Asker asker = command->asker(*request);
    if (!parsed) {
        error = CommonIF::kErrBadParameter;
    } else if (asker.claims) {
        answer->role = asker.role;
        error = checkClaim(answer->role, sender.uid, &reason);
    }
    if (asker.name != nullptr) {
        answer->requester = printable(*asker.name, 64);
    }
    if (error == CommonIF::kErrNoError) {
        command->handle(*this, *request, sender, answer->message, answer);
        return;
    }
    // A batch of levels has no overall error: every instance of a refused claim is refused
    // instead. A request that did not parse names nothing that could be echoed safely.
    auto* levels = dynamic_cast<ConfigIF::SetAccessLevelsRsp*>(answer->message);
    if (levels != nullptr && error == CommonIF::kErrNotAuthorized) {
        for (const ConfigIF::Inst& instance :
             static_cast<const ConfigIF::SetAccessLevelsReq&>(*request).instance()) {
            ConfigIF::AccessLevelErr* item = levels->add_errors();
            *item->mutable_instance() = instance;
            item->set_error(error);
        }
    }
    setError(error, reason, answer->message);
    answer->refusals.push_back(reason);
}

void ConfigService::answerUnstored(const std::string& error, Message* response) {
    const std::string reason = "the change could not be stored: " + error;
    if (auto* levels = dynamic_cast<ConfigIF::SetAccessLevelsRsp*>(response)) {
        for (ConfigIF::AccessLevelErr& item : *levels->mutable_errors()) {
            if (item.error() == CommonIF::kErrNoError) {
                item.set_error(CommonIF::kErrGenericError);
            }
        }
        return;
    }
    setError(CommonIF::kErrGenericError, reason, response);
}

eErrorType ConfigService::checkClaim(eSecurityRole role, uid_t senderUid,
                                     std::string* reason) const {
    const eSecurityRole highest = model_.highestClaim(senderUid, serviceUid_);
    if (role > highest) {
        *reason = "uid " + std::to_string(senderUid) + " may not act as " +
                  CommonIF::eSecurityRole_Name(role) + " (at most " +
                  CommonIF::eSecurityRole_Name(highest) + ")";
        return CommonIF::kErrNotAuthorized;
    }
    return CommonIF::kErrNoError;
}

bool ConfigService::reaches(eSecurityRole role, eSecurityRole level, const char* act,
                            const std::string& what, std::string* reason) const {
    if (role >= level) {
        return true;
    }
    *reason = CommonIF::eSecurityRole_Name(role) + " may not " + act + " '" + what + "' (needs " +
              CommonIF::eSecurityRole_Name(level) + ")";
    return false;
}

bool batchTooLarge(int count, Answer* answer) {
    if (count <= kMaxBatchInstances) {
        return false;
    }
    answer->refusals.push_back("a batch names " + std::to_string(count) + " instances; at most " +
                               std::to_string(kMaxBatchInstances) + " are answered");
    return true;
}

std::string noVariable(const ConfigIF::Inst& instance) {
    return "no variable '" + describePath(instance) + "' in the model";
}

std::string noNode(const std::string& path) {
    return "no node or variable '" + printable(path, 200) + "' in the model";
}

eErrorType ConfigService::notEnabled(const std::vector<std::string>& components,
                                     const Records& records, std::string* reason) const {
    if (const std::string* detached = detachedOf(records, components)) {
        *reason = "the component '" + *detached + "' is detached";
        return CommonIF::kNotEnabled;
    }
    return CommonIF::kErrNoError;
}

eErrorType ConfigService::lookUp(const std::vector<PathStep>& path, const Records& records,
                                 ResolvedVariable* found, std::string* reason) const {
    if (!model_.resolve(path, found)) {
        std::string text;
        for (const PathStep& step : path) {
            text += (text.empty() ? "" : "/") + printable(std::string(step.name), 64) +
                    (step.instance != 0 ? " " + std::to_string(step.instance) : "");
        }
        *reason = "no variable '" + text.substr(0, 256) + "' in the model";
        return CommonIF::kErrItemNotFound;
    }
    return notEnabled(found->variable->components, records, reason);
}

eErrorType ConfigService::lookUpNamed(const std::string& path, const NodeDef** node,
                                      const VariableDef** variable, std::string* reason) const {
    if (!model_.findByPath(path, node, variable)) {
        *reason = noNode(path);
        return CommonIF::kErrItemNotFound;
    }
    return notEnabled(*node != nullptr ? (*node)->components : (*variable)->components,
                      state_.accepted(), reason);
}

eErrorType ConfigService::findNamed(const std::string& path, const NodeDef** node,
                                    const VariableDef** variable, Answer* answer) const {
    std::string reason;
    const eErrorType error = lookUpNamed(path, node, variable, &reason);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
    return error;
}

eErrorType ConfigService::resolve(const ConfigIF::Inst& instance, ResolvedVariable* found,
                                  Answer* answer) const {
    std::string reason;
    const eErrorType error = lookUp(pathOf(instance), state_.accepted(), found, &reason);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
    return error;
}

void ConfigService::readOne(const ConfigIF::Inst& instance, eSecurityRole role,
                            const Submission* staged, Lookup* lookup, ConfigIF::ReadRsp* response,
                            std::string* reason) const {
    const ResolvedVariable& found = lookup->found;
    const Records& records = state_.committed();
    pathOf(instance, &lookup->path);
    const eErrorType error = lookUp(lookup->path, records, &lookup->found, reason);
    if (error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(records, found, &scratch);
    if (!reaches(role, variable.readLevel, "read", found.key, reason)) {
        response->set_error(CommonIF::kErrNotAuthorized);
        return;
    }
    const StagedWrite* mine = staged != nullptr ? staged->find(found.key) : nullptr;
    const std::vector<std::string>* stored =
        mine != nullptr ? (mine->change.reset ? nullptr : &mine->change.values)
                        : records.find(RecordKind::kValue, found.key);
    const std::vector<std::string>& values = stored ? *stored : variable.defaults;
    response->set_error(CommonIF::kErrNoError);
    for (const std::string& value : values) {
        response->add_value(value);
    }
    response->set_is_default(stored == nullptr);
    fillAnswered(instance, found, response->mutable_instance());
}

void ConfigService::read(const ConfigIF::ReadReq& request, const Sender& sender,
                         ConfigIF::ReadRsp* response, Answer* answer) const {
    std::string reason;
    Lookup lookup;
    readOne(request.instance(), request.role(), openSubmission(sender), &lookup, response, &reason);
    if (response->error() != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

void ConfigService::batchRead(const ConfigIF::BatchReadReq& request, const Sender& sender,
                              ConfigIF::BatchReadRsp* response, Answer* answer) const {
    if (batchTooLarge(request.instance_size(), answer)) {
        response->set_error(CommonIF::kErrOutOfResources);
        return;
    }
    response->set_error(CommonIF::kErrNoError);
    response->mutable_response()->Reserve(request.instance_size());
    Lookup lookup;
    const Submission* staged = openSubmission(sender);
    for (const ConfigIF::Inst& instance : request.instance()) {
        std::string reason;
        readOne(instance, request.role(), staged, &lookup, response->add_response(), &reason);
        if (!reason.empty()) {
            answer->refusals.push_back(reason);
        }
    }
}

eErrorType ConfigService::checkWrite(const ConfigIF::InstValue& target, eSecurityRole role,
                                     bool overriding, uid_t senderUid, StoredChange* change,
                                     bool* reboot, std::string* reason) const {
    ResolvedVariable found;
    const Records& records = state_.accepted();
    const eErrorType error = lookUp(pathOf(target.instance()), records, &found, reason);
    if (error != CommonIF::kErrNoError) {
        return error;
    }
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(records, found, &scratch);
    if (overriding && model_.highestClaim(senderUid, serviceUid_) < CommonIF::eSecurityRole_MAX) {
        *reason = "override_security is honoured only for users who may claim every role";
        return CommonIF::kErrNotAuthorized;
    }
    if (!overriding && !reaches(role, variable.writeLevel, "write", found.key, reason)) {
        return CommonIF::kErrNotAuthorized;
    }
    change->key = found.key;
    change->values.assign(target.value().begin(), target.value().end());
    if (change->values.empty() && !variable.isList) {
        change->reset = true;
    } else if (!canonicalValues(variable, change, reason)) {
        return CommonIF::kErrBadParameter;
    } else {
        change->reset = change->values == variable.defaults;
    }
    if (change->reset) {
        change->values.clear();
    }
    *reboot = variable.rebootRequired;
    return CommonIF::kErrNoError;
}

bool ConfigService::answerWriteChecks(const ConfigIF::InstValue& target, eSecurityRole role,
                                      bool overriding, uid_t senderUid,
                                      ConfigIF::ReturnMessage* message, Answer* answer,
                                      StoredChange* change) const {
    bool reboot = false;
    std::string reason;
    const eErrorType error =
        checkWrite(target, role, overriding, senderUid, change, &reboot, &reason);
    message->set_error(error);
    if (error != CommonIF::kErrNoError) {
        message->add_error_message(reason);
        answer->refusals.push_back(reason);
        return false;
    }
    if (reboot) {
        message->set_reboot_required(true);
    }
    return true;
}

void ConfigService::write(const ConfigIF::WriteReq& request, const Sender& sender,
                          ConfigIF::WriteRsp* response, Answer* answer) const {
    StagedWrite staged;
    if (!answerWriteChecks(request.instance_val(), request.role(), request.override_security(),
                           sender.uid, response->mutable_ret_message(), answer, &staged.change)) {
        return;
    }
    staged.role = request.role();
    staged.overriding = request.override_security();
    if (!stageWrite(sender, staged, response->mutable_ret_message(), answer)) {
        answer->changes.push_back(std::move(staged.change));
    }
}

void ConfigService::validate(const ConfigIF::ValidateReq& request, const Sender& sender,
                             ConfigIF::ValidateRsp* response, Answer* answer) const {
    StoredChange unstored;
    if (answerWriteChecks(request.instance_val(), request.role(), false, sender.uid,
                          response->mutable_ret_message(), answer, &unstored)) {
        answer->proposed.push_back(std::move(unstored));
    }
}

void ConfigService::resetValue(const ConfigIF::ResetValueReq& request, const Sender&,
                               ConfigIF::ResetValueRsp* response, Answer* answer) const {
    ResolvedVariable found;
    std::string reason;
    const eErrorType error = lookUp(pathOf(request.instance()), state_.accepted(), &found, &reason);
    if (error != CommonIF::kErrNoError) {
        setError(error, reason, response);
    } else {
        VariableDef scratch;
        const VariableDef& variable = effectiveVariable(state_.accepted(), found, &scratch);
        if (!reaches(request.role(), variable.writeLevel, "reset", found.key, &reason)) {
            setError(CommonIF::kErrNotAuthorized, reason, response);
        }
    }
    if (!reason.empty()) {
        answer->refusals.push_back(reason);
        return;
    }
    response->set_error(CommonIF::kErrNoError);
    if (state_.accepted().find(RecordKind::kValue, found.key) != nullptr) {
        answer->changes.push_back({RecordKind::kValue, found.key, true, {}});
    }
}

void ConfigService::resetNodeValue(const ConfigIF::ResetNodeValueReq& request, const Sender&,
                                   ConfigIF::ResetNodeValueRsp* response, Answer* answer) const {
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    if (const eErrorType error = findNamed(request.node_name(), &node, &variable, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    // Only instances with a stored value change; each of them must be the requester's to write,
    // or nothing changes at all. Those of detached components keep their values.
    const Records& records = state_.accepted();
    std::vector<StoredChange> changes;
    for (const auto& [key, values] : records.all(RecordKind::kValue)) {
        ResolvedVariable found;
        if (!model_.resolveKey(key, &found) || !isUnder(*found.variable, request.node_name()) ||
            detachedOf(records, found.variable->components) != nullptr) {
            continue;
        }
        VariableDef scratch;
        std::string reason;
        const VariableDef& effective = effectiveVariable(records, found, &scratch);
        if (!reaches(request.role(), effective.writeLevel, "reset", key, &reason)) {
            answer->refusals.push_back(reason);
            response->set_error(CommonIF::kErrNotAuthorized);
            return;
        }
        changes.push_back({RecordKind::kValue, key, true, {}});
    }
    response->set_error(CommonIF::kErrNoError);
    answer->changes = std::move(changes);
}

void ConfigService::componentChange(const ConfigIF::ComponentChangeReq& request, const Sender&,
                                    ConfigIF::ComponentChangeRsp* response, Answer* answer) const {
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    const std::string& path = request.component_name();
    std::string reason;
    if (!model_.findByPath(path, &node, &variable) || node == nullptr || !node->component) {
        reason = "no component '" + printable(path, 200) + "' in the model";
        response->set_error(CommonIF::kErrItemNotFound);
    } else if (!reaches(request.role(), kComponentLevel, request.detach() ? "detach" : "attach",
                        path, &reason)) {
        response->set_error(CommonIF::kErrNotAuthorized);
    } else {
        response->set_error(CommonIF::kErrNoError);
    }
    if (response->error() != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
        return;
    }
    // Asking for the state a component is in already changes nothing.
    const bool detached = state_.accepted().find(RecordKind::kComponents, path) != nullptr;
    if (detached != request.detach()) {
        answer->changes.push_back({RecordKind::kComponents,
                                   path,
                                   !request.detach(),
                                   {request.detach() ? kDetached : ""}});
        if (!request.detach()) {
            answer->changes.back().values.clear();
        }
    }
}

}  // namespace configsrvc

// The requests on the options and the access levels of variable instances, and the query of
// value, options and levels in one.
#include <algorithm>

#include "ConfigService.h"
#include "Overrides.h"
#include "ValueCheck.h"

namespace configsrvc {

namespace {

using CommonIF::eErrorType;
using CommonIF::eSecurityRole;

// The index of the (first) default among the options, or -1 when it is none of them.
int defaultIndex(const VariableDef& variable) {
    if (variable.defaults.empty()) {
        return -1;
    }
    auto at = std::find(variable.options.begin(), variable.options.end(), variable.defaults[0]);
    return at == variable.options.end() ? -1 : static_cast<int>(at - variable.options.begin());
}

template <typename Response>
void fillOptionList(const VariableDef& variable, Response* response) {
    response->set_error(CommonIF::kErrNoError);
    if (variable.kind != ValueKind::kOption) {
        return;  // no options: an empty list and no default index
    }
    for (const std::string& option : variable.options) {
        response->add_node_options(option);
    }
    if (defaultIndex(variable) >= 0) {
        response->set_default_index(defaultIndex(variable));
    }
}

void fillLevels(const VariableDef& variable, ConfigIF::GetAccessLevelsRsp* response) {
    response->set_error(CommonIF::kErrNoError);
    response->set_read_level(variable.readLevel);
    response->set_write_level(variable.writeLevel);
}

}  // namespace

void ConfigService::getOptions(const ConfigIF::GetAttributeOptionsReq& request, const Sender&,
                               ConfigIF::GetAttributeOptionsRsp* response, Answer* answer) const {
    ResolvedVariable found;
    if (const eErrorType error = resolve(request.instance(), &found, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    VariableDef scratch;
    fillOptionList(effectiveVariable(state_.committed(), found, &scratch), response);
}

void ConfigService::getDefaultOptions(const ConfigIF::GetDefaultOptionsReq& request, const Sender&,
                                      ConfigIF::GetDefaultOptionsRsp* response,
                                      Answer* answer) const {
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    eErrorType error = findNamed(request.variable_name(), &node, &variable, answer);
    if (error == CommonIF::kErrNoError && variable == nullptr) {
        answer->refusals.push_back(noNode(request.variable_name()));
        error = CommonIF::kErrItemNotFound;
    }
    if (error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    fillOptionList(*variable, response);
}

void ConfigService::setOptions(const ConfigIF::SetAttributeOptionsReq& request, const Sender&,
                               ConfigIF::SetAttributeOptionsRsp* response, Answer* answer) const {
    const Records& records = state_.accepted();
    ResolvedVariable found;
    VariableDef scratch;
    std::string reason;
    eErrorType error = CommonIF::kErrNoError;
    StoredChange change{RecordKind::kOptions, "", false, {}};
    error = lookUp(pathOf(request.instance()), records, &found, &reason);
    if (error == CommonIF::kErrNoError) {
        const VariableDef& current = effectiveVariable(records, found, &scratch);
        change.key = found.key;
        change.values = optionsRecord(request.default_index(), {request.node_options().begin(),
                                                                request.node_options().end()});
        VariableDef candidate = current;
        const std::vector<std::string>* stored = records.find(RecordKind::kValue, found.key);
        std::vector<std::string> canonical;
        if (!reaches(request.role(), current.writeLevel, "change the options of", found.key,
                     &reason)) {
            error = CommonIF::kErrNotAuthorized;
        } else if (!applyOptions(change.values, &candidate, &reason)) {
            error = CommonIF::kErrBadParameter;
        } else if (!defaultsFit(candidate, &reason) ||
                   (stored != nullptr && !checkValues(candidate, *stored, &canonical, &reason))) {
            error = CommonIF::kErrBadState;
            reason = "'" + found.key + "' would no longer fit: " + reason;
        }
    }
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
        return;
    }
    answer->changes.push_back(std::move(change));
}

void ConfigService::getLevels(const ConfigIF::GetAccessLevelsReq& request, const Sender&,
                              ConfigIF::GetAccessLevelsRsp* response, Answer* answer) const {
    ResolvedVariable found;
    if (const eErrorType error = resolve(request.instance(), &found, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    VariableDef scratch;
    fillLevels(effectiveVariable(state_.committed(), found, &scratch), response);
}

void ConfigService::setLevels(const ConfigIF::SetAccessLevelsReq& request, const Sender&,
                              ConfigIF::SetAccessLevelsRsp* response, Answer* answer) const {
    const Records& records = state_.accepted();
    const bool tooMany = request.instance_size() > kMaxBatchInstances;
    const bool nothing = !request.has_read_level() && !request.has_write_level();
    for (const ConfigIF::Inst& instance : request.instance()) {
        ConfigIF::AccessLevelErr* item = response->add_errors();
        *item->mutable_instance() = instance;
        ResolvedVariable found;
        VariableDef scratch;
        std::string reason;
        eErrorType error = CommonIF::kErrNoError;
        if (tooMany || nothing) {
            error = tooMany ? CommonIF::kErrOutOfResources : CommonIF::kErrBadParameter;
            reason = tooMany ? "a batch of more than " + std::to_string(kMaxBatchInstances) +
                                   " instances"
                             : "neither a read nor a write level is given";
        } else {
            error = lookUp(pathOf(instance), records, &found, &reason);
        }
        if (error == CommonIF::kErrNoError) {
            const VariableDef& current = effectiveVariable(records, found, &scratch);
            // Nobody hands out, or takes away, more than they hold themselves.
            const eSecurityRole role = request.role();
            if (!reaches(role, current.writeLevel, "change the levels of", found.key, &reason) ||
                (request.has_read_level() &&
                 !reaches(role, request.read_level(), "set a read level on", found.key, &reason)) ||
                (request.has_write_level() &&
                 !reaches(role, request.write_level(), "set a write level on", found.key,
                          &reason))) {
                error = CommonIF::kErrNotAuthorized;
            }
        }
        item->set_error(error);
        if (error != CommonIF::kErrNoError) {
            answer->refusals.push_back(reason);
            continue;
        }
        // The record keeps a level the request leaves unset as it was stored before.
        const std::vector<std::string>* stored = records.find(RecordKind::kLevels, found.key);
        std::vector<std::string> record = stored ? *stored : levelsRecord(nullptr, nullptr);
        const eSecurityRole read = request.read_level(), write = request.write_level();
        const std::vector<std::string> given =
            levelsRecord(request.has_read_level() ? &read : nullptr,
                         request.has_write_level() ? &write : nullptr);
        for (size_t i = 0; i < 2; ++i) {
            record[i] = given[i].empty() ? record[i] : given[i];
        }
        answer->changes.push_back({RecordKind::kLevels, found.key, false, record});
    }
}

void ConfigService::fillValueOptionsAccess(const ConfigIF::Inst& instance, eSecurityRole role,
                                           const Submission* staged, Lookup* lookup,
                                           ConfigIF::ValueOptionsAccess* item,
                                           Answer* answer) const {
    std::string reason;
    readOne(instance, role, staged, lookup, item->mutable_read_rsp(), &reason);
    if (!reason.empty()) {
        answer->refusals.push_back(reason);
    }
    const eErrorType error = item->read_rsp().error();
    if (error == CommonIF::kErrItemNotFound || error == CommonIF::kNotEnabled) {
        item->mutable_options_rsp()->set_error(error);
        item->mutable_access_level_rsp()->set_error(error);
        return;
    }
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(state_.committed(), lookup->found, &scratch);
    fillOptionList(variable, item->mutable_options_rsp());
    fillLevels(variable, item->mutable_access_level_rsp());
}

void ConfigService::getValueOptionsAccess(const ConfigIF::GetValueOptionsAccessReq& request,
                                          const Sender& sender,
                                          ConfigIF::GetValueOptionsAccessRsp* response,
                                          Answer* answer) const {
    ResolvedVariable found;
    if (const eErrorType error = resolve(request.instance(), &found, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    response->set_error(CommonIF::kErrNoError);
    Lookup lookup;
    fillValueOptionsAccess(request.instance(), request.role(), openSubmission(sender), &lookup,
                           response->mutable_valoptacc(), answer);
}

void ConfigService::batchGetValueOptionsAccess(
    const ConfigIF::BatchGetValueOptionsAccessReq& request, const Sender& sender,
    ConfigIF::BatchGetValueOptionsAccessRsp* response, Answer* answer) const {
    if (batchTooLarge(request.instance_size(), answer)) {
        response->set_error(CommonIF::kErrOutOfResources);
        return;
    }
    response->set_error(CommonIF::kErrNoError);
    Lookup lookup;
    const Submission* staged = openSubmission(sender);
    for (const ConfigIF::Inst& instance : request.instance()) {
        fillValueOptionsAccess(instance, request.role(), staged, &lookup, response->add_valoptacc(),
                               answer);
    }
}

}  // namespace configsrvc

// Profiles: CreateProfileReq and ApplyProfileReq (the file format is in Profiles.h).
#include "ConfigService.h"
#include "Overrides.h"
#include "Profiles.h"

namespace configsrvc {

using CommonIF::eErrorType;
using CommonIF::eSecurityRole;

namespace {

// Creating and applying profiles writes files on the device and changes many values at once.
constexpr eSecurityRole kProfileLevel = CommonIF::kAdmin;

}  // namespace

eErrorType ConfigService::saveProfile(const std::string& name, eSecurityRole role,
                                      std::string* reason) const {
    if (profiles_ == nullptr) {
        *reason = "this service keeps no profiles";
        return CommonIF::kErrNotYetSupported;
    }
    if (!reaches(role, kProfileLevel, "create", "profile " + printable(name, 64), reason)) {
        return CommonIF::kErrNotAuthorized;
    }
    Profile profile;
    profile.model = model_.name();
    profile.role = role;
    const Records& records = state_.committed();
    for (const auto& [key, values] : records.all(RecordKind::kValue)) {
        ResolvedVariable found;
        VariableDef scratch;
        if (model_.resolveKey(key, &found) &&
            detachedOf(records, found.variable->components) == nullptr &&
            role >= effectiveVariable(records, found, &scratch).readLevel) {
            profile.values.emplace(key, values);
        }
    }
    return profiles_->create(name, formatProfile(profile), reason);
}

// The change that sets `key` to `values` as a profile gives them, checked as a write would be.
eErrorType ConfigService::profileChange(const std::string& key,
                                        const std::vector<std::string>& values, eSecurityRole role,
                                        StoredChange* change, std::string* reason) const {
    ResolvedVariable found;
    if (!model_.resolveKey(key, &found)) {
        *reason = "'" + printable(key, 200) + "' is not in the model";
        return CommonIF::kErrBadParameter;
    }
    const Records& records = state_.accepted();
    if (const eErrorType error = notEnabled(found.variable->components, records, reason);
        error != CommonIF::kErrNoError) {
        return error;
    }
    VariableDef scratch;
    const VariableDef& variable = effectiveVariable(records, found, &scratch);
    if (!reaches(role, variable.writeLevel, "write", key, reason)) {
        return CommonIF::kErrNotAuthorized;
    }
    *change = {RecordKind::kValue, key, false, values};
    if (!checkRecord(model_, records, change, reason)) {
        *reason = "'" + key + "': " + *reason;
        return CommonIF::kErrBadParameter;
    }
    change->reset = change->values == variable.defaults;
    if (change->reset) {
        change->values.clear();
    }
    return CommonIF::kErrNoError;
}

eErrorType ConfigService::profileChanges(const std::string& name, eSecurityRole role,
                                         Answer* answer, std::string* reason) const {
    if (profiles_ == nullptr) {
        *reason = "this service keeps no profiles";
        return CommonIF::kErrNotYetSupported;
    }
    if (!reaches(role, kProfileLevel, "apply", "profile " + printable(name, 64), reason)) {
        return CommonIF::kErrNotAuthorized;
    }
    std::string text;
    Profile profile;
    const eErrorType read = profiles_->read(name, &text, reason);
    if (read != CommonIF::kErrNoError) {
        return read;
    }
    if (!parseProfile(text, &profile, reason)) {
        *reason = "profile '" + name + "': " + *reason;
        return CommonIF::kErrBadParameter;
    }
    if (profile.model != model_.name()) {
        *reason = "profile '" + name + "' was made for the model '" + printable(profile.model, 64) +
                  "', not '" + model_.name() + "'";
        return CommonIF::kErrBadParameter;
    }
    // Every listed value is checked before anything changes; then the instances its creator
    // could read and it does not list return to their defaults, so that applying it gives
    // back exactly what it saved.
    std::vector<StoredChange> changes;
    for (const auto& [key, values] : profile.values) {
        StoredChange& change = changes.emplace_back();
        const eErrorType error = profileChange(key, values, role, &change, reason);
        if (error != CommonIF::kErrNoError) {
            return error;
        }
    }
    const Records& records = state_.accepted();
    for (const auto& [key, values] : records.all(RecordKind::kValue)) {
        ResolvedVariable found;
        VariableDef scratch;
        if (profile.values.count(key) != 0 || !model_.resolveKey(key, &found) ||
            detachedOf(records, found.variable->components) != nullptr) {
            continue;
        }
        const VariableDef& variable = effectiveVariable(records, found, &scratch);
        if (profile.role < variable.readLevel) {
            continue;
        }
        if (!reaches(role, variable.writeLevel, "reset", key, reason)) {
            return CommonIF::kErrNotAuthorized;
        }
        changes.push_back({RecordKind::kValue, key, true, {}});
    }
    answer->changes = std::move(changes);
    return CommonIF::kErrNoError;
}

void ConfigService::createProfile(const ConfigIF::CreateProfileReq& request, const Sender&,
                                  ConfigIF::CreateProfileRsp* response, Answer* answer) const {
    std::string reason;
    response->set_error(saveProfile(request.file_location(), request.role(), &reason));
    if (response->error() != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

void ConfigService::applyProfile(const ConfigIF::ApplyProfileReq& request, const Sender&,
                                 ConfigIF::ApplyProfileRsp* response, Answer* answer) const {
    std::string reason;
    response->set_error(profileChanges(request.file_location(), request.role(), answer, &reason));
    if (response->error() != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
    }
}

}  // namespace configsrvc

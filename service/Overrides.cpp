#include "Overrides.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

#include "ValueCheck.h"

namespace configsrvc {

namespace {

// Reads an attribute's integer value within [low, high], with the reason a value check gives.
bool readNumber(const std::string& name, const std::string& text, int64_t low, int64_t high,
                int64_t* number, std::string* reason) {
    VariableDef bound;
    bound.name = name;
    bound.kind = ValueKind::kInteger;
    bound.minimum = low;
    bound.maximum = high;
    std::string canonical;
    if (!checkValue(bound, text, &canonical, reason)) {
        *reason = "attribute " + *reason;
        return false;
    }
    *number = std::strtoll(canonical.c_str(), nullptr, 10);
    return true;
}

// Whether the attribute `name` may be set on `variable` (null: a node); the one list of what
// is settable, given in Overrides.h.
bool appliesTo(const std::string& name, const VariableDef* variable) {
    if (name == "description") {
        return true;
    }
    if (variable == nullptr) {
        return false;
    }
    if (name == "min" || name == "max") {
        return variable->kind == ValueKind::kInteger;
    }
    if (name == "max-length") {
        return variable->kind == ValueKind::kString;
    }
    if (name == "min-count" || name == "max-count") {
        return variable->isList;
    }
    return name == "reboot";
}

bool applyAttribute(const std::string& name, const std::string& value, VariableDef* variable,
                    std::string* reason) {
    int64_t number = 0;
    if (name == "description") {
        if (value.size() > kMaxDescriptionBytes || !isText(value)) {
            *reason = "a description is UTF-8 text of at most " +
                      std::to_string(kMaxDescriptionBytes) + " bytes";
            return false;
        }
        if (variable != nullptr) {
            variable->description = value;
        }
        return true;
    }
    if (name == "reboot") {
        if (value != "true" && value != "false") {
            *reason = "attribute reboot must be true or false, not " + quoted(value);
            return false;
        }
        variable->rebootRequired = value == "true";
        return true;
    }
    const bool isCount = name == "min-count" || name == "max-count";
    const int64_t low = name == "max-length" || name == "max-count" ? 1
                        : name == "min-count"                       ? 0
                                                                    : INT64_MIN;
    const int64_t high = name == "max-length" ? static_cast<int64_t>(kMaxValueBytes)
                         : isCount            ? static_cast<int64_t>(kMaxListCount)
                                              : INT64_MAX;
    if (!readNumber(name, value, low, high, &number, reason)) {
        return false;
    }
    if (name == "min") {
        variable->minimum = number;
    } else if (name == "max") {
        variable->maximum = number;
    } else if (name == "max-length") {
        variable->maxLength = static_cast<size_t>(number);
    } else if (name == "min-count") {
        variable->minCount = static_cast<size_t>(number);
    } else {
        variable->maxCount = static_cast<size_t>(number);
    }
    return true;
}

bool boundsInOrder(const VariableDef& variable, std::string* reason) {
    if (variable.minimum > variable.maximum) {
        *reason = "min " + std::to_string(variable.minimum) + " would be above max " +
                  std::to_string(variable.maximum);
        return false;
    }
    if (variable.minCount > variable.maxCount) {
        *reason = "min-count " + std::to_string(variable.minCount) + " would be above max-count " +
                  std::to_string(variable.maxCount);
        return false;
    }
    return true;
}

bool readLevel(const std::string& name, CommonIF::eSecurityRole* level, std::string* reason) {
    if (name.empty()) {
        return true;
    }
    if (!CommonIF::eSecurityRole_Parse(name, level)) {
        *reason = "unknown role " + quoted(name);
        return false;
    }
    return true;
}

}  // namespace

bool applyAttributes(const std::vector<std::string>& pairs, VariableDef* variable,
                     std::string* reason) {
    if (pairs.size() % 2 != 0) {
        *reason = "an attribute record holds names and values in pairs";
        return false;
    }
    for (size_t i = 0; i < pairs.size(); i += 2) {
        const std::string& name = pairs[i];
        if (!appliesTo(name, variable)) {
            *reason = "attribute " + quoted(name) + " cannot be set on " +
                      (variable == nullptr
                           ? std::string("a node")
                           : "'" + variable->name + "' (" + (variable->isList ? "a list of " : "") +
                                 kindName(variable->kind) + ")");
            return false;
        }
        if (!applyAttribute(name, pairs[i + 1], variable, reason)) {
            return false;
        }
    }
    return variable == nullptr || boundsInOrder(*variable, reason);
}

bool defaultsFit(const VariableDef& variable, std::string* reason) {
    std::vector<std::string> canonical;
    if (!checkValues(variable, variable.defaults, &canonical, reason)) {
        *reason = "the default would no longer fit: " + *reason;
        return false;
    }
    return true;
}

bool applyOptions(const std::vector<std::string>& record, VariableDef* variable,
                  std::string* reason) {
    if (variable->kind != ValueKind::kOption) {
        *reason = "'" + variable->name + "' has no options (it is of kind " +
                  kindName(variable->kind) + ")";
        return false;
    }
    if (record.size() < 2 || record.size() - 1 > kMaxListCount) {
        *reason = "a list of options holds 1 to " + std::to_string(kMaxListCount) + " options";
        return false;
    }
    std::unordered_set<std::string> seen;
    for (size_t i = 1; i < record.size(); ++i) {
        const std::string& option = record[i];
        if (option.empty() || option.size() > kMaxValueBytes || !isText(option)) {
            *reason =
                "an option is UTF-8 text of 1 to " + std::to_string(kMaxValueBytes) + " bytes";
            return false;
        }
        if (!seen.insert(option).second) {
            *reason = "option " + quoted(option) + " is listed twice";
            return false;
        }
    }
    int64_t index = 0;
    if (!readNumber("default index", record[0], 0, static_cast<int64_t>(record.size()) - 2, &index,
                    reason)) {
        return false;
    }
    variable->options.assign(record.begin() + 1, record.end());
    if (!variable->isList) {
        variable->defaults = {variable->options[static_cast<size_t>(index)]};
    }
    return true;
}

bool applyLevels(const std::vector<std::string>& record, VariableDef* variable,
                 std::string* reason) {
    if (record.size() != 2) {
        *reason = "a levels record holds a read and a write level";
        return false;
    }
    return readLevel(record[0], &variable->readLevel, reason) &&
           readLevel(record[1], &variable->writeLevel, reason);
}

const std::string* detachedOf(const Records& records, const std::vector<std::string>& components) {
    for (const std::string& component : components) {
        if (records.find(RecordKind::kComponents, component) != nullptr) {
            return &component;
        }
    }
    return nullptr;
}

bool canonicalValues(const VariableDef& variable, StoredChange* change, std::string* reason) {
    std::vector<std::string> canonical;
    if (!checkValues(variable, change->values, &canonical, reason)) {
        return false;
    }
    change->values = std::move(canonical);
    return true;
}

bool checkRecord(const DeviceModel& model, const Records& records, StoredChange* change,
                 std::string* reason) {
    if (change->reset) {
        return true;
    }
    if (change->kind == RecordKind::kComponents) {
        const NodeDef* node = nullptr;
        const VariableDef* variable = nullptr;
        if (!model.findByPath(change->key, &node, &variable) || node == nullptr ||
            !node->component) {
            *reason = "the model has no such component";
            return false;
        }
        if (change->values != std::vector<std::string>{kDetached}) {
            *reason = "a component's record says \"" + std::string(kDetached) + "\"";
            return false;
        }
        return true;
    }
    if (change->kind == RecordKind::kAttributes) {
        const NodeDef* node = nullptr;
        const VariableDef* variable = nullptr;
        if (!model.findByPath(change->key, &node, &variable)) {
            *reason = "the model has no such node or variable";
            return false;
        }
        VariableDef copy = variable != nullptr ? *variable : VariableDef();
        return applyAttributes(change->values, variable != nullptr ? &copy : nullptr, reason) &&
               (variable == nullptr || defaultsFit(copy, reason));
    }
    ResolvedVariable found;
    if (!model.resolveKey(change->key, &found)) {
        *reason = "the model has no such variable";
        return false;
    }
    VariableDef scratch;
    const VariableDef& effective = effectiveVariable(records, found, &scratch);
    if (change->kind == RecordKind::kValue) {
        return canonicalValues(effective, change, reason);
    }
    VariableDef copy = effective;  // what the override would make of it
    switch (change->kind) {
        case RecordKind::kValue:
            break;
        case RecordKind::kOptions:
            return applyOptions(change->values, &copy, reason) && defaultsFit(copy, reason);
        case RecordKind::kLevels:
            return applyLevels(change->values, &copy, reason);
        case RecordKind::kAttributes:
        case RecordKind::kComponents:
            break;
    }
    return false;
}

const VariableDef& effectiveVariable(const Records& records, const ResolvedVariable& found,
                                     VariableDef* scratch) {
    const std::vector<std::string>* attributes =
        records.find(RecordKind::kAttributes, found.variable->path);
    const std::vector<std::string>* options = records.find(RecordKind::kOptions, found.key);
    const std::vector<std::string>* levels = records.find(RecordKind::kLevels, found.key);
    if (attributes == nullptr && options == nullptr && levels == nullptr) {
        return *found.variable;
    }
    *scratch = *found.variable;
    std::string ignored;
    VariableDef candidate = *scratch;
    if (attributes != nullptr && applyAttributes(*attributes, &candidate, &ignored) &&
        defaultsFit(candidate, &ignored)) {
        *scratch = candidate;
    }
    candidate = *scratch;
    if (options != nullptr && applyOptions(*options, &candidate, &ignored) &&
        defaultsFit(candidate, &ignored)) {
        *scratch = candidate;
    }
    if (levels != nullptr) {
        applyLevels(*levels, scratch, &ignored);  // all or nothing: both names were checked
    }
    return *scratch;
}

std::string effectiveDescription(const Records& records, const NodeDef& node) {
    const std::vector<std::string>* pairs = records.find(RecordKind::kAttributes, node.path);
    for (size_t i = 0; pairs != nullptr && i + 1 < pairs->size(); i += 2) {
        if ((*pairs)[i] == "description") {
            return (*pairs)[i + 1];
        }
    }
    return node.description;
}

std::vector<std::string> optionsRecord(int defaultIndex, const std::vector<std::string>& options) {
    std::vector<std::string> record{std::to_string(defaultIndex)};
    record.insert(record.end(), options.begin(), options.end());
    return record;
}

std::vector<std::string> levelsRecord(const CommonIF::eSecurityRole* read,
                                      const CommonIF::eSecurityRole* write) {
    return {read ? CommonIF::eSecurityRole_Name(*read) : "",
            write ? CommonIF::eSecurityRole_Name(*write) : ""};
}

std::vector<std::string> mergeAttributes(const std::vector<std::string>& pairs,
                                         const std::vector<std::string>& update) {
    std::vector<std::string> merged = pairs;
    for (size_t i = 0; i + 1 < update.size(); i += 2) {
        size_t at = 0;
        while (at < merged.size() && merged[at] != update[i]) {
            at += 2;  // names stand at even places only
        }
        if (at < merged.size()) {
            merged[at + 1] = update[i + 1];
        } else {
            merged.insert(merged.end(), {update[i], update[i + 1]});
        }
    }
    return merged;
}

}  // namespace configsrvc

// The attribute requests: what the model says of a node or a variable, over the protocol.
//
// A node's attributes are described in XML in the vocabulary of the model file (see
// PROTOCOL.md), and as attribute/value pairs for one instance.
#include <pugixml.hpp>
#include <sstream>

#include "ConfigService.h"
#include "Overrides.h"
#include "ValueCheck.h"

namespace configsrvc {

namespace {

using CommonIF::eErrorType;
using CommonIF::eSecurityRole;

// One attribute: its values, and whether it is written as child elements rather than as an
// XML attribute (options, the defaults of a list, the children of a node).
struct Attribute {
    std::string name;
    std::vector<std::string> values;
    bool element = false;
};

std::vector<Attribute> describeVariable(const VariableDef& variable) {
    std::vector<Attribute> list = {{"name", {variable.name}},
                                   {"path", {variable.path}},
                                   {"kind", {kindName(variable.kind)}},
                                   {"list", {variable.isList ? "true" : "false"}}};
    if (variable.kind == ValueKind::kInteger) {
        list.push_back({"min", {std::to_string(variable.minimum)}});
        list.push_back({"max", {std::to_string(variable.maximum)}});
    } else if (variable.kind == ValueKind::kString) {
        list.push_back({"max-length", {std::to_string(variable.maxLength)}});
    }
    if (variable.isList) {
        list.push_back({"min-count", {std::to_string(variable.minCount)}});
        list.push_back({"max-count", {std::to_string(variable.maxCount)}});
    }
    list.push_back({"read", {CommonIF::eSecurityRole_Name(variable.readLevel)}});
    list.push_back({"write", {CommonIF::eSecurityRole_Name(variable.writeLevel)}});
    list.push_back({"reboot", {variable.rebootRequired ? "true" : "false"}});
    list.push_back({"description", {variable.description}});
    list.push_back({"default", variable.defaults, variable.isList});
    if (variable.kind == ValueKind::kOption) {
        list.push_back({"option", variable.options, true});
    }
    return list;
}

std::vector<Attribute> describeNode(const NodeDef& node, const Records& records) {
    Attribute nodes{"node", {}, true};
    Attribute variables{"variable", {}, true};
    for (const auto& child : node.nodes) {
        nodes.values.push_back(child->name);
    }
    for (const auto& child : node.variables) {
        variables.values.push_back(child->name);
    }
    return {{"name", {node.name}},
            {"path", {node.path}},
            {"instances", {std::to_string(node.instances)}},
            {"description", {effectiveDescription(records, node)}},
            nodes,
            variables};
}

// The XML of GetAttributeRsp: one <node> or <variable> element; with `only` set, its name and
// path and that one attribute. False when `only` names no attribute of it.
bool toXml(const char* element, const std::vector<Attribute>& attributes, const std::string& only,
           std::string* xml) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child(element);
    bool found = only.empty();
    for (const Attribute& attribute : attributes) {
        const bool wanted = only.empty() || attribute.name == only || attribute.name == "name" ||
                            attribute.name == "path";
        found = found || attribute.name == only;
        if (!wanted) {
            continue;
        }
        if (!attribute.element) {
            root.append_attribute(attribute.name.c_str()) = attribute.values.at(0).c_str();
            continue;
        }
        for (const std::string& value : attribute.values) {
            pugi::xml_node child = root.append_child(attribute.name.c_str());
            // Children of a node are named in an attribute, options and defaults are text.
            if (attribute.name == "node" || attribute.name == "variable") {
                child.append_attribute("name") = value.c_str();
            } else {
                child.text() = value.c_str();
            }
        }
    }
    std::ostringstream text;
    document.save(text, "", pugi::format_raw | pugi::format_no_declaration);
    *xml = text.str();
    return found;
}

// Reads SetAttributeReq's XML, <attributes NAME="VALUE" .../>, into name/value pairs.
bool parseAttributeXml(const std::string& xml, std::vector<std::string>* pairs,
                       std::string* reason) {
    pugi::xml_document document;
    pugi::xml_parse_result parsed = document.load_buffer(xml.data(), xml.size());
    pugi::xml_node root = document.document_element();
    if (!parsed || std::string(root.name()) != "attributes" || root.first_child()) {
        *reason = "node_xml_attributes must be one empty <attributes NAME=\"VALUE\" .../> element";
        return false;
    }
    for (const pugi::xml_attribute& attribute : root.attributes()) {
        for (size_t i = 0; i < pairs->size(); i += 2) {
            if ((*pairs)[i] == attribute.name()) {
                *reason = "attribute " + quoted(attribute.name()) + " is given twice";
                return false;
            }
        }
        pairs->insert(pairs->end(), {attribute.name(), attribute.value()});
    }
    if (pairs->empty()) {
        *reason = "<attributes> sets no attribute";
        return false;
    }
    return true;
}

}  // namespace

bool ConfigService::mayChangeAttributes(eSecurityRole role, const VariableDef* variable,
                                        const std::string& path, std::string* reason) const {
    // Attributes hold for every instance, so changing them is at least an administrator's act.
    const eSecurityRole level =
        variable != nullptr ? std::max(CommonIF::kAdmin, variable->writeLevel) : CommonIF::kAdmin;
    return reaches(role, level, "change the attributes of", path.empty() ? "(root)" : path, reason);
}

bool ConfigService::storedValuesFit(const VariableDef& variable, const VariableDef& candidate,
                                    std::string* reason) const {
    if (!defaultsFit(candidate, reason)) {
        return false;
    }
    const Records& records = state_.accepted();
    for (RecordKind kind : {RecordKind::kOptions, RecordKind::kValue}) {
        for (const auto& [key, values] : records.all(kind)) {
            ResolvedVariable found;
            if (!model_.resolveKey(key, &found) || found.variable != &variable) {
                continue;
            }
            VariableDef instance = candidate;
            const std::vector<std::string>* options = records.find(RecordKind::kOptions, key);
            std::vector<std::string> canonical;
            const bool fits =
                (options == nullptr ||
                 (applyOptions(*options, &instance, reason) && defaultsFit(instance, reason))) &&
                (kind == RecordKind::kOptions || checkValues(instance, values, &canonical, reason));
            if (!fits) {
                *reason = "'" + key + "' would no longer fit: " + *reason;
                return false;
            }
        }
    }
    return true;
}

void ConfigService::getAttribute(const ConfigIF::GetAttributeReq& request, const Sender&,
                                 ConfigIF::GetAttributeRsp* response, Answer* answer) const {
    response->set_name(request.name());
    response->set_node_name(request.node_name());
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    if (const eErrorType error = findNamed(request.node_name(), &node, &variable, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    std::string xml;
    bool known = false;
    if (variable != nullptr) {
        ResolvedVariable found;
        found.variable = variable;
        VariableDef scratch;
        // The variable's own attributes: levels and options of single instances are per instance.
        const VariableDef& effective = effectiveVariable(state_.committed(), found, &scratch);
        known = toXml("variable", describeVariable(effective), request.attribute(), &xml);
    } else {
        known = toXml("node", describeNode(*node, state_.committed()), request.attribute(), &xml);
    }
    if (!known) {
        answer->refusals.push_back("'" + printable(request.node_name(), 200) +
                                   "' has no attribute " + quoted(request.attribute()));
        response->set_error(CommonIF::kErrBadParameter);
        return;
    }
    response->set_error(CommonIF::kErrNoError);
    response->set_node_xml_attributes(xml);
}

eErrorType ConfigService::attributeTarget(const std::string& path, eSecurityRole role,
                                          const NodeDef** node, const VariableDef** variable,
                                          std::string* reason) const {
    const eErrorType error = lookUpNamed(path, node, variable, reason);
    if (error != CommonIF::kErrNoError) {
        return error;
    }
    return mayChangeAttributes(role, *variable, path, reason) ? CommonIF::kErrNoError
                                                              : CommonIF::kErrNotAuthorized;
}

void ConfigService::setAttribute(const ConfigIF::SetAttributeReq& request, const Sender&,
                                 ConfigIF::SetAttributeRsp* response, Answer* answer) const {
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    const Records& records = state_.accepted();
    const std::string& path = request.node_name();
    std::vector<std::string> update;
    std::string reason;
    StoredChange change{RecordKind::kAttributes, path, false, {}};
    CommonIF::eErrorType error = attributeTarget(path, request.role(), &node, &variable, &reason);
    if (error == CommonIF::kErrNoError &&
        !parseAttributeXml(request.node_xml_attributes(), &update, &reason)) {
        error = CommonIF::kErrBadParameter;
    } else if (error == CommonIF::kErrNoError) {
        const std::vector<std::string>* stored = records.find(RecordKind::kAttributes, path);
        change.values = mergeAttributes(stored ? *stored : std::vector<std::string>(), update);
        VariableDef candidate = variable != nullptr ? *variable : VariableDef();
        if (!applyAttributes(change.values, variable ? &candidate : nullptr, &reason)) {
            error = CommonIF::kErrBadParameter;
        } else if (variable != nullptr && !storedValuesFit(*variable, candidate, &reason)) {
            error = CommonIF::kErrBadState;
        }
    }
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
        return;
    }
    answer->changes.push_back(std::move(change));
}

void ConfigService::resetAttribute(const ConfigIF::ResetAttributeReq& request, const Sender&,
                                   ConfigIF::ResetAttributeRsp* response, Answer* answer) const {
    const NodeDef* node = nullptr;
    const VariableDef* variable = nullptr;
    const std::string& path = request.node_name();
    std::string reason;
    CommonIF::eErrorType error = attributeTarget(path, request.role(), &node, &variable, &reason);
    if (error == CommonIF::kErrNoError && variable != nullptr &&
        !storedValuesFit(*variable, *variable, &reason)) {
        error = CommonIF::kErrBadState;  // a value stored under a widened bound
    }
    response->set_error(error);
    if (error != CommonIF::kErrNoError) {
        answer->refusals.push_back(reason);
        return;
    }
    if (state_.accepted().find(RecordKind::kAttributes, path) != nullptr) {
        answer->changes.push_back({RecordKind::kAttributes, path, true, {}});
    }
}

void ConfigService::readAttributes(const ConfigIF::ReadAttributesReq& request, const Sender&,
                                   ConfigIF::ReadAttributesRsp* response, Answer* answer) const {
    response->set_name(request.name());
    *response->mutable_instance() = request.instance();
    ResolvedVariable found;
    if (const eErrorType error = resolve(request.instance(), &found, answer);
        error != CommonIF::kErrNoError) {
        response->set_error(error);
        return;
    }
    VariableDef scratch;
    const VariableDef& effective = effectiveVariable(state_.committed(), found, &scratch);
    response->set_error(CommonIF::kErrNoError);
    for (const Attribute& attribute : describeVariable(effective)) {
        ConfigIF::AttrValuePair* pair = response->add_value_pairs();
        pair->set_attribute(attribute.name);
        for (const std::string& value : attribute.values) {
            pair->add_value(value);
        }
    }
}

}  // namespace configsrvc

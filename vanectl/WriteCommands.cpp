// set, validate, reset, levels, options and component: one change, or its check.
#include <algorithm>

#include "Changes.h"
#include "Commands.h"
#include "LineFormat.h"
#include "ModelTree.h"
#include "Printing.h"

namespace vanectl {

namespace {

ConfigIF::InstValue instValue(const VanePath& path, const std::vector<std::string>& values) {
    ConfigIF::InstValue instValue;
    *instValue.mutable_instance() = path.inst;
    for (const std::string& value : values) {
        instValue.add_value(value);
    }
    return instValue;
}

void printWriteResult(const Output& output, const VanePath& path, bool validating,
                      bool rebootRequired) {
    if (output.json) {
        Json json = {{"path", path.text}};
        if (validating) {
            json["valid"] = true;
        }
        json["reboot_required"] = rebootRequired;
        printJson(json);
        return;
    }
    if (validating) {
        printLine(path.text + ": valid");
    }
    if (rebootRequired) {
        printLine(path.text + ": takes effect after a restart");
    }
}

// Whether the node `path` names a single instance of everything under it only when every node
// on the way has one instance: then a reset by node name resets exactly what was named.
int holdsOneInstancePerNode(Service& service, const VanePath& path, bool* single) {
    *single = true;
    std::string prefix;
    for (const ConfigIF::Node& node : path.inst.node()) {
        prefix += (prefix.empty() ? "" : ".") + node.name();
        ModelElement element;
        const int status = describeElement(service, prefix, path.text, &element);
        if (status != 0) {
            return status;
        }
        *single = *single && element.instances == 1;
    }
    return 0;
}

int resetValue(Service& service, const VanePath& path) {
    ConfigIF::ResetValueReq request;
    *request.mutable_instance() = path.inst;
    ConfigIF::ResetValueRsp response;
    const int status =
        service.call(&configclient::ConfigSession::resetValue, request, &response, path.text);
    return status != 0 ? status : service.serviceError(response.error(), path.text);
}

int resetNodeByName(Service& service, const VanePath& path) {
    ConfigIF::ResetNodeValueReq request;
    request.set_node_name(path.nodeName);
    ConfigIF::ResetNodeValueRsp response;
    const int status =
        service.call(&configclient::ConfigSession::resetNodeValue, request, &response, path.text);
    return status != 0 ? status : service.serviceError(response.error(), path.text);
}

// One instance of a node whose name stands for several: each variable instance under it that may
// differ from its default is written back to it, in one submission. Those that cannot be read
// are included (the write's level check decides); those in a detached component are passed over,
// as a reset by node name passes over them.
int resetNodeInstance(Service& service, const VanePath& path) {
    std::vector<TreeItem> items;
    int status = walkTree(service, path, &items);
    status = status != 0 ? status : readValues(service, &items);
    std::vector<const TreeItem*> resets;
    for (const TreeItem& item : items) {
        const bool unreadable = item.error == CommonIF::kErrNotAuthorized;
        if (item.isVariable && ((item.error == 0 && !item.isDefault) || unreadable)) {
            resets.push_back(&item);
        }
    }
    std::vector<Change> changes;
    status = status != 0 ? status : addResets(service, resets, &changes);
    bool rebootRequired = false;
    return status != 0 ? status : commitChanges(service, path.text, changes, &rebootRequired);
}

std::optional<std::string> defaultOf(const ConfigIF::GetAttributeOptionsRsp& response) {
    if (!response.has_default_index() || response.default_index() < 0 ||
        response.default_index() >= response.node_options_size()) {
        return std::nullopt;
    }
    return response.node_options(response.default_index());
}

int printOptions(Service& service, const Output& output, const VanePath& path) {
    ConfigIF::GetAttributeOptionsReq request;
    *request.mutable_instance() = path.inst;
    ConfigIF::GetAttributeOptionsRsp response;
    int status = service.call(&configclient::ConfigSession::getAttributeOptions, request, &response,
                              path.text);
    status = status != 0 ? status : service.serviceError(response.error(), path.text);
    if (status != 0) {
        return status;
    }
    const std::optional<std::string> defaultOption = defaultOf(response);
    if (output.json) {
        printJson({{"path", path.text},
                   {"options", std::vector<std::string>(response.node_options().begin(),
                                                        response.node_options().end())},
                   {"default", defaultOption ? Json(*defaultOption) : Json(nullptr)}});
        return 0;
    }
    for (int i = 0; i < response.node_options_size(); ++i) {
        const bool isDefault = response.has_default_index() && i == response.default_index();
        printLine(response.node_options(i) + (isDefault ? "  (default)" : ""));
    }
    return 0;
}

int printLevels(Service& service, const Output& output, const VanePath& path) {
    ConfigIF::GetAccessLevelsReq request;
    *request.mutable_instance() = path.inst;
    ConfigIF::GetAccessLevelsRsp response;
    int status =
        service.call(&configclient::ConfigSession::getAccessLevels, request, &response, path.text);
    status = status != 0 ? status : service.serviceError(response.error(), path.text);
    if (status != 0) {
        return status;
    }
    const std::string read = CommonIF::eSecurityRole_Name(response.read_level());
    const std::string write = CommonIF::eSecurityRole_Name(response.write_level());
    if (output.json) {
        printJson({{"path", path.text}, {"read", read}, {"write", write}});
    } else {
        printLine("read  " + read);
        printLine("write " + write);
    }
    return 0;
}

}  // namespace

int runSet(Service& service, const Output& output, const std::string& text,
           const std::vector<std::string>& values) {
    VanePath path;
    int status = takePath(text, &path);
    if (status != 0) {
        return status;
    }
    ConfigIF::WriteReq request;
    *request.mutable_instance_val() = instValue(path, values);
    ConfigIF::WriteRsp response;
    status = service.call(&configclient::ConfigSession::write, request, &response, path.text);
    status = status != 0 ? status : service.serviceError(response.ret_message(), path.text);
    if (status == 0) {
        printWriteResult(output, path, false, response.ret_message().reboot_required());
    }
    return status;
}

int runValidate(Service& service, const Output& output, const std::string& text,
                const std::vector<std::string>& values) {
    VanePath path;
    int status = takePath(text, &path);
    if (status != 0) {
        return status;
    }
    ConfigIF::ValidateReq request;
    *request.mutable_instance_val() = instValue(path, values);
    ConfigIF::ValidateRsp response;
    status = service.call(&configclient::ConfigSession::validate, request, &response, path.text);
    status = status != 0 ? status : service.serviceError(response.ret_message(), path.text);
    if (status == 0) {
        printWriteResult(output, path, true, response.ret_message().reboot_required());
    }
    return status;
}

int runReset(Service& service, const std::string& text) {
    VanePath path;
    ModelElement element;
    int status = takeElement(service, text, &path, &element);
    if (status != 0) {
        return status;
    }
    if (element.isVariable) {
        return resetValue(service, path);
    }
    bool single = true;
    status = holdsOneInstancePerNode(service, path, &single);
    if (status != 0) {
        return status;
    }
    return single ? resetNodeByName(service, path) : resetNodeInstance(service, path);
}

int runLevels(Service& service, const Output& output, const std::string& text,
              std::optional<CommonIF::eSecurityRole> read,
              std::optional<CommonIF::eSecurityRole> write) {
    VanePath path;
    int status = takePath(text, &path);
    if (status != 0 || (!read && !write)) {
        return status != 0 ? status : printLevels(service, output, path);
    }
    ConfigIF::SetAccessLevelsReq request;
    *request.add_instance() = path.inst;
    if (read) {
        request.set_read_level(*read);
    }
    if (write) {
        request.set_write_level(*write);
    }
    ConfigIF::SetAccessLevelsRsp response;
    status =
        service.call(&configclient::ConfigSession::setAccessLevels, request, &response, path.text);
    if (status == 0 && response.errors_size() != 1) {
        reportLine(path.text, "the service answered without the instance's result");
        return kTransportStatus;
    }
    return status != 0 ? status : service.serviceError(response.errors(0).error(), path.text);
}

int runOptions(Service& service, const Output& output, const std::string& text,
               const std::vector<std::string>& options, const std::string& defaultOption) {
    VanePath path;
    int status = takePath(text, &path);
    if (status != 0 || options.empty()) {
        return status != 0 ? status : printOptions(service, output, path);
    }
    ConfigIF::SetAttributeOptionsReq request;
    *request.mutable_instance() = path.inst;
    for (const std::string& option : options) {
        request.add_node_options(option);
    }
    if (!defaultOption.empty()) {
        const auto found = std::find(options.begin(), options.end(), defaultOption);
        if (found == options.end()) {
            return usageError(path.text,
                              "the default '" + defaultOption + "' is not one of the options");
        }
        request.set_default_index(static_cast<int32_t>(found - options.begin()));
    }
    ConfigIF::SetAttributeOptionsRsp response;
    status = service.call(&configclient::ConfigSession::setAttributeOptions, request, &response,
                          path.text);
    return status != 0 ? status : service.serviceError(response.error(), path.text);
}

int runComponent(Service& service, const std::string& name, bool detach) {
    ConfigIF::ComponentChangeReq request;
    request.set_component_name(name);
    request.set_detach(detach);
    ConfigIF::ComponentChangeRsp response;
    const int status =
        service.call(&configclient::ConfigSession::componentChange, request, &response, name);
    return status != 0 ? status : service.serviceError(response.error(), name);
}

}  // namespace vanectl

// get, describe, list and tree: what the service holds, as it stands.
#include <algorithm>
#include <cstdlib>

#include "Commands.h"
#include "LineFormat.h"
#include "ModelTree.h"
#include "Printing.h"

namespace vanectl {

namespace {

// Reads `paths` in one batch (one committed state) into *items, keeping the user's spelling.
int readPaths(Service& service, const std::vector<std::string>& paths,
              std::vector<TreeItem>* items) {
    for (const std::string& text : paths) {
        VanePath path;
        const int status = takePath(text, &path);
        if (status != 0) {
            return status;
        }
        TreeItem item;
        item.isVariable = true;
        item.inst = path.inst;
        item.path = path.text;
        items->push_back(item);
    }
    return readValues(service, items);
}

void printTable(const std::vector<TreeItem>& items) {
    size_t width = 0;
    for (const TreeItem& item : items) {
        width = std::max(width, item.path.size());
    }
    for (const TreeItem& item : items) {
        if (item.error == 0) {
            std::string line = item.path + std::string(width - item.path.size() + 2, ' ');
            printLine(line + joinWords(item.values));
        }
    }
}

// The first item's error, each reported on its own line.
int reportItemErrors(const Service& service, const std::vector<TreeItem>& items) {
    int first = 0;
    for (const TreeItem& item : items) {
        const int status = service.serviceError(item.error, item.path);
        first = first != 0 ? first : status;
    }
    return first;
}

// How many instances the variable or node `nodeName` has in the whole tree: the product of the
// instances of the nodes above it.
int countInstances(Service& service, const VanePath& path, int* count) {
    *count = 1;
    std::string prefix;
    for (int i = 0; i + 1 < path.inst.node_size(); ++i) {
        prefix += (prefix.empty() ? "" : ".") + path.inst.node(i).name();
        ModelElement node;
        const int status = describeElement(service, prefix, path.text, &node);
        if (status != 0) {
            return status;
        }
        *count *= node.instances;
    }
    return 0;
}

bool isNumberAttribute(const std::string& name) {
    return name == "min" || name == "max" || name == "max-length" || name == "min-count" ||
           name == "max-count";
}

Json numberOrText(const std::string& text) {
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' ? Json(number) : Json(text);
}

Json variableJson(const VanePath& path, const ConfigIF::ReadAttributesRsp& attributes,
                  int instances) {
    Json json = {{"path", path.text},       {"element", "variable"}, {"kind", nullptr},
                 {"list", false},           {"min", nullptr},        {"max", nullptr},
                 {"max_length", nullptr},   {"min_count", nullptr},  {"max_count", nullptr},
                 {"read", nullptr},         {"write", nullptr},      {"reboot", false},
                 {"instances", instances},  {"description", ""},     {"defaults", Json::array()},
                 {"options", Json::array()}};
    for (const ConfigIF::AttrValuePair& pair : attributes.value_pairs()) {
        const std::string& name = pair.attribute();
        if (name == "name" || name == "path") {
            continue;  // the user's path stands for the instance
        }
        const std::string first = pair.value_size() > 0 ? pair.value(0) : "";
        std::string key = name;
        std::replace(key.begin(), key.end(), '-', '_');
        if (name == "list" || name == "reboot") {
            json[key] = first == "true";
        } else if (isNumberAttribute(name)) {
            json[key] = numberOrText(first);
        } else if (name == "default") {
            json["defaults"] = std::vector<std::string>(pair.value().begin(), pair.value().end());
        } else if (name == "option") {
            json["options"] = std::vector<std::string>(pair.value().begin(), pair.value().end());
        } else if (json.contains(key)) {
            json[key] = first;
        }
    }
    return json;
}

void printField(const std::string& name, const std::string& value) {
    if (value.empty()) {
        printLine(name);
        return;
    }
    printLine(name + std::string(name.size() < 12 ? 12 - name.size() : 1, ' ') + value);
}

int describeVariable(Service& service, const Output& output, const VanePath& path) {
    ConfigIF::ReadAttributesReq request;
    *request.mutable_instance() = path.inst;
    ConfigIF::ReadAttributesRsp response;
    int status =
        service.call(&configclient::ConfigSession::readAttributes, request, &response, path.text);
    status = status != 0 ? status : service.serviceError(response.error(), path.text);
    int instances = 1;
    status = status != 0 ? status : countInstances(service, path, &instances);
    if (status != 0) {
        return status;
    }
    if (output.json) {
        printJson(variableJson(path, response, instances));
        return 0;
    }
    printField("path", path.text);
    printField("element", "variable");
    for (const ConfigIF::AttrValuePair& pair : response.value_pairs()) {
        if (pair.attribute() != "name" && pair.attribute() != "path") {
            printField(pair.attribute(), joinWords({pair.value().begin(), pair.value().end()}));
        }
    }
    printField("instances", std::to_string(instances));
    return 0;
}

void describeNode(const Output& output, const VanePath& path, const ModelElement& node) {
    if (output.json) {
        printJson({{"path", path.text},
                   {"element", "node"},
                   {"instances", node.instances},
                   {"description", node.description},
                   {"nodes", node.nodes},
                   {"variables", node.variables}});
        return;
    }
    printField("path", path.text);
    printField("element", "node");
    printField("instances", std::to_string(node.instances));
    printField("description", quoteWord(node.description));
    printField("nodes", joinWords(node.nodes));
    printField("variables", joinWords(node.variables));
}

// The walk of `text` with every value read.
int walkAndRead(Service& service, const std::string& text, std::vector<TreeItem>* items) {
    VanePath path;
    int status = takePath(text, &path);
    status = status != 0 ? status : walkTree(service, path, items);
    return status != 0 ? status : readValues(service, items);
}

std::string listLine(const TreeItem& item) {
    if (item.error != 0) {
        return "# " + item.path + " (" + errorName(item.error) + ")";
    }
    std::vector<std::string> words = {item.path};
    words.insert(words.end(), item.values.begin(), item.values.end());
    return joinWords(words) + (item.isDefault ? "  # default" : "");
}

std::string treeLine(const TreeItem& item, int depth) {
    std::string line = std::string(2 * depth, ' ') + item.label;
    if (item.error != 0) {
        return line + (item.isVariable ? ": (" : " (") + errorName(item.error) + ")";
    }
    if (!item.isVariable) {
        return line;
    }
    line += ":";
    if (!item.values.empty()) {
        line += " " + joinWords(item.values);
    }
    return line + (item.isDefault ? "  (default)" : "");
}

// The items from *at on at `depth` and below as one JSON object, nested like the model.
Json treeJson(const std::vector<TreeItem>& items, size_t* at) {
    const TreeItem& item = items[(*at)++];
    Json json = {{"name", item.label}, {"path", item.path}};
    if (item.error != 0) {
        json["error"] = errorName(item.error);
        return json;
    }
    if (item.isVariable) {
        json["values"] = item.values;
        json["is_default"] = item.isDefault;
        return json;
    }
    json["nodes"] = Json::array();
    json["variables"] = Json::array();
    while (*at < items.size() && items[*at].depth > item.depth) {
        const bool variable = items[*at].isVariable;
        json[variable ? "variables" : "nodes"].push_back(treeJson(items, at));
    }
    return json;
}

}  // namespace

int runGet(Service& service, const Output& output, const std::vector<std::string>& paths) {
    std::vector<TreeItem> items;
    const int status = readPaths(service, paths, &items);
    if (status != 0) {
        return status;
    }
    if (output.json) {
        Json values = Json::array();
        for (const TreeItem& item : items) {
            values.push_back(itemJson(item));
        }
        printJson({{"values", values}});
    } else if (items.size() == 1) {
        for (const std::string& value : items[0].values) {
            printLine(value);
        }
    } else {
        printTable(items);
    }
    return reportItemErrors(service, items);
}

int runDescribe(Service& service, const Output& output, const std::string& text) {
    VanePath path;
    ModelElement element;
    const int status = takeElement(service, text, &path, &element);
    if (status != 0) {
        return status;
    }
    if (element.isVariable) {
        return describeVariable(service, output, path);
    }
    describeNode(output, path, element);
    return 0;
}

int runList(Service& service, const Output& output, const std::string& text) {
    std::vector<TreeItem> items;
    const int status = walkAndRead(service, text, &items);
    if (status != 0) {
        return status;
    }
    Json variables = Json::array();
    for (const TreeItem& item : items) {
        if (!item.isVariable && item.error == 0) {
            continue;
        }
        if (output.json) {
            variables.push_back(itemJson(item));
        } else {
            printLine(listLine(item));
        }
    }
    if (output.json) {
        printJson({{"variables", variables}});
    }
    return 0;
}

int runTree(Service& service, const Output& output, const std::string& text) {
    std::vector<TreeItem> items;
    const int status = walkAndRead(service, text, &items);
    if (status != 0) {
        return status;
    }
    if (output.json) {
        size_t at = 0;
        printJson(treeJson(items, &at));
        return 0;
    }
    // The root has no name of its own to show: its children stand at the left.
    const bool fromRoot = items[0].inst.node_size() == 0;
    for (size_t i = fromRoot ? 1 : 0; i < items.size(); ++i) {
        printLine(treeLine(items[i], items[i].depth - (fromRoot ? 1 : 0)));
    }
    return 0;
}

}  // namespace vanectl

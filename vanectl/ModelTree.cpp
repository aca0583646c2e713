#include "ModelTree.h"

#include <algorithm>
#include <map>

#include <pugixml.hpp>

namespace vanectl {

namespace {

// The most instances one batch request may name.
const int kBatchLimit = 1024;

bool parseElement(const std::string& xml, ModelElement* element) {
    pugi::xml_document document;
    if (!document.load_buffer(xml.data(), xml.size())) {
        return false;
    }
    const pugi::xml_node root = document.document_element();
    element->isVariable = std::string(root.name()) == "variable";
    element->name = root.attribute("name").value();
    element->nodeName = root.attribute("path").value();
    element->instances = root.attribute("instances").as_int(1);
    element->description = root.attribute("description").value();
    for (const pugi::xml_node child : root.children()) {
        const std::string kind = child.name();
        if (kind == "node") {
            element->nodes.push_back(child.attribute("name").value());
        } else if (kind == "variable") {
            element->variables.push_back(child.attribute("name").value());
        }
    }
    return true;
}

std::string childName(const std::string& parent, const std::string& name) {
    return parent.empty() ? name : parent + "." + name;
}

std::string labelOf(const ConfigIF::Inst& inst) {
    if (inst.node_size() == 0) {
        return ".";
    }
    const ConfigIF::Node& last = inst.node(inst.node_size() - 1);
    return last.instance() == 0 ? last.name() : last.name() + "." + std::to_string(last.instance());
}

}  // namespace

int fetchElement(Service& service, const std::string& nodeName, const std::string& subject,
                 ModelElement* element, int* error) {
    ConfigIF::GetAttributeReq request;
    request.set_node_name(nodeName);
    ConfigIF::GetAttributeRsp response;
    const int status =
        service.call(&configclient::ConfigSession::getAttribute, request, &response, subject);
    *error = status == 0 ? response.error() : 0;
    if (status != 0 || *error != 0) {
        return status;
    }
    if (!parseElement(response.node_xml_attributes(), element)) {
        reportLine(subject, "the service described it in XML that does not parse");
        return kTransportStatus;
    }
    return 0;
}

namespace {

class TreeWalk {
  public:
    TreeWalk(Service& service, std::vector<TreeItem>* items) : service_(service), items_(items) {}
    virtual ~TreeWalk() {}

    // Adds the element `nodeName` at instance `inst` and, for a node, everything below it.
    int add(const std::string& nodeName, const ConfigIF::Inst& inst, int depth) {
        const ModelElement* element = nullptr;
        int error = 0;
        const int status = lookUp(nodeName, &element, &error);
        if (status != 0 || error != 0) {
            return status != 0 ? status : service_.serviceError(error, pathText(inst));
        }
        TreeItem item;
        item.depth = depth;
        item.isVariable = element->isVariable;
        item.inst = inst;
        item.path = pathText(inst);
        item.label = labelOf(inst);
        items_->push_back(item);
        return element->isVariable ? 0 : addChildren(*element, inst, depth + 1);
    }

  private:
    int addChildren(const ModelElement& element, const ConfigIF::Inst& inst, int depth) {
        for (const std::string& name : element.variables) {
            const int status =
                add(childName(element.nodeName, name), withNode(inst, name, 0), depth);
            if (status != 0) {
                return status;
            }
        }
        for (const std::string& name : element.nodes) {
            const int status =
                addNodeInstances(childName(element.nodeName, name), name, inst, depth);
            if (status != 0) {
                return status;
            }
        }
        return 0;
    }

    // Adds each instance of the child node `name`; a node of one instance keeps instance 0. A
    // node in a detached component is one item that says so, without children.
    int addNodeInstances(const std::string& nodeName, const std::string& name,
                         const ConfigIF::Inst& parent, int depth) {
        const ModelElement* node = nullptr;
        int error = 0;
        const int status = lookUp(nodeName, &node, &error);
        if (status != 0 || error != 0) {
            return status != 0 ? status : addUnavailable(parent, name, depth, error);
        }
        if (node->instances <= 1) {
            return add(nodeName, withNode(parent, name, 0), depth);
        }
        for (int i = 1; i <= node->instances; ++i) {
            const int added = add(nodeName, withNode(parent, name, i), depth);
            if (added != 0) {
                return added;
            }
        }
        return 0;
    }

    int addUnavailable(const ConfigIF::Inst& parent, const std::string& name, int depth,
                       int error) {
        if (error != CommonIF::kNotEnabled) {
            return service_.serviceError(error, pathText(withNode(parent, name, 0)));
        }
        TreeItem item;
        item.depth = depth;
        item.inst = withNode(parent, name, 0);
        item.path = pathText(item.inst);
        item.label = name;
        item.error = error;
        items_->push_back(item);
        return 0;
    }

    // The element `nodeName`, asked for once per walk.
    int lookUp(const std::string& nodeName, const ModelElement** element, int* error) {
        auto known = cache_.find(nodeName);
        if (known == cache_.end()) {
            ModelElement fetched;
            const int status = fetchElement(service_, nodeName, nodeName, &fetched, error);
            if (status != 0 || *error != 0) {
                return status;
            }
            known = cache_.emplace(nodeName, fetched).first;
        }
        *element = &known->second;
        return 0;
    }

    static ConfigIF::Inst withNode(const ConfigIF::Inst& parent, const std::string& name,
                                   int instance) {
        ConfigIF::Inst inst = parent;
        ConfigIF::Node* node = inst.add_node();
        node->set_name(name);
        node->set_instance(instance);
        return inst;
    }

    Service& service_;
    std::vector<TreeItem>* items_;
    std::map<std::string, ModelElement> cache_;
};
}  // namespace

int describeElement(Service& service, const std::string& nodeName, const std::string& subject,
                    ModelElement* element) {
    int error = 0;
    const int status = fetchElement(service, nodeName, subject, element, &error);
    return status != 0 ? status : service.serviceError(error, subject);
}

int walkTree(Service& service, const VanePath& path, std::vector<TreeItem>* items) {
    TreeWalk walk(service, items);
    return walk.add(path.nodeName, path.inst, 0);
}

int readValues(Service& service, std::vector<TreeItem>* items) {
    std::vector<TreeItem*> variables;
    for (TreeItem& item : *items) {
        if (item.isVariable) {
            variables.push_back(&item);
        }
    }
    for (size_t first = 0; first < variables.size(); first += kBatchLimit) {
        const size_t end = std::min(variables.size(), first + kBatchLimit);
        ConfigIF::BatchReadReq request;
        for (size_t i = first; i < end; ++i) {
            *request.add_instance() = variables[i]->inst;
        }
        ConfigIF::BatchReadRsp response;
        const std::string subject = variables[first]->path;
        int status =
            service.call(&configclient::ConfigSession::batchRead, request, &response, subject);
        if (status == 0) {
            status = service.serviceError(response.error(), subject);
        }
        if (status == 0 && response.response_size() != static_cast<int>(end - first)) {
            reportLine(subject, "the service answered a batch read with the wrong number of items");
            status = kTransportStatus;
        }
        if (status != 0) {
            return status;
        }
        for (size_t i = first; i < end; ++i) {
            const ConfigIF::ReadRsp& answer = response.response(static_cast<int>(i - first));
            variables[i]->error = answer.error();
            variables[i]->values.assign(answer.value().begin(), answer.value().end());
            variables[i]->isDefault = answer.is_default();
        }
    }
    return 0;
}

}  // namespace vanectl

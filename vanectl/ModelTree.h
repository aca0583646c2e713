// The model as the service describes it over the protocol (GetAttributeReq per node), and the
// variable instances under a path, with their current values.
#ifndef VANECTL_MODELTREE_H
#define VANECTL_MODELTREE_H

#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "Service.h"
#include "VanePath.h"

namespace vanectl {

// One element of the model: a node or a variable, by its node name.
struct ModelElement {
    bool isVariable = false;
    std::string name;
    std::string nodeName;
    int instances = 1;  // a node's instances; 1 for a variable
    std::string description;
    std::vector<std::string> nodes;      // a node's child nodes, by name, in model order
    std::vector<std::string> variables;  // a node's variables, by name, in model order
};

// Asks the service for the element `nodeName` ("" is the root): 0 or the reported failure,
// naming `subject`.
int describeElement(Service& service, const std::string& nodeName, const std::string& subject,
                    ModelElement* element);
// The same, quiet about the service's refusal: a failed exchange is reported and returned, the
// service's error is left in *error.
int fetchElement(Service& service, const std::string& nodeName, const std::string& subject,
                 ModelElement* element, int* error);

// One line of a walk over the tree: a node instance or a variable instance, in model order,
// parents before children.
struct TreeItem {
    int depth = 0;  // 0 for the element the walk started at
    bool isVariable = false;
    std::string label;    // the name, and the instance number of a node that has several
    ConfigIF::Inst inst;  // the instance (a node instance's nodes for a node)
    std::string path;     // pathText(inst)
    // The variable's value, as read: error, values, whether it is the default.
    int error = 0;
    std::vector<std::string> values;
    bool isDefault = false;
};

// Walks the element that `path` names and everything under it: the nodes named in the path
// keep the instance numbers given there, nodes below it are expanded to each of their
// instances (a node of one instance keeps instance 0, and its paths no number). 0 or the
// reported failure.
int walkTree(Service& service, const VanePath& path, std::vector<TreeItem>* items);

// Reads the value of every variable item in *items, in batches of the most that one request
// takes: 0 or the reported failure of a whole batch. An item's own error stays in the item.
int readValues(Service& service, std::vector<TreeItem>* items);

}  // namespace vanectl

#endif  // VANECTL_MODELTREE_H

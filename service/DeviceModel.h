// DeviceModel: the variable tree a configuration service serves, as declared in a model file.
//
// A model is a tree of nodes. Each node may exist several times (its instance count) and holds
// further nodes and variables. A variable is the leaf a client reads or writes: it has a value
// kind, is single or a list, has default value(s), a read and a write level, and may need a
// reboot to take effect once changed.
//
// Levels and claims are the protocol's roles (CommonIF::eSecurityRole), compared by number:
// higher is more privileged. Model files name them as the protocol does.
//
// Addressing: a client names a variable by the path of its nodes, each with an instance number,
// ending with the variable itself. A node declared with N instances has the instances 1 to N;
// the instance number 0 stands for instance 1, because clients send 0 when their user names no
// instance. A variable has one instance, so its own number must be 0 or 1.
//
// The model is immutable once loaded and may be read from several threads.
#ifndef CONFIGSRVC_DEVICE_MODEL_H
#define CONFIGSRVC_DEVICE_MODEL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"

namespace configsrvc {

enum class ValueKind { kString, kInteger, kBoolean, kOption };

const char* kindName(ValueKind kind);

// Bounds that keep a request, and the memory of the service, finite whatever a model says.
constexpr size_t kMaxValueBytes = 4096;  // longest single value
constexpr size_t kMaxListCount = 256;    // most values of a list variable
constexpr int kMaxInstances = 1000;      // most instances of a node
constexpr size_t kMaxPathDepth = 16;     // most nodes on a path, variable included

struct VariableDef {
    std::string name;
    std::string path;  // node names and its own joined by '.': "network.interface.mtu"
    std::string description;
    ValueKind kind = ValueKind::kString;
    bool isList = false;
    int64_t minimum = INT64_MIN;        // integer only
    int64_t maximum = INT64_MAX;        // integer only
    size_t maxLength = 255;             // string only, in bytes
    bool controlsAllowed = false;       // string only: values may hold control characters
    size_t minCount = 0;                // list only
    size_t maxCount = 16;               // list only
    std::vector<std::string> options;   // option only, in declaration order
    std::vector<std::string> defaults;  // in canonical form
    CommonIF::eSecurityRole readLevel = CommonIF::kUser;
    CommonIF::eSecurityRole writeLevel = CommonIF::kAdmin;
    bool rebootRequired = false;
    int line = 0;                         // where it is declared, for messages
    std::vector<std::string> components;  // paths of the component nodes it lies in
};

struct NodeDef {
    std::string name;
    std::string path;  // node names joined by '.'; "" for the root
    std::string description;
    int instances = 1;
    int line = 0;
    bool component = false;  // a part of the device that can be detached and attached again
    // Paths of the component nodes it lies in, itself included when it is one, outermost first.
    std::vector<std::string> components;
    std::vector<std::unique_ptr<NodeDef>> nodes;
    std::vector<std::unique_ptr<VariableDef>> variables;
    // Child name -> node (index >= 0) or variable (~index). Names are unique among siblings.
    // Transparent, so that a name in a request is looked up without a copy.
    std::map<std::string, int, std::less<>> childIndex;
};

// Who may claim which role. Root and the service's own user may claim every role unless listed;
// every other user may claim up to `othersMax` unless listed. By default that is kUser, the
// least role: any account on the machine may read what users may read, and a model must say so
// before anyone else may change settings.
struct ClaimPolicy {
    CommonIF::eSecurityRole othersMax = CommonIF::kUser;
    std::map<uid_t, CommonIF::eSecurityRole> maxByUid;
};

// One element of a requested path. The name is a view: of the request while it is resolved, of
// the model (which outlives every request) once resolve() has answered it.
struct PathStep {
    std::string_view name;
    int32_t instance = 0;
};

// A variable found for a path, with the instance numbers it was found under (0 replaced by 1)
// and the key its value is stored under, e.g. "net/interface[2]/address".
struct ResolvedVariable {
    const VariableDef* variable = nullptr;
    std::vector<PathStep> answered;
    std::string key;
};

class DeviceModel {
  public:
    DeviceModel();
    virtual ~DeviceModel();

    // Looks the path up. False when a name is unknown, an instance number is outside the node's
    // instances, the path ends on a node or is empty.
    bool resolve(const std::vector<PathStep>& path, ResolvedVariable* found) const;

    // Looks up the node or variable instance at `path` (empty: the whole model) as a scope of
    // storage keys: a node's key prefix ("net[1]/interface[2]/"), a variable's key, or "" for
    // the whole model. False when the path leaves the model. See inScope().
    bool resolveScope(const std::vector<PathStep>& path, std::string* scope) const;

    // Looks up a storage key made by resolve(); false when the model has no such variable.
    bool resolveKey(const std::string& key, ResolvedVariable* found) const;

    // Looks up a node or a variable by its path of names joined by '.' ("" is the root): sets
    // exactly one of *node and *variable. False when no such node or variable is declared.
    bool findByPath(const std::string& path, const NodeDef** node,
                    const VariableDef** variable) const;

    // Highest role a process running as `uid` may claim, given the service's own uid.
    CommonIF::eSecurityRole highestClaim(uid_t uid, uid_t serviceUid) const;

    NodeDef& root() { return root_; }
    const NodeDef& root() const { return root_; }
    ClaimPolicy& claims() { return claims_; }
    const ClaimPolicy& claims() const { return claims_; }
    // The model's name, as its file gives it ("" when it gives none).
    std::string& name() { return name_; }
    const std::string& name() const { return name_; }

  private:
    enum class Walked { kNowhere, kToNode, kToVariable };
    // Follows `path` from the root, filling *found on the way (its variable only when the path
    // ends on one).
    Walked walk(const std::vector<PathStep>& path, ResolvedVariable* found) const;

    NodeDef root_;
    ClaimPolicy claims_;
    std::string name_;
};

// Whether the storage key `key` lies in `scope` (made by DeviceModel::resolveScope()).
bool inScope(const std::string& scope, const std::string& key);

}  // namespace configsrvc

#endif  // CONFIGSRVC_DEVICE_MODEL_H

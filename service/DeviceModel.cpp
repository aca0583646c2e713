#include "DeviceModel.h"

#include <algorithm>
#include <charconv>

namespace configsrvc {

namespace {

// Instance 0 is what clients send when their user gave no number: it means the first.
int32_t effectiveInstance(int32_t requested) {
    return requested == 0 ? 1 : requested;
}

void appendStep(std::string* key, std::string_view name, int32_t instance) {
    char digits[16];
    const char* end = std::to_chars(digits, digits + sizeof digits, instance).ptr;
    const size_t length = static_cast<size_t>(end - digits);
    *key += name;
    *key += '[';
    key->append(digits, length);
    *key += "]/";
}

}  // namespace

const char* kindName(ValueKind kind) {
    switch (kind) {
        case ValueKind::kString:
            return "string";
        case ValueKind::kInteger:
            return "integer";
        case ValueKind::kBoolean:
            return "boolean";
        case ValueKind::kOption:
            return "option";
    }
    return "";
}

DeviceModel::DeviceModel() = default;
DeviceModel::~DeviceModel() = default;

DeviceModel::Walked DeviceModel::walk(const std::vector<PathStep>& path,
                                      ResolvedVariable* found) const {
    found->variable = nullptr;
    found->answered.clear();
    found->key.clear();
    found->key.reserve(64);
    if (path.size() > kMaxPathDepth) {
        return Walked::kNowhere;
    }
    found->answered.reserve(path.size());
    const NodeDef* node = &root_;
    for (size_t i = 0; i < path.size(); ++i) {
        const PathStep& step = path[i];
        auto child = node->childIndex.find(step.name);
        if (child == node->childIndex.end()) {
            return Walked::kNowhere;
        }
        int32_t instance = effectiveInstance(step.instance);
        if (child->second < 0) {  // a variable: it must end the path and has one instance
            if (i + 1 != path.size() || instance != 1) {
                return Walked::kNowhere;
            }
            found->variable = node->variables[~child->second].get();
            found->answered.push_back({child->first, instance});
            found->key += step.name;
            return Walked::kToVariable;
        }
        const NodeDef* next = node->nodes[child->second].get();
        if (instance < 1 || instance > next->instances) {
            return Walked::kNowhere;
        }
        found->answered.push_back({child->first, instance});
        appendStep(&found->key, step.name, instance);
        node = next;
    }
    return Walked::kToNode;
}

bool DeviceModel::resolve(const std::vector<PathStep>& path, ResolvedVariable* found) const {
    return walk(path, found) == Walked::kToVariable;
}

bool DeviceModel::resolveScope(const std::vector<PathStep>& path, std::string* scope) const {
    ResolvedVariable found;
    if (walk(path, &found) == Walked::kNowhere) {
        return false;
    }
    *scope = std::move(found.key);
    return true;
}

bool inScope(const std::string& scope, const std::string& key) {
    // A node's scope ends with '/', a variable's is its whole key.
    return key.compare(0, scope.size(), scope) == 0 &&
           (key.size() == scope.size() || scope.empty() || scope.back() == '/');
}

bool DeviceModel::resolveKey(const std::string& key, ResolvedVariable* found) const {
    // Keys look like "net[1]/interface[2]/address"; names never hold '[', ']' or '/'. Every
    // committed change is resolved from its key, so the steps are kept from call to call.
    thread_local std::vector<PathStep> path;
    path.clear();
    size_t pos = 0;
    while (pos <= key.size()) {
        size_t slash = key.find('/', pos);
        std::string_view part =
            std::string_view(key).substr(pos, slash == std::string::npos ? slash : slash - pos);
        PathStep step;
        size_t open = part.find('[');
        if (open == std::string::npos) {
            step.name = part;
        } else {
            if (part.empty() || part.back() != ']' || open + 2 >= part.size()) {
                return false;
            }
            step.name = part.substr(0, open);
            const char* first = part.data() + open + 1;
            const char* last = part.data() + part.size() - 1;
            int32_t number = 0;
            const auto [end, error] = std::from_chars(first, last, number);
            if (error != std::errc() || end != last || number < 1 || number > kMaxInstances) {
                return false;
            }
            step.instance = number;
        }
        path.push_back(step);
        if (slash == std::string::npos) {
            break;
        }
        pos = slash + 1;
    }
    // Only the key as the model writes it: not "net[01]", say.
    return resolve(path, found) && found->key == key;
}

bool DeviceModel::findByPath(const std::string& path, const NodeDef** node,
                             const VariableDef** variable) const {
    *node = &root_;
    *variable = nullptr;
    for (size_t pos = 0; !path.empty() && pos <= path.size();) {
        const size_t dot = std::min(path.find('.', pos), path.size());
        if (*variable != nullptr) {
            return false;  // a variable has nothing below it
        }
        auto child = (*node)->childIndex.find(path.substr(pos, dot - pos));
        if (child == (*node)->childIndex.end()) {
            return false;
        }
        if (child->second < 0) {
            *variable = (*node)->variables[~child->second].get();
            *node = nullptr;
        } else {
            *node = (*node)->nodes[child->second].get();
        }
        pos = dot + 1;
    }
    return true;
}

CommonIF::eSecurityRole DeviceModel::highestClaim(uid_t uid, uid_t serviceUid) const {
    auto listed = claims_.maxByUid.find(uid);
    if (listed != claims_.maxByUid.end()) {
        return listed->second;
    }
    if (uid == 0 || uid == serviceUid) {
        return CommonIF::eSecurityRole_MAX;
    }
    return claims_.othersMax;
}

}  // namespace configsrvc

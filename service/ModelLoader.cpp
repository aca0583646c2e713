#include "ModelLoader.h"

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>
#include <unordered_set>

#include "ValueCheck.h"

namespace configsrvc {

namespace {

constexpr size_t kMaxModelBytes = 4 * 1024 * 1024;
constexpr int kMaxNodeDepth = static_cast<int>(kMaxPathDepth) - 1;

using Names = std::vector<const char*>;

// "kUser, kAdmin, ...": the protocol's role names in their declared order, for messages.
std::string roleList() {
    const google::protobuf::EnumDescriptor* roles = CommonIF::eSecurityRole_descriptor();
    std::string list;
    for (int i = 0; i < roles->value_count(); ++i) {
        list += (i > 0 ? ", " : "") + roles->value(i)->name();
    }
    return list;
}

// Levels a node hands down to what it contains unless they set their own.
struct Inherited {
    CommonIF::eSecurityRole readLevel = CommonIF::kUser;
    CommonIF::eSecurityRole writeLevel = CommonIF::kAdmin;
};

class Parser {
  public:
    Parser(const std::string& text, const std::string& fileName);
    virtual ~Parser() = default;

    bool parse(DeviceModel* model, std::string* error);

  private:
    bool fail(const pugi::xml_node& where, const std::string& reason);
    bool failAt(ptrdiff_t offset, const std::string& reason);
    int lineOf(ptrdiff_t offset) const;

    bool checkAttributes(const pugi::xml_node& element, const Names& known);
    bool checkChildren(const pugi::xml_node& element, const Names& known);
    bool checkTextOnly(const pugi::xml_node& element);
    bool readName(const pugi::xml_node& element, std::string* name);
    bool readInteger(const pugi::xml_node& element, const char* attribute, long long low,
                     long long high, long long* value);
    bool readFlag(const pugi::xml_node& element, const char* attribute, bool* value);
    bool readRole(const pugi::xml_node& element, const char* attribute,
                  CommonIF::eSecurityRole* role);

    bool parseClaims(const pugi::xml_node& element, ClaimPolicy* claims);
    bool parseChildren(const pugi::xml_node& element, NodeDef* node, const Inherited& levels,
                       int depth);
    bool parseNode(const pugi::xml_node& element, const NodeDef* parent, NodeDef* node,
                   Inherited levels, int depth);
    bool parseVariable(const pugi::xml_node& element, const NodeDef* parent, VariableDef* var,
                       const Inherited& levels);
    bool parseKindDetails(const pugi::xml_node& element, VariableDef* var);
    bool parseOptions(const pugi::xml_node& element, VariableDef* var);
    bool parseDefaults(const pugi::xml_node& element, VariableDef* var);
    bool addChild(const pugi::xml_node& element, NodeDef* parent, const std::string& name,
                  int index);

    const std::string& text_;
    const std::string& fileName_;
    // Offsets of the newlines of text_, so that the line of every node is a binary search and
    // not a count from the start: a large model would otherwise take minutes to load.
    std::vector<size_t> newlines_;
    std::string* error_ = nullptr;
};

Parser::Parser(const std::string& text, const std::string& fileName)
    : text_(text), fileName_(fileName) {
    for (size_t pos = text_.find('\n'); pos != std::string::npos; pos = text_.find('\n', pos + 1)) {
        newlines_.push_back(pos);
    }
}

int Parser::lineOf(ptrdiff_t offset) const {
    if (offset < 0) {
        return 1;
    }
    auto after = std::lower_bound(newlines_.begin(), newlines_.end(), static_cast<size_t>(offset));
    return 1 + static_cast<int>(after - newlines_.begin());
}

bool Parser::failAt(ptrdiff_t offset, const std::string& reason) {
    *error_ = fileName_ + ":" + std::to_string(lineOf(offset)) + ": " + reason;
    return false;
}

bool Parser::fail(const pugi::xml_node& where, const std::string& reason) {
    return failAt(where.offset_debug(), reason);
}

bool Parser::checkAttributes(const pugi::xml_node& element, const Names& known) {
    for (const pugi::xml_attribute& attribute : element.attributes()) {
        bool isKnown = std::any_of(known.begin(), known.end(), [&](const char* name) {
            return std::strcmp(name, attribute.name()) == 0;
        });
        if (!isKnown) {
            return fail(element, std::string("unknown attribute '") + attribute.name() + "' on <" +
                                     element.name() + ">");
        }
    }
    return true;
}

bool Parser::checkChildren(const pugi::xml_node& element, const Names& known) {
    for (const pugi::xml_node& child : element.children()) {
        if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
            std::string text = child.value();
            if (text.find_first_not_of(" \t\r\n") != std::string::npos) {
                return fail(child, std::string("unexpected text in <") + element.name() + ">");
            }
            continue;
        }
        if (child.type() != pugi::node_element) {
            continue;  // comments and processing instructions
        }
        bool isKnown = std::any_of(known.begin(), known.end(), [&](const char* name) {
            return std::strcmp(name, child.name()) == 0;
        });
        if (!isKnown) {
            return fail(child, std::string("unknown element <") + child.name() + "> in <" +
                                   element.name() + ">");
        }
    }
    return true;
}

// <default> and <option> hold a value as their text and nothing else.
bool Parser::checkTextOnly(const pugi::xml_node& element) {
    if (!checkAttributes(element, {})) {
        return false;
    }
    for (const pugi::xml_node& child : element.children()) {
        if (child.type() == pugi::node_element) {
            return fail(child, std::string("unknown element <") + child.name() + "> in <" +
                                   element.name() + ">");
        }
    }
    return true;
}

bool Parser::readName(const pugi::xml_node& element, std::string* name) {
    pugi::xml_attribute attribute = element.attribute("name");
    if (!attribute) {
        return fail(element, std::string("<") + element.name() + "> needs a name");
    }
    *name = attribute.value();
    auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    auto isNameChar = [&](char c) {
        return isLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-';
    };
    // Digits cannot start a name: on a command line they would read as an instance number.
    bool valid = !name->empty() && name->size() <= 64 &&
                 (isLetter((*name)[0]) || (*name)[0] == '_') &&
                 std::all_of(name->begin(), name->end(), isNameChar);
    if (!valid) {
        return fail(element, "name '" + *name +
                                 "' must start with a letter or '_' and hold only letters, "
                                 "digits, '_' and '-' (at most 64)");
    }
    return true;
}

bool Parser::readInteger(const pugi::xml_node& element, const char* attribute, long long low,
                         long long high, long long* value) {
    const char* text = element.attribute(attribute).value();
    char* end = nullptr;
    errno = 0;
    long long number = std::strtoll(text, &end, 10);
    if (*text == '\0' || *end != '\0' || errno == ERANGE || number < low || number > high) {
        return fail(element, std::string(attribute) + " must be an integer from " +
                                 std::to_string(low) + " to " + std::to_string(high) + ", not '" +
                                 text + "'");
    }
    *value = number;
    return true;
}

bool Parser::readFlag(const pugi::xml_node& element, const char* attribute, bool* value) {
    std::string text = element.attribute(attribute).value();
    if (text != "true" && text != "false") {
        return fail(element, std::string(attribute) + " must be true or false, not '" + text + "'");
    }
    *value = text == "true";
    return true;
}

bool Parser::readRole(const pugi::xml_node& element, const char* attribute,
                      CommonIF::eSecurityRole* role) {
    std::string text = element.attribute(attribute).value();
    if (!CommonIF::eSecurityRole_Parse(text, role)) {
        return fail(element, "unknown role '" + text + "' (roles: " + roleList() + ")");
    }
    return true;
}

bool Parser::parseClaims(const pugi::xml_node& element, ClaimPolicy* claims) {
    if (!checkAttributes(element, {"others"}) || !checkChildren(element, {"uid"})) {
        return false;
    }
    if (element.attribute("others") && !readRole(element, "others", &claims->othersMax)) {
        return false;
    }
    for (const pugi::xml_node& entry : element.children("uid")) {
        long long uid = 0;
        CommonIF::eSecurityRole max = CommonIF::kUser;
        if (!checkAttributes(entry, {"id", "max"}) ||
            !readInteger(entry, "id", 0, 0xfffffffell, &uid) || !readRole(entry, "max", &max)) {
            return false;
        }
        if (!claims->maxByUid.emplace(static_cast<uid_t>(uid), max).second) {
            return fail(entry, "uid " + std::to_string(uid) + " is listed twice");
        }
    }
    return true;
}

bool Parser::addChild(const pugi::xml_node& element, NodeDef* parent, const std::string& name,
                      int index) {
    if (!parent->childIndex.emplace(name, index).second) {
        std::string where = parent->name.empty() ? "the model" : "node '" + parent->name + "'";
        return fail(element, "'" + name + "' is declared twice in " + where);
    }
    return true;
}

// The path of a child of `parent`: names joined by '.', as clients name nodes and variables.
std::string childPath(const NodeDef& parent, const std::string& name) {
    return parent.path.empty() ? name : parent.path + "." + name;
}

bool Parser::parseChildren(const pugi::xml_node& element, NodeDef* node, const Inherited& levels,
                           int depth) {
    for (const pugi::xml_node& child : element.children()) {
        if (std::strcmp(child.name(), "node") == 0) {
            auto sub = std::make_unique<NodeDef>();
            if (!parseNode(child, node, sub.get(), levels, depth + 1) ||
                !addChild(child, node, sub->name, static_cast<int>(node->nodes.size()))) {
                return false;
            }
            node->nodes.push_back(std::move(sub));
        } else if (std::strcmp(child.name(), "variable") == 0) {
            auto var = std::make_unique<VariableDef>();
            if (!parseVariable(child, node, var.get(), levels) ||
                !addChild(child, node, var->name, ~static_cast<int>(node->variables.size()))) {
                return false;
            }
            node->variables.push_back(std::move(var));
        }
    }
    return true;
}

bool Parser::parseNode(const pugi::xml_node& element, const NodeDef* parent, NodeDef* node,
                       Inherited levels, int depth) {
    if (depth > kMaxNodeDepth) {
        return fail(element, "nodes nest deeper than " + std::to_string(kMaxNodeDepth));
    }
    if (!checkAttributes(element,
                         {"name", "instances", "read", "write", "description", "component"}) ||
        !checkChildren(element, {"node", "variable"}) || !readName(element, &node->name)) {
        return false;
    }
    node->line = lineOf(element.offset_debug());
    node->path = childPath(*parent, node->name);
    node->description = element.attribute("description").value();
    if (element.attribute("component") && !readFlag(element, "component", &node->component)) {
        return false;
    }
    node->components = parent->components;
    if (node->component) {
        node->components.push_back(node->path);
    }
    if (element.attribute("instances")) {
        long long count = 0;
        if (!readInteger(element, "instances", 1, kMaxInstances, &count)) {
            return false;
        }
        node->instances = static_cast<int>(count);
    }
    if ((element.attribute("read") && !readRole(element, "read", &levels.readLevel)) ||
        (element.attribute("write") && !readRole(element, "write", &levels.writeLevel))) {
        return false;
    }
    return parseChildren(element, node, levels, depth);
}

bool Parser::parseOptions(const pugi::xml_node& element, VariableDef* var) {
    // A set, not a search of the list so far: a model may list many thousands of options.
    std::unordered_set<std::string> listed;
    for (const pugi::xml_node& option : element.children("option")) {
        if (!checkTextOnly(option)) {
            return false;
        }
        std::string value = option.text().get();
        if (value.empty() || value.size() > kMaxValueBytes) {
            return fail(option, "an option needs a text of 1 to " + std::to_string(kMaxValueBytes) +
                                    " bytes");
        }
        if (!listed.insert(value).second) {
            return fail(option, "option '" + value + "' is listed twice");
        }
        var->options.push_back(value);
    }
    if (var->options.empty()) {
        return fail(element, "option variable '" + var->name + "' lists no <option>");
    }
    return true;
}

bool Parser::parseKindDetails(const pugi::xml_node& element, VariableDef* var) {
    long long number = 0;
    switch (var->kind) {
        case ValueKind::kString:
            if (element.attribute("max-length")) {
                if (!readInteger(element, "max-length", 1, kMaxValueBytes, &number)) {
                    return false;
                }
                var->maxLength = static_cast<size_t>(number);
            }
            if (element.attribute("control-characters") &&
                !readFlag(element, "control-characters", &var->controlsAllowed)) {
                return false;
            }
            break;
        case ValueKind::kInteger:
            if (element.attribute("min")) {
                if (!readInteger(element, "min", INT64_MIN, INT64_MAX, &number)) {
                    return false;
                }
                var->minimum = number;
            }
            if (element.attribute("max")) {
                if (!readInteger(element, "max", INT64_MIN, INT64_MAX, &number)) {
                    return false;
                }
                var->maximum = number;
            }
            if (var->minimum > var->maximum) {
                return fail(element, "min " + std::to_string(var->minimum) + " is above max " +
                                         std::to_string(var->maximum));
            }
            break;
        case ValueKind::kBoolean:
            break;
        case ValueKind::kOption:
            if (!parseOptions(element, var)) {
                return false;
            }
            break;
    }
    if (var->isList) {
        if (element.attribute("min-count")) {
            if (!readInteger(element, "min-count", 0, kMaxListCount, &number)) {
                return false;
            }
            var->minCount = static_cast<size_t>(number);
        }
        if (element.attribute("max-count")) {
            if (!readInteger(element, "max-count", 1, kMaxListCount, &number)) {
                return false;
            }
            var->maxCount = static_cast<size_t>(number);
        }
        if (var->minCount > var->maxCount) {
            return fail(element, "min-count " + std::to_string(var->minCount) +
                                     " is above max-count " + std::to_string(var->maxCount));
        }
    }
    return true;
}

bool Parser::parseDefaults(const pugi::xml_node& element, VariableDef* var) {
    std::vector<std::string> given;
    if (var->isList) {
        if (element.attribute("default")) {
            return fail(element, "list variable '" + var->name +
                                     "' takes its defaults as <default> elements");
        }
        for (const pugi::xml_node& entry : element.children("default")) {
            if (!checkTextOnly(entry)) {
                return false;
            }
            given.push_back(entry.text().get());
        }
    } else {
        if (element.child("default")) {
            return fail(element.child("default"),
                        "single variable '" + var->name + "' takes its default as an attribute");
        }
        if (!element.attribute("default")) {
            return fail(element, "variable '" + var->name + "' needs a default");
        }
        given.push_back(element.attribute("default").value());
    }
    std::string reason;
    if (!checkValues(*var, given, &var->defaults, &reason)) {
        return fail(element, "default does not fit: " + reason);
    }
    return true;
}

bool Parser::parseVariable(const pugi::xml_node& element, const NodeDef* parent, VariableDef* var,
                           const Inherited& levels) {
    if (!readName(element, &var->name)) {
        return false;
    }
    var->line = lineOf(element.offset_debug());
    var->path = childPath(*parent, var->name);
    var->components = parent->components;
    var->description = element.attribute("description").value();
    var->readLevel = levels.readLevel;
    var->writeLevel = levels.writeLevel;
    std::string kind = element.attribute("kind").value();
    static const ValueKind kKinds[] = {ValueKind::kString, ValueKind::kInteger, ValueKind::kBoolean,
                                       ValueKind::kOption};
    auto found = std::find_if(std::begin(kKinds), std::end(kKinds),
                              [&](ValueKind k) { return kind == kindName(k); });
    if (found == std::end(kKinds)) {
        return fail(element, "kind must be string, integer, boolean or option, not '" + kind + "'");
    }
    var->kind = *found;
    if (element.attribute("list") && !readFlag(element, "list", &var->isList)) {
        return false;
    }
    // Each kind takes only the attributes and elements that mean something for it.
    Names attributes = {"name", "kind",  "list",   "default",
                        "read", "write", "reboot", "description"};
    Names children = {"default"};
    if (var->kind == ValueKind::kInteger) {
        attributes.insert(attributes.end(), {"min", "max"});
    } else if (var->kind == ValueKind::kString) {
        attributes.insert(attributes.end(), {"max-length", "control-characters"});
    } else if (var->kind == ValueKind::kOption) {
        children.push_back("option");
    }
    if (var->isList) {
        attributes.insert(attributes.end(), {"min-count", "max-count"});
    }
    if (!checkAttributes(element, attributes) || !checkChildren(element, children)) {
        return false;
    }
    if ((element.attribute("read") && !readRole(element, "read", &var->readLevel)) ||
        (element.attribute("write") && !readRole(element, "write", &var->writeLevel)) ||
        (element.attribute("reboot") && !readFlag(element, "reboot", &var->rebootRequired))) {
        return false;
    }
    return parseKindDetails(element, var) && parseDefaults(element, var);
}

bool Parser::parse(DeviceModel* model, std::string* error) {
    error_ = error;
    pugi::xml_document document;
    pugi::xml_parse_result result = document.load_buffer(
        text_.data(), text_.size(), pugi::parse_default | pugi::parse_comments);
    if (!result) {
        return failAt(result.offset, std::string("not well-formed XML: ") + result.description());
    }
    pugi::xml_node root = document.document_element();
    if (std::strcmp(root.name(), "device-model") != 0) {
        return fail(root, std::string("the root element must be <device-model>, not <") +
                              root.name() + ">");
    }
    if (!checkAttributes(root, {"name", "description"}) ||
        !checkChildren(root, {"claims", "node", "variable"})) {
        return false;
    }
    model->name() = root.attribute("name").value();
    pugi::xml_node claims = root.child("claims");
    if (claims) {
        if (claims.next_sibling("claims")) {
            return fail(claims.next_sibling("claims"), "<claims> may appear only once");
        }
        if (!parseClaims(claims, &model->claims())) {
            return false;
        }
    }
    if (!parseChildren(root, &model->root(), Inherited(), 0)) {
        return false;
    }
    if (model->root().childIndex.empty()) {
        return fail(root, "the model declares no node and no variable");
    }
    return true;
}

}  // namespace

bool parseModel(const std::string& text, const std::string& fileName, DeviceModel* model,
                std::string* error) {
    Parser parser(text, fileName);
    return parser.parse(model, error);
}

bool loadModelFile(const std::string& path, DeviceModel* model, std::string* error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    // One byte beyond the limit is enough to tell a file that is too large, so an endless one
    // (a device, a pipe) is refused after a bounded read rather than read until memory runs out.
    std::string text(kMaxModelBytes + 1, '\0');
    size_t filled = 0;
    while (filled < text.size()) {
        ssize_t got = ::read(fd, &text[filled], text.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            *error = path + ": cannot read: " + std::strerror(errno);
            ::close(fd);
            return false;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    ::close(fd);
    if (filled > kMaxModelBytes) {
        *error = path + ": larger than " + std::to_string(kMaxModelBytes) + " bytes";
        return false;
    }
    text.resize(filled);
    return parseModel(text, path, model, error);
}

}  // namespace configsrvc

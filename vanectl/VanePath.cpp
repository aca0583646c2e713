#include "VanePath.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace vanectl {

namespace {

bool isNumber(const std::string& word) {
    return !word.empty() && word.find_first_not_of("0123456789") == std::string::npos;
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::vector<std::string> words;
    size_t start = 0;
    for (;;) {
        const size_t dot = text.find('.', start);
        words.push_back(text.substr(start, dot - start));
        if (dot == std::string::npos) {
            return words;
        }
        start = dot + 1;
    }
}

}  // namespace

bool parsePath(const std::string& text, VanePath* path, std::string* error) {
    *path = VanePath();
    path->text = text.empty() ? "." : text;
    if (text.empty() || text == ".") {
        return true;
    }
    ConfigIF::Node* last = nullptr;
    bool numbered = false;
    for (const std::string& word : wordsOf(text)) {
        if (word.empty()) {
            *error = "'" + text + "' has an empty name";
            return false;
        }
        if (!isNumber(word)) {
            last = path->inst.add_node();
            last->set_name(word);
            last->set_instance(0);  // set explicitly so that it is always on the wire
            path->nodeName += (path->nodeName.empty() ? "" : ".") + word;
            numbered = false;
            continue;
        }
        if (last == nullptr || numbered) {
            *error = "'" + text + "' has the number " + word + " where a name belongs";
            return false;
        }
        errno = 0;
        const long number = std::strtol(word.c_str(), nullptr, 10);
        if (errno != 0 || number > 2147483647L) {
            *error = "'" + text + "' has an instance number out of range: " + word;
            return false;
        }
        last->set_instance(static_cast<int32_t>(number));
        numbered = true;
    }
    return true;
}

std::string pathText(const ConfigIF::Inst& inst) {
    std::string text;
    for (const ConfigIF::Node& node : inst.node()) {
        text += (text.empty() ? "" : ".") + node.name();
        if (node.instance() != 0) {
            text += "." + std::to_string(node.instance());
        }
    }
    return text.empty() ? "." : text;
}

}  // namespace vanectl

#include "Printing.h"

#include <cstdio>

#include "Service.h"

namespace vanectl {

void printJson(const Json& document) {
    printLine(document.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void printLine(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

int takePath(const std::string& text, VanePath* path) {
    std::string error;
    return parsePath(text, path, &error) ? 0 : usageError("", error);
}

int takeElement(Service& service, const std::string& text, VanePath* path, ModelElement* element) {
    const int status = takePath(text, path);
    return status != 0 ? status : describeElement(service, path->nodeName, path->text, element);
}

Json itemJson(const TreeItem& item) {
    Json json = {{"path", item.path}};
    if (item.error != 0) {
        json["error"] = errorName(item.error);
    } else {
        json["values"] = item.values;
        json["is_default"] = item.isDefault;
    }
    return json;
}

}  // namespace vanectl

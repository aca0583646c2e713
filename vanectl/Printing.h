// What the commands share to print: JSON documents, lines, and paths taken from the user.
#ifndef VANECTL_PRINTING_H
#define VANECTL_PRINTING_H

#include <string>

#include <nlohmann/json.hpp>

#include "ModelTree.h"
#include "VanePath.h"

namespace vanectl {

// Keys stay in the order they were added: the documented shapes list them in that order.
using Json = nlohmann::ordered_json;

// `document` on one line of standard output. Bytes that are not UTF-8 (which the service never
// sends in a value) are replaced rather than ending the run.
void printJson(const Json& document);
// `text` and a newline on standard output, as it is (it may hold any byte).
void printLine(const std::string& text);

// Parses the user's `text` into *path: 0, or kUsageStatus after reporting why.
int takePath(const std::string& text, VanePath* path);
// The same, then the service's description of what it names: 0, or the reported failure.
int takeElement(Service& service, const std::string& text, VanePath* path, ModelElement* element);

// A variable item as a JSON object: path, then values and is_default, or error.
Json itemJson(const TreeItem& item);

}  // namespace vanectl

#endif  // VANECTL_PRINTING_H

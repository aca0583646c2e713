// Paths as vanectl takes them: the words of a setvane command line joined by '.', e.g.
// "network.interface.2.dns". A number gives the instance of the node before it; a node without
// one is sent with instance 0, which the service reads as instance 1. "" and "." name the root.
#ifndef VANECTL_VANEPATH_H
#define VANECTL_VANEPATH_H

#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"

namespace vanectl {

struct VanePath {
    std::string text;      // as the user wrote it ("." for the root)
    ConfigIF::Inst inst;   // the nodes with their instance numbers (0 where none was given)
    std::string nodeName;  // the names alone, joined by '.': what the service calls a node name
};

// Parses `text` into *path. False, with the reason in *error, for an empty word ("a..b"), a
// number before any name or after another number, or a number beyond an int.
bool parsePath(const std::string& text, VanePath* path, std::string* error);

// The path of `inst` in the same words: each node's name, followed by its instance number unless
// that is 0; "." for the root.
std::string pathText(const ConfigIF::Inst& inst);

}  // namespace vanectl

#endif  // VANECTL_VANEPATH_H

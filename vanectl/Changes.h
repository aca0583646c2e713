// Sets of writes that vanectl makes together: read from `PATH VALUE...` files, or made up of
// returns to the default, then checked one by one (dry runs) or committed as one submission
// (all of them or none).
#ifndef VANECTL_CHANGES_H
#define VANECTL_CHANGES_H

#include <string>
#include <vector>

#include "ModelTree.h"
#include "Printing.h"
#include "Service.h"

namespace vanectl {

struct Change {
    std::string subject;  // what a failure names: "FILE:LINE: PATH", or the path of a reset
    int line = 0;         // the line in the file; 0 for a reset
    std::string path;
    ConfigIF::Inst inst;
    std::vector<std::string> values;
};

// Reads the lines of `file` ("-": standard input) as changes. A file that cannot be read, or any
// line that does not parse, is reported (every bad line, with its number) and gives
// kUsageStatus; nothing is sent.
int readChanges(const std::string& file, std::vector<Change>* changes);

// Appends a change of each variable instance in `items` back to its default: no value for a
// single variable, the instance's default list (asked for) for a list variable.
int addResets(Service& service, const std::vector<const TreeItem*>& items,
              std::vector<Change>* changes);

// Checks every change as its write would be checked, storing nothing. Every refusal is reported
// and added to *problems ({"line", "path", "error", "reason"}); the result is the first one's
// status, or 0.
int validateChanges(Service& service, const std::vector<Change>& changes, Json* problems);

// Writes every change in one submission over the whole model: all are stored, or none (the first
// refusal is reported and ends the submission unapplied). *rebootRequired tells whether any
// write asked for a restart.
int commitChanges(Service& service, const std::string& subject, const std::vector<Change>& changes,
                  bool* rebootRequired);

// The key under which two paths of the same instance are equal (instance 0 is 1).
std::string instanceKey(const ConfigIF::Inst& inst);

}  // namespace vanectl

#endif  // VANECTL_CHANGES_H

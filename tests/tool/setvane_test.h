// What the tool's tests share: running the shipped setvane, and the shape of its error lines.
#ifndef TESTS_TOOL_SETVANE_TEST_H
#define TESTS_TOOL_SETVANE_TEST_H

#include <string>
#include <vector>

#include "CaseFile.h"
#include "Process.h"
#include "TempDir.h"

namespace testsupport {

// setvane with argv[0] "setvane"; BOOT_MODE is unset so that lines stay on the console.
inline Outcome runSetvane(const std::vector<std::string>& words, Environment env = {}) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    env.insert(env.begin(), {"BOOT_MODE", std::nullopt});
    return runProgram(SETVANE_BINARY, argv, env);
}

// The case file `name` of this folder.
inline CaseFile toolCases(const std::string& name) {
    return readCaseFile(std::string(TOOL_CASES_DIR) + "/" + name);
}

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

inline std::string redLine(const std::string& text) {
    return "\033[31m" + text + "\033[0m\n";
}

}  // namespace testsupport

#endif  // TESTS_TOOL_SETVANE_TEST_H

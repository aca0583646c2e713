// What the tool's tests share: running the shipped setvane, and the shape of its error lines.
#ifndef TESTS_TOOL_SETVANE_TEST_H
#define TESTS_TOOL_SETVANE_TEST_H

#include <regex>
#include <string>
#include <vector>

#include "CaseFile.h"
#include "Process.h"
#include "TempDir.h"

namespace testsupport {

// `err` with the source location dropped from each line of the protocol buffer runtime's own
// log ("[libprotobuf ERROR google/protobuf/x.cc:12] text" becomes "[libprotobuf ERROR] text"):
// where the runtime keeps its log statements changes with its release, the rest is compared.
inline std::string withoutRuntimeLogLocations(const std::string& err) {
    static const std::regex kLocation(R"((\[libprotobuf [A-Z]+) [^ \]\n]+:[0-9]+\] )");
    return std::regex_replace(err, kLocation, "$1] ");
}

// setvane with argv[0] "setvane"; BOOT_MODE is unset so that lines stay on the console. The
// runtime's log lines in standard error lose their source location (above).
inline Outcome runSetvane(const std::vector<std::string>& words, Environment env = {}) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    env.insert(env.begin(), {"BOOT_MODE", std::nullopt});
    Outcome run = runProgram(SETVANE_BINARY, argv, env);
    run.err = withoutRuntimeLogLocations(run.err);
    return run;
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

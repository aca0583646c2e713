// Expected console bytes of setvane, built from their parts.
#ifndef SETVANE_TESTS_TOOL_EXPECT_H
#define SETVANE_TESTS_TOOL_EXPECT_H

#include <string>
#include <vector>

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

const char kUsageText[] =
    "setvane - alternative program of dovek\n"
    "\n"
    "Syntax:\n"
    "    dovek [options]... [command] [parameters]...\n"
    "\n"
    "OPTIONS:\n"
    "    --debug\n"
    "        show full pb message transaction\n"
    "    --client|-c arg_client_name\n"
    "        manually set client name, default is setvane\n"
    "    --role|-r kUser|kAdmin|kSystem|kProvisioning|kStartup\n"
    "        manually set role, default is kAdmin (for write) or kUser (for read)\n"
    "\n"
    "COMMANDS:\n"
    "    [--read] arg_variable_instance\n"
    "        read a variable instance\n"
    "    [--write|-w] arg_variable_instance --value|-v [arg_values]...\n"
    "        write a variable instance\n";

// One LogStream line as it reaches standard error.
inline std::string redLine(const std::string& text) {
    return "\033[31m" + text + "\033[0m\n";
}

// The "Wrong input: " echo of `setvane <words>` with words[bad - 1] marked.
inline std::string wrongInput(const std::vector<std::string>& words, size_t bad) {
    std::string echo = "Wrong input: ";
    for (size_t i = 0; i <= words.size(); ++i) {
        const std::string word = i == 0 ? "setvane" : words[i - 1];
        echo += i > 0 ? " " : "";
        echo += i == bad ? "\033[31m" + word + "\033[0m" : word;
    }
    return echo + "\n";
}

// The three pieces of an option error: echo, red line, hint.
inline std::string optionError(const std::vector<std::string>& words, size_t bad,
                               const std::string& text) {
    return wrongInput(words, bad) + redLine(text) + kHelpHint;
}

#endif  // SETVANE_TESTS_TOOL_EXPECT_H

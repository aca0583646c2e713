// The command line as a user types it (command_lines.txt): the usage text and every misuse of an
// option, all before any contact with the service.
#include <gtest/gtest.h>

#include "Harness.h"

namespace {

TEST(CommandLine, EndsWithStatusOneAndExactStandardError) {
    const std::string usage = readFile(USAGE_TEXT_FILE);
    EXPECT_EQ(usage.size(), 559u);
    for (const std::string& line : dataLines(COMMAND_LINES_FILE)) {
        SCOPED_TRACE("setvane " + line);
        const std::vector<std::string> fields = split(line, " | ");
        const std::vector<std::string> words = split(fields[0], " ");
        std::string expected = usage;
        if (fields[1] != "usage") {
            expected = "Wrong input: setvane";
            for (size_t i = 0; i < words.size(); ++i) {
                const bool bad = std::to_string(i + 1) == fields[1];
                expected += " " + (bad ? "\033[31m" + words[i] + "\033[0m" : words[i]);
            }
            expected += "\n" + redLine(fields[2]) + kHelpHint;
        }
        TempDir dir;  // no service there: connecting by mistake would end differently
        const Outcome run =
            runSetvane(words, {{"MSGPASS_DIR", dir.path}, {"MSGPASS_MAX_WAIT_MS", "50"}});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, expected);
    }
}

}  // namespace

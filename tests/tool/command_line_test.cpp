// The command line as a user types it (command_lines.txt): the usage text and every misuse of an
// option, all before any contact with the service.
#include <gtest/gtest.h>

#include "setvane_test.h"

namespace testsupport {
namespace {

TEST(CommandLine, EndsWithStatusOneAndExactStandardError) {
    const std::string usage = readFile(std::string(TOOL_CASES_DIR) + "/usage.txt");
    for (const CaseRow& row : toolCases("command_lines.txt").rows) {
        SCOPED_TRACE(row.where + ": setvane " + row[0]);
        const std::vector<std::string> words = split(row[0], " ");
        std::string expected = usage;
        if (row[1] != "usage") {
            expected = "Wrong input: setvane";
            for (size_t i = 0; i < words.size(); ++i) {
                const bool bad = std::to_string(i + 1) == row[1];
                expected += " " + (bad ? "\033[31m" + words[i] + "\033[0m" : words[i]);
            }
            expected += "\n" + redLine(row[2]) + kHelpHint;
        }
        TempDir dir;  // no service there: connecting by mistake would end differently
        const Outcome run = runSetvane(words, {{"MSGPASS_DIR", dir.path}});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, expected);
    }
}

}  // namespace
}  // namespace testsupport

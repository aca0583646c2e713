// getProcessCmdline on processes started under known command lines.
#include <gtest/gtest.h>

#include "Harness.h"
#include "ProcessCmdline.h"

namespace {

TEST(ProcessCmdline, JoinsTheWordsWithSingleSpaces) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"setvane", "-r", "x"}, "setvane -r x"},
        // Blanks inside words stay; a byte 0xff is not the end of the file.
        {{"a b\xff", "c\nd"}, "a b\xff c\nd"},
        {{"", "b"}, " b"},
        // Only the spaces of the last NUL and of the end of the file are trimmed, so empty last
        // words leave the rest of theirs.
        {{"a", ""}, "a "},
        {{"a", "", ""}, "a  "},
        {{""}, ""},
    };
    for (const auto& c : cases) {
        Background process(IDLE_PROCESS_BINARY, c.first, {}, false);
        ASSERT_TRUE(process.ready);
        EXPECT_EQ(getProcessCmdline(process.pid), c.second);
    }
}

TEST(ProcessCmdline, EmptyForAPidNoProcessCanHave) {
    EXPECT_EQ(getProcessCmdline(4194304), "");  // pid_max is never above 4194304
}

}  // namespace

// getProcessCmdline on processes started under known command lines.
#include <gtest/gtest.h>

#include "IdleProcess.h"
#include "ProcessCmdline.h"

namespace {

struct CmdlineCase {
    const char* title;
    std::vector<std::string> argv;
    std::string cmdline;
};

void PrintTo(const CmdlineCase& c, std::ostream* os) {
    *os << c.title;
}

class ProcessCmdlineTest : public ::testing::TestWithParam<CmdlineCase> {};

TEST_P(ProcessCmdlineTest, JoinsTheWordsWithSpaces) {
    IdleProcess process(GetParam().argv);
    ASSERT_NE(process.pid(), 0);
    EXPECT_EQ(getProcessCmdline(process.pid()), GetParam().cmdline);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ProcessCmdlineTest,
    ::testing::Values(CmdlineCase{"OneWord", {"/sbin/syslogd"}, "/sbin/syslogd"},
                      CmdlineCase{"SeveralWords", {"setvane", "-r", "x"}, "setvane -r x"},
                      CmdlineCase{"BlanksInsideWordsKept", {"a b", "c\nd"}, "a b c\nd"},
                      // A byte 0xff must not be taken for the end of the file.
                      CmdlineCase{"HighBytesKept",
                                  {"a\xff"
                                   "b",
                                   "c"},
                                  "a\xff"
                                  "b c"},
                      CmdlineCase{"EmptyFirstWord", {"", "b"}, " b"},
                      // Only the two spaces of the last NUL and of the end are trimmed: empty last
                      // words leave the rest of theirs.
                      CmdlineCase{"EmptyLastWordLeavesOneSpace", {"a", ""}, "a "},
                      CmdlineCase{"TwoEmptyLastWordsLeaveTwoSpaces", {"a", "", ""}, "a  "},
                      CmdlineCase{"OnlyAnEmptyWord", {""}, ""}),
    [](const ::testing::TestParamInfo<CmdlineCase>& info) {
        return std::string(info.param.title);
    });

TEST(ProcessCmdline, EmptyForAProcessWithoutCommandLine) {
    IdleProcess process({"/sbin/syslogd"});
    ASSERT_NE(process.pid(), 0);
    process.becomeZombie();
    EXPECT_EQ(getProcessCmdline(process.pid()), "");
}

TEST(ProcessCmdline, EmptyForAPidNoProcessCanHave) {
    // Pids stay below pid_max, which is never above 4194304.
    EXPECT_EQ(getProcessCmdline(4194304), "");
}

}  // namespace

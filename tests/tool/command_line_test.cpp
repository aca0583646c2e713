// The command line as a user types it: usage text and every option error, all before any
// contact with the service.
#include <gtest/gtest.h>

#include "Expect.h"
#include "ToolProcess.h"

namespace {

struct CommandLineCase {
    const char* title;
    std::vector<std::string> words;
    std::string err;
};

void PrintTo(const CommandLineCase& c, std::ostream* os) {
    *os << c.title;
}

std::string usage() {
    return kUsageText;
}

class CommandLineTest : public ::testing::TestWithParam<CommandLineCase> {};

TEST_P(CommandLineTest, EndsWithStatusOneAndExactStandardError) {
    const CommandLineCase& c = GetParam();
    TempDir dir;
    // Were the tool to connect by mistake, it fails fast and with different output.
    const ToolRun run =
        runSetvane(c.words, {{"MSGPASS_DIR", dir.path()}, {"MSGPASS_MAX_WAIT_MS", "50"}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, c.err);
}

const CommandLineCase kCommandLineCases[] = {
    {"NoWords", {}, usage()},
    {"Help", {"--help"}, usage()},
    {"HelpAfterNodeAndDebug", {"x", "--debug", "--help"}, usage()},
    {"ValuesWithoutNode", {"-v", "on"}, usage()},
    {"OnlyOptions", {"--client", "a", "--role", "kUser", "--debug"}, usage()},
    {"SecondCommandAfterHelp",
     {"--help", "--read", "x"},
     optionError({"--help", "--read", "x"}, 2, "'--help' already defined")},
    {"ReadThenWrite",
     {"--read", "--write", "x"},
     optionError({"--read", "--write", "x"}, 2, "'--read' already defined")},
    {"ShortWriteThenHelp",
     {"x", "-w", "--help"},
     optionError({"x", "-w", "--help"}, 3, "'-w' already defined")},
    {"RepeatedDebugMarksSecond",
     {"--debug", "x", "--debug"},
     optionError({"--debug", "x", "--debug"}, 3, "'--debug' already defined")},
    {"ValueStartingWithDash",
     {"x", "-v", "-5"},
     optionError({"x", "-v", "-5"}, 3, "unrecognized option '-5'")},
    {"OptionJoinedWithEquals",
     {"--client=a", "x"},
     optionError({"--client=a", "x"}, 1, "unrecognized option '--client=a'")},
    {"ShortHelpIsNoOption", {"-h"}, optionError({"-h"}, 1, "unrecognized option '-h'")},
    {"ShortDebugIsNoOption", {"x", "-d"}, optionError({"x", "-d"}, 2, "unrecognized option '-d'")},
    {"BundledShortOptions",
     {"-wv", "x"},
     optionError({"-wv", "x"}, 1, "unrecognized option '-wv'")},
    {"DoubleDashIsNoEndOfOptions",
     {"--", "x"},
     optionError({"--", "x"}, 1, "unrecognized option '--'")},
    {"LoneDash", {"x", "-"}, optionError({"x", "-"}, 2, "unrecognized option '-'")},
    {"ErrorWinsOverHelp",
     {"--help", "--bogus"},
     optionError({"--help", "--bogus"}, 2, "unrecognized option '--bogus'")},
    {"ShortClientTwice",
     {"-c", "a", "-c", "b", "x"},
     optionError({"-c", "a", "-c", "b", "x"}, 3, "option '-c' already set to 'a'")},
    {"LongClientTwice",
     {"--client", "a", "--client", "b"},
     optionError({"--client", "a", "--client", "b"}, 3, "option '--client' already set to 'a'")},
    {"MixedRoleSpellingsNameTheSecond",
     {"-r", "kUser", "x", "--role", "kAdmin"},
     optionError({"-r", "kUser", "x", "--role", "kAdmin"}, 4,
                 "option '--role' already set to 'kUser'")},
    {"ClientWithoutArgument",
     {"x", "-c"},
     optionError({"x", "-c"}, 2, "option '-c' requires an argument")},
    {"RoleWithoutArgument",
     {"--role"},
     optionError({"--role"}, 1, "option '--role' requires an argument")},
    {"RepeatedValueModeIsHarmlessButDashStillRejected",
     {"x", "-v", "a", "--value", "-v", "-x"},
     optionError({"x", "-v", "a", "--value", "-v", "-x"}, 6, "unrecognized option '-x'")},
};

INSTANTIATE_TEST_SUITE_P(Tool, CommandLineTest, ::testing::ValuesIn(kCommandLineCases),
                         [](const ::testing::TestParamInfo<CommandLineCase>& info) {
                             return std::string(info.param.title);
                         });

TEST(UsageText, Is559BytesEndingInANewline) {
    const ToolRun run = runSetvane({}, {});
    EXPECT_EQ(run.err.size(), 559u);
    EXPECT_EQ(run.err.back(), '\n');
}

TEST(WrongInput, EchoesTheProgramPathAsInvoked) {
    // The echo for `setvane --role` as documented, spelled out byte for byte.
    const ToolRun run = runSetvane({"--role"}, {});
    EXPECT_EQ(run.err,
              "Wrong input: setvane \033[31m--role\033[0m\n"
              "\033[31moption '--role' requires an argument\033[0m\n"
              "Please try `setvane --help' for more information.\n");
}

}  // namespace

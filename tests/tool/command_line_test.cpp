// The command line as a user types it: the usage text and every misuse of an option, all before
// any contact with the service.
#include <gtest/gtest.h>

#include <sstream>

#include "Harness.h"

namespace {

struct CommandLineCase {
    const char* line;  // the words after "setvane", separated by spaces
    size_t bad;        // the word marked in red and named in `text`; 0: the usage text instead
    const char* text;
};

void PrintTo(const CommandLineCase& c, std::ostream* os) {
    *os << "setvane " << c.line;
}

class CommandLineTest : public ::testing::TestWithParam<CommandLineCase> {};

TEST_P(CommandLineTest, EndsWithStatusOneAndExactStandardError) {
    const CommandLineCase& c = GetParam();
    std::vector<std::string> words;
    std::istringstream line(c.line);
    for (std::string word; line >> word;) {
        words.push_back(word);
    }
    std::string expected = readFile(USAGE_TEXT_FILE);
    if (c.bad > 0) {
        expected = "Wrong input: setvane";
        for (size_t i = 1; i <= words.size(); ++i) {
            expected += " " + (i == c.bad ? "\033[31m" + words[i - 1] + "\033[0m" : words[i - 1]);
        }
        expected += "\n" + redLine(c.text) + kHelpHint;
    }
    TempDir dir;  // no service there: connecting by mistake would end differently
    const Outcome run =
        runSetvane(words, {{"MSGPASS_DIR", dir.path}, {"MSGPASS_MAX_WAIT_MS", "50"}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, CommandLineTest,
    ::testing::Values(CommandLineCase{"", 0, ""}, CommandLineCase{"--help", 0, ""},
                      CommandLineCase{"x --debug --help", 0, ""},
                      CommandLineCase{"-v on", 0, ""},  // values, but no node and no command
                      CommandLineCase{"--client a --role kUser --debug", 0, ""},
                      CommandLineCase{"--help --read x", 2, "'--help' already defined"},
                      CommandLineCase{"--read --write x", 2, "'--read' already defined"},
                      CommandLineCase{"x -w --help", 3, "'-w' already defined"},
                      CommandLineCase{"--debug x --debug", 3, "'--debug' already defined"},
                      // Value mode may be repeated, and a word with a dash is an option even there.
                      CommandLineCase{"x -v a --value -v -5", 6, "unrecognized option '-5'"},
                      CommandLineCase{"--client=a x", 1, "unrecognized option '--client=a'"},
                      CommandLineCase{"-h", 1, "unrecognized option '-h'"},
                      CommandLineCase{"-- x", 1, "unrecognized option '--'"},
                      CommandLineCase{"x -", 2, "unrecognized option '-'"},
                      CommandLineCase{"--help --bogus", 2, "unrecognized option '--bogus'"},
                      CommandLineCase{"-c a -c b x", 3, "option '-c' already set to 'a'"},
                      CommandLineCase{"-r kUser x --role kAdmin", 4,
                                      "option '--role' already set to 'kUser'"},
                      CommandLineCase{"x -c", 2, "option '-c' requires an argument"},
                      CommandLineCase{"--role", 1, "option '--role' requires an argument"}));

TEST(CommandLine, UsageTextIs559Bytes) {
    EXPECT_EQ(readFile(USAGE_TEXT_FILE).size(), 559u);
}

TEST(CommandLine, MisuseIsReportedInThreeExactPieces) {
    const Outcome run = runSetvane({"--role"}, {});
    EXPECT_EQ(run.err,
              "Wrong input: setvane \033[31m--role\033[0m\n"
              "\033[31moption '--role' requires an argument\033[0m\n"
              "Please try `setvane --help' for more information.\n");
}

}  // namespace

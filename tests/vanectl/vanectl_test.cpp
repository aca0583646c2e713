// vanectl as an administrator or a script runs it: the real program against the real configsrvc
// on the example model, one service per session of vanectl_sessions.txt.
#include <gtest/gtest.h>

#include <csignal>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CaseFile.h"
#include "ServiceProcess.h"

namespace {

using testsupport::CaseBlock;
using testsupport::CaseRow;
using testsupport::Outcome;

const std::vector<CaseBlock>& sessions() {
    static const std::vector<CaseBlock> blocks = testsupport::readCaseFile(VANECTL_SESSIONS).blocks;
    return blocks;
}

// The words of a row: separated by blanks; '...' keeps blanks inside one word.
std::vector<std::string> wordsOf(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    bool quoted = false;
    bool started = false;
    for (char c : text) {
        if (c == '\'') {
            quoted = !quoted;
            started = true;
        } else if (c == ' ' && !quoted) {
            if (started) {
                words.push_back(word);
            }
            word.clear();
            started = false;
        } else {
            word += c;
            started = true;
        }
    }
    if (started) {
        words.push_back(word);
    }
    return words;
}

// Each line of `text` parsed as one JSON document (null where one does not parse).
std::vector<nlohmann::json> documentsOf(const std::string& text) {
    std::vector<nlohmann::json> documents;
    for (const std::string& line : testsupport::split(text, "\n")) {
        if (!line.empty()) {
            documents.push_back(nlohmann::json::parse(line, nullptr, false));
        }
    }
    return documents;
}

class VanectlSessions : public testing::TestWithParam<size_t> {
  protected:
    void SetUp() override { ASSERT_TRUE(service_.start(&error_)) << error_; }

    // `text` with $DIR (the session's folder), $VANECTL and $SETVANE filled in.
    std::string expand(const std::string& text) const {
        std::string expanded = testsupport::replaced(text, "$DIR", service_.root());
        expanded = testsupport::replaced(expanded, "$VANECTL", VANECTL_BIN);
        return testsupport::replaced(expanded, "$SETVANE", SETVANE_BIN);
    }

    // Runs the row's command: "sh: COMMAND" through the shell, "setvane: WORDS" with setvane,
    // anything else as vanectl's words.
    Outcome run(const std::string& command) const {
        if (command.rfind("sh: ", 0) == 0) {
            return testsupport::runShell(expand(command.substr(4)));
        }
        const bool setvane = command.rfind("setvane: ", 0) == 0;
        std::vector<std::string> argv = wordsOf(expand(command.substr(setvane ? 9 : 0)));
        argv.insert(argv.begin(), setvane ? SETVANE_BIN : VANECTL_BIN);
        return testsupport::runProgram(argv[0], argv);
    }

    void check(const CaseRow& row) {
        const Outcome outcome = run(row[0]);
        EXPECT_EQ(std::to_string(outcome.status), row[1]) << outcome.err;
        const std::string expectedOut = expand(row[2]);
        if (row[0].find("--json") != std::string::npos) {
            // Parsed back: the shape and every value count, not the spelling.
            EXPECT_EQ(documentsOf(outcome.out), documentsOf(expectedOut)) << outcome.out;
            EXPECT_EQ(outcome.out.empty(), expectedOut.empty());
        } else {
            EXPECT_EQ(outcome.out, expectedOut);
        }
        EXPECT_EQ(outcome.err, expand(row[3]));
    }

    testsupport::ServiceProcess service_;
    std::string error_;
};

// Each row runs a command and gives its exit status, standard output and standard error;
// "(file NAME) | CONTENT" writes a file into the session's folder first, "(stop)" stops the
// service, "(pause)" and "(resume)" hold it (SIGSTOP) and let it go on.
TEST_P(VanectlSessions, PrintAndEndAsListed) {
    for (const CaseRow& row : sessions()[GetParam()].body) {
        SCOPED_TRACE(row.where);
        if (row[0].rfind("(file ", 0) == 0) {
            const std::string name = row[0].substr(6, row[0].size() - 7);
            ASSERT_TRUE(testsupport::writeFile(service_.root() + "/" + name, row[1]));
        } else if (row[0] == "(stop)") {
            ASSERT_EQ(service_.stop(SIGINT), 0) << service_.output();
        } else if (row[0] == "(pause)" || row[0] == "(resume)") {
            ASSERT_TRUE(service_.signal(row[0] == "(pause)" ? SIGSTOP : SIGCONT));
        } else {
            check(row);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(File, VanectlSessions, testing::Range(size_t{0}, sessions().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                             return sessions()[info.param].head[0];
                         });

// Every subcommand explains itself, and help is not an error.
TEST(VanectlHelp, EverySubcommandHasItsOwnHelp) {
    for (const char* command : {"get", "set", "validate", "reset", "describe", "list", "tree",
                                "apply", "export", "import", "levels", "options", "component"}) {
        SCOPED_TRACE(command);
        const Outcome help = testsupport::runProgram(VANECTL_BIN, {"vanectl", command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find(std::string("Usage: vanectl ") + command + " "), std::string::npos)
            << help.out;
        EXPECT_EQ(help.err, "");
    }
}

}  // namespace

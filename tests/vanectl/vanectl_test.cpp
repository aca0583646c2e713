// vanectl as an administrator or a script runs it: the real program against the real configsrvc
// on the example model, one service per session of vanectl_sessions.txt.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include <map>
#include <memory>
#include <set>
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

    // The row's command as a shell command: "sh: COMMAND" as it is, "setvane: WORDS" with
    // setvane, anything else as vanectl's words (the shell's quotes keep blanks in one word).
    std::string commandOf(const std::string& command) const {
        if (command.rfind("sh: ", 0) == 0) {
            return expand(command.substr(4));
        }
        const bool setvane = command.rfind("setvane: ", 0) == 0;
        return std::string(setvane ? SETVANE_BIN : VANECTL_BIN) + " " +
               expand(command.substr(setvane ? 9 : 0));
    }

    Outcome run(const std::string& command) const {
        return testsupport::runShell(commandOf(command));
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

    // Starts `vanectl WORDS` in the background as the watcher `name`, and returns once it sees
    // changes: `probe` (a string variable it watches) is written until a change of it shows.
    void startWatch(const std::string& name, const std::string& words, const std::string& probe) {
        if (words.find("--json") != std::string::npos) {
            json_.insert(name);
        }
        auto& watcher = watchers_[name];
        watcher = std::make_unique<testsupport::Background>(
            "/bin/sh", std::vector<std::string>{"sh", "-c", "exec " + commandOf(words)},
            testsupport::Environment{}, service_.root() + "/" + name);
        for (int attempt = 1; attempt <= 50; ++attempt) {
            const std::string value = "probe-" + std::to_string(attempt);
            ASSERT_EQ(run("set " + probe + " " + value).status, 0);
            if (watcher->waitForLog(value, 100)) {
                return;
            }
        }
        FAIL() << "the watcher never saw a change: " << watcher->log();
    }

    // Ends the watcher `name` as a user does (SIGINT) once it printed `expected` (the probes left
    // out), or waits for it to end by itself when `byItself`; then checks what it printed.
    void endWatch(const std::string& name, const CaseRow& row, bool byItself) {
        testsupport::Background& watcher = *watchers_.at(name);
        const std::string expected = expand(row[2]);
        const auto printed = [&] {
            std::string lines;
            for (const std::string& line : testsupport::split(watcher.log(), "\n")) {
                const bool probe = line.find("probe-") != std::string::npos;
                lines += probe || line.empty() ? "" : line + "\n";
            }
            return lines;
        };
        if (byItself) {
            watcher.waitUntil([] { return false; });
        } else {
            watcher.waitUntil([&] { return printed().size() >= expected.size(); });
        }
        EXPECT_EQ(std::to_string(watcher.stop(SIGINT)), row[1]);
        if (json_.count(name) != 0) {
            EXPECT_EQ(documentsOf(printed()), documentsOf(expected)) << printed();
        } else {
            EXPECT_EQ(printed(), expected);
        }
    }

    testsupport::ServiceProcess service_;
    std::string error_;
    std::map<std::string, std::unique_ptr<testsupport::Background>> watchers_;
    std::set<std::string> json_;  // the watchers that print JSON
};

// The session of vanectl_sessions.txt numbered by the parameter; its head says what rows mean.
TEST_P(VanectlSessions, PrintAndEndAsListed) {
    for (const CaseRow& row : sessions()[GetParam()].body) {
        SCOPED_TRACE(row.where);
        if (row[0].rfind("(file ", 0) == 0) {
            const std::string name = row[0].substr(6, row[0].size() - 7);
            ASSERT_TRUE(testsupport::writeFile(service_.root() + "/" + name, row[1]));
        } else if (row[0] == "(stop)") {
            ASSERT_EQ(service_.stop(SIGINT), 0) << service_.output();
            EXPECT_FALSE(std::filesystem::exists(service_.endpointPath())) << "endpoint left open";
        } else if (row[0].rfind("(watch ", 0) == 0) {
            const size_t close = row[0].find(')');
            startWatch(row[0].substr(7, close - 7), row[0].substr(close + 2), row[1]);
        } else if (row[0].rfind("(end ", 0) == 0 || row[0].rfind("(gone ", 0) == 0) {
            const bool gone = row[0][1] == 'g';
            endWatch(row[0].substr(gone ? 6 : 5, row[0].size() - (gone ? 7 : 6)), row, gone);
        } else if (row[0] == "(log)") {
            EXPECT_TRUE(service_.waitForOutput(row[1])) << service_.output();
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
    for (const char* command :
         {"get", "set", "validate", "reset", "describe", "list", "tree", "watch", "apply", "export",
          "import", "levels", "options", "component"}) {
        SCOPED_TRACE(command);
        const Outcome help = testsupport::runProgram(VANECTL_BIN, {"vanectl", command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find(std::string("Usage: vanectl ") + command + " "), std::string::npos)
            << help.out;
        EXPECT_EQ(help.err, "");
    }
}

}  // namespace

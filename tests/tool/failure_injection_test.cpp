// setvane over a libmsgpass that fails on request and records every call (fake_msgpass.c): each
// failure is reported once, with its exit status, and the calls - order, arguments, the handles
// released - are exactly those listed with the case in failure_cases.txt.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "setvane_test.h"

namespace testsupport {
namespace {

TEST(FailureInjection, EachFailureIsReportedOnceAndTheCallsAreExactlyTheListedOnes) {
    const CaseFile file = toolCases("failure_cases.txt");
    std::map<std::string, std::string> sequences;  // "@name" blocks: calls many cases share
    for (const CaseBlock& block : file.blocks) {
        if (block.head[0][0] == '@') {
            sequences[block.head[0]] = block.text();
        }
    }
    for (const CaseBlock& block : file.blocks) {
        if (block.head[0][0] == '@') {
            continue;
        }
        SCOPED_TRACE(block.head.where + ": " + block.head[0]);
        TempDir dir;
        std::map<std::string, std::string> settings = {{"run", "--client|cli|a|1"},
                                                       {"reply", "5000"}};
        for (size_t i = 1; i < block.head.fields.size(); ++i) {
            const std::string& setting = block.head[i];
            const size_t blank = std::min(setting.find(' '), setting.size());
            settings[setting.substr(0, blank)] =
                setting.substr(std::min(blank + 1, setting.size()));
        }
        Environment env = {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                           {"FAKE_MSGPASS_LOG", dir.file("calls")},
                           {"FAKE_MSGPASS_REPLY", settings["reply"]}};
        if (settings.count("fail") != 0) {
            env.push_back({"FAKE_MSGPASS_FAIL", settings["fail"]});
        }
        std::string err, calls;
        for (const CaseRow& row : block.body) {
            if (row[0] == "err") {
                err = row[1];
            } else if (row[0][0] == '@') {
                EXPECT_EQ(sequences.count(row[0]), 1u) << row.where;
                calls += sequences[row[0]];
            } else {
                calls += row[0] + "\n";
            }
        }
        EXPECT_EQ(settings.size(), settings.count("fail") + 3) << "unknown setting";
        const Outcome run = runSetvane(split(settings["run"], "|"), env);
        EXPECT_EQ(std::to_string(run.status), settings["status"]);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, err);
        EXPECT_EQ(readFile(dir.file("calls")),
                  replaced(calls, "{L}", "setvane-" + std::to_string(run.pid)));
    }
}

}  // namespace
}  // namespace testsupport

// setvane over a libmsgpass that fails on request and records every call (fake_msgpass.c): each
// failure is reported once, with its exit status, and the calls - order, arguments, the handles
// released - are exactly those listed with the case in failure_cases.txt.
#include <gtest/gtest.h>

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
        Environment env = {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                           {"FAKE_MSGPASS_LOG", dir.file("calls")}};
        std::vector<std::string> words;
        int status = 0;
        std::string err, calls;
        for (const CaseRow& row : block.body) {
            if (row[0] == "run") {
                words = split(row[1], "|");
            } else if (row[0] == "fail" || row[0] == "reply") {
                env.push_back(
                    {row[0] == "fail" ? "FAKE_MSGPASS_FAIL" : "FAKE_MSGPASS_REPLY", row[1]});
            } else if (row[0] == "status") {
                status = std::stoi(row[1]);
            } else if (row[0] == "err") {
                err = row[1];
            } else if (row[0][0] == '@') {
                EXPECT_EQ(sequences.count(row[0]), 1u) << row.where;
                calls += sequences[row[0]];
            } else {
                calls += row[0] + "\n";
            }
        }
        const Outcome run = runSetvane(words, env);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, err);
        EXPECT_EQ(readFile(dir.file("calls")),
                  replaced(calls, "{L}", "setvane-" + std::to_string(run.pid)));
    }
}

}  // namespace
}  // namespace testsupport

// setvane over a libmsgpass that fails on request and records every call (fake_msgpass.c): each
// failure is reported once, with its exit status, and the calls - order, arguments, the handles
// released - are exactly those listed with the case in failure_cases.txt.
#include <gtest/gtest.h>

#include "Harness.h"

namespace {

struct FailureCase {
    std::string name;
    std::vector<std::string> words;
    Environment script;
    int status = 0;
    std::string err;
    std::string calls;
};

std::vector<FailureCase> readCases() {
    std::vector<FailureCase> cases;
    for (const std::string& line : dataLines(FAILURE_CASES_FILE)) {
        const std::string key = line.substr(0, line.find(": "));
        const std::string value = line.substr(std::min(line.size(), key.size() + 2));
        if (line.rfind("== ", 0) == 0) {
            cases.emplace_back();
            cases.back().name = line.substr(3);
        } else if (key == "run") {
            cases.back().words = split(value, "|");
        } else if (key == "fail" || key == "reply") {
            cases.back().script.push_back(
                {key == "fail" ? "FAKE_MSGPASS_FAIL" : "FAKE_MSGPASS_REPLY", value});
        } else if (key == "status") {
            cases.back().status = std::stoi(value);
        } else if (key == "err") {
            cases.back().err = replaced(replaced(value, "\\n", "\n"), "\\e", "\033");
        } else {
            cases.back().calls += line + "\n";
        }
    }
    return cases;
}

TEST(FailureInjection, EachFailureIsReportedOnceAndTheCallsAreExactlyTheListedOnes) {
    for (const FailureCase& c : readCases()) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        Environment env = {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                           {"FAKE_MSGPASS_LOG", dir.file("calls")}};
        env.insert(env.end(), c.script.begin(), c.script.end());
        const Outcome run = runSetvane(c.words, env);
        EXPECT_EQ(run.status, c.status);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, c.err);
        EXPECT_EQ(readFile(dir.file("calls")),
                  replaced(c.calls, "{L}", "setvane-" + std::to_string(run.pid)));
    }
}

}  // namespace

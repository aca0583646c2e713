// logmsg replaces printf for the whole process, so this runner never links it: each case runs
// logmsg_probe with a list of library calls and compares the exact bytes it left in its device
// file, on standard output and on standard error. The cases are in logmsg_cases.txt.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "CaseFile.h"
#include "Process.h"
#include "TempDir.h"

namespace testsupport {
namespace {

struct ProbeRun {
    std::string device;
    Outcome outcome;
};

// The library names the application after the probe's path as /proc shows it; the real path is
// too long for a name, so each case says what it shows.
ProbeRun runProbe(const std::vector<std::string>& args, bool device = true,
                  const std::string& argv0 = "/probes/logmsg_probe") {
    TempDir dir("logmsg-test");
    const std::string devicePath = dir.file("vesklog");
    if (device) {
        EXPECT_TRUE(writeFile(devicePath, ""));
    }
    std::vector<std::string> argv = {argv0};
    argv.insert(argv.end(), args.begin(), args.end());
    ProbeRun run;
    run.outcome = runProgram(LOGMSG_PROBE_PATH, argv,
                             {{"LOGMSG_PROBE_DEVICE", devicePath},
                              {"LSAN_OPTIONS", "suppressions=" LOGMSG_LSAN_SUPPRESSIONS}});
    run.device = readFile(devicePath);
    return run;
}

const std::vector<CaseBlock>& cases() {
    static const std::vector<CaseBlock> blocks = readCaseFile(LOGMSG_CASES_PATH).blocks;
    return blocks;
}

class Logmsg : public ::testing::TestWithParam<size_t> {};

// The case of logmsg_cases.txt numbered by the parameter: the probe's arguments from its "run"
// rows, and each other key's rows joined.
TEST_P(Logmsg, WritesExactlyTheseBytes) {
    std::vector<std::string> args;
    std::map<std::string, std::string> fields;
    for (const CaseRow& row : cases()[GetParam()].body) {
        if (row[0] == "run") {
            args.insert(args.end(), row.fields.begin() + 1, row.fields.end());
        } else if (std::string(" nodevice status device out err ").find(" " + row[0] + " ") !=
                   std::string::npos) {
            fields[row[0]] += row[1];
        } else {
            ADD_FAILURE() << row.where << ": unknown key '" << row[0] << "'";
        }
    }
    std::replace(args.begin(), args.end(), std::string("@loadable"),
                 std::string(LOGMSG_LOADABLE_PATH));
    const ProbeRun run = runProbe(args, fields.count("nodevice") == 0);
    if (run.outcome.status == 77) {
        GTEST_SKIP() << "the probe cannot do this in this build";
    }
    EXPECT_EQ(run.outcome.status, std::atoi(fields["status"].c_str()));
    EXPECT_EQ(run.device, fields["device"]);
    EXPECT_EQ(run.outcome.out, fields["out"]);
    EXPECT_EQ(run.outcome.err, fields["err"]);
}

INSTANTIATE_TEST_SUITE_P(Case, Logmsg, ::testing::Range(size_t{0}, cases().size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                             return cases()[info.param].head[0];
                         });

// The application name in the header: the one given to init, else the end of the program's path
// (the table before the blocks of logmsg_cases.txt).
TEST(LogmsgName, ComesFromInitOrFromTheProgramsPath) {
    for (const CaseRow& row : readCaseFile(LOGMSG_CASES_PATH).rows) {
        SCOPED_TRACE(row.where);
        const ProbeRun run = runProbe({"init", row[1], "err", "-", "x\n", "-"}, true, row[0]);
        EXPECT_EQ(run.outcome.status, 0);
        EXPECT_EQ(run.device, row[2]);
        EXPECT_EQ(run.outcome.out, "");
        EXPECT_EQ(run.outcome.err, row[3]);
    }
}

// Records of equal length, so that each starts at a multiple of it.
TEST(LogmsgThreads, PartialLinesOfThreadsNeverMix) {
    const int kThreads = 4, kRecords = 300;
    const ProbeRun run = runProbe(
        {"init", "setvane", "threads", std::to_string(kThreads), std::to_string(kRecords)});
    ASSERT_EQ(run.outcome.status, 0);
    EXPECT_EQ(run.outcome.out, "");
    const size_t length = std::string("<7>setvane: T0:0123456789").size();
    ASSERT_EQ(run.device.size(), length * kThreads * kRecords);
    std::map<std::string, int> records, expected;
    for (size_t at = 0; at < run.device.size(); at += length) {
        records[run.device.substr(at, length)]++;
    }
    for (int t = 0; t < kThreads; t++) {
        expected["<7>setvane: T" + std::to_string(t) + ":0123456789"] = kRecords;
    }
    EXPECT_EQ(records, expected);
}

}  // namespace
}  // namespace testsupport

// Mirroring of setvane's error lines into the system log: when it happens, what the log device
// receives, and that the console line is shown all the same. The cases (mirror_targets.txt) run
// the tool's production-log library in a probe (log_probe.cpp) with a pid file of the test's and
// an idle process as the log daemon; one more runs the shipped setvane with the real paths inside
// a mount namespace of its own. getProcessCmdline is checked through the same probe.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "setvane_test.h"

namespace testsupport {
namespace {

const char kLine[] = "ReadRsp error kErrItemNotFound";
const char kRecord[] = "setvane: (setvane x): ReadRsp error kErrItemNotFound";

// An idle process under `argv`, playing the log daemon; ready once it said so.
struct LogDaemon : Background {
    LogDaemon(const TempDir& dir, const std::vector<std::string>& argv)
        : Background(IDLE_PROCESS_BINARY, argv, {}, dir.file("daemon.log")) {
        EXPECT_TRUE(waitForLog("ready\n")) << argv[0];
    }
};

TEST(ProductionLog, MirrorsOnlyOnProductionDevicesLoggingToSyslogd) {
    for (const CaseRow& row : toolCases("mirror_targets.txt").rows) {
        SCOPED_TRACE(row.where);
        TempDir dir;
        LogDaemon daemon(dir, split(row[1], " "));
        const std::string pidFile = dir.file("nxlog.pid");
        if (row[2] == "(fifo)") {
            ASSERT_EQ(mkfifo(pidFile.c_str(), 0600), 0);
        } else if (row[2] != "-") {
            ASSERT_TRUE(writeFile(pidFile, replaced(row[2], "{pid}", std::to_string(daemon.pid))));
        }
        // The log device is the probe's own standard error, so that one capture shows the record
        // and the console line in the order they were written.
        const bool noDevice = row[3] == "no device";
        const Outcome run = runProgram(
            LOG_PROBE_BINARY, {"setvane", "x"},
            {{"BOOT_MODE", row[0] == "-" ? std::nullopt : std::optional<std::string>(row[0])},
             {"PROBE_PID_FILE", pidFile},
             {"PROBE_LOG_DEVICE", noDevice ? dir.file("absent") : "/proc/self/fd/2"}});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, noDevice ? "DEBUG  " + std::string(kRecord) + "\n" : "");
        EXPECT_EQ(run.err,
                  (row[3] == "mirrored" ? "<3>" + std::string(kRecord) : "") + redLine(kLine));
    }
}

// The shipped program with /tmp and /dev of its own, so that the real pid file and log device
// are the test's. Needs root for the mount namespace.
TEST(ProductionLog, TheShippedProgramMirrorsWithTheRealPaths) {
    if (geteuid() != 0 || runShell("unshare --mount true").status != 0) {
        GTEST_SKIP() << "needs root and mount namespaces to give setvane its own /tmp and /dev";
    }
    TempDir dir;
    LogDaemon daemon(dir, {"/sbin/syslogd", "-n"});
    // The program and the scripted libmsgpass are copied into the new /dev first: the build
    // tree may itself be under /tmp.
    const Outcome run =
        runShell("unshare --mount sh -c 'mount -t tmpfs none /dev && cp " SETVANE_BINARY
                 " /dev/setvane && "
                 "cp -r " FAKE_MSGPASS_DIR
                 " /dev/fake && : >/dev/vesklog && mount -t tmpfs none /tmp && "
                 "echo " +
                     std::to_string(daemon.pid) +
                     " >/tmp/nxlog.pid && BOOT_MODE=PRODUCTION "
                     "LD_LIBRARY_PATH=/dev/fake /dev/setvane x 2>&1; cat /dev/vesklog'",
                 {{"FAKE_MSGPASS_REPLY", "50f9ffffffffffffffff01"}});
    EXPECT_EQ(run.out, redLine(kLine) + "<3>setvane: (/dev/setvane x): " + kLine);
}

TEST(ProcessCmdline, JoinsTheWordsWithSingleSpaces) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"setvane", "-r", "x"}, "setvane -r x"},
        {{"a b\xff", "c\nd"}, "a b\xff c\nd"},  // a byte 0xff is not the end of the file
        {{"", "b"}, " b"},
        // Only the spaces for the last NUL and for the end of the file are trimmed.
        {{"a", ""}, "a "},
        {{"a", "", ""}, "a  "},
        {{""}, ""},
    };
    for (const auto& c : cases) {
        TempDir dir;
        LogDaemon process(dir, c.first);
        const Outcome run = runProgram(LOG_PROBE_BINARY, {"probe"},
                                       {{"PROBE_CMDLINE_OF", std::to_string(process.pid)}});
        EXPECT_EQ(run.err, "[" + c.second + "]");
    }
    // pid_max is never above 4194304.
    EXPECT_EQ(runProgram(LOG_PROBE_BINARY, {"probe"}, {{"PROBE_CMDLINE_OF", "4194304"}}).err, "[]");
}

}  // namespace
}  // namespace testsupport

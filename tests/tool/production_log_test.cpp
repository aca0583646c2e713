// Mirroring of setvane's error lines into the system log: when it happens, what the log device
// receives, and that the console line is shown all the same. Runs the test build of setvane,
// whose log device and pid file come from LOGMSG_TEST_DEVICE and SETVANE_TEST_PID_FILE, over
// the scripted libmsgpass answering kErrItemNotFound, with an idle process as the log daemon.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Harness.h"

namespace {

const std::string kConsoleLine = redLine("ReadRsp error kErrItemNotFound");
const char kRecord[] = "<3>setvane: (setvane x): ReadRsp error kErrItemNotFound";

// `setvane x` under `bootMode` (null: unset). Unless another is given, the log device is the
// tool's own standard error, so one capture shows the record and the console line in the order
// they were written.
Outcome readFailing(const TempDir& dir, const char* bootMode,
                    const std::string& device = "/proc/self/fd/2") {
    Environment env = {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                       {"FAKE_MSGPASS_REPLY", "50f9ffffffffffffffff01"},
                       {"LOGMSG_TEST_DEVICE", device},
                       {"SETVANE_TEST_PID_FILE", dir.file("nxlog.pid")}};
    if (bootMode != nullptr) {
        env.push_back({"BOOT_MODE", bootMode});
    }
    return runSetvane({"x"}, env, SETVANE_TESTDEV_BINARY);
}

struct TargetCase {
    const char* title;
    const char* bootMode;
    std::vector<std::string> daemon;  // the log daemon's command line
    const char* pidFile;              // "{pid}" is the daemon's pid; null: no pid file
    bool mirrored;
};

void PrintTo(const TargetCase& c, std::ostream* os) {
    *os << c.title;
}

class TargetTest : public ::testing::TestWithParam<TargetCase> {};

TEST_P(TargetTest, MirrorsOnlyOnProductionDevicesLoggingToSyslogd) {
    const TargetCase& c = GetParam();
    TempDir dir;
    Background daemon(IDLE_PROCESS_BINARY, c.daemon, {}, false);
    ASSERT_TRUE(daemon.ready);
    if (c.pidFile != nullptr) {
        std::ofstream(dir.file("nxlog.pid"))
            << replaced(c.pidFile, "{pid}", std::to_string(daemon.pid));
    }
    const Outcome run = readFailing(dir, c.bootMode);
    EXPECT_EQ(run.status, 249);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, (c.mirrored ? kRecord : "") + kConsoleLine);
}

INSTANTIATE_TEST_SUITE_P(
    Tool, TargetTest,
    ::testing::Values(
        TargetCase{"Syslogd", "PRODUCTION", {"/sbin/syslogd", "-n"}, "{pid}\n", true},
        TargetCase{"PidWithoutNewline", "PRODUCTION", {"/sbin/syslogd"}, "{pid}", true},
        TargetCase{"PidOnTheFirstLine", "PRODUCTION", {"/sbin/syslogd"}, "{pid}\n1\n", true},
        TargetCase{"InsideALongerWord", "PRODUCTION", {"/usr/sbin/rsyslogd"}, "{pid}\n", true},
        TargetCase{"InALaterWord", "PRODUCTION", {"logd", "--flavour", "syslogd"}, "{pid}", true},
        TargetCase{"LowerCaseMode", "production", {"/sbin/syslogd"}, "{pid}\n", false},
        TargetCase{"ModeWithSuffix", "PRODUCTION2", {"/sbin/syslogd"}, "{pid}\n", false},
        TargetCase{"ModeUnset", nullptr, {"/sbin/syslogd"}, "{pid}\n", false},
        TargetCase{"NoPidFile", "PRODUCTION", {"/sbin/syslogd"}, nullptr, false},
        // Pids stay below pid_max, which is never above 4194304.
        TargetCase{"UnknownPid", "PRODUCTION", {"/sbin/syslogd"}, "4194304\n", false},
        TargetCase{"PidNotTrimmed", "PRODUCTION", {"/sbin/syslogd"}, "{pid} \n", false},
        TargetCase{"OtherDaemon", "PRODUCTION", {"/usr/sbin/syslog-ng"}, "{pid}\n", false},
        TargetCase{"NameInOtherCase", "PRODUCTION", {"/sbin/SYSLOGD"}, "{pid}\n", false},
        // Only the first line of the daemon's command line is searched.
        TargetCase{"AfterANewline", "PRODUCTION", {"logd", "a\nsyslogd"}, "{pid}\n", false}));

TEST(ProductionLog, PidFileThatIsAFifoLeavesTheConsoleOnly) {
    TempDir dir;
    ASSERT_EQ(mkfifo(dir.file("nxlog.pid").c_str(), 0600), 0);  // a plain open would block
    EXPECT_EQ(readFailing(dir, "PRODUCTION").err, kConsoleLine);
}

TEST(ProductionLog, WithoutTheDeviceTheRecordGoesToStandardOutput) {
    TempDir dir;
    Background daemon(IDLE_PROCESS_BINARY, {"/sbin/syslogd"}, {}, false);
    std::ofstream(dir.file("nxlog.pid")) << daemon.pid;
    const Outcome run = readFailing(dir, "PRODUCTION", dir.file("absent/device"));
    EXPECT_EQ(run.out, "DEBUG  setvane: (setvane x): ReadRsp error kErrItemNotFound\n");
    EXPECT_EQ(run.err, kConsoleLine);
}

}  // namespace

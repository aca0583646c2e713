// Mirroring of setvane's error lines into the system log: when it happens, what the log device
// receives, and that the console line is shown all the same. Runs the test build of setvane,
// whose log device and pid file come from LOGMSG_TEST_DEVICE and SETVANE_TEST_PID_FILE, over
// the scripted libmsgpass answering kErrItemNotFound, with an idle process as the log daemon
// (the cases are in mirror_targets.txt).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "Harness.h"

namespace {

const char kLine[] = "ReadRsp error kErrItemNotFound";
const char kRecord[] = "setvane: (setvane x): ReadRsp error kErrItemNotFound";

TEST(ProductionLog, MirrorsOnlyOnProductionDevicesLoggingToSyslogd) {
    for (const std::string& line : dataLines(MIRROR_TARGETS_FILE)) {
        SCOPED_TRACE(line);
        const std::vector<std::string> fields = split(replaced(line, "\\n", "\n"), " | ");
        TempDir dir;
        Background daemon(IDLE_PROCESS_BINARY, split(fields[1], " "), {});
        ASSERT_TRUE(daemon.ready);
        const std::string pidFile = dir.file("nxlog.pid");
        if (fields[2] == "(fifo)") {
            ASSERT_EQ(mkfifo(pidFile.c_str(), 0600), 0);
        } else if (fields[2] != "-") {
            std::ofstream(pidFile) << replaced(fields[2], "{pid}", std::to_string(daemon.pid));
        }
        // The log device is the tool's own standard error, so that one capture shows the record
        // and the console line in the order they were written.
        const bool noDevice = fields[3] == "no device";
        Environment env = {
            {"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
            {"FAKE_MSGPASS_REPLY", "50f9ffffffffffffffff01"},
            {"SETVANE_TEST_PID_FILE", pidFile},
            {"LOGMSG_TEST_DEVICE", noDevice ? dir.file("absent") : "/proc/self/fd/2"}};
        if (fields[0] != "-") {
            env.push_back({"BOOT_MODE", fields[0]});
        }
        const Outcome run = runSetvane({"x"}, env, SETVANE_TESTDEV_BINARY);
        EXPECT_EQ(run.status, 249);
        EXPECT_EQ(run.out, noDevice ? "DEBUG  " + std::string(kRecord) + "\n" : "");
        EXPECT_EQ(run.err,
                  (fields[3] == "mirrored" ? "<3>" + std::string(kRecord) : "") + redLine(kLine));
    }
}

}  // namespace

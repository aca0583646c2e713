// Mirroring of setvane's error lines into the system log: when it happens, what the log device
// receives, and that the console line is shown all the same. Runs the test build of setvane
// (its log device and pid file come from LOGMSG_TEST_DEVICE and SETVANE_TEST_PID_FILE) against
// the stand-in service, with an idle process playing the log daemon.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "Common/protobuf/v3/configservice.pb.h"
#include "Expect.h"
#include "IdleProcess.h"
#include "ToolProcess.h"

namespace {

const uint32_t kReadRspMsgId = 0x001A0041;
const char kErrorLine[] = "ReadRsp error kErrItemNotFound";
const char kMirroredRecord[] = "<3>setvane: (setvane x): ReadRsp error kErrItemNotFound";
// Pids stay below pid_max, which is never above 4194304.
const char kNoSuchPid[] = "4194304";

std::string itemNotFoundReply() {
    ConfigIF::ReadRsp rsp;
    rsp.set_error(CommonIF::kErrItemNotFound);
    return toHex(rsp.SerializeAsString());
}

// `pattern` with "{pid}" replaced by `pid`.
std::string withPid(std::string pattern, pid_t pid) {
    const size_t at = pattern.find("{pid}");
    if (at != std::string::npos) {
        pattern.replace(at, 5, std::to_string(pid));
    }
    return pattern;
}

class ProductionLogTest : public ::testing::Test {
  protected:
    void SetUp() override { std::ofstream created(devicePath()); }

    // `setvane x` against a service that answers kErrItemNotFound.
    ToolRun readFailing(const Environment& extraEnv) {
        StandinService service(dir.path());
        EXPECT_TRUE(service.start(
            {"--reply-id", std::to_string(kReadRspMsgId), "--reply-hex", itemNotFoundReply()}));
        Environment env = {{"MSGPASS_DIR", dir.path()},
                           {"LOGMSG_TEST_DEVICE", devicePath()},
                           {"SETVANE_TEST_PID_FILE", pidFilePath()}};
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return runProgram(SETVANE_TESTDEV_BINARY, {"setvane", "x"}, env);
    }
    void writePidFile(const std::string& text) { std::ofstream(pidFilePath()) << text; }
    std::string devicePath() const { return dir.file("vesklog"); }
    std::string pidFilePath() const { return dir.file("nxlog.pid"); }
    std::string device() const { return readFile(devicePath()); }

    TempDir dir;
};

void expectConsoleLine(const ToolRun& run) {
    EXPECT_EQ(run.status, CommonIF::kErrItemNotFound & 0xff);
    EXPECT_EQ(run.err, redLine(kErrorLine));
}

// ---- Which conditions mirror the line ----

struct TargetCase {
    const char* title;
    const char* bootMode;  // null: unset
    std::vector<std::string> daemonArgv;
    const char* pidFile;  // "{pid}" stands for the daemon's pid; null: no pid file
    bool mirrored;
};

void PrintTo(const TargetCase& c, std::ostream* os) {
    *os << c.title;
}

class TargetTest : public ProductionLogTest, public ::testing::WithParamInterface<TargetCase> {};

TEST_P(TargetTest, MirrorsOnlyForProductionWithSyslogd) {
    const TargetCase& c = GetParam();
    IdleProcess daemon(c.daemonArgv);
    ASSERT_NE(daemon.pid(), 0);
    if (c.pidFile != nullptr) {
        writePidFile(withPid(c.pidFile, daemon.pid()));
    }
    Environment env;
    if (c.bootMode != nullptr) {
        env.push_back({"BOOT_MODE", c.bootMode});
    }
    const ToolRun run = readFailing(env);
    expectConsoleLine(run);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(device(), c.mirrored ? kMirroredRecord : "");
}

const TargetCase kTargetCases[] = {
    {"Syslogd", "PRODUCTION", {"/sbin/syslogd", "-n"}, "{pid}\n", true},
    {"PidFileWithoutNewline", "PRODUCTION", {"/sbin/syslogd"}, "{pid}", true},
    {"PidFileReadToItsFirstNewline", "PRODUCTION", {"/sbin/syslogd"}, "{pid}\n1\n", true},
    {"SyslogdInsideALongerWord", "PRODUCTION", {"/usr/sbin/rsyslogd"}, "{pid}\n", true},
    {"SyslogdInALaterWord", "PRODUCTION", {"logd", "--flavour", "syslogd"}, "{pid}\n", true},
    {"LowerCaseMode", "production", {"/sbin/syslogd"}, "{pid}\n", false},
    {"ModeWithSuffix", "PRODUCTION2", {"/sbin/syslogd"}, "{pid}\n", false},
    {"ModeUnset", nullptr, {"/sbin/syslogd"}, "{pid}\n", false},
    {"NoPidFile", "PRODUCTION", {"/sbin/syslogd"}, nullptr, false},
    {"UnknownPid", "PRODUCTION", {"/sbin/syslogd"}, kNoSuchPid, false},
    {"PidNotTrimmed", "PRODUCTION", {"/sbin/syslogd"}, "{pid} \n", false},
    {"OtherDaemon", "PRODUCTION", {"/usr/sbin/syslog-ng"}, "{pid}\n", false},
    {"DaemonNameInOtherCase", "PRODUCTION", {"/sbin/SYSLOGD"}, "{pid}\n", false},
    // Only the first line of the command line is searched.
    {"SyslogdAfterANewline", "PRODUCTION", {"logd", "a\nsyslogd"}, "{pid}\n", false},
};

INSTANTIATE_TEST_SUITE_P(Tool, TargetTest, ::testing::ValuesIn(kTargetCases),
                         [](const ::testing::TestParamInfo<TargetCase>& info) {
                             return std::string(info.param.title);
                         });

TEST_F(ProductionLogTest, PidFileThatIsAFifoLeavesTheConsoleOnly) {
    ASSERT_EQ(mkfifo(pidFilePath().c_str(), 0600), 0);
    const ToolRun run = readFailing({{"BOOT_MODE", "PRODUCTION"}});
    expectConsoleLine(run);
    EXPECT_EQ(device(), "");
}

TEST_F(ProductionLogTest, WithoutTheDeviceTheLineShowsOnBothStreams) {
    IdleProcess daemon({"/sbin/syslogd"});
    ASSERT_NE(daemon.pid(), 0);
    writePidFile(std::to_string(daemon.pid()) + "\n");
    const ToolRun run = readFailing(
        {{"BOOT_MODE", "PRODUCTION"}, {"LOGMSG_TEST_DEVICE", dir.file("absent/vesklog")}});
    expectConsoleLine(run);
    EXPECT_EQ(run.out, std::string("DEBUG  setvane: (setvane x): ") + kErrorLine + "\n");
}

// ---- The mirrored records of several lines, through the probe ----

class MirroredLinesTest : public ProductionLogTest {
  protected:
    void SetUp() override {
        ProductionLogTest::SetUp();
        ASSERT_NE(daemon.pid(), 0);
        writePidFile(std::to_string(daemon.pid()) + "\n");
    }
    Environment mirroring() const {
        return {{"BOOT_MODE", "PRODUCTION"},
                {"LOGMSG_TEST_DEVICE", devicePath()},
                {"SETVANE_TEST_PID_FILE", pidFilePath()}};
    }

    IdleProcess daemon{{"/sbin/syslogd"}};
};

TEST_F(MirroredLinesTest, LoneNewlineLogsTheCommandLineOnly) {
    const ToolRun run = runProgram(MIRROR_PROBE_BINARY, {"probe"}, mirroring(), "\n");
    EXPECT_EQ(run.err, redLine(""));
    EXPECT_EQ(device(), "<3>setvane: (probe): ");
}

TEST_F(MirroredLinesTest, EveryLineCarriesTheCommandLineOfItsTime) {
    const ToolRun run =
        runProgram(MIRROR_PROBE_BINARY, {"probe", "1"}, mirroring(), "a\nb\nunended");
    EXPECT_EQ(run.err, redLine("a") + redLine("b"));
    EXPECT_EQ(device(), "<3>setvane: (probe 1): a<3>setvane: (probe 2): b");
}

// Standard error and the device are one pipe here (the device is the probe's own descriptor 2),
// so the order of the writes shows.
TEST_F(MirroredLinesTest, RecordIsWrittenBeforeTheConsoleLine) {
    const std::string command =
        "printf 'a\\nb\\n' | BOOT_MODE=PRODUCTION SETVANE_TEST_PID_FILE=" + pidFilePath() +
        " LOGMSG_TEST_DEVICE=/proc/self/fd/2 " + MIRROR_PROBE_BINARY + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string merged;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        merged.append(buffer, n);
    }
    EXPECT_EQ(pclose(pipe), 0);
    const std::string record = std::string("<3>setvane: (") + MIRROR_PROBE_BINARY + "): ";
    EXPECT_EQ(merged, record + "a" + redLine("a") + record + "b" + redLine("b"));
}

}  // namespace

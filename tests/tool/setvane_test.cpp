// setvane as its users meet it: the shipped program, run with the command lines of
// command_lines.txt over a libmsgpass that records its calls and fails on request
// (fake_msgpass.c); how it is linked; and the mirroring of its error lines into the system log.
// With the real libmsgpass and service it runs in the vanectl sessions.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "CaseFile.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "Process.h"
#include "TempDir.h"

namespace testsupport {
namespace {

// `err` with the source location dropped from each line of the protocol buffer runtime's own
// log ("[libprotobuf ERROR google/protobuf/x.cc:12] text" becomes "[libprotobuf ERROR] text"):
// where the runtime keeps its log statements changes with its release, the rest is compared.
std::string withoutRuntimeLogLocations(const std::string& err) {
    static const std::regex kLocation(R"((\[libprotobuf [A-Z]+) [^ \]\n]+:[0-9]+\] )");
    return std::regex_replace(err, kLocation, "$1] ");
}

// setvane with argv[0] "setvane"; BOOT_MODE is unset so that lines stay on the console. The
// runtime's log lines in standard error lose their source location (above).
Outcome runSetvane(const std::vector<std::string>& words, Environment env = {}) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    env.insert(env.begin(), {"BOOT_MODE", std::nullopt});
    Outcome run = runProgram(SETVANE_BINARY, argv, env);
    run.err = withoutRuntimeLogLocations(run.err);
    return run;
}

// The case file `name` of this folder.
CaseFile toolCases(const std::string& name) {
    return readCaseFile(std::string(TOOL_CASES_DIR) + "/" + name);
}

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

std::string redLine(const std::string& text) {
    return "\033[31m" + text + "\033[0m\n";
}

// ---- The command line as a user types it: the usage text and every misuse of an option, all
// before any contact with the service ----

TEST(CommandLine, EndsWithStatusOneAndExactStandardError) {
    const std::string usage = readFile(std::string(TOOL_CASES_DIR) + "/usage.txt");
    for (const CaseRow& row : toolCases("command_lines.txt").rows) {
        SCOPED_TRACE(row.where + ": setvane " + row[0]);
        const std::vector<std::string> words = split(row[0], " ");
        std::string expected = usage;
        if (row[1] != "usage") {
            expected = "Wrong input: setvane";
            for (size_t i = 0; i < words.size(); ++i) {
                const bool bad = std::to_string(i + 1) == row[1];
                expected += " " + (bad ? "\033[31m" + words[i] + "\033[0m" : words[i]);
            }
            expected += "\n" + redLine(row[2]) + kHelpHint;
        }
        TempDir dir;  // no service there: connecting by mistake would end differently
        const Outcome run = runSetvane(words, {{"MSGPASS_DIR", dir.path}});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, expected);
    }
}

// ---- Over a libmsgpass that answers as scripted, fails on request and records every call
// (fake_msgpass.c): the request each command line sends (requests.txt); each failure reported
// once, with its exit status, and the calls (order, arguments, the handles released) exactly
// those listed with the case in setvane_runs.txt ----

// setvane (its words separated by "|") over the scripted libmsgpass, which answers `reply` (hex),
// fails as `fail` says and records its calls in the file `calls`.
Outcome runScripted(const std::string& words, const std::string& calls, const std::string& reply,
                    const std::string& fail = "") {
    return runSetvane(split(words, "|"), {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                          {"FAKE_MSGPASS_LOG", calls},
                                          {"FAKE_MSGPASS_REPLY", reply},
                                          {"FAKE_MSGPASS_FAIL", fail}});
}

// The message of type Message with the fields `text` (protobuf text format), encoded, in hex.
template <typename Message>
std::string hexOf(const std::string& text) {
    Message message;
    EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
    std::string hex;
    for (unsigned char c : message.SerializeAsString()) {
        hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    }
    return hex;
}

TEST(Requests, AreExactlyTheOnesOfTheCommandLine) {
    for (const CaseRow& row : toolCases("requests.txt").rows) {
        SCOPED_TRACE(row.where);
        TempDir dir;
        const bool write = row[1] == "WriteReq";
        // A write that asks for a reboot succeeds silently: the tool does not act on it.
        const Outcome done = runScripted(
            row[0], dir.file("calls"),
            write ? hexOf<ConfigIF::WriteRsp>("ret_message { error: 0 reboot_required: true }")
                  : hexOf<ConfigIF::ReadRsp>("error: 0"));
        EXPECT_EQ(done.status, 0);
        EXPECT_EQ(done.out + done.err, "");
        const std::string request = replaced(row[2], "{pid}", std::to_string(done.pid));
        const std::string hex =
            write ? hexOf<ConfigIF::WriteReq>(request) : hexOf<ConfigIF::ReadReq>(request);
        // The message made with the request's id and size, filled, and sent as it was filled.
        const std::string sent =
            "AllocMsg " +
            std::to_string(write ? ConfigProtocol::kWriteReqMsgId : ConfigProtocol::kReadReqMsgId) +
            " 0 " + std::to_string(hex.size() / 2) +
            " -> msg1\nGetPayloadMutable msg1\nSendMsg setvane-" + std::to_string(done.pid) +
            " 42 msg1 " + hex + " -> 0\n";
        const std::string calls = readFile(dir.file("calls"));
        EXPECT_NE(calls.find(sent), std::string::npos) << calls << "lacks\n" << sent;
    }
}

TEST(FailureInjection, EachFailureIsReportedOnceAndTheCallsAreExactlyTheListedOnes) {
    const CaseFile file = toolCases("setvane_runs.txt");
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
        std::map<std::string, std::string> settings = {
            {"run", "--client|cli|a|1"}, {"reply", "5000"}, {"fail", ""}};
        for (size_t i = 1; i < block.head.fields.size(); ++i) {
            const std::string& setting = block.head[i];
            const size_t blank = std::min(setting.find(' '), setting.size());
            settings[setting.substr(0, blank)] =
                setting.substr(std::min(blank + 1, setting.size()));
        }
        std::string err, out, calls;
        for (const CaseRow& row : block.body) {
            if (row[0] == "err" || row[0] == "out") {
                (row[0] == "err" ? err : out) += row[1];
            } else if (row[0][0] == '@') {
                EXPECT_EQ(sequences.count(row[0]), 1u) << row.where;
                calls += sequences[row[0]];
            } else {
                calls += row[0] + "\n";
            }
        }
        EXPECT_EQ(settings.size(), 4u) << "unknown setting";
        const Outcome run =
            runScripted(settings["run"], dir.file("calls"), settings["reply"], settings["fail"]);
        EXPECT_EQ(std::to_string(run.status), settings["status"]);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(run.err, err);
        if (!calls.empty()) {
            EXPECT_EQ(readFile(dir.file("calls")),
                      replaced(calls, "{L}", "setvane-" + std::to_string(run.pid)));
        }
    }
}

// ---- How the program is linked: libmsgpass through its eleven client operations only, so that
// the device's own library can take its place (that it is found through LD_LIBRARY_PATH first,
// by RUNPATH and not RPATH, the runs over the scripted libmsgpass show); the rest statically ----

TEST(Binary, LoadsOnlyTheElevenClientOperationsOfLibmsgpassAndTheCLibrary) {
    EXPECT_EQ(runShell("nm -D --undefined-only " SETVANE_BINARY
                       " | grep -o ' MSG_[A-Za-z]*' | LC_ALL=C sort")
                  .out,
              " MSG_AllocMsg\n MSG_CloseLocal\n MSG_DebugSetName\n MSG_GetPayload\n"
              " MSG_GetPayloadBytes\n MSG_GetPayloadMutable\n MSG_OpenLocal\n"
              " MSG_OpenRemoteSync\n MSG_RecvMsg\n MSG_ReleaseMsg\n MSG_SendMsg\n");
    const std::string dynamic = runShell("readelf -d " SETVANE_BINARY).out;
    for (const char* absent : {"libprotobuf", "libstdc++", "libgcc_s"}) {
        EXPECT_EQ(dynamic.find(absent), std::string::npos) << absent;
    }
}

// ---- Error lines mirrored into the system log: the cases (mirror_targets.txt) run the tool's
// production-log library in a probe (log_probe.cpp) with a pid file of the test's and the probe
// idling as the log daemon; one more runs the shipped program with the real paths. The probe
// also shows what getProcessCmdline makes of a process ----

const char kLine[] = "ReadRsp error kErrItemNotFound";
const char kRecord[] = "setvane: (setvane x): ReadRsp error kErrItemNotFound";

// The probe idling under `argv`, playing the log daemon; ready once it said so.
struct LogDaemon : Background {
    LogDaemon(const TempDir& dir, const std::vector<std::string>& argv)
        : Background(LOG_PROBE_BINARY, argv, {{"PROBE_IDLE", "1"}}, dir.file("daemon.log")) {
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

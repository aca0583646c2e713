// setvane over a libmsgpass that fails on request and records every call (fake_msgpass.c): each
// failure is reported once, with its exit status, and the calls - order, arguments, the handles
// released - are exactly these.
#include <gtest/gtest.h>

#include "Harness.h"

namespace {

// `setvane --client cli a 1` sends the ReadReq: name "cli", role kUser, node (a, 1).
const std::vector<std::string> kRead = {"--client", "cli", "a", "1"};
const std::vector<std::string> kDebugRead = {"--debug", "--client", "cli", "a", "1"};
const std::vector<std::string> kWrite = {"--client", "cli", "--write", "a", "1", "-v", "on"};
const char kNotFound[] = "50f9ffffffffffffffff01";  // ReadRsp: kErrItemNotFound

// Its calls, up to where each failure cuts them short; "{L}" is the name setvane-<pid>.
const std::string kConnect =
    "DebugSetName {L} -> 0\nOpenLocal {L} -> 0\nOpenRemoteSync {L} ConfigSrvc 5000 -> 0\n";
const std::string kSend = kConnect +
                          "AllocMsg 1703936 0 19 -> msg1\nGetPayloadMutable msg1\n"
                          "SendMsg {L} 42 msg1 5203636c69a0010af201085206520161a00101";
const std::string kReceive = kSend + " -> 0\nRecvMsg {L} 1704001 10000";
const std::string kParse = kReceive + " -> msg2\nGetPayload msg2\nGetPayloadBytes msg2";
const std::string kClose = "ReleaseMsg msg2\nCloseLocal (null)";
const std::string kAll = kParse + " -> 2\n" + kClose + " -> 0\n";

const std::string kSendingTrace =
    "\033[7msending ConfigIF.ReadReq to ConfigSrvc\033[0m\n"
    "name: \"cli\"\nrole: kUser\ninstance {\n  node {\n    name: \"a\"\n    instance: 1\n  "
    "}\n}\n\n";

struct FailureCase {
    const char* title;
    std::vector<std::string> words;
    const char* fail;   // FAKE_MSGPASS_FAIL
    const char* reply;  // FAKE_MSGPASS_REPLY
    int status;
    std::string err;
    std::string calls;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
    *os << c.title;
}

class FailureInjectionTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailureInjectionTest, ReportsOnceAndMakesExactlyTheseCalls) {
    const FailureCase& c = GetParam();
    TempDir dir;
    const Outcome run = runSetvane(c.words, {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                             {"FAKE_MSGPASS_LOG", dir.file("calls")},
                                             {"FAKE_MSGPASS_FAIL", c.fail},
                                             {"FAKE_MSGPASS_REPLY", c.reply}});
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(readFile(dir.file("calls")),
              replaced(c.calls, "{L}", "setvane-" + std::to_string(run.pid)));
}

INSTANTIATE_TEST_SUITE_P(
    Tool, FailureInjectionTest,
    ::testing::Values(
        FailureCase{"AllSucceedTraced", kDebugRead, "", "5000", 0,
                    kSendingTrace + "\033[7mreceived ConfigIF.ReadRsp from ConfigSrvc\033[0m\n" +
                        "error: kErrNoError\n\n",
                    kAll},
        FailureCase{"DebugSetNameIsNotFatal", kRead, "MSG_DebugSetName=5", "5000", 0,
                    redLine("MSG_DebugSetName() failed 5"),
                    "DebugSetName {L} -> 5\n" + kAll.substr(kAll.find("OpenLocal"))},
        FailureCase{"OpenLocal", kRead, "MSG_OpenLocal=-3", "", 1,
                    redLine("MSG_OpenLocal() failed -3"),
                    "DebugSetName {L} -> 0\nOpenLocal {L} -> -3\n"},
        FailureCase{"OpenRemoteSync", kRead, "MSG_OpenRemoteSync=304", "", 1,
                    redLine("MSG_OpenRemoteSync() failed 304"),
                    replaced(kConnect, "5000 -> 0", "5000 -> 304")},
        FailureCase{"AllocMsg", kRead, "MSG_AllocMsg=1", "", 255, redLine("MSG_AllocMsg() failed"),
                    kConnect + "AllocMsg 1703936 0 19 -> msg0\nCloseLocal (null) -> 0\n"},
        // The message belongs to the library once sent, even when sending fails.
        FailureCase{"SendMsgTraced", kDebugRead, "MSG_SendMsg=7", "", 7,
                    kSendingTrace + redLine("MSG_SendMsg() failed 7"),
                    kSend + " -> 7\nCloseLocal (null) -> 0\n"},
        FailureCase{"RecvMsg", kRead, "MSG_RecvMsg=1", "", 255, redLine("MSG_RecvMsg() failed"),
                    kReceive + " -> msg0\nCloseLocal (null) -> 0\n"},
        FailureCase{"UnparsableReplyTracedAndReleased", kDebugRead, "", "", 255,
                    kSendingTrace + redLine("ParseFromArray() failed"),
                    kParse + " -> 0\n" + kClose + " -> 0\n"},
        FailureCase{"NothingToCloseIsSilent", kRead, "MSG_CloseLocal=302", "5000", 0, "",
                    kParse + " -> 2\n" + kClose + " -> 302\n"},
        FailureCase{
            "CloseFailureKeepsTheStatus", kRead, "MSG_CloseLocal=308", kNotFound, 249,
            redLine("ReadRsp error kErrItemNotFound") + redLine("MSG_CloseLocal() failed 308"),
            kParse + " -> 11\n" + kClose + " -> 308\n"},
        FailureCase{"NegativeCloseStatus", kRead, "MSG_CloseLocal=-1", "5000", 0,
                    redLine("MSG_CloseLocal() failed -1"),
                    kParse + " -> 2\n" + kClose + " -> -1\n"},
        FailureCase{"WriteIdsAndEncoding", kWrite, "", "52025000", 0, "",
                    kConnect +
                        "AllocMsg 1704064 0 26 -> msg1\nGetPayloadMutable msg1\n"
                        "SendMsg {L} 42 msg1 5203636c69a00114f2010f52085206520161a00101a201026f6e"
                        " -> 0\nRecvMsg {L} 1704337 10000 -> msg2\nGetPayload msg2\n"
                        "GetPayloadBytes msg2 -> 4\n" +
                        kClose + " -> 0\n"},
        // The role is looked up once connected: nothing is sent, and nothing closed.
        FailureCase{"UnknownRole",
                    {"-r", "Admin", "x"},
                    "",
                    "",
                    1,
                    redLine("unknown role 'Admin'") + kHelpHint,
                    kConnect},
        FailureCase{"UnknownLowerCaseRole",
                    {"-r", "kuser", "x"},
                    "",
                    "",
                    1,
                    redLine("unknown role 'kuser'") + kHelpHint,
                    kConnect},
        FailureCase{"EmptyRole",
                    {"-r", "", "x"},
                    "",
                    "",
                    1,
                    redLine("unknown role ''") + kHelpHint,
                    kConnect}));

}  // namespace

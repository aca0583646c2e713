// setvane over a scripted libmsgpass that fails on request and records every call: each
// failure of the library is reported once, with the right exit status, and the calls (order,
// arguments, ownership of message handles) are exactly the expected ones.
#include <gtest/gtest.h>

#include <regex>

#include "Expect.h"
#include "ToolProcess.h"

namespace {

// `setvane --client cli a 1` sends this ReadReq: name "cli", role kUser, node (a, 1).
const std::vector<std::string> kReadWords = {"--client", "cli", "a", "1"};
const char kReadRequestHex[] = "5203636c69a0010af201085206520161a00101";
// `setvane --client cli --write a 1 -v on`: role kAdmin, the same node, the value "on".
const std::vector<std::string> kWriteWords = {"--client", "cli", "--write", "a", "1", "-v", "on"};
const char kWriteRequestHex[] = "5203636c69a00114f2010f52085206520161a00101a201026f6e";

const char kReadOk[] = "5000";                          // ReadRsp, kErrNoError, no values
const char kReadNotFound[] = "50f9ffffffffffffffff01";  // ReadRsp, kErrItemNotFound

// The expected call log: "{L}" stands for the local endpoint name, "{R}" for the request's
// payload in hex and "{N}" for its size.
std::string expand(std::string text, pid_t pid, const std::string& requestHex) {
    text = std::regex_replace(text, std::regex("\\{L\\}"), "setvane-" + std::to_string(pid));
    text = std::regex_replace(text, std::regex("\\{R\\}"), requestHex);
    return std::regex_replace(text, std::regex("\\{N\\}"), std::to_string(requestHex.size() / 2));
}

const char kConnect[] =
    "MSG_DebugSetName {L} -> 0\n"
    "MSG_OpenLocal {L} -> 0\n"
    "MSG_OpenRemoteSync {L} ConfigSrvc 5000 -> 0\n";
const char kSend[] =
    "MSG_AllocMsg 1703936 0 {N} -> msg1\n"
    "MSG_GetPayloadMutable msg1\n"
    "MSG_SendMsg {L} 42 msg1 payload={R} -> 0\n";
const char kReceive[] =
    "MSG_RecvMsg {L} 1704001 10000 -> msg2\n"
    "MSG_GetPayload msg2\n";

struct FailureCase {
    const char* title;
    const char* script;  // FAKE_MSGPASS_FAIL
    const char* reply;   // FAKE_MSGPASS_REPLY
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
    const ToolRun run = runSetvane(kReadWords, {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                                {"FAKE_MSGPASS_LOG", dir.file("calls")},
                                                {"FAKE_MSGPASS_FAIL", c.script},
                                                {"FAKE_MSGPASS_REPLY", c.reply}});
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, c.err);
    EXPECT_EQ(readFile(dir.file("calls")), expand(c.calls, run.pid, kReadRequestHex));
}

const std::string kConnected = kConnect;
const std::string kSent = kConnected + kSend;
const std::string kReceived = kSent + kReceive +
                              "MSG_GetPayloadBytes msg2 -> 2\n"
                              "MSG_ReleaseMsg msg2\n";

const FailureCase kFailureCases[] = {
    {"AllSucceed", "", kReadOk, 0, "", kReceived + "MSG_CloseLocal (null) -> 0\n"},
    {"DebugSetNameFailureIsNotFatal", "MSG_DebugSetName=5", kReadOk, 0,
     redLine("MSG_DebugSetName() failed 5"),
     "MSG_DebugSetName {L} -> 5\n" + kReceived.substr(kReceived.find("MSG_OpenLocal")) +
         "MSG_CloseLocal (null) -> 0\n"},
    {"OpenLocalFailureEndsBeforeConnecting", "MSG_OpenLocal=-3", kReadOk, 1,
     redLine("MSG_OpenLocal() failed -3"),
     "MSG_DebugSetName {L} -> 0\n"
     "MSG_OpenLocal {L} -> -3\n"},
    {"OpenRemoteFailureSendsNothingAndClosesNothing", "MSG_OpenRemoteSync=304", kReadOk, 1,
     redLine("MSG_OpenRemoteSync() failed 304"),
     "MSG_DebugSetName {L} -> 0\n"
     "MSG_OpenLocal {L} -> 0\n"
     "MSG_OpenRemoteSync {L} ConfigSrvc 5000 -> 304\n"},
    {"AllocFailure", "MSG_AllocMsg=1", kReadOk, 255, redLine("MSG_AllocMsg() failed"),
     kConnected + "MSG_AllocMsg 1703936 0 {N} -> NULL\nMSG_CloseLocal (null) -> 0\n"},
    {"SendFailureLeavesTheMessageToTheLibrary", "MSG_SendMsg=7", kReadOk, 7,
     redLine("MSG_SendMsg() failed 7"),
     kConnected + "MSG_AllocMsg 1703936 0 {N} -> msg1\n"
                  "MSG_GetPayloadMutable msg1\n"
                  "MSG_SendMsg {L} 42 msg1 payload={R} -> 7\n"
                  "MSG_CloseLocal (null) -> 0\n"},
    {"ReceiveFailure", "MSG_RecvMsg=1", kReadOk, 255, redLine("MSG_RecvMsg() failed"),
     kSent + "MSG_RecvMsg {L} 1704001 10000 -> NULL\nMSG_CloseLocal (null) -> 0\n"},
    {"UnparsableReplyIsStillReleased", "", "", 255, redLine("ParseFromArray() failed"),
     kSent + kReceive +
         "MSG_GetPayloadBytes msg2 -> 0\n"
         "MSG_ReleaseMsg msg2\n"
         "MSG_CloseLocal (null) -> 0\n"},
    {"NothingToCloseIsSilent", "MSG_CloseLocal=302", kReadOk, 0, "",
     kReceived + "MSG_CloseLocal (null) -> 302\n"},
    {"CloseFailureReportedStatusKept", "MSG_CloseLocal=308", kReadNotFound, 249,
     redLine("ReadRsp error kErrItemNotFound") + redLine("MSG_CloseLocal() failed 308"),
     kSent + kReceive +
         "MSG_GetPayloadBytes msg2 -> 11\n"
         "MSG_ReleaseMsg msg2\n"
         "MSG_CloseLocal (null) -> 308\n"},
    {"NegativeCloseStatusReported", "MSG_CloseLocal=-1", kReadOk, 0,
     redLine("MSG_CloseLocal() failed -1"), kReceived + "MSG_CloseLocal (null) -> -1\n"},
};

INSTANTIATE_TEST_SUITE_P(Tool, FailureInjectionTest, ::testing::ValuesIn(kFailureCases),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.title);
                         });

TEST(FailureInjection, WriteSendsItsExactEncodingUnderTheWriteIds) {
    TempDir dir;
    const ToolRun run = runSetvane(kWriteWords, {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                                 {"FAKE_MSGPASS_LOG", dir.file("calls")},
                                                 {"FAKE_MSGPASS_FAIL", ""},
                                                 {"FAKE_MSGPASS_REPLY", "52025000"}});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(readFile(dir.file("calls")),
              expand(kConnected + "MSG_AllocMsg 1704064 0 {N} -> msg1\n"
                                  "MSG_GetPayloadMutable msg1\n"
                                  "MSG_SendMsg {L} 42 msg1 payload={R} -> 0\n"
                                  "MSG_RecvMsg {L} 1704337 10000 -> msg2\n"
                                  "MSG_GetPayload msg2\n"
                                  "MSG_GetPayloadBytes msg2 -> 4\n"
                                  "MSG_ReleaseMsg msg2\n"
                                  "MSG_CloseLocal (null) -> 0\n",
                     run.pid, kWriteRequestHex));
}

TEST(FailureInjection, UnknownRoleEndsConnectedWithNothingSent) {
    TempDir dir;
    const ToolRun run = runSetvane({"-r", "Admin", "x"}, {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                                          {"FAKE_MSGPASS_LOG", dir.file("calls")},
                                                          {"FAKE_MSGPASS_FAIL", ""}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, redLine("unknown role 'Admin'") + kHelpHint);
    EXPECT_EQ(readFile(dir.file("calls")), expand(kConnected, run.pid, ""));
}

TEST(FailureInjection, DebugTraceStopsAtAFailedSend) {
    TempDir dir;
    const ToolRun run = runSetvane({"--debug", "--client", "cli", "a", "1"},
                                   {{"LD_LIBRARY_PATH", FAKE_MSGPASS_DIR},
                                    {"FAKE_MSGPASS_LOG", dir.file("calls")},
                                    {"FAKE_MSGPASS_FAIL", "MSG_SendMsg=7"}});
    EXPECT_EQ(run.status, 7);
    EXPECT_EQ(run.err,
              "\033[7msending ConfigIF.ReadReq to ConfigSrvc\033[0m\n"
              "name: \"cli\"\n"
              "role: kUser\n"
              "instance {\n"
              "  node {\n"
              "    name: \"a\"\n"
              "    instance: 1\n"
              "  }\n"
              "}\n"
              "\n" +
                  redLine("MSG_SendMsg() failed 7"));
}

}  // namespace

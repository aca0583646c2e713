// setvane against the stand-in service (standin/) over the real libmsgpass: the request the
// service receives (requests.txt), what the tool prints for each answer, and its exit status.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "setvane_test.h"

namespace testsupport {
namespace {

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

class ServiceTest : public ::testing::Test {
  protected:
    // setvane with `words` against a stand-in that answers every request with `replyHex`.
    Outcome run(const std::string& replyHex, const std::vector<std::string>& words) {
        Background service(
            STANDIN_BINARY,
            {"standin_service", "--reply-hex", replyHex, "--record", dir.file("requests")},
            {{"MSGPASS_DIR", dir.path}}, dir.file("standin.log"));
        EXPECT_TRUE(service.waitForLog("ready\n"));
        return runSetvane(words, {{"MSGPASS_DIR", dir.path}});
    }
    TempDir dir;
};

TEST_F(ServiceTest, ReceivesExactlyTheRequestOfTheCommandLine) {
    for (const CaseRow& row : toolCases("requests.txt").rows) {
        SCOPED_TRACE(row.where);
        std::remove(dir.file("requests").c_str());
        const bool write = row[1] == "WriteReq";
        // A write that asks for a reboot succeeds silently: the tool does not act on it.
        const Outcome done =
            run(write ? hexOf<ConfigIF::WriteRsp>("ret_message { error: 0 reboot_required: true }")
                      : hexOf<ConfigIF::ReadRsp>("error: 0"),
                split(row[0], "|"));
        EXPECT_EQ(done.status, 0);
        EXPECT_EQ(done.out + done.err, "");
        // The stand-in records each request as its id and its payload in hex.
        const std::string request = replaced(row[2], "{pid}", std::to_string(done.pid));
        EXPECT_EQ(readFile(dir.file("requests")),
                  write ? std::to_string(ConfigProtocol::kWriteReqMsgId) + " " +
                              hexOf<ConfigIF::WriteReq>(request) + "\n"
                        : std::to_string(ConfigProtocol::kReadReqMsgId) + " " +
                              hexOf<ConfigIF::ReadReq>(request) + "\n");
    }
}

TEST_F(ServiceTest, ReadPrintsEachValueOnItsOwnLineAndDebugTracesBothMessages) {
    const Outcome done =
        run(hexOf<ConfigIF::ReadRsp>(R"(error: 0 value: "" value: "a\nb" value: "\377\001\000z")"),
            {"--debug", "x"});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.out, std::string("\na\nb\n\xff\x01\0z\n", 10));
    // The expected trace, in the escapes of the case files; "{pid}" is setvane's. The invalid
    // UTF-8 of the last value is kept, and the runtime's complaint about it shows as it parses.
    const std::string trace = unescape(readFile(std::string(TOOL_CASES_DIR) + "/debug_trace.txt"));
    EXPECT_EQ(done.err, replaced(trace, "{pid}", std::to_string(done.pid)));
}

TEST_F(ServiceTest, ServiceErrorsAreNamedAndBecomeTheExitStatus) {
    const char* const kNames[] = {"kErrGenericError", "kErrOutOfMemory",    "kErrBadParameter",
                                  "kErrBadState",     "kErrOutOfResources", "kErrNotYetSupported",
                                  "kErrItemNotFound", "kErrNotAuthorized",  "kErrAlreadyExists",
                                  "kErrTimeOut",      "kErrPortLocked",     "-12/unknown_error"};
    for (int error = -1; error >= -12; --error) {
        const std::string code = std::to_string(error);
        const std::string name = kNames[-error - 1];
        const Outcome read =
            run(hexOf<ConfigIF::ReadRsp>("error: " + code + " value: \"no\""), {"x"});
        EXPECT_EQ(read.status, 256 + error) << name;
        EXPECT_EQ(read.out, "");
        EXPECT_EQ(read.err, redLine("ReadRsp error " + name));
        const Outcome write =
            run(hexOf<ConfigIF::WriteRsp>("ret_message { error: " + code + " }"), {"x", "-v", "1"});
        EXPECT_EQ(write.status, 256 + error) << name;
        EXPECT_EQ(write.out, "");
        EXPECT_EQ(write.err, redLine("WriteRsp error " + name));
    }
}

TEST_F(ServiceTest, ReplyThatDoesNotParseEndsWithStatus255) {
    // Bytes that are no message at all; error 5, no member of the enumeration, in a read and in
    // a write reply (an empty one is in failure_cases.txt). The runtime says what is missing, in
    // its own log.
    const char kMissing[] = "[libprotobuf ERROR] Can't parse message of type \"ConfigIF.";
    const std::pair<const char*, std::string> cases[] = {
        {"ffff", ""},
        {"5005",
         kMissing + std::string("ReadRsp\" because it is missing required fields: error\n")},
        {"52025005", kMissing + std::string("WriteRsp\" because it is missing required fields: "
                                            "ret_message.error\n")},
    };
    for (const auto& [reply, runtimeLine] : cases) {
        const bool write = std::string(reply).rfind("52", 0) == 0;  // WriteRsp's field 10
        const Outcome done = run(reply, write ? std::vector<std::string>{"x", "-v", "1"}
                                              : std::vector<std::string>{"x"});
        EXPECT_EQ(done.status, 255) << reply;
        EXPECT_EQ(done.out, "");
        EXPECT_EQ(done.err, runtimeLine + redLine("ParseFromArray() failed")) << reply;
    }
}

}  // namespace
}  // namespace testsupport

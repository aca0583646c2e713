// setvane against the stand-in service (standin_service.cpp) over the real libmsgpass: the
// request the service receives, what the tool prints for each answer, and its exit status.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "Common/protobuf/v3/configservice.pb.h"
#include "Harness.h"

namespace {

const char kReadRspId[] = "0x1A0041";
const char kWriteRspId[] = "0x1A0191";

std::string readReply(CommonIF::eErrorType error, const std::vector<std::string>& values = {}) {
    ConfigIF::ReadRsp reply;
    reply.set_error(error);
    for (const std::string& value : values) {
        reply.add_value(value);
    }
    return toHex(reply.SerializeAsString());
}

std::string writeReply(CommonIF::eErrorType error, bool rebootRequired = false) {
    ConfigIF::WriteRsp reply;
    reply.mutable_ret_message()->set_error(error);
    if (rebootRequired) {
        reply.mutable_ret_message()->set_reboot_required(true);
    }
    return toHex(reply.SerializeAsString());
}

// A request line of the stand-in's record as "read <role> <name> <node>:<instance>...", and for
// a write the same followed by " =" and each value in quotes.
std::string describe(const std::string& recorded) {
    std::istringstream fields(recorded);
    uint32_t id = 0;
    std::string hex;
    fields >> id >> hex;
    std::string payload;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        payload.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    ConfigIF::ReadReq read;
    ConfigIF::WriteReq write;
    const bool isWrite = id == 0x1A0080 && write.ParseFromString(payload);
    if (!isWrite && (id != 0x1A0000 || !read.ParseFromString(payload))) {
        return "unknown request " + recorded;
    }
    EXPECT_FALSE(write.has_override_security());
    const ConfigIF::Inst& instance = isWrite ? write.instance_val().instance() : read.instance();
    EXPECT_FALSE(instance.has_scope());
    std::string text = isWrite ? "write " : "read ";
    text += CommonIF::eSecurityRole_Name(isWrite ? write.role() : read.role()) + " " +
            (isWrite ? write.name() : read.name());
    for (const ConfigIF::Node& node : instance.node()) {
        text += " " + node.name() + ":" + std::to_string(node.instance());
    }
    text += isWrite ? " =" : "";
    for (const std::string& value : write.instance_val().value()) {
        text += " '" + value + "'";
    }
    return text;
}

class ServiceTest : public ::testing::Test {
  protected:
    // setvane with `words` against a stand-in answering `replyHex` under `replyId`.
    Outcome run(const char* replyId, const std::string& replyHex,
                const std::vector<std::string>& words) {
        Background service(STANDIN_BINARY,
                           {"standin_service", "--reply-id", replyId, "--reply-hex", replyHex,
                            "--record", dir.file("requests")},
                           {{"MSGPASS_DIR", dir.path}}, true);
        EXPECT_TRUE(service.ready);
        return runSetvane(words, {{"MSGPASS_DIR", dir.path}});
    }
    TempDir dir;
};

struct RequestCase {
    std::vector<std::string> words;
    const char* request;  // as described above; "{pid}" is setvane's
};

void PrintTo(const RequestCase& c, std::ostream* os) {
    for (const std::string& word : c.words) {
        *os << "'" << word << "' ";
    }
}

class RequestTest : public ServiceTest, public ::testing::WithParamInterface<RequestCase> {};

TEST_P(RequestTest, ServiceReceivesExactlyThisRequest) {
    const std::string expected = GetParam().request;
    const bool isWrite = expected.rfind("write", 0) == 0;
    const Outcome done = isWrite
                             ? run(kWriteRspId, writeReply(CommonIF::kErrNoError), GetParam().words)
                             : run(kReadRspId, readReply(CommonIF::kErrNoError), GetParam().words);
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.out, "");
    EXPECT_EQ(done.err, "");
    const std::string requests = readFile(dir.file("requests"));
    ASSERT_EQ(std::count(requests.begin(), requests.end(), '\n'), 1);
    EXPECT_EQ(describe(requests), replaced(expected, "{pid}", std::to_string(done.pid)));
}

INSTANTIATE_TEST_SUITE_P(
    Tool, RequestTest,
    ::testing::Values(
        // A number numbers the node before it; words with dots or slashes are single nodes.
        RequestCase{{"3", "sys", "1", "2", "", "a.b/c", "12abc"},
                    "read kUser setvane-{pid} sys:2 :0 a.b/c:12"},
        RequestCase{{"--read"}, "read kUser setvane-{pid}"},
        RequestCase{{"x", "-v"}, "read kUser setvane-{pid} x:0"},
        RequestCase{{"--read", "x", "-v", "1"}, "read kUser setvane-{pid} x:0"},
        RequestCase{{"x", "-v", "", "5", "--value", "y"},
                    "write kAdmin setvane-{pid} x:0 = '' '5' 'y'"},
        // Only the long spelling of the write command defaults to the write role.
        RequestCase{{"-w", "x", "-v", "on"}, "write kUser setvane-{pid} x:0 = 'on'"},
        RequestCase{{"--write", "x"}, "write kAdmin setvane-{pid} x:0 ="},
        RequestCase{{"--write", "-v", "on"}, "write kAdmin setvane-{pid} = 'on'"},
        RequestCase{{"--role", "kUser", "x", "-v", "1"}, "write kUser setvane-{pid} x:0 = '1'"},
        RequestCase{{"x", "-c", "me", "3", "-r", "system"}, "read kSystem me x:3"},
        RequestCase{{"-c", "--debug", "x"}, "read kUser --debug x:0"},
        RequestCase{{"-r", "user", "x"}, "read kUser setvane-{pid} x:0"},
        RequestCase{{"-r", "kAdmin", "x"}, "read kAdmin setvane-{pid} x:0"},
        RequestCase{{"-r", "admin", "x"}, "read kAdmin setvane-{pid} x:0"},
        RequestCase{{"-r", "kSystem", "x"}, "read kSystem setvane-{pid} x:0"},
        RequestCase{{"-r", "kProvisioning", "x"}, "read kProvisioning setvane-{pid} x:0"},
        RequestCase{{"-r", "provisioning", "x"}, "read kProvisioning setvane-{pid} x:0"},
        RequestCase{{"-r", "kStartup", "x"}, "read kStartup setvane-{pid} x:0"},
        RequestCase{{"-r", "startup", "x"}, "read kStartup setvane-{pid} x:0"}));

TEST_F(ServiceTest, ReadPrintsEachValueOnItsOwnLine) {
    const std::string bytes("\xff\x01\0z", 4);
    const Outcome done =
        run(kReadRspId, readReply(CommonIF::kErrNoError, {"", "one\ntwo", bytes}), {"x"});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.out, "\none\ntwo\n" + bytes + "\n");
    EXPECT_EQ(done.err, "");
}

TEST_F(ServiceTest, WriteAskingForARebootSucceedsSilently) {
    const Outcome done =
        run(kWriteRspId, writeReply(CommonIF::kErrNoError, true), {"x", "-v", "1"});
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.out + done.err, "");
}

struct ServiceErrorCase {
    CommonIF::eErrorType error;
    int status;
    const char* name;
};

class ServiceErrorTest : public ServiceTest,
                         public ::testing::WithParamInterface<ServiceErrorCase> {};

TEST_P(ServiceErrorTest, IsNamedAndBecomesTheExitStatus) {
    const ServiceErrorCase& c = GetParam();
    const Outcome read = run(kReadRspId, readReply(c.error, {"not shown"}), {"x"});
    EXPECT_EQ(read.status, c.status);
    EXPECT_EQ(read.out, "");
    EXPECT_EQ(read.err, redLine(std::string("ReadRsp error ") + c.name));
    const Outcome write = run(kWriteRspId, writeReply(c.error), {"x", "-v", "1"});
    EXPECT_EQ(write.status, c.status);
    EXPECT_EQ(write.out, "");
    EXPECT_EQ(write.err, redLine(std::string("WriteRsp error ") + c.name));
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ServiceErrorTest,
    ::testing::Values(ServiceErrorCase{CommonIF::kErrGenericError, 255, "kErrGenericError"},
                      ServiceErrorCase{CommonIF::kErrOutOfMemory, 254, "kErrOutOfMemory"},
                      ServiceErrorCase{CommonIF::kErrBadParameter, 253, "kErrBadParameter"},
                      ServiceErrorCase{CommonIF::kErrBadState, 252, "kErrBadState"},
                      ServiceErrorCase{CommonIF::kErrOutOfResources, 251, "kErrOutOfResources"},
                      ServiceErrorCase{CommonIF::kErrNotYetSupported, 250, "kErrNotYetSupported"},
                      ServiceErrorCase{CommonIF::kErrItemNotFound, 249, "kErrItemNotFound"},
                      ServiceErrorCase{CommonIF::kErrNotAuthorized, 248, "kErrNotAuthorized"},
                      ServiceErrorCase{CommonIF::kErrAlreadyExists, 247, "kErrAlreadyExists"},
                      ServiceErrorCase{CommonIF::kErrTimeOut, 246, "kErrTimeOut"},
                      ServiceErrorCase{CommonIF::kErrPortLocked, 245, "kErrPortLocked"},
                      ServiceErrorCase{CommonIF::kNotEnabled, 244, "-12/unknown_error"}));

TEST_F(ServiceTest, ReplyThatDoesNotParseEndsWithStatus255) {
    const std::pair<const char*, const char*> replies[] = {
        {kReadRspId, ""},      // the error is required
        {kReadRspId, "ffff"},  // no message at all
        {kReadRspId, "5005"},  // error code 5, outside the enumeration
        {kWriteRspId, "52025005"}};
    for (const auto& reply : replies) {
        SCOPED_TRACE(reply.second);
        const bool isWrite = reply.first == kWriteRspId;
        const Outcome done = isWrite ? run(reply.first, reply.second, {"x", "-v", "1"})
                                     : run(reply.first, reply.second, {"x"});
        EXPECT_EQ(done.status, 255);
        EXPECT_EQ(done.out, "");
        EXPECT_EQ(done.err, redLine("ParseFromArray() failed"));
    }
}

TEST(NoService, ConnectFailureEndsWithStatusOne) {
    TempDir dir;
    const Outcome run =
        runSetvane({"x"}, {{"MSGPASS_DIR", dir.path}, {"MSGPASS_MAX_WAIT_MS", "100"}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine("MSG_OpenRemoteSync() failed 304"));
}

}  // namespace

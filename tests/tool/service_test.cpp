// setvane against the scripted stand-in service over the real libmsgpass: what it sends, what
// it prints, and the exit status, for the answers a service can give.
#include <gtest/gtest.h>

#include <sstream>

#include "Common/protobuf/v3/configservice.pb.h"
#include "Expect.h"
#include "ToolProcess.h"

namespace {

const uint32_t kReadReqMsgId = 0x001A0000;
const uint32_t kReadRspMsgId = 0x001A0041;
const uint32_t kWriteReqMsgId = 0x001A0080;
const uint32_t kWriteRspMsgId = 0x001A0191;

struct Recorded {
    uint32_t id = 0;
    pid_t pid = 0;
    std::string payload;
};

std::vector<Recorded> parseRecord(const std::string& text) {
    std::vector<Recorded> requests;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        Recorded r;
        char hex[8192] = {};
        int pid = 0;
        if (std::sscanf(line.c_str(), "id=%u pid=%d payload=%8191s", &r.id, &pid, hex) >= 2) {
            r.pid = pid;
            r.payload = fromHex(hex);
            requests.push_back(r);
        }
    }
    return requests;
}

std::string readReply(CommonIF::eErrorType error, const std::vector<std::string>& values = {}) {
    ConfigIF::ReadRsp rsp;
    rsp.set_error(error);
    for (const std::string& v : values) {
        rsp.add_value(v);
    }
    return toHex(rsp.SerializeAsString());
}

std::string writeReply(CommonIF::eErrorType error, bool rebootRequired = false) {
    ConfigIF::WriteRsp rsp;
    rsp.mutable_ret_message()->set_error(error);
    if (rebootRequired) {
        rsp.mutable_ret_message()->set_reboot_required(true);
    }
    return toHex(rsp.SerializeAsString());
}

// One run of setvane against a stand-in started with `serviceOptions`.
class ServiceTest : public ::testing::Test {
  protected:
    ToolRun runAgainst(const std::vector<std::string>& serviceOptions,
                       const std::vector<std::string>& words, const Environment& extraEnv = {}) {
        StandinService service(dir.path());
        std::vector<std::string> options = serviceOptions;
        options.insert(options.end(), {"--record", recordPath()});
        EXPECT_TRUE(service.start(options));
        Environment env = {{"MSGPASS_DIR", dir.path()}};
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return runSetvane(words, env);
    }
    ToolRun read(const std::string& replyHex, const std::vector<std::string>& words) {
        return runAgainst({"--reply-id", std::to_string(kReadRspMsgId), "--reply-hex", replyHex},
                          words);
    }
    ToolRun write(const std::string& replyHex, const std::vector<std::string>& words) {
        return runAgainst({"--reply-id", std::to_string(kWriteRspMsgId), "--reply-hex", replyHex},
                          words);
    }
    std::string recordPath() const { return dir.file("requests"); }
    std::vector<Recorded> requests() const { return parseRecord(readFile(recordPath())); }

    TempDir dir;
};

// ---- The request the service receives ----

struct RequestCase {
    const char* title;
    std::vector<std::string> words;
    bool isWrite;
    CommonIF::eSecurityRole role;
    const char* clientName;  // null: the endpoint's own name
    std::string nodes;       // "name:instance" separated by spaces
    std::vector<std::string> values;
};

void PrintTo(const RequestCase& c, std::ostream* os) {
    *os << c.title;
}

std::string nodesOf(const ConfigIF::Inst& inst) {
    std::string text;
    for (const ConfigIF::Node& node : inst.node()) {
        EXPECT_TRUE(node.has_instance()) << "instance of node '" << node.name() << "' not sent";
        text += (text.empty() ? "" : " ") + node.name() + ":" + std::to_string(node.instance());
    }
    EXPECT_FALSE(inst.has_scope());
    return text;
}

class RequestTest : public ServiceTest, public ::testing::WithParamInterface<RequestCase> {};

TEST_P(RequestTest, ServiceReceivesExactlyTheRequest) {
    const RequestCase& c = GetParam();
    const ToolRun run = c.isWrite ? write(writeReply(CommonIF::kErrNoError), c.words)
                                  : read(readReply(CommonIF::kErrNoError), c.words);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "");

    const std::vector<Recorded> received = requests();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].pid, run.pid);
    const std::string expectedName =
        c.clientName != nullptr ? c.clientName : "setvane-" + std::to_string(run.pid);
    if (c.isWrite) {
        EXPECT_EQ(received[0].id, kWriteReqMsgId);
        ConfigIF::WriteReq req;
        ASSERT_TRUE(req.ParseFromString(received[0].payload));
        EXPECT_EQ(req.name(), expectedName);
        EXPECT_EQ(req.role(), c.role);
        EXPECT_EQ(nodesOf(req.instance_val().instance()), c.nodes);
        EXPECT_EQ(std::vector<std::string>(req.instance_val().value().begin(),
                                           req.instance_val().value().end()),
                  c.values);
        EXPECT_FALSE(req.has_override_security());
    } else {
        EXPECT_EQ(received[0].id, kReadReqMsgId);
        ConfigIF::ReadReq req;
        ASSERT_TRUE(req.ParseFromString(received[0].payload));
        EXPECT_EQ(req.name(), expectedName);
        EXPECT_EQ(req.role(), c.role);
        EXPECT_TRUE(req.has_instance());
        EXPECT_EQ(nodesOf(req.instance()), c.nodes);
    }
}

const RequestCase kRequestCases[] = {
    {"OneNode", {"x"}, false, CommonIF::kUser, nullptr, "x:0", {}},
    {"NodeWithInstance", {"x", "3"}, false, CommonIF::kUser, nullptr, "x:3", {}},
    {"NumberBeforeAnyNodeIgnored", {"3", "x"}, false, CommonIF::kUser, nullptr, "x:0", {}},
    {"SecondNumberReplacesFirst", {"x", "1", "2"}, false, CommonIF::kUser, nullptr, "x:2", {}},
    {"PathOfNodes",
     {"sys", "1", "net", "ip"},
     false,
     CommonIF::kUser,
     nullptr,
     "sys:1 net:0 ip:0",
     {}},
    {"LeadingDigitsOnly", {"x", "12abc"}, false, CommonIF::kUser, nullptr, "x:12", {}},
    {"NoSeparatorInsideAWord", {"a.b", "c/d"}, false, CommonIF::kUser, nullptr, "a.b:0 c/d:0", {}},
    {"EmptyWordIsANode", {""}, false, CommonIF::kUser, nullptr, ":0", {}},
    {"ValuesMakeAWrite", {"x", "-v", "5", "y"}, true, CommonIF::kAdmin, nullptr, "x:0", {"5", "y"}},
    {"ValuesKeepOrderAndEmptyOnes",
     {"x", "-v", "", "1", "--value", "z"},
     true,
     CommonIF::kAdmin,
     nullptr,
     "x:0",
     {"", "1", "z"}},
    {"ShortWriteKeepsUserRole",
     {"-w", "x", "-v", "on"},
     true,
     CommonIF::kUser,
     nullptr,
     "x:0",
     {"on"}},
    {"LongWriteGetsAdminRole",
     {"--write", "x", "-v", "on"},
     true,
     CommonIF::kAdmin,
     nullptr,
     "x:0",
     {"on"}},
    {"ValueModeWithoutValuesReads", {"x", "-v"}, false, CommonIF::kUser, nullptr, "x:0", {}},
    {"WriteWithoutNodes", {"--write", "-v", "on"}, true, CommonIF::kAdmin, nullptr, "", {"on"}},
    {"WriteWithoutValues", {"--write", "x"}, true, CommonIF::kAdmin, nullptr, "x:0", {}},
    {"ReadWithoutNodes", {"--read"}, false, CommonIF::kUser, nullptr, "", {}},
    {"ExplicitReadWithValuesStillReads",
     {"--read", "x", "-v", "1"},
     false,
     CommonIF::kUser,
     nullptr,
     "x:0",
     {}},
    {"ClientName", {"--client", "me", "x"}, false, CommonIF::kUser, "me", "x:0", {}},
    {"ClientNameTakenWhateverItLooksLike",
     {"-c", "--debug", "x"},
     false,
     CommonIF::kUser,
     "--debug",
     "x:0",
     {}},
    {"OptionsBetweenInstanceWords",
     {"x", "-c", "me", "3", "-r", "system"},
     false,
     CommonIF::kSystem,
     "me",
     "x:3",
     {}},
    {"RoleOverridesWriteDefault",
     {"--role", "kUser", "x", "-v", "1"},
     true,
     CommonIF::kUser,
     nullptr,
     "x:0",
     {"1"}},
    {"RoleUser", {"-r", "user", "x"}, false, CommonIF::kUser, nullptr, "x:0", {}},
    {"RoleKAdmin", {"-r", "kAdmin", "x"}, false, CommonIF::kAdmin, nullptr, "x:0", {}},
    {"RoleAdmin", {"-r", "admin", "x"}, false, CommonIF::kAdmin, nullptr, "x:0", {}},
    {"RoleKSystem", {"-r", "kSystem", "x"}, false, CommonIF::kSystem, nullptr, "x:0", {}},
    {"RoleKProvisioning",
     {"-r", "kProvisioning", "x"},
     false,
     CommonIF::kProvisioning,
     nullptr,
     "x:0",
     {}},
    {"RoleProvisioning",
     {"-r", "provisioning", "x"},
     false,
     CommonIF::kProvisioning,
     nullptr,
     "x:0",
     {}},
    {"RoleKStartup", {"-r", "kStartup", "x"}, false, CommonIF::kStartup, nullptr, "x:0", {}},
    {"RoleStartup", {"-r", "startup", "x"}, false, CommonIF::kStartup, nullptr, "x:0", {}},
};

INSTANTIATE_TEST_SUITE_P(Tool, RequestTest, ::testing::ValuesIn(kRequestCases),
                         [](const ::testing::TestParamInfo<RequestCase>& info) {
                             return std::string(info.param.title);
                         });

// ---- Unknown roles: connected, nothing sent ----

class UnknownRoleTest : public ServiceTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(UnknownRoleTest, EndsWithStatusOneBeforeSending) {
    const ToolRun run = read(readReply(CommonIF::kErrNoError), {"--role", GetParam(), "x"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, redLine(std::string("unknown role '") + GetParam() + "'") + kHelpHint);
    EXPECT_TRUE(requests().empty());
}

INSTANTIATE_TEST_SUITE_P(Tool, UnknownRoleTest,
                         ::testing::Values("Admin", "ADMIN", "User", "20", "", "kuser"));

// ---- What a successful read prints ----

struct ValuesCase {
    const char* title;
    std::vector<std::string> values;
    std::string out;
};

void PrintTo(const ValuesCase& c, std::ostream* os) {
    *os << c.title;
}

class ReadOutputTest : public ServiceTest, public ::testing::WithParamInterface<ValuesCase> {};

TEST_P(ReadOutputTest, PrintsOneValuePerLine) {
    const ToolRun run =
        read(readReply(CommonIF::kErrNoError, GetParam().values), {"sys", "1", "net"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, GetParam().out);
    EXPECT_EQ(run.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ReadOutputTest,
    ::testing::Values(ValuesCase{"NoValues", {}, ""}, ValuesCase{"EmptyValue", {""}, "\n"},
                      ValuesCase{"SeveralValues", {"a", "b c", "d"}, "a\nb c\nd\n"},
                      ValuesCase{"ValueWithNewline", {"one\ntwo"}, "one\ntwo\n"},
                      ValuesCase{"BytesUnchanged",
                                 {std::string("\xff\x01\0z", 4)},
                                 std::string("\xff\x01\0z\n", 5)}),
    [](const ::testing::TestParamInfo<ValuesCase>& info) { return std::string(info.param.title); });

// ---- Errors the service answers with ----

struct ServiceErrorCase {
    CommonIF::eErrorType error;
    const char* name;
};

void PrintTo(const ServiceErrorCase& c, std::ostream* os) {
    *os << c.name;
}

class ServiceErrorTest : public ServiceTest,
                         public ::testing::WithParamInterface<ServiceErrorCase> {};

TEST_P(ServiceErrorTest, ReadNamesTheErrorAndExitsWithIt) {
    const ToolRun run = read(readReply(GetParam().error, {"ignored"}), {"x"});
    EXPECT_EQ(run.status, GetParam().error & 0xff);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine(std::string("ReadRsp error ") + GetParam().name));
}

TEST_P(ServiceErrorTest, WriteNamesTheErrorAndExitsWithIt) {
    const ToolRun run = write(writeReply(GetParam().error), {"x", "-v", "1"});
    EXPECT_EQ(run.status, GetParam().error & 0xff);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine(std::string("WriteRsp error ") + GetParam().name));
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ServiceErrorTest,
    ::testing::Values(ServiceErrorCase{CommonIF::kErrGenericError, "kErrGenericError"},
                      ServiceErrorCase{CommonIF::kErrOutOfMemory, "kErrOutOfMemory"},
                      ServiceErrorCase{CommonIF::kErrBadParameter, "kErrBadParameter"},
                      ServiceErrorCase{CommonIF::kErrBadState, "kErrBadState"},
                      ServiceErrorCase{CommonIF::kErrOutOfResources, "kErrOutOfResources"},
                      ServiceErrorCase{CommonIF::kErrNotYetSupported, "kErrNotYetSupported"},
                      ServiceErrorCase{CommonIF::kErrItemNotFound, "kErrItemNotFound"},
                      ServiceErrorCase{CommonIF::kErrNotAuthorized, "kErrNotAuthorized"},
                      ServiceErrorCase{CommonIF::kErrAlreadyExists, "kErrAlreadyExists"},
                      ServiceErrorCase{CommonIF::kErrTimeOut, "kErrTimeOut"},
                      ServiceErrorCase{CommonIF::kErrPortLocked, "kErrPortLocked"},
                      ServiceErrorCase{CommonIF::kNotEnabled, "-12/unknown_error"}));

TEST_F(ServiceTest, WriteAskingForRebootSucceedsSilently) {
    const ToolRun run = write(writeReply(CommonIF::kErrNoError, true), {"x", "-v", "1"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

// ---- Replies that are not what was asked for ----

struct BadReplyCase {
    const char* title;
    bool isWrite;
    std::string replyHex;
};

void PrintTo(const BadReplyCase& c, std::ostream* os) {
    *os << c.title;
}

class BadReplyTest : public ServiceTest, public ::testing::WithParamInterface<BadReplyCase> {};

TEST_P(BadReplyTest, ReportsTheParseFailureWithStatus255) {
    const BadReplyCase& c = GetParam();
    const ToolRun run = c.isWrite ? write(c.replyHex, {"x", "-v", "1"}) : read(c.replyHex, {"x"});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine("ParseFromArray() failed"));
}

INSTANTIATE_TEST_SUITE_P(Tool, BadReplyTest,
                         ::testing::Values(BadReplyCase{"EmptyReadReply", false, ""},
                                           BadReplyCase{"GarbageReadReply", false, "ffff"},
                                           BadReplyCase{"ErrorCodeAboveRange", false, "5005"},
                                           BadReplyCase{"ErrorCodeBelowRange", false,
                                                        "50f3ffffffffffffffff01"},
                                           BadReplyCase{"ValueButNoError", false, "a2010161"},
                                           BadReplyCase{"EmptyWriteReply", true, ""},
                                           BadReplyCase{"WriteReplyWithoutError", true, "5200"},
                                           BadReplyCase{"WriteErrorOutOfRange", true, "52025005"}),
                         [](const ::testing::TestParamInfo<BadReplyCase>& info) {
                             return std::string(info.param.title);
                         });

TEST_F(ServiceTest, ReplyUnderAnotherIdIsNotTakenAsTheAnswer) {
    const ToolRun run = runAgainst({"--reply-id", std::to_string(kWriteRspMsgId), "--reply-hex",
                                    readReply(CommonIF::kErrNoError, {"v"})},
                                   {"x"}, {{"MSGPASS_MAX_WAIT_MS", "200"}});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine("MSG_RecvMsg() failed"));
}

TEST_F(ServiceTest, SilentServiceEndsWithStatus255) {
    const ToolRun run = runAgainst({"--silent"}, {"x"}, {{"MSGPASS_MAX_WAIT_MS", "200"}});
    EXPECT_EQ(run.status, 255);
    EXPECT_EQ(run.err, redLine("MSG_RecvMsg() failed"));
    EXPECT_EQ(requests().size(), 1u);
}

TEST_F(ServiceTest, SlowServiceIsWaitedFor) {
    const ToolRun run =
        runAgainst({"--reply-id", std::to_string(kReadRspMsgId), "--reply-hex",
                    readReply(CommonIF::kErrNoError, {"late"}), "--delay-ms", "300"},
                   {"x"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "late\n");
    EXPECT_EQ(run.err, "");
}

TEST(NoService, ConnectFailureEndsWithStatusOne) {
    TempDir dir;
    const ToolRun run =
        runSetvane({"x"}, {{"MSGPASS_DIR", dir.path()}, {"MSGPASS_MAX_WAIT_MS", "100"}});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, redLine("MSG_OpenRemoteSync() failed " + std::to_string(304)));
}

// ---- The --debug trace ----

std::string heading(const std::string& text) {
    return "\033[7m" + text + "\033[0m\n";
}

TEST_F(ServiceTest, DebugTracesBothMessages) {
    ConfigIF::ReadRsp rsp;
    rsp.set_error(CommonIF::kErrNoError);
    rsp.add_value("on");
    const ToolRun run = read(toHex(rsp.SerializeAsString()), {"--debug", "sys", "1", "net"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "on\n");

    ConfigIF::ReadReq req;
    req.set_name("setvane-" + std::to_string(run.pid));
    req.set_role(CommonIF::kUser);
    ConfigIF::Node* sys = req.mutable_instance()->add_node();
    sys->set_name("sys");
    sys->set_instance(1);
    ConfigIF::Node* net = req.mutable_instance()->add_node();
    net->set_name("net");
    net->set_instance(0);
    EXPECT_EQ(run.err, heading("sending ConfigIF.ReadReq to ConfigSrvc") + req.DebugString() +
                           "\n" + heading("received ConfigIF.ReadRsp from ConfigSrvc") +
                           rsp.DebugString() + "\n");
}

TEST_F(ServiceTest, DebugShowsNoResponseWhenItDoesNotParse) {
    const ToolRun run = write("", {"--debug", "--client", "c", "x", "-v", "1"});
    EXPECT_EQ(run.status, 255);
    ConfigIF::WriteReq req;
    req.set_name("c");
    req.set_role(CommonIF::kAdmin);
    ConfigIF::Node* x = req.mutable_instance_val()->mutable_instance()->add_node();
    x->set_name("x");
    x->set_instance(0);
    req.mutable_instance_val()->add_value("1");
    EXPECT_EQ(run.err, heading("sending ConfigIF.WriteReq to ConfigSrvc") + req.DebugString() +
                           "\n" + redLine("ParseFromArray() failed"));
}

}  // namespace

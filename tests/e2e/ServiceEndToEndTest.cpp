// End to end: the real setvane and in-process protocol clients against the real configsrvc
// with the example device model, each test with its own endpoint and state folders under /tmp.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "msgpass.h"

namespace {

using namespace CommonIF;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr uint32_t kReadReqMsgId = 0x001A0000;
constexpr uint32_t kReadRspMsgId = 0x001A0041;
constexpr uint32_t kWriteReqMsgId = 0x001A0080;
constexpr uint32_t kWriteRspMsgId = 0x001A0191;

std::string slurp(const std::string& path) {
    std::ostringstream contents;
    contents << std::ifstream(path).rdbuf();
    return contents.str();
}

struct RunResult {
    int status;  // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Runs a shell command line to completion with its output captured.
RunResult run(const std::string& command) {
    std::string out = "/tmp/configsrvc-e2e-" + std::to_string(getpid()) + ".";
    int status = std::system((command + " </dev/null >" + out + "1 2>" + out + "2").c_str());
    RunResult result{WEXITSTATUS(status), slurp(out + "1"), slurp(out + "2")};
    unlink((out + "1").c_str());
    unlink((out + "2").c_str());
    return result;
}

// The service as a child process, in a fresh folder holding ep/ (the endpoint folder, exported
// as MSGPASS_DIR, open to every user so clients may run under another uid), state/ and its log.
class Service {
  public:
    Service() {
        char pattern[] = "/tmp/configsrvc-e2e-XXXXXX";
        root_ = mkdtemp(pattern) ? pattern : "/tmp/configsrvc-e2e-failed";
        chmod(root_.c_str(), 0755);
        mkdir((root_ + "/ep").c_str(), 0);
        chmod((root_ + "/ep").c_str(), 01777);
        setenv("MSGPASS_DIR", (root_ + "/ep").c_str(), 1);
    }
    virtual ~Service() {
        stop(SIGKILL);
        std::filesystem::remove_all(root_);
    }
    std::string root() const { return root_; }
    std::string state() const { return root_ + "/state"; }
    std::string output() const { return slurp(root_ + "/log"); }

    // Starts it and waits, at most five seconds, until its endpoint takes connections.
    bool start(std::string* error) {
        pid_ = fork();
        if (pid_ == 0) {
            int log = open((root_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(log, 1);
            dup2(log, 2);
            execl(CONFIGSRVC_BIN, CONFIGSRVC_BIN, "--model", EXAMPLE_MODEL, "--state",
                  state().c_str(), nullptr);
            _exit(127);
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        uint32_t address = 0;  // never 0 once connected
        MSG_OpenLocal("probe");
        while (address == 0 && std::chrono::steady_clock::now() < deadline &&
               waitpid(pid_, nullptr, WNOHANG) == 0) {
            MSG_OpenRemoteSync("probe", "ConfigSrvc", 100, &address);
        }
        MSG_CloseLocal("probe");
        *error = "the service did not start: " + output();
        return address != 0;
    }

    // Sends `signal` and returns the exit status, or 128 + the signal that ended it.
    int stop(int signal) {
        int status = 0;
        bool ended = pid_ > 0 && kill(pid_, signal) == 0 && waitpid(pid_, &status, 0) == pid_;
        pid_ = -1;
        return !ended ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    std::string root_;
    pid_t pid_ = -1;
};

// A request claiming kProvisioning, which the service allows its own user, for a variable
// instance named as users do ("audio/microphone 2/gain"): a write of `value` when one is given.
std::string request(const std::string& path, const char* value = nullptr) {
    ConfigIF::WriteReq write;
    write.set_name("e2e");
    write.set_role(CommonIF::kProvisioning);
    ConfigIF::Inst* inst = write.mutable_instance_val()->mutable_instance();
    std::istringstream steps(path);
    for (std::string step; std::getline(steps, step, '/');) {
        ConfigIF::Node* node = inst->add_node();
        size_t blank = step.find(' ');
        node->set_name(step.substr(0, blank));
        node->set_instance(blank == std::string::npos ? 0 : std::stoi(step.substr(blank)));
    }
    if (value != nullptr) {
        write.mutable_instance_val()->add_value(value);
        return write.SerializeAsString();
    }
    ConfigIF::ReadReq read;
    read.set_name(write.name());
    read.set_role(write.role());
    read.mutable_instance()->Swap(inst);
    return read.SerializeAsString();
}

// One client of the service, with an endpoint of its own; until it connects, requests fail.
class Client {
  public:
    explicit Client(const std::string& name) : name_(name) {
        MSG_OpenLocal(name_.c_str());
        MSG_OpenRemoteSync(name_.c_str(), "ConfigSrvc", 5000, &address_);
    }
    virtual ~Client() { MSG_CloseLocal(name_.c_str()); }

    bool send(uint32_t msgId, const std::string& payload) {
        MSG_Msg* message = MSG_AllocMsg(msgId, 0, static_cast<uint32_t>(payload.size()));
        std::memcpy(MSG_GetPayloadMutable(message), payload.data(), payload.size());
        return MSG_SendMsg(name_.c_str(), address_, message) == MSG_OK;
    }

    // Sends a payload as the request the response answers (a ReadRsp: a ReadReq, a WriteRsp:
    // a WriteReq) and parses the answer; false when none came or it did not parse.
    template <typename Response>
    bool ask(const std::string& payload, Response* response) {
        bool read = std::is_same<Response, ConfigIF::ReadRsp>::value;
        MSG_Msg* answer =
            send(read ? kReadReqMsgId : kWriteReqMsgId, payload)
                ? MSG_RecvMsg(name_.c_str(), read ? kReadRspMsgId : kWriteRspMsgId, 10000)
                : nullptr;
        bool parsed = answer != nullptr &&
                      response->ParseFromArray(MSG_GetPayload(answer), MSG_GetPayloadBytes(answer));
        MSG_ReleaseMsg(answer);
        return parsed;
    }

  private:
    std::string name_;
    uint32_t address_ = 0;
};

const std::string kSetvane = SETVANE_BIN " ";
const std::string kAsNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups " + kSetvane;

class SetvaneService : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(service_.start(&error_)) << error_; }

    Service service_;
    std::string error_;
};

TEST_F(SetvaneService, ReadsADefaultWritesReadsBackAndRestoresTheDefault) {
    EXPECT_EQ(run(kSetvane + "audio volume").out, "50\n");
    RunResult written = run(kSetvane + "audio volume -v 80");
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out + written.err, "");
    EXPECT_EQ(run(kSetvane + "audio volume").out, "80\n");
    ASSERT_EQ(run(kSetvane + "--write audio volume").status, 0);
    EXPECT_EQ(run(kSetvane + "audio volume").out, "50\n");
}

TEST_F(SetvaneService, ListVariablePrintsOneValuePerLine) {
    EXPECT_EQ(run(kSetvane + "network interface 2 dns").out, "192.0.2.53\n198.51.100.53\n");
    ASSERT_EQ(run(kSetvane + "network interface 2 dns -v 10.0.0.1 10.0.0.2").status, 0);
    EXPECT_EQ(run(kSetvane + "network interface 2 dns").out, "10.0.0.1\n10.0.0.2\n");
    // Interface 1 (also what no number means) is another instance and kept its default.
    EXPECT_EQ(run(kSetvane + "network interface dns").out, "192.0.2.53\n198.51.100.53\n");
}

struct ErrorCase {
    const char* words;
    int status;
    const char* line;  // on standard error, between the colour codes
};

// Names each case in test listings by its command line.
void PrintTo(const ErrorCase& error, std::ostream* out) {
    *out << "setvane " << error.words;
}

class SetvaneErrors : public SetvaneService, public testing::WithParamInterface<ErrorCase> {};

TEST_P(SetvaneErrors, EndWithTheServiceErrorAsStatus) {
    RunResult result = run(kSetvane + GetParam().words);
    EXPECT_EQ(result.status, GetParam().status) << result.err;
    EXPECT_EQ(result.err, std::string("\033[31m") + GetParam().line + "\033[0m\n");
    EXPECT_EQ(result.out, "");
}

const ErrorCase kErrors[] = {
    {"network interface 4 mtu", 249, "ReadRsp error kErrItemNotFound"},
    {"audio bass -v 1", 249, "WriteRsp error kErrItemNotFound"},
    {"provisioning serial-number", 248, "ReadRsp error kErrNotAuthorized"},
    {"-w audio volume -v 1", 248, "WriteRsp error kErrNotAuthorized"},
    {"audio volume -v 101", 253, "WriteRsp error kErrBadParameter"},
};

INSTANTIATE_TEST_SUITE_P(Table, SetvaneErrors, testing::ValuesIn(kErrors));

TEST_F(SetvaneService, ValuesSurviveARestartAndSigintClosesTheEndpoint) {
    ASSERT_EQ(run(kSetvane + "system hostname -v board-room").status, 0);
    ASSERT_EQ(run(kSetvane + "--role kProvisioning provisioning enrolled -v yes").status, 0);
    ASSERT_EQ(service_.stop(SIGINT), 0) << service_.output();
    EXPECT_EQ(run("MSGPASS_MAX_WAIT_MS=200 " + kSetvane + "audio volume").status, 1);

    ASSERT_TRUE(service_.start(&error_)) << error_;
    EXPECT_EQ(run(kSetvane + "system hostname").out, "board-room\n");
    EXPECT_EQ(run(kSetvane + "--role kProvisioning provisioning enrolled").out, "true\n");
}

TEST_F(SetvaneService, RoleClaimBeyondAnUnprivilegedUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run the client as another user (uid 65534)";
    }
    EXPECT_EQ(run(kAsNobody + "audio volume").out, "50\n");
    EXPECT_EQ(run(kAsNobody + "--role kAdmin audio volume -v 20").status, 0);
    RunResult claim = run(kAsNobody + "--role kSystem system watchdog -v off");
    EXPECT_EQ(claim.status, 248);
    EXPECT_EQ(claim.err, "\033[31mWriteRsp error kErrNotAuthorized\033[0m\n");
    EXPECT_EQ(run(kSetvane + "--role kSystem system watchdog -v off").status, 0);  // as root
}

// The service refuses to start, with a message that says why, and changes nothing.
TEST(ServiceStart, BadModelOrDamagedStateIsRefused) {
    Service sandbox;
    const std::string model = sandbox.root() + "/bad.xml";
    const std::string database = sandbox.state() + "/values.db";
    std::ofstream(model) << "<model/>\n";
    RunResult refused = run(CONFIGSRVC_BIN " --state " + sandbox.state() + " --model " + model);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr(model + ":1: the root element must be <device-model>, not "
                                               "<model>"));
    mkdir(sandbox.state().c_str(), 0755);
    std::ofstream(database) << "SQLite format 3\nnot really";
    refused = run(CONFIGSRVC_BIN " --model " EXAMPLE_MODEL " --state " + sandbox.state());
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr(database + " is damaged"));
    EXPECT_EQ(slurp(database), "SQLite format 3\nnot really");
    EXPECT_THAT(run(CONFIGSRVC_BIN " --model " EXAMPLE_MODEL).err,
                HasSubstr("configsrvc: --model and --state are required"));
    EXPECT_THAT(run(CONFIGSRVC_BIN " --model a --state b --model c").err,
                HasSubstr("configsrvc: --model given twice"));
}

// Each client owns a variable that takes a short text: every fourth request writes the next
// value to it, two read another client's, and one reads an instance the model lacks.
TEST(Load, ClientsGetTheExpectedAnswersAndNoAcknowledgedWriteIsLostToSigkill) {
    std::vector<std::string> owned = {"system/hostname", "system/location", "system/ntp-servers",
                                      "network/domain"};
    for (const char* name : {"address", "netmask", "gateway", "dns"}) {
        for (int i = 1; i <= 3; ++i) {
            owned.push_back("network/interface " + std::to_string(i) + "/" + name);
        }
    }
    Service service;
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    std::vector<int> lastSent(owned.size(), -1), lastAcked(owned.size(), -1);
    std::atomic<bool> killed{false};
    std::atomic<int> unexpected{0};
    std::atomic<long> requests{0};
    auto load = [&](size_t c) {
        Client client("load-" + std::to_string(c));
        for (int i = 0;; ++i, ++requests) {
            ConfigIF::WriteRsp written;
            ConfigIF::ReadRsp read;
            bool writing = i % 4 == 0;
            bool missing = i % 4 == 3;
            lastSent[c] = writing ? i : lastSent[c];
            bool answered =
                writing ? client.ask(request(owned[c], ("v" + std::to_string(i)).c_str()), &written)
                        : client.ask(request(missing ? "audio/microphone 3/gain"
                                                     : owned[(c + i) % owned.size()]),
                                     &read);
            bool expected = writing   ? written.ret_message().error() == kErrNoError
                            : missing ? read.error() == kErrItemNotFound
                                      : read.error() == kErrNoError && read.value_size() > 0;
            if (!answered) {
                unexpected += killed ? 0 : 1;
                return;
            }
            unexpected += expected ? 0 : 1;
            lastAcked[c] = writing && expected ? i : lastAcked[c];
        }
    };
    std::vector<std::thread> clients;
    for (size_t c = 0; c < owned.size(); ++c) {
        clients.emplace_back(load, c);
    }
    std::this_thread::sleep_for(milliseconds(1500));
    killed = true;
    EXPECT_EQ(service.stop(SIGKILL), 128 + SIGKILL) << "the service did not live to be killed";
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(unexpected, 0);
    EXPECT_GT(requests, 1000);

    ASSERT_TRUE(service.start(&error)) << error;
    Client reader("reader");
    for (size_t c = 0; c < owned.size(); ++c) {
        ConfigIF::ReadRsp stored;
        ASSERT_TRUE(reader.ask(request(owned[c]), &stored) && stored.value_size() > 0);
        ASSERT_GE(lastAcked[c], 0) << "no write was acknowledged";
        // The write whose answer the kill cut off may or may not have made it; nothing older.
        EXPECT_THAT(stored.value(0), testing::AnyOf("v" + std::to_string(lastAcked[c]),
                                                    "v" + std::to_string(lastSent[c])))
            << owned[c];
    }
}

// A client that floods the service with requests and never reads the answers holds up no one
// else and is cut off; garbage and unknown message ids are answered or dropped, and logged.
TEST(MisbehavingClients, HoldUpNoOtherClientAndStopNothing) {
    Service service;
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    Client steady("steady");
    std::atomic<long> floodSent{0};
    std::atomic<bool> floodCutOff{false}, stop{false};
    std::thread flooder([&] {
        Client client("flooder");
        while (!stop && client.send(kReadReqMsgId, request("x"))) {
            ++floodSent;
        }
        floodCutOff = !stop;
    });
    // The other client reads while the flood lasts, at most three seconds.
    int readsDuringFlood = 0;
    Clock::duration slowest{};
    for (auto start = Clock::now(); !floodCutOff && Clock::now() - start < milliseconds(3000);) {
        auto before = Clock::now();
        ConfigIF::ReadRsp volume;
        if (!steady.ask(request("audio/volume"), &volume) || volume.error() != kErrNoError) {
            ADD_FAILURE() << "a read of the other client failed";
            break;
        }
        slowest = std::max(slowest, Clock::now() - before);
        readsDuringFlood += floodSent > 0 && !floodCutOff ? 1 : 0;
    }
    stop = true;
    flooder.join();
    EXPECT_LT(slowest, milliseconds(1000)) << "a read of the other client waited for the flooder";
    // Far more answers than a socket buffers: the service had answers it could not hand over.
    EXPECT_GE(floodSent, 5000);
    EXPECT_GE(readsDuringFlood, 10) << "the flood ended before the other client could read";
    EXPECT_TRUE(floodCutOff) << "the flooder was never disconnected";

    for (const std::string& junk : {std::string(), std::string(4, '\xff'), std::string(999, 'R')}) {
        ConfigIF::WriteRsp written;
        ConfigIF::ReadRsp read;
        ASSERT_TRUE(steady.ask(junk, &written) && steady.ask(junk, &read));
        EXPECT_EQ(written.ret_message().error(), kErrBadParameter);
        EXPECT_EQ(read.error(), kErrBadParameter);
    }
    // An unknown id is dropped without an answer; the next request is served as usual.
    ConfigIF::ReadRsp volume;
    ASSERT_TRUE(steady.send(0x12345678, "abc") && steady.ask(request("audio/volume"), &volume));
    EXPECT_THAT(volume.value(), testing::ElementsAre("50"));
    EXPECT_EQ(service.stop(SIGTERM), 0) << service.output();
    for (const char* logged : {"does not read its answers: disconnected", "unreadable ReadReq",
                               "unknown message id 0x12345678"}) {
        EXPECT_THAT(service.output(), HasSubstr(logged));
    }
}

}  // namespace

// End to end: the real setvane and protocol clients against the real configsrvc with the example
// device model, each test with a service and folders of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ConfigPath.h"
#include "ConfigSession.h"
#include "ServiceProcess.h"

namespace {

using namespace CommonIF;
using configclient::ConfigSession;
using testing::HasSubstr;
using testsupport::Outcome;
using testsupport::readRequest;
using testsupport::writeRequest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kConnectMs = 5000;
constexpr int kAnswerMs = 10000;

// setvane with `words` (separated by blanks), as this test's user or as uid 65534.
Outcome runSetvane(const std::string& words, bool asNobody = false) {
    std::vector<std::string> argv = testsupport::split(words, " ");
    argv.insert(argv.begin(), SETVANE_BIN);
    if (asNobody) {
        argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    }
    return testsupport::runProgram(asNobody ? "/usr/bin/setpriv" : SETVANE_BIN, argv);
}

Outcome runConfigsrvc(const std::vector<std::string>& options) {
    std::vector<std::string> argv = {"configsrvc"};
    argv.insert(argv.end(), options.begin(), options.end());
    return testsupport::runProgram(testsupport::kConfigsrvcBin, argv);
}

class SetvaneService : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(service_.start(&error_)) << error_; }

    testsupport::ServiceProcess service_;
    std::string error_;
};

TEST_F(SetvaneService, ReadsADefaultWritesReadsBackAndRestoresTheDefault) {
    EXPECT_EQ(runSetvane("audio volume").out, "50\n");
    Outcome written = runSetvane("audio volume -v 80");
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out + written.err, "");
    EXPECT_EQ(runSetvane("audio volume").out, "80\n");
    ASSERT_EQ(runSetvane("--write audio volume").status, 0);
    EXPECT_EQ(runSetvane("audio volume").out, "50\n");
}

TEST_F(SetvaneService, ListVariablePrintsOneValuePerLine) {
    EXPECT_EQ(runSetvane("network interface 2 dns").out, "192.0.2.53\n198.51.100.53\n");
    ASSERT_EQ(runSetvane("network interface 2 dns -v 10.0.0.1 10.0.0.2").status, 0);
    EXPECT_EQ(runSetvane("network interface 2 dns").out, "10.0.0.1\n10.0.0.2\n");
    // Interface 1 (also what no number means) is another instance and kept its default.
    EXPECT_EQ(runSetvane("network interface dns").out, "192.0.2.53\n198.51.100.53\n");
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
    Outcome result = runSetvane(GetParam().words);
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
    ASSERT_EQ(runSetvane("system hostname -v board-room").status, 0);
    ASSERT_EQ(runSetvane("--role kProvisioning provisioning enrolled -v yes").status, 0);
    ASSERT_TRUE(std::filesystem::exists(service_.endpointPath()));
    ASSERT_EQ(service_.stop(SIGINT), 0) << service_.output();
    EXPECT_FALSE(std::filesystem::exists(service_.endpointPath())) << "the endpoint stayed open";

    ASSERT_TRUE(service_.start(&error_)) << error_;
    EXPECT_EQ(runSetvane("system hostname").out, "board-room\n");
    EXPECT_EQ(runSetvane("--role kProvisioning provisioning enrolled").out, "true\n");
}

TEST_F(SetvaneService, RoleClaimBeyondAnUnprivilegedUserIsRefused) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run the client as another user (uid 65534)";
    }
    EXPECT_EQ(runSetvane("audio volume", true).out, "50\n");
    EXPECT_EQ(runSetvane("--role kAdmin audio volume -v 20", true).status, 0);
    Outcome claim = runSetvane("--role kSystem system watchdog -v off", true);
    EXPECT_EQ(claim.status, 248);
    EXPECT_EQ(claim.err, "\033[31mWriteRsp error kErrNotAuthorized\033[0m\n");
    EXPECT_EQ(runSetvane("--role kSystem system watchdog -v off").status, 0);  // as root
}

// The service refuses to start, with a message that says why, and changes nothing.
TEST(ServiceStart, BadModelOrDamagedStateIsRefused) {
    testsupport::ServiceProcess sandbox;
    const std::string model = sandbox.root() + "/bad.xml";
    const std::string database = sandbox.state() + "/values.db";
    ASSERT_TRUE(testsupport::writeFile(model, "<model/>\n"));
    Outcome refused = runConfigsrvc({"--state", sandbox.state(), "--model", model});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr(model + ":1: the root element must be <device-model>, not "
                                               "<model>"));
    mkdir(sandbox.state().c_str(), 0755);
    ASSERT_TRUE(testsupport::writeFile(database, "SQLite format 3\nnot really"));
    refused = runConfigsrvc({"--model", testsupport::kExampleModel, "--state", sandbox.state()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr(database + " is damaged"));
    EXPECT_EQ(testsupport::readFile(database), "SQLite format 3\nnot really");
    EXPECT_THAT(runConfigsrvc({"--model", testsupport::kExampleModel}).err,
                HasSubstr("configsrvc: --model and --state are required"));
    EXPECT_THAT(runConfigsrvc({"--model", "a", "--state", "b", "--model", "c"}).err,
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
    testsupport::ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    std::vector<int> lastSent(owned.size(), -1), lastAcked(owned.size(), -1);
    std::atomic<bool> killed{false};
    std::atomic<int> unexpected{0};
    std::atomic<long> requests{0};
    auto load = [&](size_t c) {
        ConfigSession client;
        client.connect("load-" + std::to_string(c), kConnectMs);
        for (int i = 0;; ++i, ++requests) {
            ConfigIF::WriteRsp written;
            ConfigIF::ReadRsp read;
            const bool writing = i % 4 == 0;
            const bool missing = i % 4 == 3;
            lastSent[c] = writing ? i : lastSent[c];
            const std::string path =
                missing ? "audio/microphone 3/gain" : owned[(c + i) % owned.size()];
            const ConfigSession::Status status =
                writing
                    ? client.write(writeRequest(owned[c], {"v" + std::to_string(i)}, kProvisioning),
                                   &written, kAnswerMs)
                    : client.read(readRequest(path, kProvisioning), &read, kAnswerMs);
            const bool expected = writing   ? written.ret_message().error() == kErrNoError
                                  : missing ? read.error() == kErrItemNotFound
                                            : read.error() == kErrNoError && read.value_size() > 0;
            if (status != ConfigSession::kOk) {
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
    ConfigSession reader;
    ASSERT_EQ(reader.connect("reader", kConnectMs), ConfigSession::kOk);
    for (size_t c = 0; c < owned.size(); ++c) {
        ConfigIF::ReadRsp stored;
        ASSERT_EQ(reader.read(readRequest(owned[c], kProvisioning), &stored, kAnswerMs),
                  ConfigSession::kOk);
        ASSERT_GT(stored.value_size(), 0) << owned[c];
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
    testsupport::ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    ConfigSession steady;
    ASSERT_EQ(steady.connect("steady", kConnectMs), ConfigSession::kOk);
    const ConfigIF::ReadReq volumeRequest = readRequest("audio/volume", kProvisioning);
    std::atomic<long> floodSent{0};
    std::atomic<bool> floodCutOff{false}, stop{false};
    std::thread flooder([&] {
        ConfigSession client;
        const std::string flood = readRequest("x", kProvisioning).SerializeAsString();
        client.connect("flooder", kConnectMs);
        while (!stop &&
               client.sendRaw(ConfigProtocol::kReadReqMsgId, flood) == ConfigSession::kOk) {
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
        if (steady.read(volumeRequest, &volume, kAnswerMs) != ConfigSession::kOk ||
            volume.error() != kErrNoError) {
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

    // Garbage under a request's id, answered as that request: the answer and whether it parses.
    auto answerTo = [&](uint32_t requestId, const std::string& junk,
                        google::protobuf::MessageLite* response) {
        return steady.sendRaw(requestId, junk) == ConfigSession::kOk &&
               steady.receive(ConfigProtocol::responseIdOf(requestId), response, kAnswerMs) ==
                   ConfigSession::kOk;
    };
    for (const std::string& junk : {std::string(), std::string(4, '\xff'), std::string(999, 'R')}) {
        ConfigIF::WriteRsp written;
        ConfigIF::ReadRsp read;
        ASSERT_TRUE(answerTo(ConfigProtocol::kWriteReqMsgId, junk, &written) &&
                    answerTo(ConfigProtocol::kReadReqMsgId, junk, &read));
        EXPECT_EQ(written.ret_message().error(), kErrBadParameter);
        EXPECT_EQ(read.error(), kErrBadParameter);
    }
    // An unknown id is dropped without an answer; the next request is served as usual.
    ConfigIF::ReadRsp volume;
    ASSERT_EQ(steady.sendRaw(0x12345678, "abc"), ConfigSession::kOk);
    ASSERT_EQ(steady.read(volumeRequest, &volume, kAnswerMs), ConfigSession::kOk);
    EXPECT_THAT(volume.value(), testing::ElementsAre("50"));
    EXPECT_EQ(service.stop(SIGTERM), 0) << service.output();
    for (const char* logged : {"does not read its answers: disconnected", "unreadable ReadReq",
                               "unknown message id 0x12345678"}) {
        EXPECT_THAT(service.output(), HasSubstr(logged));
    }
}

}  // namespace

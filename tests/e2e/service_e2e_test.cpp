// End to end: clients of the real configsrvc that push it hard (load, floods, SIGKILL); each test
// with a service of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ServiceClient.h"

namespace {

using namespace CommonIF;
using configclient::ConfigSession;
using testing::HasSubstr;
using testsupport::readRequest;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using testsupport::kAnswerMs;
using testsupport::kConnectMs;

using Service = testsupport::ServiceTest;
using testsupport::ServiceClient;

// Each client owns a variable that takes a short text: every fourth request writes the next
// value to it, two read another client's, and one reads an instance the model lacks.
TEST_F(Service, LoadGetsTheExpectedAnswersAndNoAcknowledgedWriteIsLostToSigkill) {
    std::vector<std::string> owned = {"system/hostname", "system/location", "system/ntp-servers",
                                      "network/domain"};
    for (const char* name : {"address", "netmask", "gateway", "dns"}) {
        for (int i = 1; i <= 3; ++i) {
            owned.push_back("network/interface " + std::to_string(i) + "/" + name);
        }
    }
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
                writing ? client.write(testsupport::writeRequest(
                                           owned[c], {"v" + std::to_string(i)}, kProvisioning),
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
    EXPECT_EQ(service_.stop(SIGKILL), 128 + SIGKILL) << "the service did not live to be killed";
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(unexpected, 0);
    EXPECT_GT(requests, 1000);

    ASSERT_TRUE(service_.start(&error_)) << error_;
    const std::vector<std::string> stored = ServiceClient("reader").values(owned, kProvisioning);
    for (size_t c = 0; c < owned.size(); ++c) {
        ASSERT_GE(lastAcked[c], 0) << "no write was acknowledged";
        // The write whose answer the kill cut off may or may not have made it; nothing older.
        EXPECT_THAT(stored.at(c), testing::AnyOf("v" + std::to_string(lastAcked[c]),
                                                 "v" + std::to_string(lastSent[c])))
            << owned[c];
    }
}

// A client that floods the service with requests and never reads the answers holds up no one
// else and is cut off; its refusals are logged, but the log takes only so many lines about one
// user's requests.
TEST_F(Service, MisbehavingClientsHoldUpNoOtherClientAndStopNothing) {
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
    int readsDuringFlood = 0;
    Clock::duration slowest{};
    // Until the flooder is cut off: soon in a release build, later under the sanitizers on a busy
    // machine, never more than ten seconds.
    for (auto start = Clock::now(); !floodCutOff && Clock::now() - start < milliseconds(10000);) {
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

    EXPECT_EQ(service_.stop(SIGTERM), 0) << service_.output();
    const std::string log = service_.output();
    for (const char* logged :
         {"does not read its answers: disconnected", "refused: no variable 'x' in the model",
          "more lines about requests from uid 0 suppressed (at most 20 every 10 s)"}) {
        EXPECT_THAT(log, HasSubstr(logged));
    }
    EXPECT_LE(testsupport::split(log, "refused: no variable 'x'").size() - 1, 20u)
        << "more than 20 of the flood's refusals were logged";
}

}  // namespace

// A client that floods the service with requests and never reads the answers holds up no one
// else, and is cut off once its unread answers reach the library's bound.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ServiceHarness.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kReadReqMsgId = 0x001A0000;
constexpr int kUser = 10;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(StalledClient, FlooderThatNeverReadsDelaysNoOtherClient) {
    Sandbox sandbox;
    ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;
    const Path volume = {{"audio", 0}, {"volume", 0}};

    ConfigIF::ReadReq request;
    request.set_name("flooder");
    request.set_role(static_cast<CommonIF::eSecurityRole>(kUser));
    for (const auto& [name, instance] : volume) {
        ConfigIF::Node* node = request.mutable_instance()->add_node();
        node->set_name(name);
        node->set_instance(instance);
    }
    const std::string flood = request.SerializeAsString();
    Client steady("steady");
    ASSERT_TRUE(steady.connected());
    std::atomic<long> floodSent{0};
    std::atomic<bool> floodCutOff{false};
    std::atomic<bool> stop{false};
    std::thread flooder([&] {
        Client client("flooder");
        while (client.connected() && !stop && client.sendOnly(kReadReqMsgId, flood)) {
            ++floodSent;
        }
        floodCutOff = !stop;
    });

    // Reads go on while the flood lasts, and a while after it.
    int reads = 0;
    int readsDuringFlood = 0;
    long slowestMs = 0;
    auto start = Clock::now();
    while (msSince(start) < 3000 && (!floodCutOff || reads < 50)) {
        bool flooding = floodSent > 0 && !floodCutOff;
        auto before = Clock::now();
        ConfigIF::ReadRsp response;
        bool answered = steady.read(volume, kUser, &response);
        slowestMs = std::max(slowestMs, msSince(before));
        if (!answered || response.error() != CommonIF::kErrNoError) {
            ADD_FAILURE() << "read " << reads << " failed";
            break;
        }
        ++reads;
        readsDuringFlood += flooding && !floodCutOff ? 1 : 0;
    }
    stop = true;
    flooder.join();

    EXPECT_LT(slowestMs, 1000) << "a read of the other client waited for the flooder";
    // Far more answers than a socket buffers: the service had answers it could not hand over.
    EXPECT_GE(floodSent.load(), 5000);
    EXPECT_GE(readsDuringFlood, 10) << "the flood ended before the other client could read";
    EXPECT_TRUE(floodCutOff) << "the flooder was never disconnected";
    EXPECT_EQ(service.stop(SIGTERM), 0) << service.output();
    EXPECT_NE(service.output().find("does not read its answers: disconnected"), std::string::npos);
}

}  // namespace
}  // namespace e2e

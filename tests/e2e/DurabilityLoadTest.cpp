// The service under concurrent clients, and killed in the middle of a stream of writes.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ServiceHarness.h"

namespace e2e {
namespace {

constexpr int kUser = 10;
constexpr int kAdmin = 20;

// A writable variable of the example model and the value a client writes to it the i-th time.
struct Target {
    Path path;
    int low;  // integer range; low > high means a string variable
    int high;
    bool isList;

    std::vector<std::string> valueFor(int i) const {
        if (low <= high) {
            return {std::to_string(low + i % (high - low + 1))};
        }
        std::vector<std::string> values = {"v" + std::to_string(i)};
        if (isList) {
            values.push_back("w" + std::to_string(i));
        }
        return values;
    }
};

Path interfaceVariable(int instance, const char* name) {
    return {{"network", 0}, {"interface", instance}, {name, 0}};
}

std::vector<Target> targets() {
    std::vector<Target> all;
    for (int i = 1; i <= 3; ++i) {
        all.push_back({interfaceVariable(i, "mtu"), 576, 9000, false});
        all.push_back({interfaceVariable(i, "address"), 1, 0, false});
        all.push_back({interfaceVariable(i, "gateway"), 1, 0, false});
        all.push_back({interfaceVariable(i, "dns"), 1, 0, true});
    }
    all.push_back({{{"audio", 0}, {"volume", 0}}, 0, 100, false});
    all.push_back({{{"audio", 0}, {"microphone", 1}, {"gain", 0}}, -12, 24, false});
    all.push_back({{{"audio", 0}, {"microphone", 2}, {"gain", 0}}, -12, 24, false});
    all.push_back({{{"video", 0}, {"brightness", 0}}, 0, 100, false});
    return all;
}

std::vector<std::string> readValues(Client* client, const Path& path) {
    ConfigIF::ReadRsp response;
    EXPECT_TRUE(client->read(path, kAdmin, &response));
    EXPECT_EQ(response.error(), CommonIF::kErrNoError);
    return std::vector<std::string>(response.value().begin(), response.value().end());
}

TEST(Durability, EveryAcknowledgedWriteSurvivesSigkill) {
    Sandbox sandbox;
    ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;

    std::vector<Target> owned = targets();
    owned.resize(8);
    std::vector<int> lastAcked(owned.size(), -1);
    std::vector<int> lastSent(owned.size(), -1);
    std::vector<std::thread> writers;
    for (size_t w = 0; w < owned.size(); ++w) {
        writers.emplace_back([&, w] {
            Client client("durable-" + std::to_string(w));
            for (int i = 0; client.connected(); ++i) {
                ConfigIF::WriteRsp response;
                lastSent[w] = i;
                if (!client.write(owned[w].path, owned[w].valueFor(i), kAdmin, &response)) {
                    return;  // the service is gone
                }
                ASSERT_EQ(response.ret_message().error(), CommonIF::kErrNoError);
                lastAcked[w] = i;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(service.stop(SIGKILL), 128 + SIGKILL);
    for (std::thread& writer : writers) {
        writer.join();
    }

    ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;
    Client reader("durable-reader");
    ASSERT_TRUE(reader.connected());
    int acknowledged = 0;
    for (size_t w = 0; w < owned.size(); ++w) {
        ASSERT_GE(lastAcked[w], 0) << "no write was acknowledged before the kill";
        acknowledged += lastAcked[w] + 1;
        std::vector<std::string> stored = readValues(&reader, owned[w].path);
        // The write whose answer the kill cut off may or may not have made it; nothing older.
        bool acknowledgedOne = stored == owned[w].valueFor(lastAcked[w]);
        bool unansweredOne = stored == owned[w].valueFor(lastSent[w]);
        EXPECT_TRUE(acknowledgedOne || unansweredOne)
            << "writer " << w << " lost write " << lastAcked[w];
    }
    EXPECT_GT(acknowledged, 50);
}

TEST(Load, ConcurrentClientsLoseNothingAndSeeNoUnexpectedError) {
    Sandbox sandbox;
    ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;

    std::vector<Target> owned = targets();
    std::vector<int> lastAcked(owned.size(), -1);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<long> operations{0};
    std::vector<std::thread> clients;
    for (size_t c = 0; c < owned.size(); ++c) {
        clients.emplace_back([&, c] {
            Client client("load-" + std::to_string(c));
            if (!client.connected()) {
                ++failures;
                return;
            }
            for (int i = 0; !stop; ++i) {
                bool ok;
                if (i % 4 == 0) {  // a write of the client's own variable
                    ConfigIF::WriteRsp response;
                    ok = client.write(owned[c].path, owned[c].valueFor(i), kAdmin, &response) &&
                         response.ret_message().error() == CommonIF::kErrNoError;
                    if (ok) {
                        lastAcked[c] = i;
                    }
                } else if (i % 4 == 3) {  // a read that must fail, and only that way
                    ConfigIF::ReadRsp response;
                    ok = client.read({{"audio", 0}, {"microphone", 3}, {"gain", 0}}, kUser,
                                     &response) &&
                         response.error() == CommonIF::kErrItemNotFound;
                } else {  // a read of anybody's variable
                    ConfigIF::ReadRsp response;
                    ok = client.read(owned[(c + i) % owned.size()].path, kUser, &response) &&
                         response.error() == CommonIF::kErrNoError && response.value_size() > 0;
                }
                failures += ok ? 0 : 1;
                ++operations;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    stop = true;
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(operations.load(), 1000);

    // Every client's last acknowledged write is what the service holds, before and after a
    // restart.
    for (int round = 0; round < 2; ++round) {
        Client reader("load-reader");
        ASSERT_TRUE(reader.connected());
        for (size_t c = 0; c < owned.size(); ++c) {
            ASSERT_GE(lastAcked[c], 0);
            EXPECT_EQ(readValues(&reader, owned[c].path), owned[c].valueFor(lastAcked[c]));
        }
        if (round == 0) {
            ASSERT_EQ(service.stop(SIGTERM), 0) << service.output();
            ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;
        }
    }
}

TEST(Robustness, GarbageAndUnknownMessagesNeverStopTheService) {
    Sandbox sandbox;
    ServiceProcess service;
    std::string error;
    ASSERT_TRUE(service.start(EXAMPLE_MODEL, sandbox.state(), &error)) << error;
    Client client("garbage");
    ASSERT_TRUE(client.connected());

    std::string answer;
    for (const std::string& junk :
         {std::string(), std::string("\xff\xff\xff\xff"), std::string(1000, '\x52')}) {
        ASSERT_TRUE(client.exchange(0x001A0080, junk, 0x001A0191, &answer));
        ConfigIF::WriteRsp write;
        ASSERT_TRUE(write.ParseFromString(answer));
        EXPECT_EQ(write.ret_message().error(), CommonIF::kErrBadParameter);
        ASSERT_TRUE(client.exchange(0x001A0000, junk, 0x001A0041, &answer));
        ConfigIF::ReadRsp read;
        ASSERT_TRUE(read.ParseFromString(answer));
        EXPECT_EQ(read.error(), CommonIF::kErrBadParameter);
    }
    // An unknown id is dropped without an answer; the next request is served as usual.
    ASSERT_TRUE(client.sendOnly(0x12345678, "abc"));
    EXPECT_EQ(readValues(&client, {{"audio", 0}, {"volume", 0}}), std::vector<std::string>{"50"});
    EXPECT_EQ(service.stop(SIGTERM), 0) << service.output();
    EXPECT_NE(service.output().find("unreadable ReadReq"), std::string::npos);
    EXPECT_NE(service.output().find("unknown message id 0x12345678"), std::string::npos);
}

}  // namespace
}  // namespace e2e

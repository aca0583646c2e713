// Sends that never wait: a peer that does not read holds up neither its sender nor other peers.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

MSG_Msg* makeNowait(uint32_t id, const std::string& bytes) {
    MSG_Msg* msg = MSG_AllocMsg(id, MSG_SEND_NOWAIT, static_cast<uint32_t>(bytes.size()));
    if (msg && !bytes.empty()) {
        memcpy(MSG_GetPayloadMutable(msg), bytes.data(), bytes.size());
    }
    return msg;
}

// About 2 MiB in all: far more than a socket buffers, well within the send queue's bound.
constexpr int kStreamFrames = 40;
constexpr uint32_t kStreamId = 100;

// Sizes and contents vary, so that a torn, lost or repeated frame shows in every later one.
std::string streamPayload(int i) {
    std::string bytes(static_cast<size_t>(i % 7) * 9000 + 40000, '\0');
    for (size_t k = 0; k < bytes.size(); k++) {
        bytes[k] = static_cast<char>(static_cast<size_t>(i) * 31 + k);
    }
    return bytes;
}

void expectStreamFrame(MSG_Msg* msg, int i) {
    ASSERT_NE(msg, nullptr) << "frame " << i;
    EXPECT_EQ(MSG_GetMsgId(msg), kStreamId + static_cast<uint32_t>(i));
    EXPECT_TRUE(payloadOf(msg) == streamPayload(i)) << "frame " << i << " differs";
    MSG_ReleaseMsg(msg);
}

// Address of the sender of the next message at `endpoint`, or 0.
uint32_t senderOfNext(const char* endpoint) {
    MSG_Msg* msg = MSG_RecvAny(endpoint, 2000);
    MSG_Sender sender{};
    MSG_GetSender(msg, &sender);
    MSG_ReleaseMsg(msg);
    return sender.address;
}

class NoWaitTest : public EndpointTest {
  protected:
    // "client" connects to "server", which learns the client's address from a first message.
    void connectPair() {
        ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
        ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
        ASSERT_EQ(MSG_OpenRemoteSync("client", "server", 1000, &toServer_), MSG_OK);
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(1, "hello")), MSG_OK);
        toClient_ = senderOfNext("server");
        ASSERT_NE(toClient_, 0u);
    }

    // The client reads nothing meanwhile: each send must return at once all the same.
    void queueStream() {
        auto start = Clock::now();
        for (int i = 0; i < kStreamFrames; i++) {
            MSG_Msg* msg = makeNowait(kStreamId + static_cast<uint32_t>(i), streamPayload(i));
            ASSERT_EQ(MSG_SendMsg("server", toClient_, msg), MSG_OK) << i;
        }
        EXPECT_LT(msSince(start), 1000) << "the sends waited for a peer that does not read";
    }

    uint32_t toServer_ = 0;
    uint32_t toClient_ = 0;
};

// What the socket did not take goes out as the peer reads, written by the receive loop of the
// sending endpoint: here the loop of a service that polls the descriptor of MSG_GetPollFd.
TEST_F(NoWaitTest, QueuedFramesArriveInOrderAsThePeerReads) {
    connectPair();
    int serverFd = MSG_GetPollFd("server");
    ASSERT_GE(serverFd, 0);
    queueStream();
    pollfd pfd{serverFd, POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0) << "nothing to do while the client reads nothing";
    int next = 0;
    int wakeups = 0;
    while (next < kStreamFrames && wakeups <= 2 * kStreamFrames && !HasFailure()) {
        for (MSG_Msg* msg; next < kStreamFrames && (msg = MSG_RecvAny("client", 0)); next++) {
            expectStreamFrame(msg, next);
        }
        if (next < kStreamFrames) {
            ASSERT_EQ(poll(&pfd, 1, 1000), 1) << "room in the socket must wake the service";
            EXPECT_EQ(MSG_RecvAny("server", 0), nullptr);
            wakeups++;
        }
    }
    EXPECT_EQ(next, kStreamFrames);
    EXPECT_GT(wakeups, 0);
}

// Nobody runs the server's receive loop here: the waiting send writes the queue before its own.
TEST_F(NoWaitTest, ASendThatWaitsFollowsTheQueuedFrames) {
    connectPair();
    queueStream();
    int status = -1;
    std::thread waiter([&] {
        status = MSG_SendMsg("server", toClient_, makeMsg(kStreamId + kStreamFrames, "last"));
    });
    for (int i = 0; i < kStreamFrames && !HasFailure(); i++) {
        expectStreamFrame(MSG_RecvAny("client", 2000), i);
    }
    MSG_Msg* last = MSG_RecvAny("client", 2000);
    waiter.join();
    EXPECT_EQ(status, MSG_OK);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(payloadOf(last), "last");
    MSG_ReleaseMsg(last);
}

TEST_F(NoWaitTest, SendersOfBothKindsNeverInterleave) {
    connectPair();
    constexpr int kThreads = 4, kEach = 60;
    constexpr uint32_t kDoneId = 99;
    struct Mode {
        const char* what;
        int flags[kThreads];
    };
    const Mode modes[] = {
        {"none waits", {MSG_SEND_NOWAIT, MSG_SEND_NOWAIT, MSG_SEND_NOWAIT, MSG_SEND_NOWAIT}},
        {"half wait", {MSG_SEND_NOWAIT, 0, MSG_SEND_NOWAIT, 0}},
    };
    for (const Mode& mode : modes) {
        // The server's receive loop runs meanwhile, writing what the senders left queued.
        std::thread pump([] { MSG_ReleaseMsg(MSG_RecvMsg("server", kDoneId, 10000)); });
        std::vector<std::thread> senders;
        for (int t = 0; t < kThreads; t++) {
            senders.emplace_back([this, t, flags = mode.flags[t]] {
                for (int i = 0; i < kEach; i++) {
                    std::string text = std::to_string(t) + ":" + std::to_string(i) +
                                       std::string(static_cast<size_t>(i % 5) * 5000, '.');
                    MSG_Msg* msg = MSG_AllocMsg(40 + t, flags, static_cast<uint32_t>(text.size()));
                    memcpy(MSG_GetPayloadMutable(msg), text.data(), text.size());
                    ASSERT_EQ(MSG_SendMsg("server", toClient_, msg), MSG_OK);
                }
            });
        }
        std::vector<int> next(kThreads, 0);
        for (int n = 0; n < kThreads * kEach; n++) {
            MSG_Msg* msg = MSG_RecvAny("client", 5000);
            int t = static_cast<int>(MSG_GetMsgId(msg)) - 40;
            if (!msg || t < 0 || t >= kThreads) {
                ADD_FAILURE() << mode.what << ": no well-formed message after " << n;
                MSG_ReleaseMsg(msg);
                break;
            }
            std::string prefix = std::to_string(t) + ":" + std::to_string(next[t]++);
            EXPECT_EQ(payloadOf(msg).substr(0, prefix.size()), prefix) << mode.what;
            MSG_ReleaseMsg(msg);
        }
        for (auto& sender : senders) {
            sender.join();
        }
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(kDoneId, "")), MSG_OK);
        pump.join();
    }
}

// Reads until the library closes its end; false after a second of silence.
bool readsToTheEnd(int fd) {
    char buffer[64 * 1024];
    pollfd pfd{fd, POLLIN, 0};
    while (poll(&pfd, 1, 1000) == 1) {
        if (recv(fd, buffer, sizeof(buffer), 0) <= 0) {
            return true;
        }
    }
    return false;
}

std::string readBytes(int fd, size_t count) {
    std::string bytes;
    pollfd pfd{fd, POLLIN, 0};
    char buffer[256];
    while (bytes.size() < count && poll(&pfd, 1, 1000) == 1) {
        ssize_t n = recv(fd, buffer, std::min(sizeof(buffer), count - bytes.size()), 0);
        if (n <= 0) {
            break;
        }
        bytes.append(buffer, static_cast<size_t>(n));
    }
    return bytes;
}

TEST_F(NoWaitTest, QueueBoundDropsAPeerThatNeverReadsAndSparesTheOthers) {
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    // A plain socket client, known to the service by the address of its first message.
    auto rawPeer = [this](uint32_t* address) {
        int fd = rawConnect("svc");
        std::string hello = frameHeader(kWireMagic, 1, 0);
        EXPECT_EQ(send(fd, hello.data(), hello.size(), 0), static_cast<ssize_t>(hello.size()));
        *address = senderOfNext("svc");
        return fd;
    };
    uint32_t toGood = 0;
    int good = rawPeer(&toGood);
    ASSERT_NE(toGood, 0u);

    struct Case {
        const char* what;
        uint32_t bytes;
        size_t least;  // payload accepted before the refusal
        size_t most;
    };
    // The socket's own buffer takes some too: allow it generously, but not without limit.
    const Case cases[] = {
        {"small messages", 1000, MSG_SEND_QUEUE_BYTES * 3 / 4, MSG_SEND_QUEUE_BYTES * 2},
        {"one larger than the bound", MSG_MAX_PAYLOAD_BYTES, MSG_MAX_PAYLOAD_BYTES,
         MSG_MAX_PAYLOAD_BYTES},
    };
    for (const Case& c : cases) {
        uint32_t toDeaf = 0;
        int deaf = rawPeer(&toDeaf);
        ASSERT_NE(toDeaf, 0u) << c.what;
        const std::string payload(c.bytes, 'z');
        size_t accepted = 0;
        int status = MSG_OK;
        auto start = Clock::now();
        while (status == MSG_OK && accepted <= 4 * MSG_SEND_QUEUE_BYTES) {
            status = MSG_SendMsg("svc", toDeaf, makeNowait(7, payload));
            accepted += status == MSG_OK ? c.bytes : 0;
        }
        EXPECT_LT(msSince(start), 2000) << c.what;
        EXPECT_EQ(status, MSG_ERR_QUEUE_FULL) << c.what;
        EXPECT_GE(accepted, c.least) << c.what;
        EXPECT_LE(accepted, c.most) << c.what;
        EXPECT_EQ(MSG_SendMsg("svc", toDeaf, makeNowait(7, "")), MSG_ERR_NO_ROUTE) << c.what;
        EXPECT_TRUE(readsToTheEnd(deaf)) << c.what << ": the connection was not closed";
        close(deaf);

        std::string ping = frameHeader(kWireMagic, 5, 4) + "ping";
        ASSERT_EQ(send(good, ping.data(), ping.size(), 0), static_cast<ssize_t>(ping.size()));
        MSG_Msg* request = MSG_RecvAny("svc", 2000);
        ASSERT_NE(request, nullptr) << c.what;
        EXPECT_EQ(payloadOf(request), "ping");
        MSG_ReleaseMsg(request);
        EXPECT_EQ(MSG_SendMsg("svc", toGood, makeNowait(6, "pong")), MSG_OK) << c.what;
        EXPECT_EQ(readBytes(good, 20), frameHeader(kWireMagic, 6, 4) + "pong") << c.what;
    }
    close(good);
}

// A client whose requests pile up unclaimed is no longer read, but its answers still go out.
TEST_F(NoWaitTest, QueuedFramesGoOutWhileThePeersInputIsPaused) {
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    int peer = rawConnect("svc");
    ASSERT_GE(peer, 0);
    std::string requests;
    for (int i = 0; i < 5000; i++) {  // more unclaimed messages than one connection may have
        requests += frameHeader(kWireMagic, 1, 0);
    }
    ASSERT_EQ(send(peer, requests.data(), requests.size(), 0),
              static_cast<ssize_t>(requests.size()));
    constexpr uint32_t kNeverSent = 777;
    EXPECT_EQ(MSG_RecvMsg("svc", kNeverSent, 100), nullptr);  // reads until it pauses
    uint32_t toPeer = senderOfNext("svc");
    ASSERT_NE(toPeer, 0u);

    std::string expected;
    for (int i = 0; i < kStreamFrames; i++) {
        std::string payload = streamPayload(i);
        uint32_t id = kStreamId + static_cast<uint32_t>(i);
        expected += frameHeader(kWireMagic, id, static_cast<uint32_t>(payload.size())) + payload;
        ASSERT_EQ(MSG_SendMsg("svc", toPeer, makeNowait(id, payload)), MSG_OK) << i;
    }
    std::string got;
    char buffer[64 * 1024];
    for (int round = 0; round < 500 && got.size() < expected.size(); round++) {
        for (ssize_t n; (n = recv(peer, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
            got.append(buffer, static_cast<size_t>(n));
        }
        EXPECT_EQ(MSG_RecvMsg("svc", kNeverSent, 10), nullptr);  // the receive loop writes
    }
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected) << "the frames differ";
    close(peer);
}

}  // namespace

// The library's contract as one process sees it: arguments, payloads, ids, time-outs, threads.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <thread>

#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class MsgPassTest : public EndpointTest {
  protected:
    // Opens "client" and "server" here and connects the first to the second.
    void connectPair() {
        ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
        ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
        ASSERT_EQ(MSG_OpenRemoteSync("client", "server", 1000, &toServer_), MSG_OK);
        ASSERT_NE(toServer_, 0u);
    }
    uint32_t toServer_ = 0;
};

TEST_F(MsgPassTest, BadArgumentsGiveTheirStatus) {
    std::string longest(MSG_MAX_NAME_BYTES, 'n');
    std::string tooLong = longest + "n";
    uint32_t address = 0;
    struct Case {
        const char* what;
        std::function<int()> call;
        int expected;
    };
    const Case before[] = {
        {"close all, none open", [] { return MSG_CloseLocal(nullptr); }, MSG_ERR_NOT_OPEN},
        {"close unknown", [] { return MSG_CloseLocal("nobody"); }, MSG_ERR_NOT_OPEN},
        {"send before open", [] { return MSG_SendMsg("me", 1, makeMsg(1, "x")); },
         MSG_ERR_NOT_OPEN},
        {"connect before open", [&] { return MSG_OpenRemoteSync("me", "you", 0, &address); },
         MSG_ERR_NOT_OPEN},
        {"open null", [] { return MSG_OpenLocal(nullptr); }, MSG_ERR_BAD_ARG},
        {"open empty", [] { return MSG_OpenLocal(""); }, MSG_ERR_BAD_NAME},
        {"open too long", [&] { return MSG_OpenLocal(tooLong.c_str()); }, MSG_ERR_BAD_NAME},
        {"open with slash", [] { return MSG_OpenLocal("a/b"); }, MSG_ERR_BAD_NAME},
        {"open dot-dot path", [] { return MSG_OpenLocal("../x"); }, MSG_ERR_BAD_NAME},
        {"open dot", [] { return MSG_OpenLocal("."); }, MSG_ERR_BAD_NAME},
        {"open dot-dot", [] { return MSG_OpenLocal(".."); }, MSG_ERR_BAD_NAME},
        {"debug name null", [] { return MSG_DebugSetName(nullptr); }, MSG_ERR_BAD_ARG},
        {"debug name slash", [] { return MSG_DebugSetName("x/y"); }, MSG_ERR_BAD_NAME},
        {"release null", [] { return MSG_ReleaseMsg(nullptr); }, MSG_ERR_BAD_ARG},
        {"send null handle", [] { return MSG_SendMsg("me", 1, nullptr); }, MSG_ERR_BAD_ARG},
        {"send from null name", [] { return MSG_SendMsg(nullptr, 1, makeMsg(1, "")); },
         MSG_ERR_BAD_ARG},
        {"sender of null", [] { return MSG_GetSender(nullptr, nullptr); }, MSG_ERR_BAD_ARG},
        {"poll fd before open", [] { return MSG_GetPollFd("me"); }, -1},
        {"payload bytes of null", [] { return MSG_GetPayloadBytes(nullptr); }, -1},
        {"id of null", [] { return static_cast<int>(MSG_GetMsgId(nullptr)); }, 0},
    };
    for (const Case& c : before) {
        EXPECT_EQ(c.call(), c.expected) << c.what;
    }
    EXPECT_EQ(MSG_RecvMsg("me", 1, 0), nullptr);
    EXPECT_EQ(MSG_RecvAny(nullptr, 0), nullptr);
    EXPECT_EQ(MSG_GetPayload(nullptr), nullptr);
    EXPECT_EQ(MSG_GetPayloadMutable(nullptr), nullptr);
    for (int flags : {2, MSG_SEND_NOWAIT | 0x100, -1}) {
        EXPECT_EQ(MSG_AllocMsg(1, flags, 10), nullptr) << "unknown flags " << flags;
    }

    ASSERT_EQ(MSG_OpenLocal(longest.c_str()), MSG_OK) << "the longest name is allowed";
    ASSERT_EQ(MSG_OpenLocal("me"), MSG_OK);
    MSG_Msg* unsent = makeMsg(7, "never received");
    const Case after[] = {
        {"unknown address", [] { return MSG_SendMsg("me", 12345, makeMsg(1, "x")); },
         MSG_ERR_NO_ROUTE},
        {"address zero", [] { return MSG_SendMsg("me", 0, makeMsg(1, "")); }, MSG_ERR_NO_ROUTE},
        {"null address out", [] { return MSG_OpenRemoteSync("me", "you", 0, nullptr); },
         MSG_ERR_BAD_ARG},
        {"bad remote name", [&] { return MSG_OpenRemoteSync("me", "", 0, &address); },
         MSG_ERR_BAD_NAME},
        {"sender of unreceived",
         [&] {
             MSG_Sender sender;
             return MSG_GetSender(unsent, &sender);
         },
         MSG_ERR_BAD_ARG},
        {"debug name", [] { return MSG_DebugSetName("me"); }, MSG_OK},
        {"close", [] { return MSG_CloseLocal("me"); }, MSG_OK},
        {"close twice", [] { return MSG_CloseLocal("me"); }, MSG_ERR_NOT_OPEN},
    };
    for (const Case& c : after) {
        EXPECT_EQ(c.call(), c.expected) << c.what;
    }
    MSG_ReleaseMsg(unsent);
}

TEST_F(MsgPassTest, PayloadSizesTravelIntact) {
    connectPair();
    for (uint32_t size : {0u, 1u, 100u, 64u * 1024u + 3u, MSG_MAX_PAYLOAD_BYTES}) {
        std::string bytes(size, '\0');
        for (uint32_t i = 0; i < size; i++) {
            bytes[i] = static_cast<char>(i * 7 + i / 251);
        }
        // A 16 MiB send cannot complete before someone reads, so the receiver runs alongside.
        MSG_Msg* got = nullptr;
        std::thread receiver([&] { got = MSG_RecvMsg("server", size, 5000); });
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(size, bytes)), MSG_OK) << size;
        receiver.join();
        ASSERT_NE(got, nullptr) << size;
        EXPECT_EQ(MSG_GetPayloadBytes(got), static_cast<int>(size));
        EXPECT_TRUE(payloadOf(got) == bytes) << "payload of " << size << " bytes differs";
        MSG_ReleaseMsg(got);
    }
    EXPECT_EQ(MSG_AllocMsg(1, 0, MSG_MAX_PAYLOAD_BYTES + 1), nullptr);
}

TEST_F(MsgPassTest, OtherIdsWaitInArrivalOrder) {
    connectPair();
    const std::pair<uint32_t, const char*> sent[] = {{1, "a1"}, {2, "b1"}, {1, "a2"},
                                                     {3, "c1"}, {2, "b2"}, {1, "a3"}};
    for (const auto& [id, text] : sent) {
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(id, text)), MSG_OK);
    }
    const std::pair<uint32_t, const char*> expected[] = {
        {3, "c1"}, {2, "b1"}, {1, "a1"}, {1, "a2"}, {2, "b2"}};
    for (const auto& [id, text] : expected) {
        MSG_Msg* msg = MSG_RecvMsg("server", id, 1000);
        ASSERT_NE(msg, nullptr) << text;
        EXPECT_EQ(payloadOf(msg), text);
        MSG_ReleaseMsg(msg);
    }
    MSG_Msg* rest = MSG_RecvAny("server", 1000);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(payloadOf(rest), "a3");
    MSG_ReleaseMsg(rest);
}

TEST_F(MsgPassTest, ReceiveTimesOutAndCapBoundsLongWaits) {
    connectPair();
    auto start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("server", 1, 80), nullptr);
    EXPECT_GE(msSince(start), 75);
    EXPECT_EQ(MSG_RecvAny("server", 0), nullptr);

    setenv(MSG_MAX_WAIT_ENV, "60", 1);
    start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("server", 1, -1), nullptr) << "forever, capped";
    EXPECT_LT(msSince(start), 2000);
    uint32_t address = 0;
    start = Clock::now();
    EXPECT_EQ(MSG_OpenRemoteSync("client", "absent", 10000, &address), MSG_ERR_TIMEOUT);
    EXPECT_LT(msSince(start), 2000);
}

TEST_F(MsgPassTest, ConcurrentSendersNeverInterleave) {
    connectPair();
    constexpr int kThreads = 4, kEach = 80;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; t++) {
        senders.emplace_back([this, t] {
            for (int i = 0; i < kEach; i++) {
                // Large enough to take several writes each, so frames would tear if two
                // threads wrote at once; sizes vary so a tear shifts every later frame.
                std::string text = std::to_string(t) + ":" + std::to_string(i) +
                                   std::string(static_cast<size_t>(i % 5) * 60000, '.');
                ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(40 + t, text)), MSG_OK);
            }
        });
    }
    std::vector<int> next(kThreads, 0);
    for (int n = 0; n < kThreads * kEach; n++) {
        MSG_Msg* msg = MSG_RecvAny("server", 5000);
        int t = static_cast<int>(MSG_GetMsgId(msg)) - 40;
        if (!msg || t < 0 || t >= kThreads) {
            ADD_FAILURE() << "no well-formed message after " << n;
            MSG_ReleaseMsg(msg);
            MSG_CloseLocal("client");  // unblocks the senders, so they can be joined
            break;
        }
        std::string prefix = std::to_string(t) + ":" + std::to_string(next[t]++);
        EXPECT_EQ(payloadOf(msg).substr(0, prefix.size()), prefix);
        MSG_ReleaseMsg(msg);
    }
    for (auto& sender : senders) {
        sender.join();
    }
}

TEST_F(MsgPassTest, ReceiveOnOneThreadReplyFromAnother) {
    connectPair();
    std::thread service([] {
        MSG_Msg* request = MSG_RecvAny("server", 2000);
        MSG_Sender sender{};
        ASSERT_EQ(MSG_GetSender(request, &sender), MSG_OK);
        MSG_ReleaseMsg(request);
        std::thread([address = sender.address] {
            EXPECT_EQ(MSG_SendMsg("server", address, makeMsg(2, "pong")), MSG_OK);
        }).join();
    });
    // Two receivers for different ids at once: each must get its own.
    MSG_Msg* other = nullptr;
    std::thread otherWaiter([&] { other = MSG_RecvMsg("client", 9, 2000); });
    ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(1, "ping")), MSG_OK);
    MSG_Msg* reply = MSG_RecvMsg("client", 2, 2000);
    service.join();
    otherWaiter.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(payloadOf(reply), "pong");
    MSG_ReleaseMsg(reply);
    EXPECT_EQ(other, nullptr);
}

TEST_F(MsgPassTest, CloseWakesABlockedReceiver) {
    ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
    auto start = Clock::now();
    std::thread receiver([] { EXPECT_EQ(MSG_RecvAny("server", -1), nullptr); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
    receiver.join();
    EXPECT_LT(msSince(start), 2000);
}

TEST_F(MsgPassTest, PollFdTurnsReadableWhenSomethingArrives) {
    connectPair();
    int fd = MSG_GetPollFd("server");
    ASSERT_GE(fd, 0);
    pollfd pfd{fd, POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 1) << "the client's connection waits to be accepted";
    EXPECT_EQ(MSG_RecvAny("server", 0), nullptr);
    EXPECT_EQ(poll(&pfd, 1, 0), 0);
    ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(5, "one")), MSG_OK);
    ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(6, "two")), MSG_OK);
    for (const char* text : {"one", "two"}) {
        ASSERT_EQ(poll(&pfd, 1, 2000), 1) << text;
        MSG_Msg* msg = MSG_RecvAny("server", 0);
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(payloadOf(msg), text);
        MSG_ReleaseMsg(msg);
    }
    EXPECT_EQ(poll(&pfd, 1, 0), 0);
}

TEST_F(MsgPassTest, EndpointDirectoryIsCreatedWhenMissingAndRefusedWhenUnusable) {
    std::ofstream(dir_ + "/plain") << "not a directory";
    ASSERT_EQ(symlink((dir_ + "/made").c_str(), (dir_ + "/link").c_str()), 0);
    ASSERT_EQ(symlink((dir_ + "/nowhere").c_str(), (dir_ + "/dangling").c_str()), 0);
    struct Case {
        const char* dir;  // under the test's directory
        int expected;
    };
    const Case cases[] = {
        {"/made", MSG_OK},           // created
        {"/made/", MSG_OK},          // exists; trailing slash
        {"/link", MSG_OK},           // a link to a directory
        {"/plain", MSG_ERR_NO_DIR},  // a file
        {"/dangling", MSG_ERR_NO_DIR},
        {"/missing/deeper", MSG_ERR_NO_DIR},  // only one level is created
    };
    for (const Case& c : cases) {
        setenv(MSG_DIR_ENV, (dir_ + c.dir).c_str(), 1);
        EXPECT_EQ(MSG_OpenLocal("probe"), c.expected) << c.dir;
        MSG_CloseLocal(nullptr);
    }
    struct stat st {};
    ASSERT_EQ(stat((dir_ + "/made").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    setenv(MSG_DIR_ENV, dir_.c_str(), 1);
}

TEST_F(MsgPassTest, CloseRemovesOnlyItsOwnSocketFile) {
    ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
    // Someone removed our file and another socket now has the name.
    const std::string path = socketPath("server");
    ASSERT_EQ(unlink(path.c_str()), 0);
    int other = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << "the other socket's file stays";
    close(other);
}

TEST_F(MsgPassTest, SocketFileIsOpenToAllAndRemovedOnClose) {
    ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
    struct stat st {};
    ASSERT_EQ(stat(socketPath("server").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    EXPECT_EQ(MSG_CloseLocal(nullptr), MSG_OK);
    EXPECT_NE(stat(socketPath("server").c_str(), &st), 0);
}

}  // namespace

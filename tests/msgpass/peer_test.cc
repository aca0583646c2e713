// Endpoints in separate processes: finding each other, dying, misbehaving, and who they are.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "test_support.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class PeerTest : public EndpointTest {};

TEST_F(PeerTest, RequestAndResponseBetweenProcesses) {
    pid_t service = spawn([] { return serveEcho("svc", 2); });
    ASSERT_EQ(MSG_OpenLocal("tool"), MSG_OK);
    uint32_t address = 0;
    ASSERT_EQ(MSG_OpenRemoteSync("tool", "svc", 5000, &address), MSG_OK);
    for (const char* text : {"first", "second"}) {
        ASSERT_EQ(MSG_SendMsg("tool", address, makeMsg(0x001A0000, text)), MSG_OK);
        MSG_Msg* reply = MSG_RecvMsg("tool", 0x001A0001, 5000);
        ASSERT_NE(reply, nullptr);
        EXPECT_EQ(payloadOf(reply), text);
        MSG_Sender sender{};
        ASSERT_EQ(MSG_GetSender(reply, &sender), MSG_OK);
        EXPECT_EQ(sender.address, address);
        EXPECT_EQ(sender.pid, service);
        MSG_ReleaseMsg(reply);
    }
    EXPECT_EQ(reap(service), 0);
}

TEST_F(PeerTest, ConnectWaitsForALateRemote) {
    pid_t service = spawn([] {
        usleep(150 * 1000);
        return serveEcho("late", 1);
    });
    ASSERT_EQ(MSG_OpenLocal("tool"), MSG_OK);
    uint32_t address = 0;
    auto start = Clock::now();
    ASSERT_EQ(MSG_OpenRemoteSync("tool", "late", 5000, &address), MSG_OK);
    EXPECT_GE(msSince(start), 100);
    ASSERT_EQ(MSG_SendMsg("tool", address, makeMsg(1, "hi")), MSG_OK);
    MSG_Msg* reply = MSG_RecvMsg("tool", 2, 5000);
    EXPECT_NE(reply, nullptr);
    MSG_ReleaseMsg(reply);
    EXPECT_EQ(reap(service), 0);
}

TEST_F(PeerTest, DeathOfTheRemoteEndsTheReceiveAtOnce) {
    pid_t service = spawn([] {
        if (MSG_OpenLocal("svc") != MSG_OK) {
            return 10;
        }
        MSG_Msg* request = MSG_RecvAny("svc", 5000);
        _exit(request ? 0 : 11);  // dies without answering
    });
    ASSERT_EQ(MSG_OpenLocal("tool"), MSG_OK);
    uint32_t address = 0;
    ASSERT_EQ(MSG_OpenRemoteSync("tool", "svc", 5000, &address), MSG_OK);
    ASSERT_EQ(MSG_SendMsg("tool", address, makeMsg(1, "anyone?")), MSG_OK);
    auto start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("tool", 2, 10000), nullptr);
    EXPECT_LT(msSince(start), 3000);
    EXPECT_EQ(reap(service), 0);
    EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(1, "gone")), MSG_ERR_NO_ROUTE);
}

TEST_F(PeerTest, NamesClashWhileLiveAndStaleSocketsAreReclaimed) {
    ASSERT_EQ(MSG_OpenLocal("mine"), MSG_OK);
    EXPECT_EQ(MSG_OpenLocal("mine"), MSG_ERR_NAME_IN_USE) << "same process";

    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = spawn([&] {
        char status = static_cast<char>(MSG_OpenLocal("held") == MSG_OK ? 'y' : 'n');
        EXPECT_EQ(write(ready[1], &status, 1), 1);
        pause();
        return 0;
    });
    char status = 0;
    ASSERT_EQ(read(ready[0], &status, 1), 1);
    ASSERT_EQ(status, 'y');
    EXPECT_EQ(MSG_OpenLocal("held"), MSG_ERR_NAME_IN_USE) << "another live process";

    kill(holder, SIGKILL);  // leaves its socket file behind
    reap(holder);
    children_.clear();
    EXPECT_EQ(MSG_OpenLocal("held"), MSG_OK) << "stale socket reclaimed";

    std::ofstream(socketPath("plainfile")) << "keep me";
    EXPECT_EQ(MSG_OpenLocal("plainfile"), MSG_ERR_NAME_IN_USE);
    std::ifstream kept(socketPath("plainfile"));
    std::string text;
    std::getline(kept, text);
    EXPECT_EQ(text, "keep me");
    close(ready[0]);
    close(ready[1]);
}

// A socket file at `path` that nobody listens on, as a process that died leaves it.
void leaveStaleSocket(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
}

TEST_F(PeerTest, ProcessesRacingForANameLeaveExactlyOneWinner) {
    const int kContenders = 8;
    for (bool stale : {false, true}) {
        SCOPED_TRACE(stale ? "stale socket in the way" : "free name");
        std::string name = stale ? "reclaimed" : "fresh";
        if (stale) {
            leaveStaleSocket(socketPath(name));
        }
        int go[2], results[2];
        ASSERT_EQ(pipe(go), 0);
        ASSERT_EQ(pipe(results), 0);
        for (int i = 0; i < kContenders; i++) {
            spawn([&] {
                char start;
                if (read(go[0], &start, 1) != 1) {
                    return 1;
                }
                int status = MSG_OpenLocal(name.c_str());
                EXPECT_EQ(write(results[1], &status, sizeof(status)), (ssize_t)sizeof(status));
                pause();  // keeps a winning endpoint open
                return 0;
            });
        }
        std::string starts(kContenders, 'g');
        ASSERT_EQ(write(go[1], starts.data(), starts.size()), (ssize_t)starts.size());
        int winners = 0;
        for (int i = 0; i < kContenders; i++) {
            int status = -1;
            ASSERT_EQ(read(results[0], &status, sizeof(status)), (ssize_t)sizeof(status));
            if (status == MSG_OK) {
                winners++;
            } else {
                EXPECT_EQ(status, MSG_ERR_NAME_IN_USE);
            }
        }
        EXPECT_EQ(winners, 1);
        int client = rawConnect(name);
        EXPECT_GE(client, 0) << "the winner's socket is the one in place";
        close(client);
        for (int fd : {go[0], go[1], results[0], results[1]}) {
            close(fd);
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir_)) {
        EXPECT_EQ(entry.path().filename().string().rfind(".tmp-", 0), std::string::npos)
            << "temporary name left behind: " << entry.path();
    }
}

TEST_F(PeerTest, SenderCredentialsComeFromTheKernel) {
    ASSERT_EQ(chmod(dir_.c_str(), 01777), 0);  // the child must be able to open its endpoint
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    // As root the child takes other ids, so that a mix-up with ours cannot pass.
    const uid_t uid = geteuid() == 0 ? 65534 : geteuid();
    const gid_t gid = geteuid() == 0 ? 65534 : getegid();
    pid_t client = spawn([&] {
        if (geteuid() == 0 &&
            (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0)) {
            return 20;
        }
        uint32_t address = 0;
        if (MSG_OpenLocal("client") != MSG_OK ||
            MSG_OpenRemoteSync("client", "svc", 5000, &address) != MSG_OK) {
            return 21;
        }
        return MSG_SendMsg("client", address, makeMsg(3, "who am I")) == MSG_OK ? 0 : 22;
    });
    MSG_Msg* msg = MSG_RecvAny("svc", 5000);
    ASSERT_NE(msg, nullptr) << "client exit status " << reap(client);
    MSG_Sender sender{};
    ASSERT_EQ(MSG_GetSender(msg, &sender), MSG_OK);
    EXPECT_EQ(sender.pid, client);
    EXPECT_EQ(sender.uid, uid);
    EXPECT_EQ(sender.gid, gid);
    EXPECT_NE(sender.address, 0u);
    MSG_ReleaseMsg(msg);
    EXPECT_EQ(reap(client), 0);
}

// True when the library closed its end of `fd` (reads end-of-file) within a second.
bool disconnected(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    char byte;
    return poll(&pfd, 1, 1000) == 1 && recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

TEST_F(PeerTest, MisbehavingPeersAreCutOffAndOthersGoOn) {
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    struct Case {
        const char* what;
        std::string bytes;
        bool closeAfter;
    };
    const Case cases[] = {
        {"bad magic", frameHeader(0x12345678, 1, 4) + "abcd", false},
        {"reserved word set", frameHeader(kWireMagic, 1, 4, 1) + "abcd", false},
        {"oversized length", frameHeader(kWireMagic, 1, MSG_MAX_PAYLOAD_BYTES + 1), false},
        {"truncated frame", frameHeader(kWireMagic, 1, 100) + "only part", true},
        {"truncated header", frameHeader(kWireMagic, 1, 100).substr(0, 7), true},
    };
    // Half a frame and then silence: must not hold up anybody.
    int silent = rawConnect("svc");
    ASSERT_GE(silent, 0);
    std::string half = frameHeader(kWireMagic, 1, 50) + "half";
    ASSERT_EQ(send(silent, half.data(), half.size(), 0), static_cast<ssize_t>(half.size()));

    for (const Case& c : cases) {
        int bad = rawConnect("svc");
        int good = rawConnect("svc");
        ASSERT_GE(bad, 0);
        ASSERT_GE(good, 0);
        ASSERT_EQ(send(bad, c.bytes.data(), c.bytes.size(), 0),
                  static_cast<ssize_t>(c.bytes.size()));
        if (c.closeAfter) {
            shutdown(bad, SHUT_WR);
        }
        std::string fine = frameHeader(kWireMagic, 9, 2) + "ok";
        ASSERT_EQ(send(good, fine.data(), fine.size(), 0), static_cast<ssize_t>(fine.size()));
        MSG_Msg* msg = MSG_RecvAny("svc", 2000);
        ASSERT_NE(msg, nullptr) << c.what;
        EXPECT_EQ(MSG_GetMsgId(msg), 9u) << c.what;
        EXPECT_EQ(payloadOf(msg), "ok") << c.what;
        MSG_ReleaseMsg(msg);
        EXPECT_EQ(MSG_RecvAny("svc", 20), nullptr) << c.what << ": nothing made up";
        EXPECT_TRUE(disconnected(bad)) << c.what;
        close(bad);
        close(good);
    }
    pollfd pfd{silent, POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0) << "a slow peer is not a bad one";
    close(silent);
}

TEST_F(PeerTest, ClientThatDoesNotReadIsDroppedNotWaitedFor) {
    setenv(MSG_MAX_WAIT_ENV, "200", 1);
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    int deaf = rawConnect("svc");
    ASSERT_GE(deaf, 0);
    std::string hello = frameHeader(kWireMagic, 1, 0);
    ASSERT_EQ(send(deaf, hello.data(), hello.size(), 0), static_cast<ssize_t>(hello.size()));
    MSG_Msg* request = MSG_RecvAny("svc", 2000);
    MSG_Sender sender{};
    ASSERT_EQ(MSG_GetSender(request, &sender), MSG_OK);
    MSG_ReleaseMsg(request);

    auto start = Clock::now();
    MSG_Msg* huge = MSG_AllocMsg(2, 0, MSG_MAX_PAYLOAD_BYTES);
    EXPECT_EQ(MSG_SendMsg("svc", sender.address, huge), MSG_ERR_TIMEOUT);
    EXPECT_LT(msSince(start), 3000);
    EXPECT_EQ(MSG_SendMsg("svc", sender.address, makeMsg(2, "")), MSG_ERR_NO_ROUTE);
    close(deaf);

    pid_t client = spawn([] {
        uint32_t address = 0;
        if (MSG_OpenLocal("other") != MSG_OK ||
            MSG_OpenRemoteSync("other", "svc", 2000, &address) != MSG_OK ||
            MSG_SendMsg("other", address, makeMsg(5, "still served")) != MSG_OK) {
            return 1;
        }
        return MSG_RecvMsg("other", 6, 2000) ? 0 : 2;
    });
    MSG_Msg* next = MSG_RecvAny("svc", 2000);
    ASSERT_NE(next, nullptr);
    ASSERT_EQ(MSG_GetSender(next, &sender), MSG_OK);
    EXPECT_EQ(MSG_SendMsg("svc", sender.address, makeMsg(6, payloadOf(next))), MSG_OK);
    MSG_ReleaseMsg(next);
    EXPECT_EQ(reap(client), 0);
}

}  // namespace

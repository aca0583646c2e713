// libmsgpass through its public header. Each test has its own endpoint directory; peers run in
// child processes, or as plain sockets that write the wire format by hand.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "msgpass.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kWireMagic = 0x0001504du;

long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

MSG_Msg* makeMsg(uint32_t id, const std::string& bytes, int flags = 0) {
    MSG_Msg* msg = MSG_AllocMsg(id, flags, static_cast<uint32_t>(bytes.size()));
    if (msg && !bytes.empty())
        memcpy(MSG_GetPayloadMutable(msg), bytes.data(), bytes.size());
    return msg;
}

// "(none)" for a null handle, so that a missing message fails the comparison.
std::string payloadOf(const MSG_Msg* msg) {
    const char* bytes = static_cast<const char*>(MSG_GetPayload(msg));
    return bytes ? std::string(bytes, MSG_GetPayloadBytes(msg)) : "(none)";
}

// A wire header: magic and version, id, payload length, reserved word; each little-endian.
std::string frameHeader(uint32_t magic, uint32_t id, uint32_t length, uint32_t reserved = 0) {
    std::string header;
    for (uint32_t word : {magic, id, length, reserved})
        for (int shift = 0; shift < 32; shift += 8)
            header.push_back(static_cast<char>(word >> shift));
    return header;
}

std::string frame(uint32_t id, const std::string& payload) {
    return frameHeader(kWireMagic, id, static_cast<uint32_t>(payload.size())) + payload;
}

void sendRaw(int fd, const std::string& bytes) {
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), (ssize_t)bytes.size());
}

// Reads `fd` until `size` bytes came. Whenever nothing more is there it runs `pump`, which says
// whether to go on; without one it gives up after a second of silence.
std::string readAll(int fd, size_t size, const std::function<bool()>& pump = nullptr) {
    std::string got;
    static char buffer[64 * 1024];
    for (int round = 0; round < 500 && got.size() < size; round++) {
        for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;)
            got.append(buffer, static_cast<size_t>(n));
        pollfd pfd{fd, POLLIN, 0};
        if (got.size() < size && (pump ? !pump() : poll(&pfd, 1, 1000) != 1))
            break;
    }
    return got;
}

// True when the library closes its end of `fd`, after whatever it had sent, within a second.
bool seesEndOfFile(int fd) {
    readAll(fd, SIZE_MAX);
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

// Address of the sender of the next message at `endpoint`, or 0.
uint32_t senderOfNext(const char* endpoint) {
    MSG_Msg* msg = MSG_RecvAny(endpoint, 2000);
    MSG_Sender sender{};
    MSG_GetSender(msg, &sender);
    MSG_ReleaseMsg(msg);
    return sender.address;
}

class MsgPassTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/msgpass-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        setenv(MSG_DIR_ENV, dir_.c_str(), 1);
        unsetenv(MSG_MAX_WAIT_ENV);
    }
    void TearDown() override {
        MSG_CloseLocal(nullptr);
        for (pid_t pid : children_)
            kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
        std::filesystem::remove_all(dir_);
    }

    // Runs `body` in a child process; its result becomes the child's exit status.
    pid_t spawn(const std::function<int()>& body) {
        pid_t pid = fork();
        if (pid == 0)
            _exit(body());
        children_.push_back(pid);
        return pid;
    }

    std::string socketPath(const std::string& name) const { return dir_ + "/" + name; }
    // A Unix socket connected (or only bound) to the path of endpoint `name`, or -1.
    int unixSocket(const std::string& name, bool bindOnly = false) const {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{AF_UNIX, {}};
        const std::string path = socketPath(name);
        memcpy(addr.sun_path, path.c_str(), std::min(path.size() + 1, sizeof(addr.sun_path)));
        auto* any = reinterpret_cast<sockaddr*>(&addr);
        if ((bindOnly ? bind(fd, any, sizeof(addr)) : connect(fd, any, sizeof(addr))) == 0)
            return fd;
        close(fd);
        return -1;
    }
    // A plain-socket client of `name`, known to it by the address of a first, empty message.
    int rawPeer(const char* name, uint32_t* address) {
        int fd = unixSocket(name);
        sendRaw(fd, frame(1, ""));
        *address = senderOfNext(name);
        EXPECT_NE(*address, 0u);
        return fd;
    }
    // Opens "server" and "client" here; the client connects and says hello, so that each knows
    // the other's address.
    void connectPair() {
        ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
        ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
        ASSERT_EQ(MSG_OpenRemoteSync("client", "server", 1000, &toServer_), MSG_OK);
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(1, "hello")), MSG_OK);
        toClient_ = senderOfNext("server");
        ASSERT_NE(toClient_, 0u);
    }

    std::string dir_;
    std::vector<pid_t> children_;
    uint32_t toServer_ = 0, toClient_ = 0;
};

// ---- The contract as one process sees it ----

TEST_F(MsgPassTest, BadArgumentsGiveTheirStatus) {
    const std::string longest(MSG_MAX_NAME_BYTES, 'n'), tooLong = longest + "n";
    std::ofstream(socketPath("plain")) << "keep me";
    MSG_Msg* unsent = makeMsg(7, "never received");
    MSG_Sender sender;
    uint32_t address = 0;
    // Evaluated in order: the rows before "open" run with no endpoint open.
    const std::tuple<const char*, int, int> rows[] = {
        {"close all, none open", MSG_CloseLocal(nullptr), MSG_ERR_NOT_OPEN},
        {"close unknown", MSG_CloseLocal("nobody"), MSG_ERR_NOT_OPEN},
        {"send before open", MSG_SendMsg("me", 1, makeMsg(1, "x")), MSG_ERR_NOT_OPEN},
        {"connect before open", MSG_OpenRemoteSync("me", "you", 0, &address), MSG_ERR_NOT_OPEN},
        {"poll fd before open", MSG_GetPollFd("me"), -1},
        {"open null", MSG_OpenLocal(nullptr), MSG_ERR_BAD_ARG},
        {"open empty", MSG_OpenLocal(""), MSG_ERR_BAD_NAME},
        {"open too long", MSG_OpenLocal(tooLong.c_str()), MSG_ERR_BAD_NAME},
        {"open with slash", MSG_OpenLocal("a/b"), MSG_ERR_BAD_NAME},
        {"open dot-dot path", MSG_OpenLocal("../x"), MSG_ERR_BAD_NAME},
        {"open dot", MSG_OpenLocal("."), MSG_ERR_BAD_NAME},
        {"open dot-dot", MSG_OpenLocal(".."), MSG_ERR_BAD_NAME},
        {"open the lock file's name", MSG_OpenLocal(".lock"), MSG_ERR_BAD_NAME},
        {"open over a plain file", MSG_OpenLocal("plain"), MSG_ERR_NAME_IN_USE},
        {"debug name null", MSG_DebugSetName(nullptr), MSG_ERR_BAD_ARG},
        {"debug name slash", MSG_DebugSetName("x/y"), MSG_ERR_BAD_NAME},
        {"release null", MSG_ReleaseMsg(nullptr), MSG_ERR_BAD_ARG},
        {"send null handle", MSG_SendMsg("me", 1, nullptr), MSG_ERR_BAD_ARG},
        {"send from null name", MSG_SendMsg(nullptr, 1, makeMsg(1, "")), MSG_ERR_BAD_ARG},
        {"sender of null", MSG_GetSender(nullptr, nullptr), MSG_ERR_BAD_ARG},
        {"sender of unreceived", MSG_GetSender(unsent, &sender), MSG_ERR_BAD_ARG},
        {"payload bytes of null", MSG_GetPayloadBytes(nullptr), -1},
        {"id of null", static_cast<int>(MSG_GetMsgId(nullptr)), 0},
        {"longest name", MSG_OpenLocal(longest.c_str()), MSG_OK},
        {"open", MSG_OpenLocal("me"), MSG_OK},
        {"open twice", MSG_OpenLocal("me"), MSG_ERR_NAME_IN_USE},
        {"unknown address", MSG_SendMsg("me", 12345, makeMsg(1, "x")), MSG_ERR_NO_ROUTE},
        {"address zero", MSG_SendMsg("me", 0, makeMsg(1, "")), MSG_ERR_NO_ROUTE},
        {"null address out", MSG_OpenRemoteSync("me", "you", 0, nullptr), MSG_ERR_BAD_ARG},
        {"bad remote name", MSG_OpenRemoteSync("me", "", 0, &address), MSG_ERR_BAD_NAME},
        {"debug name", MSG_DebugSetName("me"), MSG_OK},
        {"close", MSG_CloseLocal("me"), MSG_OK},
        {"close twice", MSG_CloseLocal("me"), MSG_ERR_NOT_OPEN},
    };
    for (const auto& [what, got, expected] : rows)
        EXPECT_EQ(got, expected) << what;
    EXPECT_EQ(MSG_RecvMsg("me", 1, 0), nullptr);
    EXPECT_EQ(MSG_RecvAny(nullptr, 0), nullptr);
    EXPECT_EQ(MSG_GetPayload(nullptr), nullptr);
    EXPECT_EQ(MSG_GetPayloadMutable(nullptr), nullptr);
    for (int flags : {2, MSG_SEND_NOWAIT | 0x100, -1})
        EXPECT_EQ(MSG_AllocMsg(1, flags, 10), nullptr) << "unknown flags " << flags;
    EXPECT_EQ(MSG_AllocMsg(1, 0, MSG_MAX_PAYLOAD_BYTES + 1), nullptr);
    MSG_ReleaseMsg(unsent);
    std::string kept;
    std::getline(std::ifstream(socketPath("plain")), kept);
    EXPECT_EQ(kept, "keep me");
}

TEST_F(MsgPassTest, PayloadsTravelIntactAndOtherIdsWaitInArrivalOrder) {
    connectPair();
    for (uint32_t size : {0u, 1u, 64u * 1024u + 3u, MSG_MAX_PAYLOAD_BYTES}) {
        std::string bytes(size, '\0');
        for (uint32_t i = 0; i < size; i++)
            bytes[i] = static_cast<char>(i * 7 + i / 251);
        // A 16 MiB send cannot complete before someone reads, so the receiver runs alongside.
        MSG_Msg* got = nullptr;
        std::thread receiver([&] { got = MSG_RecvMsg("server", size, 5000); });
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(size, bytes)), MSG_OK) << size;
        receiver.join();
        EXPECT_EQ(MSG_GetPayloadBytes(got), static_cast<int>(size));
        EXPECT_TRUE(payloadOf(got) == bytes) << "payload of " << size << " bytes differs";
        MSG_ReleaseMsg(got);
    }
    for (auto [id, text] : {std::pair{1, "a1"}, {2, "b1"}, {1, "a2"}, {3, "c1"}, {2, "b2"}})
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(id, text)), MSG_OK);
    // Id 0: whatever MSG_RecvAny takes next.
    for (auto [id, text] : {std::pair{3u, "c1"}, {2u, "b1"}, {0u, "a1"}, {0u, "a2"}, {0u, "b2"}}) {
        MSG_Msg* msg = id ? MSG_RecvMsg("server", id, 1000) : MSG_RecvAny("server", 1000);
        EXPECT_EQ(payloadOf(msg), text);
        MSG_ReleaseMsg(msg);
    }
}

TEST_F(MsgPassTest, WaitsEndByTimeOutByTheCapOrByClose) {
    connectPair();
    auto start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("server", 1, 80), nullptr);
    EXPECT_GE(msSince(start), 75);
    EXPECT_EQ(MSG_RecvAny("server", 0), nullptr);

    setenv(MSG_MAX_WAIT_ENV, "60", 1);
    start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("server", 1, -1), nullptr) << "forever, capped";
    uint32_t address = 0;
    EXPECT_EQ(MSG_OpenRemoteSync("client", "absent", 10000, &address), MSG_ERR_TIMEOUT);
    EXPECT_LT(msSince(start), 2000);

    // No cap, and one too large to add to the clock: either way the receivers, the leader and
    // one waiting for its turn, sleep until the endpoint closes.
    for (const char* cap : {"", "9223372036854775806"}) {
        setenv(MSG_MAX_WAIT_ENV, cap, 1);
        MSG_CloseLocal("server");
        ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
        start = Clock::now();
        auto receive = [] { EXPECT_EQ(MSG_RecvAny("server", -1), nullptr); };
        std::thread leader(receive), waiter(receive);
        const std::clock_t cpuBefore = std::clock();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_LT(std::clock() - cpuBefore, CLOCKS_PER_SEC / 20) << "cap '" << cap << "': spins";
        EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
        leader.join();
        waiter.join();
        EXPECT_LT(msSince(start), 2000) << "cap '" << cap << "': closing did not wake them";
    }
}

// Descriptors used up elsewhere in the process: the service, with no connection of its own to
// lose, accepts its client once there are descriptors again.
TEST_F(MsgPassTest, AcceptingResumesAfterRunningOutOfDescriptors) {
    ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
    ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 256);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> hogs;
    for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0; fd = dup(fd))
        hogs.push_back(fd);
    close(hogs.back());  // room for the client's socket, none for the server's end of it
    hogs.pop_back();
    uint32_t address = 0;  // a local: even the sanitizer's type checks need descriptors
    EXPECT_EQ(MSG_OpenRemoteSync("client", "server", 0, &address), MSG_OK);
    EXPECT_EQ(MSG_SendMsg("client", address, makeMsg(1, "hello")), MSG_OK);
    EXPECT_EQ(MSG_RecvAny("server", 50), nullptr) << "accepted without a descriptor";
    for (int fd : hogs)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);
    MSG_Msg* msg = MSG_RecvAny("server", 2000);
    EXPECT_EQ(payloadOf(msg), "hello");
    MSG_ReleaseMsg(msg);
}

TEST_F(MsgPassTest, ConcurrentSendersNeverInterleave) {
    connectPair();
    constexpr int kThreads = 4, kEach = 60;
    constexpr uint32_t kDoneId = 99;
    const int modes[][kThreads] = {{0, 0, 0, 0}, {MSG_SEND_NOWAIT, 0, MSG_SEND_NOWAIT, 0}};
    for (const auto& flags : modes) {
        // The server's receive loop runs meanwhile, writing what the senders left queued.
        std::thread pump([] { MSG_ReleaseMsg(MSG_RecvMsg("server", kDoneId, 10000)); });
        std::vector<std::thread> senders;
        for (int t = 0; t < kThreads; t++) {
            senders.emplace_back([this, t, f = flags[t]] {
                // Frames that take several writes tear if two threads write at once, and varied
                // sizes make a tear shift every later frame. Queued ones stay within the bound.
                for (int i = 0; i < kEach; i++) {
                    std::string text = std::to_string(t) + ":" + std::to_string(i) +
                                       std::string((i % 5) * (f ? 5000u : 60000u), '.');
                    ASSERT_EQ(MSG_SendMsg("server", toClient_, makeMsg(40 + t, text, f)), MSG_OK);
                }
            });
        }
        std::vector<int> next(kThreads, 0);
        for (int n = 0; n < kThreads * kEach; n++) {
            MSG_Msg* msg = MSG_RecvAny("client", 5000);
            int t = static_cast<int>(MSG_GetMsgId(msg)) - 40;
            if (!msg || t < 0 || t >= kThreads) {
                ADD_FAILURE() << "no well-formed message after " << n;
                break;
            }
            std::string prefix = std::to_string(t) + ":" + std::to_string(next[t]++);
            EXPECT_EQ(payloadOf(msg).substr(0, prefix.size()), prefix);
            MSG_ReleaseMsg(msg);
        }
        for (auto& sender : senders)
            sender.join();
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(kDoneId, "")), MSG_OK);
        pump.join();
    }
}

TEST_F(MsgPassTest, EndpointDirectoryAndSocketFiles) {
    std::ofstream(dir_ + "/plain") << "not a directory";
    ASSERT_EQ(symlink((dir_ + "/made").c_str(), (dir_ + "/link").c_str()), 0);
    ASSERT_EQ(symlink((dir_ + "/nowhere").c_str(), (dir_ + "/dangling").c_str()), 0);
    // Directories whose socket path "<dir>/probe" takes the whole socket address, or one more.
    const std::string longest = "/" + std::string(101 - dir_.size() - 1, 'd');
    const std::string tooLong = longest + "d";
    // "/made" is created; only one level is.
    const std::pair<std::string, int> dirs[] = {{"/made", MSG_OK},
                                                {"/made/", MSG_OK},
                                                {"/link", MSG_OK},
                                                {longest, MSG_OK},
                                                {tooLong, MSG_ERR_NO_DIR},
                                                {"/plain", MSG_ERR_NO_DIR},
                                                {"/dangling", MSG_ERR_NO_DIR},
                                                {"/missing/deeper", MSG_ERR_NO_DIR}};
    for (const auto& [dir, expected] : dirs) {
        setenv(MSG_DIR_ENV, (dir_ + dir).c_str(), 1);
        EXPECT_EQ(MSG_OpenLocal("probe"), expected) << dir;
        uint32_t address = 0;
        if (expected == MSG_OK && MSG_OpenLocal("c") == MSG_OK) {
            EXPECT_EQ(MSG_OpenRemoteSync("c", "probe", 0, &address), MSG_OK) << dir;
        }
        MSG_CloseLocal(nullptr);
    }
    setenv(MSG_DIR_ENV, dir_.c_str(), 1);

    ASSERT_EQ(MSG_OpenLocal("server"), MSG_OK);
    ASSERT_EQ(MSG_OpenLocal("other"), MSG_OK);
    struct stat st {};
    ASSERT_EQ(stat(socketPath("server").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u) << "connectable by every user";
    EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
    EXPECT_NE(stat(socketPath("server").c_str(), &st), 0) << "removed on close";
    // Someone removed the file of "other" and bound a socket of their own under the name.
    ASSERT_EQ(unlink(socketPath("other").c_str()), 0);
    int theirs = unixSocket("other", true);
    EXPECT_EQ(MSG_CloseLocal(nullptr), MSG_OK);
    EXPECT_EQ(stat(socketPath("other").c_str(), &st), 0) << "their socket's file stays";
    close(theirs);
}

// ---- Endpoints in separate processes ----

class PeerTest : public MsgPassTest {};

// Comes up late, as uid and gid 65534 when run as root (so that a mix-up of the two ends' ids
// cannot pass); answers `count` requests with id + 1 and the same payload, each reply sent from a
// thread other than the receiving one; then takes one more request and dies without answering.
// Exit status 0, or 20 and up for a fault.
int serveEchoThenDie(int count) {
    const uid_t requesterUid = geteuid();
    usleep(150 * 1000);
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
        return 20;
    if (MSG_OpenLocal("svc") != MSG_OK)
        return 21;
    for (int i = 0;; i++) {
        MSG_Msg* request = MSG_RecvAny("svc", 5000);
        MSG_Sender from;
        if (MSG_GetSender(request, &from) != MSG_OK)
            return 22;
        if (from.pid != getppid() || from.uid != requesterUid)
            return 23;
        if (i == count)
            return 0;
        MSG_Msg* reply = makeMsg(MSG_GetMsgId(request) + 1, payloadOf(request));
        MSG_ReleaseMsg(request);
        int status = MSG_ERR_SYSTEM;
        std::thread([&] { status = MSG_SendMsg("svc", from.address, reply); }).join();
        if (status != MSG_OK)
            return 24;
    }
}

TEST_F(PeerTest, RequestAndResponseWithALateRemoteThatThenDies) {
    const uint32_t kRequest = 0x001A0000, kResponse = 0x001A0001;
    const uid_t uid = geteuid() == 0 ? 65534 : geteuid();
    const gid_t gid = geteuid() == 0 ? 65534 : getegid();
    ASSERT_EQ(chmod(dir_.c_str(), 01777), 0);
    const pid_t service = spawn([] { return serveEchoThenDie(2); });
    ASSERT_EQ(MSG_OpenLocal("tool"), MSG_OK);
    uint32_t address = 0;
    auto start = Clock::now();
    ASSERT_EQ(MSG_OpenRemoteSync("tool", "svc", 5000, &address), MSG_OK);
    EXPECT_GE(msSince(start), 100) << "connected before the service was there";
    // A receiver of another id waits alongside: it must leave the replies to their receiver.
    MSG_Msg* other = nullptr;
    std::thread otherWaiter([&] { other = MSG_RecvMsg("tool", 9, 2000); });
    for (const char* text : {"first", "second"}) {
        EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(kRequest, text)), MSG_OK);
        MSG_Msg* reply = MSG_RecvMsg("tool", kResponse, 5000);
        EXPECT_EQ(payloadOf(reply), text);
        MSG_Sender from{};
        EXPECT_EQ(MSG_GetSender(reply, &from), MSG_OK);
        EXPECT_EQ(std::tie(from.address, from.pid, from.uid, from.gid),
                  std::tie(address, service, uid, gid));
        MSG_ReleaseMsg(reply);
    }
    EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(kRequest, "anyone?")), MSG_OK);
    start = Clock::now();
    EXPECT_EQ(MSG_RecvMsg("tool", kResponse, 10000), nullptr);
    EXPECT_LT(msSince(start), 3000) << "the death of the service was not seen at once";
    otherWaiter.join();
    EXPECT_EQ(other, nullptr);
    int status = -1;
    EXPECT_EQ(waitpid(service, &status, 0), service);
    EXPECT_EQ(status, 0) << "service exit status " << WEXITSTATUS(status);
    EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(kRequest, "gone")), MSG_ERR_NO_ROUTE);
}

// Covers a name held by another live process and the socket file left by one that died, too.
TEST_F(PeerTest, ProcessesRacingForANameLeaveExactlyOneWinner) {
    const int kContenders = 8;
    for (const std::string name : {"fresh", "stale"}) {
        if (name == "stale")
            close(unixSocket(name, true));  // bound, not listening: what a dead process leaves
        int go[2], results[2];
        ASSERT_EQ(pipe(go) | pipe(results), 0);
        for (int i = 0; i < kContenders; i++) {
            spawn([&] {
                char start;
                int status = read(go[0], &start, 1) == 1 ? MSG_OpenLocal(name.c_str()) : -1;
                if (write(results[1], &status, sizeof(status)) == sizeof(status))
                    pause();  // keeps a winning endpoint open
                return 1;
            });
        }
        ASSERT_EQ(write(go[1], std::string(kContenders, 'g').data(), kContenders), kContenders);
        std::map<int, int> outcomes;
        for (int i = 0, status; i < kContenders; i++) {
            ASSERT_EQ(read(results[0], &status, sizeof(status)), (ssize_t)sizeof(status));
            outcomes[status]++;
        }
        const std::map<int, int> oneWinner{{MSG_OK, 1}, {MSG_ERR_NAME_IN_USE, kContenders - 1}};
        EXPECT_EQ(outcomes, oneWinner) << name;
        int client = unixSocket(name);
        EXPECT_GE(client, 0) << name << ": the winner's socket is the one in place";
        for (int fd : {client, go[0], go[1], results[0], results[1]})
            close(fd);
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir_))
        EXPECT_NE(entry.path().filename().string().rfind(".tmp-", 0), 0u) << entry.path();
}

// ---- Sends that never wait: a peer that does not read holds up neither its sender nor others ----

class NoWaitTest : public MsgPassTest {};

// Queues frames for `to` from "svc" while the peer reads nothing: about 2 MiB, far more than a
// socket buffers and well within the queue's bound. Returns the bytes the peer must read; sizes
// and contents vary, so that a torn, lost or repeated frame shows in all that follows.
std::string queueStream(uint32_t to) {
    std::string wire;
    auto start = Clock::now();
    for (uint32_t i = 0; i < 40; i++) {
        std::string payload(i % 7 * 9000 + 40000, '\0');
        for (size_t k = 0; k < payload.size(); k++)
            payload[k] = static_cast<char>(i * 31 + k);
        wire += frame(100 + i, payload);
        EXPECT_EQ(MSG_SendMsg("svc", to, makeMsg(100 + i, payload, MSG_SEND_NOWAIT)), MSG_OK);
    }
    EXPECT_LT(msSince(start), 1000) << "the sends waited for a peer that does not read";
    return wire;
}

// What the socket did not take goes out as the peer reads: written by the receive loop of a
// service that polls the descriptor of MSG_GetPollFd, or else by the next send that waits.
TEST_F(NoWaitTest, QueuedFramesArriveInOrderAsThePeerReads) {
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    pollfd service{MSG_GetPollFd("svc"), POLLIN, 0};
    ASSERT_GE(service.fd, 0);
    EXPECT_EQ(poll(&service, 1, 0), 0);
    int peer = unixSocket("svc");
    sendRaw(peer, frame(1, ""));
    EXPECT_EQ(poll(&service, 1, 1000), 1) << "a new client with a message must wake the service";
    const uint32_t toPeer = senderOfNext("svc");
    EXPECT_EQ(MSG_RecvAny("svc", 0), nullptr);
    std::string wire = queueStream(toPeer);
    EXPECT_EQ(poll(&service, 1, 0), 0) << "nothing to do while the client reads nothing";
    int wakeups = 0;
    auto serviceLoop = [&] {
        wakeups++;
        EXPECT_EQ(poll(&service, 1, 1000), 1) << "room in the socket must wake the service";
        return MSG_RecvAny("svc", 0) == nullptr && !HasFailure();
    };
    EXPECT_TRUE(readAll(peer, wire.size(), serviceLoop) == wire) << "the frames differ";
    EXPECT_GT(wakeups, 0);

    // Nobody runs the receive loop now: a send that waits writes the queue before its own frame.
    wire = queueStream(toPeer) + frame(7, "last");
    int status = -1;
    std::thread waiter([&] { status = MSG_SendMsg("svc", toPeer, makeMsg(7, "last")); });
    EXPECT_TRUE(readAll(peer, wire.size()) == wire) << "the frames differ";
    waiter.join();
    EXPECT_EQ(status, MSG_OK);
    close(peer);
}

// A client whose requests pile up unclaimed is no longer read, but its answers still go out.
TEST_F(NoWaitTest, QueuedFramesGoOutWhileThePeersInputIsPaused) {
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    int peer = unixSocket("svc");
    std::string requests;
    for (int i = 0; i < 5000; i++)  // more unclaimed messages than one connection may have
        requests += frame(1, "");
    sendRaw(peer, requests);
    constexpr uint32_t kNeverSent = 777;
    EXPECT_EQ(MSG_RecvMsg("svc", kNeverSent, 100), nullptr);  // reads until it pauses
    const std::string wire = queueStream(senderOfNext("svc"));
    // The receive loop writes the queue.
    auto pump = [] { return MSG_RecvMsg("svc", kNeverSent, 10) == nullptr; };
    EXPECT_TRUE(readAll(peer, wire.size(), pump) == wire) << "the frames differ";
    close(peer);
}

// A peer that writes what is not a frame, or that never reads what the service sends it, is cut
// off at once, without a word from the others; the service's other peers go on.
TEST_F(NoWaitTest, BadPeersAreCutOffAndSpareTheOthers) {
    constexpr uint32_t kQueue = MSG_SEND_QUEUE_BYTES, kMax = MSG_MAX_PAYLOAD_BYTES;
    setenv(MSG_MAX_WAIT_ENV, "200", 1);  // caps the stall of a send that waits
    ASSERT_EQ(MSG_OpenLocal("svc"), MSG_OK);
    uint32_t toGood = 0, toBad = 0;
    int good = rawPeer("svc", &toGood);
    // Half a frame and then silence: a slow peer, which must hold up nobody.
    int slow = unixSocket("svc");
    sendRaw(slow, frameHeader(kWireMagic, 1, 50) + "half");
    const struct {
        const char* what;
        std::string writes;  // what the bad peer writes, after a good first frame
        bool stopsWriting = false;
        int flags = 0;  // else the service sends it payloads of `bytes` until refused
        uint32_t bytes = 0;
        size_t least = 0, most = 0;  // payload taken before the refusal, the socket's buffer too
        int refusal = MSG_OK;
    } cases[] = {
        {"bad magic", frameHeader(0x12345678, 1, 4) + "abcd"},
        {"reserved word set", frameHeader(kWireMagic, 1, 4, 1) + "abcd"},
        {"oversized length", frameHeader(kWireMagic, 1, kMax + 1)},
        {"truncated frame", frameHeader(kWireMagic, 1, 100) + "only part", true},
        {"truncated header", frameHeader(kWireMagic, 1, 100).substr(0, 7), true},
        {"unread small messages", "", 0, MSG_SEND_NOWAIT, 1000, kQueue * 3 / 4, kQueue * 2,
         MSG_ERR_QUEUE_FULL},
        {"unread message over the bound", "", 0, MSG_SEND_NOWAIT, kMax, kMax, kMax,
         MSG_ERR_QUEUE_FULL},
        {"a send that waits stalls", "", 0, 0, kMax, 0, 0, MSG_ERR_TIMEOUT},
    };
    for (const auto& c : cases) {
        int bad = rawPeer("svc", &toBad);
        sendRaw(bad, c.writes);
        if (c.stopsWriting)
            shutdown(bad, SHUT_WR);
        const std::string payload(c.bytes, 'z');
        size_t accepted = 0;
        int status = MSG_OK;
        auto start = Clock::now();
        for (; c.bytes && status == MSG_OK && accepted <= 4 * kQueue; accepted += c.bytes)
            status = MSG_SendMsg("svc", toBad, makeMsg(7, payload, c.flags));
        accepted -= c.bytes;  // the refused one
        EXPECT_LT(msSince(start), 2000) << c.what;
        EXPECT_EQ(status, c.refusal) << c.what;
        EXPECT_GE(accepted, c.least) << c.what;
        EXPECT_LE(accepted, c.most) << c.what;

        sendRaw(good, frame(5, "ping"));
        MSG_Msg* request = MSG_RecvAny("svc", 2000);
        EXPECT_EQ(payloadOf(request), "ping") << c.what;
        MSG_ReleaseMsg(request);
        EXPECT_EQ(MSG_RecvAny("svc", 20), nullptr) << c.what << ": nothing made up";
        EXPECT_TRUE(seesEndOfFile(bad)) << c.what << ": the connection was not closed";
        EXPECT_EQ(MSG_SendMsg("svc", toBad, makeMsg(7, "")), MSG_ERR_NO_ROUTE) << c.what;
        close(bad);
        EXPECT_EQ(MSG_SendMsg("svc", toGood, makeMsg(6, "pong", MSG_SEND_NOWAIT)), MSG_OK);
        EXPECT_EQ(readAll(good, 20), frame(6, "pong")) << c.what;
    }
    pollfd pfd{slow, POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0) << "a slow peer is not a bad one";
    close(slow);
    close(good);
}

}  // namespace

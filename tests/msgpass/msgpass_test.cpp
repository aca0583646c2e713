// libmsgpass through its public header. Each test has its own endpoint directory; peers run in
// child processes, or as plain sockets that write the wire format by hand.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Process.h"
#include "TempDir.h"
#include "msgpass.h"

namespace {

using testsupport::monotonicNs;
using testsupport::msSince;

constexpr uint32_t kWireMagic = 0x0001504du, kQueue = MSG_SEND_QUEUE_BYTES,
                   kMax = MSG_MAX_PAYLOAD_BYTES;

MSG_Msg* makeMsg(uint32_t id, const std::string& bytes, int flags = 0) {
    MSG_Msg* msg = MSG_AllocMsg(id, flags, static_cast<uint32_t>(bytes.size()));
    if (msg && !bytes.empty()) {
        memcpy(MSG_GetPayloadMutable(msg), bytes.data(), bytes.size());
    }
    return msg;
}

// Bytes that vary within and between payloads, with no period of 256, so that a torn, shifted,
// lost or repeated piece shows.
std::string patterned(size_t size, uint32_t seed) {
    std::string bytes(size, '\0');
    for (size_t k = 0; k < size; k++) {
        bytes[k] = static_cast<char>(seed * 31 + k * 7 + k / 251);
    }
    return bytes;
}

// The payload of a received message, which is then released: "(none)" for a null handle, and
// "(no sender)" when `from` is wanted and cannot be had, so that either fails a comparison.
std::string take(MSG_Msg* msg, MSG_Sender* from = nullptr) {
    const char* bytes = static_cast<const char*>(MSG_GetPayload(msg));
    std::string payload = bytes ? std::string(bytes, MSG_GetPayloadBytes(msg)) : "(none)";
    if (from && MSG_GetSender(msg, from) != MSG_OK) {
        payload = "(no sender)";
    }
    MSG_ReleaseMsg(msg);
    return payload;
}

// Address of the sender of the next message at `endpoint`, or 0.
uint32_t senderOfNext(const char* endpoint) {
    MSG_Sender sender{};
    take(MSG_RecvAny(endpoint, 2000), &sender);
    return sender.address;
}

// A wire header: magic and version, id, payload length, reserved word; each little-endian.
std::string frameHeader(uint32_t magic, uint32_t id, uint32_t length, uint32_t reserved = 0) {
    std::string header;
    for (uint32_t word : {magic, id, length, reserved}) {
        for (int shift = 0; shift < 32; shift += 8) {
            header.push_back(static_cast<char>(word >> shift));
        }
    }
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
        for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
            got.append(buffer, static_cast<size_t>(n));
        }
        pollfd pfd{fd, POLLIN, 0};
        if (got.size() < size && (pump ? !pump() : poll(&pfd, 1, 1000) != 1)) {
            break;
        }
    }
    return got;
}

// A Unix socket connected (or only bound) to `path`, or -1.
int socketAt(const std::string& path, bool bindOnly = false, int flags = 0) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_un addr{AF_UNIX, {}};
    memcpy(addr.sun_path, path.c_str(), std::min(path.size() + 1, sizeof(addr.sun_path)));
    auto* any = reinterpret_cast<sockaddr*>(&addr);
    if ((bindOnly ? bind(fd, any, sizeof(addr)) : connect(fd, any, sizeof(addr))) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

// Becomes uid and gid 65534 (from root); false when that failed.
bool becomeNobody() {
    return setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
           setresuid(65534, 65534, 65534) == 0;
}

// The names in directory `dir`.
std::set<std::string> namesIn(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// Answers each message at `name` with id + 1 and the same payload, with two exceptions: "sender"
// gets "<pid> <uid> <gid>" of its sender, and "fill" three 1 MiB payloads that never wait.
// Returns on a message "quit", which it leaves unanswered, or once `stop` is set.
void answerAll(const char* name, const std::atomic<bool>* stop = nullptr) {
    const std::string kMiB(1 << 20, 'z');
    while (!stop || !*stop) {
        MSG_Msg* msg = MSG_RecvAny(name, stop ? 20 : -1);
        if (!msg) {
            continue;
        }
        const uint32_t id = MSG_GetMsgId(msg);
        MSG_Sender from{};
        std::string text = take(msg, &from);
        if (text == "quit") {
            return;
        }
        if (text == "sender") {
            text = std::to_string(from.pid) + " " + std::to_string(from.uid) + " " +
                   std::to_string(from.gid);
        }
        if (text != "fill") {
            MSG_SendMsg(name, from.address, makeMsg(id + 1, text));
        }
        for (int i = 0; text == "fill" && i < 3; i++) {
            MSG_SendMsg(name, from.address, makeMsg(id + 1, kMiB, MSG_SEND_NOWAIT));
        }
    }
}

// Answers messages at an open endpoint on a thread of its own (see answerAll) while it exists.
class Responder {
  public:
    explicit Responder(const char* name) : thread_([this, name] { answerAll(name, &stop_); }) {}
    virtual ~Responder() {
        stop_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Sends `text` with id 1 from `local` to `address` and takes the answer, id 2, with its sender:
// "(none)" when none came within two seconds.
std::string ask(const char* local, uint32_t address, const std::string& text,
                MSG_Sender* from = nullptr) {
    if (MSG_SendMsg(local, address, makeMsg(1, text)) != MSG_OK) {
        return "(not sent)";
    }
    return take(MSG_RecvMsg(local, 2, 2000), from);
}

class MsgPassTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path.empty());
        setenv(MSG_DIR_ENV, dir_.path.c_str(), 1);
    }
    void TearDown() override { MSG_CloseLocal(nullptr); }

    // Runs `body` in a child process, killed at the test's end; its result becomes the child's
    // exit status.
    testsupport::Background& spawn(const std::function<int()>& body) {
        return *children_.emplace_back(std::make_unique<testsupport::Background>(body));
    }
    // Runs a service of "svc" in a child process, after `setUp` (which says whether to go on),
    // answering as answerAll does; returns once it has opened its endpoint: its pid, or -1.
    pid_t spawnService(const std::function<bool()>& setUp = [] { return true; }) {
        int ready[2];
        if (pipe(ready) != 0) {
            return -1;
        }
        const pid_t pid =
            spawn([&] {
                if (!setUp() || MSG_OpenService("svc") != MSG_OK || write(ready[1], "r", 1) != 1) {
                    return 20;
                }
                answerAll("svc");
                return 0;
            }).pid;
        close(ready[1]);
        char byte;
        const bool started = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        return started ? pid : -1;
    }
    // A Unix socket connected (or only bound) to the path of endpoint `name`, or -1.
    int unixSocket(const std::string& name, bool bindOnly = false) const {
        return socketAt(dir_.file(name), bindOnly);
    }
    // A plain-socket client of `name`, known to it by the address of a first, empty message.
    int rawPeer(const char* name, uint32_t* address) {
        int fd = unixSocket(name);
        sendRaw(fd, frame(1, ""));
        *address = senderOfNext(name);
        EXPECT_NE(*address, 0u);
        return fd;
    }
    // "server" and "client" opened here; the client says hello, so that each knows the other.
    void connectPair() {
        ASSERT_EQ(MSG_OpenService("server"), MSG_OK);
        ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
        ASSERT_EQ(MSG_OpenRemoteSync("client", "server", 1000, &toServer_), MSG_OK);
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(1, "hello")), MSG_OK);
        toClient_ = senderOfNext("server");
        ASSERT_NE(toClient_, 0u);
    }

    testsupport::TempDir dir_{"msgpass-test"};
    std::vector<std::unique_ptr<testsupport::Background>> children_;
    uint32_t toServer_ = 0, toClient_ = 0;
};

// ---- The contract as one process sees it ----

TEST_F(MsgPassTest, BadArgumentsGiveTheirStatus) {
    const std::string longest(MSG_MAX_NAME_BYTES, 'n'), tooLong = longest + "n";
    ASSERT_TRUE(testsupport::writeFile(dir_.file("plain"), "keep me"));
    MSG_Msg* unsent = makeMsg(7, "never received");
    MSG_Sender sender;
    uint32_t address = 0;
    char dir[8];
    // Names refused, the lock file's among them, before any endpoint is open.
    for (const char* name : {"", tooLong.c_str(), "a/b", "../x", ".", "..", ".lock"}) {
        EXPECT_EQ(MSG_OpenLocal(name), MSG_ERR_BAD_NAME) << name;
    }
    // Evaluated in order: the rows before "open" run with no endpoint open. Calls that return a
    // pointer give 1 when it is not null.
    const std::tuple<const char*, int, int> rows[] = {
        {"close all, none open", MSG_CloseLocal(nullptr), MSG_ERR_NOT_OPEN},
        {"close unknown", MSG_CloseLocal("nobody"), MSG_ERR_NOT_OPEN},
        {"send before open", MSG_SendMsg("me", 1, makeMsg(1, "x")), MSG_ERR_NOT_OPEN},
        {"connect before open", MSG_OpenRemoteSync("me", "you", 0, &address), MSG_ERR_NOT_OPEN},
        {"poll fd before open", MSG_GetPollFd("me"), -1},
        {"open null", MSG_OpenLocal(nullptr), MSG_ERR_BAD_ARG},
        {"serve over a plain file", MSG_OpenService("plain"), MSG_ERR_NAME_IN_USE},
        {"debug name null", MSG_DebugSetName(nullptr), MSG_ERR_BAD_ARG},
        {"debug name slash", MSG_DebugSetName("x/y"), MSG_ERR_BAD_NAME},
        {"release null", MSG_ReleaseMsg(nullptr), MSG_ERR_BAD_ARG},
        {"send null handle", MSG_SendMsg("me", 1, nullptr), MSG_ERR_BAD_ARG},
        {"send from null name", MSG_SendMsg(nullptr, 1, makeMsg(1, "")), MSG_ERR_BAD_ARG},
        {"receive any, null name", MSG_RecvAny(nullptr, 0) != nullptr, 0},
        {"sender of null", MSG_GetSender(nullptr, nullptr), MSG_ERR_BAD_ARG},
        {"sender of unreceived", MSG_GetSender(unsent, &sender), MSG_ERR_BAD_ARG},
        {"payload bytes of null", MSG_GetPayloadBytes(nullptr), -1},
        {"payload of null", MSG_GetPayload(nullptr) != nullptr, 0},
        {"writable payload of null", MSG_GetPayloadMutable(nullptr) != nullptr, 0},
        {"id of null", static_cast<int>(MSG_GetMsgId(nullptr)), 0},
        {"unknown flag", MSG_AllocMsg(1, 2, 10) != nullptr, 0},
        {"known and unknown flag", MSG_AllocMsg(1, MSG_SEND_NOWAIT | 0x100, 10) != nullptr, 0},
        {"negative flags", MSG_AllocMsg(1, -1, 10) != nullptr, 0},
        {"payload too big", MSG_AllocMsg(1, 0, kMax + 1) != nullptr, 0},
        {"longest name", MSG_OpenLocal(longest.c_str()), MSG_OK},
        {"open", MSG_OpenLocal("me"), MSG_OK},
        {"open twice", MSG_OpenLocal("me"), MSG_ERR_NAME_IN_USE},
        {"unknown address", MSG_SendMsg("me", 12345, makeMsg(1, "x")), MSG_ERR_NO_ROUTE},
        {"address zero", MSG_SendMsg("me", 0, makeMsg(1, "")), MSG_ERR_NO_ROUTE},
        {"null address out", MSG_OpenRemoteSync("me", "you", 0, nullptr), MSG_ERR_BAD_ARG},
        {"bad remote name", MSG_OpenRemoteSync("me", "", 0, &address), MSG_ERR_BAD_NAME},
        {"debug name", MSG_DebugSetName("me"), MSG_OK},
        {"directory of unknown", MSG_GetDir("nobody", dir, sizeof(dir)), MSG_ERR_NOT_OPEN},
        {"directory too long", MSG_GetDir("me", dir, sizeof(dir)), MSG_ERR_BAD_ARG},
        {"directory into null", MSG_GetDir("me", nullptr, 100), MSG_ERR_BAD_ARG},
        {"close", MSG_CloseLocal("me"), MSG_OK},
        {"close twice", MSG_CloseLocal("me"), MSG_ERR_NOT_OPEN},
        {"receive after close", MSG_RecvMsg("me", 1, 0) != nullptr, 0},
    };
    for (const auto& [what, got, expected] : rows) {
        EXPECT_EQ(got, expected) << what;
    }
    MSG_ReleaseMsg(unsent);
    EXPECT_EQ(testsupport::readFile(dir_.file("plain")), "keep me");
}

TEST_F(MsgPassTest, PayloadsTravelIntactAndOtherIdsWaitInArrivalOrder) {
    connectPair();
    for (uint32_t size : {0u, 1u, 64u * 1024u + 3u, kMax}) {
        const std::string bytes = patterned(size, size);
        // A 16 MiB send cannot complete before someone reads, so the receiver runs alongside.
        MSG_Msg* got = nullptr;
        std::thread receiver([&] { got = MSG_RecvMsg("server", size, 5000); });
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(size, bytes)), MSG_OK) << size;
        receiver.join();
        EXPECT_TRUE(take(got) == bytes) << "payload of " << size << " bytes differs";
    }
    for (auto [id, text] : {std::pair{1, "a1"}, {2, "b1"}, {1, "a2"}, {3, "c1"}, {2, "b2"}}) {
        ASSERT_EQ(MSG_SendMsg("client", toServer_, makeMsg(id, text)), MSG_OK);
    }
    // Id 0: whatever MSG_RecvAny takes next.
    for (auto [id, text] : {std::pair{3u, "c1"}, {2u, "b1"}, {0u, "a1"}, {0u, "a2"}, {0u, "b2"}}) {
        EXPECT_EQ(take(id ? MSG_RecvMsg("server", id, 1000) : MSG_RecvAny("server", 1000)), text);
    }
}

// A service learns which connections went, each once: one whose peer hung up and one it closed
// itself, whose peer sees the end at once. Its other connections go on.
TEST_F(MsgPassTest, ClosedConnectionsAreToldOnce) {
    uint32_t gone[4] = {};
    int taken = -1;
    EXPECT_EQ(MSG_TakeClosed("server", gone, 4, &taken), MSG_ERR_NOT_OPEN);
    connectPair();
    uint32_t hangsUp = 0, stays = 0;
    const int raw = rawPeer("server", &hangsUp), other = rawPeer("server", &stays);
    EXPECT_EQ(MSG_TakeClosed("server", nullptr, 4, &taken), MSG_ERR_BAD_ARG);
    EXPECT_EQ(MSG_TakeClosed("server", gone, -1, &taken), MSG_ERR_BAD_ARG);
    ASSERT_EQ(MSG_TakeClosed("server", gone, 4, &taken), MSG_OK);
    EXPECT_EQ(taken, 0);
    EXPECT_EQ(MSG_CloseConnection("server", 12345), MSG_ERR_NO_ROUTE);
    ASSERT_EQ(MSG_CloseConnection("server", toClient_), MSG_OK);
    const long long start = monotonicNs();
    EXPECT_EQ(MSG_RecvMsg("client", 1, 2000), nullptr);
    EXPECT_LT(msSince(start), 1000) << "the client did not see its only peer go";
    EXPECT_EQ(MSG_SendMsg("server", toClient_, makeMsg(2, "late")), MSG_ERR_NO_ROUTE);
    close(raw);
    EXPECT_EQ(MSG_RecvAny("server", 200), nullptr);  // sees the hang-up
    ASSERT_EQ(MSG_TakeClosed("server", gone, 1, &taken), MSG_OK);
    EXPECT_EQ(taken, 1);
    ASSERT_EQ(MSG_TakeClosed("server", gone + 1, 4, &taken), MSG_OK);
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(std::set<uint32_t>(gone, gone + 2), (std::set<uint32_t>{toClient_, hangsUp}));
    ASSERT_EQ(MSG_TakeClosed("server", gone, 4, &taken), MSG_OK);
    EXPECT_EQ(taken, 0);
    EXPECT_EQ(MSG_SendMsg("server", stays, makeMsg(3, "still", MSG_SEND_NOWAIT)), MSG_OK);
    EXPECT_EQ(readAll(other, 20), frame(3, "still"));
    close(other);
}

// Each wait gives up when its caller's time-out has passed: not sooner, and not much later.
TEST_F(MsgPassTest, WaitsEndAtTheirTimeOut) {
    connectPair();
    uint32_t address = 0;
    const std::pair<std::function<bool()>, long> waits[] = {
        {[] { return MSG_RecvMsg("server", 1, 80) == nullptr; }, 80},
        {[] { return MSG_RecvAny("server", 60) == nullptr; }, 60},
        {[] { return MSG_RecvAny("server", 0) == nullptr; }, 0},
        {[&] { return MSG_OpenRemoteSync("client", "absent", 70, &address) == MSG_ERR_TIMEOUT; },
         70},
    };
    for (const auto& [timesOut, timeoutMs] : waits) {
        const long long start = monotonicNs();
        EXPECT_TRUE(timesOut()) << timeoutMs;
        const long took = msSince(start);
        EXPECT_GE(took, timeoutMs - 5) << timeoutMs;
        EXPECT_LT(took, timeoutMs + 1000) << timeoutMs;
    }
}

// Receivers that wait forever, or for the longest time-out there is, sleep (the leader and one
// waiting for its turn alike) until the endpoint closes: a deadline out of range must not turn
// into one in the past, where they would give up at once or spin. A service waits in its epoll
// set, a client with poll().
TEST_F(MsgPassTest, LongWaitsSleepUntilTheEndpointCloses) {
    const std::pair<int, bool> waits[] = {{-1, true}, {INT_MAX, true}, {-1, false}};
    for (const auto& wait : waits) {
        const int timeoutMs = wait.first;  // a plain name: lambdas may not capture bindings
        const bool published = wait.second;
        ASSERT_EQ(published ? MSG_OpenService("server") : MSG_OpenLocal("server"), MSG_OK);
        std::atomic<int> ended{0};
        auto receive = [&] {
            EXPECT_EQ(MSG_RecvAny("server", timeoutMs), nullptr);
            ended++;
        };
        std::thread leader(receive), waiter(receive);
        const std::clock_t cpuBefore = std::clock();
        usleep(100 * 1000);
        EXPECT_LT(std::clock() - cpuBefore, CLOCKS_PER_SEC / 20) << timeoutMs << ": spins";
        EXPECT_EQ(ended, 0) << timeoutMs << ": gave up before the endpoint closed";
        const long long start = monotonicNs();
        EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
        leader.join();
        waiter.join();
        EXPECT_LT(msSince(start), 2000) << timeoutMs << ": closing did not wake them";
    }
}

// A client thread waiting on its one connection hears at once from a second one that another
// thread made meanwhile.
TEST_F(MsgPassTest, AWaitingClientHearsAConnectionMadeMeanwhile) {
    connectPair();
    MSG_Msg* got = nullptr;
    std::thread waiter([&] { got = MSG_RecvMsg("client", 5, 5000); });
    usleep(50 * 1000);  // the waiter is polling its connection to "server" only
    ASSERT_EQ(MSG_OpenService("other"), MSG_OK);
    uint32_t toOther = 0;
    ASSERT_EQ(MSG_OpenRemoteSync("client", "other", 1000, &toOther), MSG_OK);
    ASSERT_EQ(MSG_SendMsg("client", toOther, makeMsg(1, "hello")), MSG_OK);
    const long long start = monotonicNs();
    ASSERT_EQ(MSG_SendMsg("other", senderOfNext("other"), makeMsg(5, "from other")), MSG_OK);
    waiter.join();
    EXPECT_LT(msSince(start), 1000) << "the new connection was not waited on";
    EXPECT_EQ(take(got), "from other");
}

// With descriptors used up elsewhere in the process, the service (no connection of its own to
// lose) accepts its client once there are descriptors again.
TEST_F(MsgPassTest, AcceptingResumesAfterRunningOutOfDescriptors) {
    ASSERT_EQ(MSG_OpenService("server"), MSG_OK);
    ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low{std::min<rlim_t>(saved.rlim_cur, 256), saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> hogs;
    for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0; fd = dup(fd)) {
        hogs.push_back(fd);
    }
    close(hogs.back());  // room for the client's socket, none for the server's end of it
    hogs.pop_back();
    uint32_t address = 0;  // a local: even the sanitizer's type checks need descriptors
    EXPECT_EQ(MSG_OpenRemoteSync("client", "server", 0, &address), MSG_OK);
    EXPECT_EQ(MSG_SendMsg("client", address, makeMsg(1, "hello")), MSG_OK);
    EXPECT_EQ(MSG_RecvAny("server", 50), nullptr) << "accepted without a descriptor";
    for (int fd : hogs) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(take(MSG_RecvAny("server", 2000)), "hello");
}

// Frames that take several writes tear if two threads write at once, and varied sizes make a
// tear shift every later frame. The server's receive loop meanwhile writes what sends queued.
TEST_F(MsgPassTest, ConcurrentSendersNeverInterleave) {
    connectPair();
    constexpr int kThreads = 4, kEach = 60;
    constexpr uint32_t kDoneId = 99;
    for (const int nowait : {0, MSG_SEND_NOWAIT}) {
        std::thread pump([] { MSG_ReleaseMsg(MSG_RecvMsg("server", kDoneId, 10000)); });
        std::vector<std::thread> senders;
        for (int t = 0; t < kThreads; t++) {
            senders.emplace_back([this, t, f = t % 2 ? 0 : nowait] {
                for (int i = 0; i < kEach; i++) {  // queued ones stay within the bound
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
            EXPECT_EQ(take(msg).substr(0, prefix.size()), prefix);
        }
        for (auto& sender : senders) {
            sender.join();
        }
        EXPECT_EQ(MSG_SendMsg("client", toServer_, makeMsg(kDoneId, "")), MSG_OK);
        pump.join();
    }
}

TEST_F(MsgPassTest, EndpointDirectoryAndSocketFiles) {
    ASSERT_TRUE(testsupport::writeFile(dir_.file("plain"), "not a directory"));
    ASSERT_EQ(symlink(dir_.file("made").c_str(), dir_.file("link").c_str()), 0);
    ASSERT_EQ(symlink(dir_.file("nowhere").c_str(), dir_.file("dangling").c_str()), 0);
    // Directories whose socket path "<dir>/probe" takes the whole socket address, or one more.
    const std::string longest = "/" + std::string(101 - dir_.path.size() - 1, 'd');
    // The first four can be used ("/made" is created; only one level is), the rest cannot; the
    // directory itself, the one named for messages, is found for the first five.
    const std::string dirs[] = {"/made",       "/made/", "/link",     longest,
                                longest + "d", "/plain", "/dangling", "/missing/deeper"};
    const mode_t umaskBefore = umask(077);  // a narrow umask must not close "/made" to others
    for (size_t i = 0; i < std::size(dirs); i++) {
        const std::string path = dir_.path + dirs[i];
        setenv(MSG_DIR_ENV, path.c_str(), 1);
        EXPECT_EQ(MSG_OpenService("probe"), i < 4 ? MSG_OK : MSG_ERR_NO_DIR) << dirs[i];
        char named[PATH_MAX] = "";
        EXPECT_EQ(MSG_GetDir(nullptr, named, sizeof(named)), i < 5 ? MSG_OK : MSG_ERR_NO_DIR)
            << dirs[i];
        EXPECT_EQ(named, path);
        uint32_t address = 0;
        if (i < 4 && MSG_OpenLocal("c") == MSG_OK) {
            EXPECT_EQ(MSG_OpenRemoteSync("c", "probe", 0, &address), MSG_OK) << dirs[i];
            setenv(MSG_DIR_ENV, dir_.path.c_str(), 1);  // an open endpoint's own, whatever is set
            named[0] = '\0';
            EXPECT_EQ(MSG_GetDir("c", named, sizeof(named)), MSG_OK) << dirs[i];
            EXPECT_EQ(named, path);
        }
        MSG_CloseLocal(nullptr);
    }
    umask(umaskBefore);
    setenv(MSG_DIR_ENV, dir_.path.c_str(), 1);
    struct stat st {};
    ASSERT_EQ(stat(dir_.file("made").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u) << "names looked up by all, made by its owner alone";

    ASSERT_EQ(MSG_OpenService("server"), MSG_OK);
    ASSERT_EQ(MSG_OpenService("other"), MSG_OK);
    ASSERT_EQ(stat(dir_.file("server").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u) << "connectable by every user";
    EXPECT_EQ(MSG_CloseLocal("server"), MSG_OK);
    EXPECT_NE(stat(dir_.file("server").c_str(), &st), 0) << "removed on close";
    // Someone removed the file of "other" and bound a socket of their own under the name.
    ASSERT_EQ(unlink(dir_.file("other").c_str()), 0);
    int theirs = unixSocket("other", true);
    EXPECT_EQ(MSG_CloseLocal(nullptr), MSG_OK);
    EXPECT_EQ(stat(dir_.file("other").c_str(), &st), 0) << "their socket's file stays";
    close(theirs);
}

// ---- Endpoints in separate processes ----

// The service comes up late, as uid and gid 65534 when run as root (so that a mix-up of the two
// ends' ids cannot pass; the directory is then theirs, so that they may hold names in it), and
// dies on the third request without answering it.
TEST_F(MsgPassTest, RequestAndResponseWithALateRemoteThatThenDies) {
    const uid_t uid = geteuid() == 0 ? 65534 : geteuid();
    const gid_t gid = geteuid() == 0 ? 65534 : getegid();
    ASSERT_EQ(chown(dir_.path.c_str(), uid, gid), 0);
    ASSERT_EQ(chmod(dir_.path.c_str(), 0755), 0);
    testsupport::Background& service = spawn([] {
        usleep(150 * 1000);
        if ((geteuid() == 0 && !becomeNobody()) || MSG_OpenService("svc") != MSG_OK) {
            return 20;
        }
        answerAll("svc");
        return 0;
    });
    ASSERT_EQ(MSG_OpenLocal("tool"), MSG_OK);
    uint32_t address = 0;
    const long long start = monotonicNs();
    ASSERT_EQ(MSG_OpenRemoteSync("tool", "svc", 5000, &address), MSG_OK);
    EXPECT_GE(msSince(start), 100) << "connected before the service was there";
    // A receiver of another id waits alongside: it must leave the replies to their receiver.
    MSG_Msg* other = nullptr;
    std::thread otherWaiter([&] { other = MSG_RecvMsg("tool", 9, 2000); });
    const std::string us = std::to_string(getpid()) + " " + std::to_string(geteuid()) + " " +
                           std::to_string(getegid());
    for (const std::string& text : {std::string("first"), std::string("sender")}) {
        MSG_Sender from{};
        EXPECT_EQ(ask("tool", address, text, &from), text == "sender" ? us : text);
        EXPECT_EQ(std::tie(from.address, from.pid, from.uid, from.gid),
                  std::tie(address, service.pid, uid, gid));
    }
    EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(1, "quit")), MSG_OK);
    EXPECT_EQ(MSG_RecvMsg("tool", 2, 10000), nullptr);  // how soon: ClosedConnectionsAreToldOnce
    otherWaiter.join();
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(service.stop(0), 0) << "service exit status";
    EXPECT_EQ(MSG_SendMsg("tool", address, makeMsg(1, "gone")), MSG_ERR_NO_ROUTE);
}

// Covers a name held by another live process and the socket file left by one that died, too.
TEST_F(MsgPassTest, ProcessesRacingForANameLeaveExactlyOneWinner) {
    const int kContenders = 8;
    for (const std::string name : {"fresh", "stale"}) {
        if (name == "stale") {
            close(unixSocket(name, true));  // bound, not listening: what a dead process leaves
        }
        int go[2], results[2];
        ASSERT_EQ(pipe(go) | pipe(results), 0);
        for (int i = 0; i < kContenders; i++) {
            spawn([&] {
                char start;
                int status = read(go[0], &start, 1) == 1 ? MSG_OpenService(name.c_str()) : -1;
                if (write(results[1], &status, sizeof(status)) == sizeof(status)) {
                    pause();  // keeps a winning endpoint open
                }
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
        for (int fd : {client, go[0], go[1], results[0], results[1]}) {
            close(fd);
        }
    }
    for (const std::string& name : namesIn(dir_.path)) {
        EXPECT_NE(name.rfind(".tmp-", 0), 0u) << name;
    }
}

// ---- Who may hold a name, and what is left on disk ----

#define SKIP_UNLESS_ROOT()                                                         \
    if (geteuid() != 0) {                                                          \
        GTEST_SKIP() << "needs root to run a process as another user (uid 65534)"; \
    }

// In a directory anyone may write to, uid 65534 binds "ConfigSrvc" before the service (by hand,
// as an older library would). A client waits it out and gets the real service, which takes the
// name when it starts; the impostor hears connections and not a byte.
TEST_F(MsgPassTest, AnImpostorGetsNothingAndTheServiceTakesItsName) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(dir_.path.c_str(), 01777), 0);
    int heard[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, heard), 0);
    spawn([&] {  // tells "ready", then "c" for each connection and every byte it is sent
        int fd = becomeNobody() ? unixSocket("ConfigSrvc", true) : -1;
        if (fd < 0 || listen(fd, 8) != 0 || write(heard[1], "ready", 5) != 5) {
            return 20;
        }
        char bytes[4096];
        for (int client; (client = accept(fd, nullptr, nullptr)) >= 0; close(client)) {
            sendRaw(heard[1], "c");
            for (ssize_t n; (n = read(client, bytes, sizeof(bytes))) > 0;) {
                sendRaw(heard[1], std::string(bytes, static_cast<size_t>(n)));
            }
        }
        return 21;
    });
    close(heard[1]);
    ASSERT_EQ(readAll(heard[0], 5), "ready");
    ASSERT_EQ(MSG_OpenLocal("setvane"), MSG_OK);
    uint32_t address = 0;
    EXPECT_EQ(MSG_OpenRemoteSync("setvane", "ConfigSrvc", 100, &address), MSG_ERR_NOT_TRUSTED);
    int status = -1;
    std::thread client(
        [&] { status = MSG_OpenRemoteSync("setvane", "ConfigSrvc", 5000, &address); });
    usleep(100 * 1000);
    EXPECT_EQ(MSG_OpenService("ConfigSrvc"), MSG_OK) << "the real service must start";
    client.join();
    ASSERT_EQ(status, MSG_OK);
    EXPECT_EQ(MSG_SendMsg("setvane", address, makeMsg(1, "secret-admin-write")), MSG_OK);
    EXPECT_EQ(take(MSG_RecvAny("ConfigSrvc", 2000)), "secret-admin-write");
    struct stat st {};
    EXPECT_EQ(lstat(dir_.file("ConfigSrvc").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u) << "the name is the service's";
    const std::string impostorHeard = readAll(heard[0], SIZE_MAX);
    EXPECT_NE(impostorHeard, "") << "the client never tried the impostor: the test proves nothing";
    EXPECT_EQ(impostorHeard, std::string(impostorHeard.size(), 'c')) << "sent to the impostor";
    close(heard[0]);
}

// Connects to every name that appears in `dir` but `spare` and writes `forged` at once, as uid
// 65534 when run as root; writes 'r' to `heard` when it watches, then 'c' for each connection.
int forgeAnswers(const std::string& dir, const std::string& spare, const std::string& forged,
                 int heard) {
    const int watch = inotify_init1(IN_CLOEXEC);
    if ((geteuid() == 0 && !becomeNobody()) || watch < 0 ||
        inotify_add_watch(watch, dir.c_str(), IN_CREATE | IN_MOVED_TO) < 0 ||
        write(heard, "r", 1) != 1) {
        return 20;
    }
    alignas(inotify_event) char events[4096];
    for (ssize_t n; (n = read(watch, events, sizeof(events))) > 0;) {
        for (char* at = events; at < events + n;) {
            const auto* event = reinterpret_cast<inotify_event*>(at);
            at += sizeof(inotify_event) + event->len;
            const std::string name = event->len ? event->name : "";
            if (name.empty() || name == spare || name[0] == '.') {
                continue;
            }
            const int fd = socketAt(dir + "/" + name);
            if (fd >= 0 && send(fd, forged.data(), forged.size(), MSG_NOSIGNAL) > 0) {
                sendRaw(heard, "c");
            }
        }
    }
    return 21;
}

// Root's clients, one after the other as setvane runs, while another user connects to whatever
// appears in the directory and answers first: every answer is the service's, and no client
// endpoint is ever there to be reached.
TEST_F(MsgPassTest, ForgedAnswersNeverReachAClient) {
    ASSERT_EQ(chmod(dir_.path.c_str(), 0755), 0);
    int heard[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, heard), 0);
    const std::string forged = frame(2, "forged") + frame(2, "forged");  // ask's answer id
    spawn([&] { return forgeAnswers(dir_.path, "svc", forged, heard[1]); });
    close(heard[1]);
    ASSERT_EQ(readAll(heard[0], 1), "r");
    ASSERT_EQ(MSG_OpenService("svc"), MSG_OK);
    Responder responder("svc");
    const std::set<std::string> onlyTheService{".lock", "svc"};
    for (int i = 0; i < 40; i++) {
        const std::string name = "setvane-" + std::to_string(i);
        uint32_t address = 0;
        ASSERT_EQ(MSG_OpenLocal(name.c_str()), MSG_OK);
        ASSERT_EQ(MSG_OpenRemoteSync(name.c_str(), "svc", 1000, &address), MSG_OK);
        EXPECT_EQ(namesIn(dir_.path), onlyTheService) << i;
        usleep(2000);  // the forger's moment, which it took nearly every time
        EXPECT_EQ(ask(name.c_str(), address, "genuine"), "genuine") << i;
        EXPECT_EQ(MSG_RecvMsg(name.c_str(), 2, 0), nullptr) << i << ": a second answer";
        ASSERT_EQ(MSG_CloseLocal(name.c_str()), MSG_OK);
    }
    pollfd pfd{heard[0], POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0) << "the forger reached a client";
    close(heard[0]);
}

// What someone who may write to the directory leaves there for a service to trip over: a stale
// socket under its name and a lock file that is a link to a file elsewhere. The service takes
// its name and touches nothing but files of its own.
TEST_F(MsgPassTest, LinksInTheDirectoryAreNeverFollowed) {
    ASSERT_EQ(mkdir(dir_.file("elsewhere").c_str(), 0755), 0);
    const std::string existing = dir_.file("elsewhere/existing"), made = dir_.file("elsewhere/new");
    const std::function<int()> links[] = {
        [&] { return symlink(made.c_str(), dir_.file(".lock").c_str()); },
        [&] { return symlink(existing.c_str(), dir_.file(".lock").c_str()); },
        [&] { return link(existing.c_str(), dir_.file(".lock").c_str()); },
    };
    for (size_t i = 0; i < std::size(links); i++) {
        ASSERT_TRUE(testsupport::writeFile(existing, "keep me"));
        ASSERT_EQ(chmod(existing.c_str(), 0644), 0);
        unlink(dir_.file(".lock").c_str());
        ASSERT_EQ(links[i](), 0) << i;
        close(unixSocket("svc", true));  // what a killed service leaves
        ASSERT_EQ(MSG_OpenService("svc"), MSG_OK) << i;
        struct stat st {};
        EXPECT_NE(lstat(made.c_str(), &st), 0) << i << ": created through a link";
        ASSERT_EQ(stat(existing.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0644u) << i << ": mode changed through a link";
        EXPECT_EQ(st.st_nlink, 1u) << i;
        EXPECT_EQ(testsupport::readFile(existing), "keep me") << i;
        ASSERT_EQ(lstat(dir_.file(".lock").c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_nlink == 1 && st.st_uid == geteuid()) << i;
        ASSERT_EQ(MSG_CloseLocal("svc"), MSG_OK);
    }
}

// A service's name whose file goes, alone or with the directory, is put back while it receives,
// and clients reach it again; one that another live service took meanwhile is reported.
TEST_F(MsgPassTest, ARemovedNameIsPutBackOrReported) {
    ASSERT_EQ(MSG_OpenService("svc"), MSG_OK);
    ASSERT_EQ(MSG_OpenLocal("client"), MSG_OK);
    auto responder = std::make_unique<Responder>("svc");
    const std::string away = dir_.path + "-away";
    const std::pair<const char*, std::function<int()>> removals[] = {
        {"file removed", [&] { return unlink(dir_.file("svc").c_str()); }},
        {"directory moved away", [&] { return rename(dir_.path.c_str(), away.c_str()); }},
    };
    for (const auto& [what, remove] : removals) {
        ASSERT_EQ(remove(), 0) << what;
        uint32_t address = 0;
        ASSERT_EQ(MSG_OpenRemoteSync("client", "svc", 2000, &address), MSG_OK) << what;
        EXPECT_EQ(ask("client", address, "ping"), "ping") << what;
        EXPECT_EQ(MSG_CheckPublished("svc"), MSG_OK) << what;
    }
    std::filesystem::remove_all(away);
    responder.reset();
    ASSERT_EQ(unlink(dir_.file("svc").c_str()), 0);
    ASSERT_GT(spawnService(), 0) << "the other did not open";
    EXPECT_EQ(MSG_RecvAny("svc", 50), nullptr);
    EXPECT_EQ(MSG_CheckPublished("svc"), MSG_ERR_NAME_IN_USE);
    EXPECT_EQ(MSG_CheckPublished("client"), MSG_ERR_BAD_ARG);
    EXPECT_EQ(MSG_CheckPublished("nobody"), MSG_ERR_NOT_OPEN);
}

// Sockets of `fds` that the other end has not closed (unread input or not).
int stillOpen(const std::vector<int>& fds) {
    int open = 0;
    for (int fd : fds) {
        pollfd pfd{fd, POLLRDHUP, 0};
        open += fd >= 0 && (poll(&pfd, 1, 0) == 0 || !(pfd.revents & (POLLRDHUP | POLLHUP)));
    }
    return open;
}

// Uid 65534, in a directory it cannot write to, may not serve a name there, but is a client of
// the service (which knows it by its ids) and leaves nothing behind. Then it opens connection
// after connection to the service, whose process may have 128 descriptors, and sends nothing but
// one message on the first. Beyond its share they are closed at once and root's client is served;
// the silent ones are dropped after the idle limit, the one that sent a message stays.
TEST_F(MsgPassTest, AnotherUsersClientIsServedAndItsConnectionsCappedAndDropped) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(dir_.path.c_str(), 0755), 0);
    int counts[2];
    ASSERT_EQ(pipe(counts), 0);
    const rlimit low{128, 128};
    ASSERT_GT(spawnService([&] { return setrlimit(RLIMIT_NOFILE, &low) == 0; }), 0);
    spawn([&] {
        uint32_t address = 0;
        const bool served =
            becomeNobody() && MSG_OpenLocal("client") == MSG_OK &&
            MSG_OpenService("other") == MSG_ERR_NOT_ALLOWED &&
            MSG_OpenRemoteSync("client", "svc", 2000, &address) == MSG_OK &&
            ask("client", address, "sender") == std::to_string(getpid()) + " 65534 65534" &&
            MSG_CloseLocal("client") == MSG_OK;
        std::vector<int> fds;
        for (int i = 0; served && i < 300; i++) {
            fds.push_back(socketAt(dir_.file("svc"), false, SOCK_NONBLOCK));
            if (i == 0) {
                sendRaw(fds.back(), frame(1, "talk"));
            }
        }
        usleep(500 * 1000);
        const int early = served ? stillOpen(fds) : -1;
        usleep((MSG_IDLE_CONNECTION_MS + 1500) * 1000);
        const int late = stillOpen(fds);
        return write(counts[1], &early, sizeof early) + write(counts[1], &late, sizeof late) == 8
                   ? 0
                   : 21;
    });
    usleep(100 * 1000);
    uint32_t address = 0;
    ASSERT_EQ(MSG_OpenLocal("root"), MSG_OK);
    ASSERT_EQ(MSG_OpenRemoteSync("root", "svc", 2000, &address), MSG_OK);
    EXPECT_EQ(ask("root", address, "ping"), "ping") << "root was shut out";
    int early = -1, late = -1;
    ASSERT_EQ(read(counts[0], &early, sizeof early), (ssize_t)sizeof early);
    ASSERT_EQ(read(counts[0], &late, sizeof late), (ssize_t)sizeof late);
    EXPECT_GE(early, 1) << "-1: uid 65534 was no client, or served a name, or was misnamed";
    EXPECT_LE(early, MSG_MAX_CONNS_PER_USER);
    EXPECT_EQ(late, 1) << "silent connections were kept, or the talking one dropped";
    EXPECT_EQ(namesIn(dir_.path), (std::set<std::string>{".lock", "svc"}));
    close(counts[0]);
    close(counts[1]);
}

// However a process ends normally, with its endpoints open or not, their files go with it; the
// exit of a child made by fork() leaves the parent's alone.
TEST_F(MsgPassTest, EndpointFilesGoWithTheirProcessOrAreSwept) {
    auto withEndpoints = [](std::vector<const char*> names, const std::function<int()>& end) {
        return [names, end] {
            for (const char* name : names) {
                if (MSG_OpenService(name) != MSG_OK) {
                    return 3;
                }
            }
            return end();
        };
    };
    const std::string first = dir_.file("a");
    const std::pair<const char*, std::function<int()>> endings[] = {
        {"exit", []() -> int { exit(0); }},
        {"thread while another waits",
         []() -> int {
             std::thread([] { MSG_ReleaseMsg(MSG_RecvAny("a", -1)); }).detach();
             usleep(50 * 1000);
             exit(0);
         }},
        {"a forked child exits first",
         [&first]() -> int {
             const pid_t child = fork();
             if (child == 0) {
                 exit(0);
             }
             waitpid(child, nullptr, 0);
             exit(access(first.c_str(), F_OK) == 0 ? 0 : 4);
         }},
    };
    for (const auto& [how, end] : endings) {
        EXPECT_EQ(spawn(withEndpoints({"a", "b"}, end)).stop(0), 0) << how;
        EXPECT_EQ(namesIn(dir_.path), std::set<std::string>{".lock"}) << how;
    }
    // Files of killed processes are swept when a process next publishes a name in the directory;
    // what is alive, or not a socket, stays.
    // Each says when its opens are done: an open sweeps after its name is in place, and a sweep
    // still under way once the first is killed would take its files too soon.
    int opened[2];
    ASSERT_EQ(pipe(opened), 0);
    auto sayThenWaitForKill = [&opened] {
        if (write(opened[1], "o", 1) == 1) {
            for (;;) {
                pause();
            }
        }
        return 21;
    };
    testsupport::Background& killed =
        spawn(withEndpoints({"setvane-1", "setvane-2"}, sayThenWaitForKill));
    spawn(withEndpoints({"alive"}, sayThenWaitForKill));
    char said[2];
    ASSERT_EQ(read(opened[0], said, 1) + read(opened[0], said + 1, 1), 2);
    EXPECT_EQ(killed.stop(SIGKILL), 128 + SIGKILL);
    ASSERT_TRUE(testsupport::writeFile(dir_.file("plain"), "keep me"));
    // Another user's lock file, held for ever, must not stop those who may hold names.
    ASSERT_TRUE(testsupport::writeFile(dir_.file(".lock"), ""));
    const int lock = open(dir_.file(".lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const bool foreignLock = chown(dir_.file(".lock").c_str(), 65534, 65534) == 0;
    const int bound = unixSocket("bound", true);  // being set up: not listening yet
    close(unixSocket("closed", true));
    const std::set<std::string> before{".lock", "alive",     "bound",    "closed",
                                       "plain", "setvane-1", "setvane-2"};
    ASSERT_EQ(namesIn(dir_.path), before);
    ASSERT_EQ(MSG_OpenService("sweeper"), MSG_OK);
    const std::set<std::string> after{".lock", "alive", "bound", "plain", "sweeper"};
    EXPECT_EQ(namesIn(dir_.path), after);
    struct stat st {};
    EXPECT_TRUE(stat(dir_.file(".lock").c_str(), &st) == 0 && (!foreignLock || st.st_uid == 0));
    for (int fd : {bound, lock, opened[0], opened[1]}) {
        close(fd);
    }
}

TEST_F(MsgPassTest, StatusTextsAreTheDocumentedOnes) {
    // The header with each comment's line breaks and leading asterisks taken out.
    std::string header;
    for (const std::string& line :
         testsupport::split(testsupport::readFile(MSGPASS_HEADER), "\n")) {
        const size_t start = line.find_first_not_of(" *");
        header += " " + (start == std::string::npos ? "" : line.substr(start));
    }
    std::set<std::string> texts;
    for (int status = MSG_ERR_BAD_ARG; status <= MSG_ERR_NOT_ALLOWED; status++) {
        const std::string text = MSG_StatusText(status);
        EXPECT_NE(header.find("= " + std::to_string(status)), std::string::npos) << status;
        EXPECT_NE(header.find("/* " + text + " */"), std::string::npos) << status << ": " << text;
        EXPECT_TRUE(texts.insert(text).second) << status << " shares its text";
    }
    EXPECT_STREQ(MSG_StatusText(MSG_OK), "success");
    for (int unknown : {-1, 1, MSG_ERR_BAD_ARG - 1, MSG_ERR_NOT_ALLOWED + 1}) {
        EXPECT_STREQ(MSG_StatusText(unknown), "unknown status") << unknown;
    }
}

// ---- Sends that never wait: a peer that does not read holds up neither its sender nor others ----

// Queues frames for `to` from "svc" while the peer reads nothing: about 2 MiB, far more than a
// socket buffers and well within the queue's bound. Returns the bytes the peer must read.
std::string queueStream(uint32_t to) {
    std::string wire;
    const long long start = monotonicNs();
    for (uint32_t i = 0; i < 40; i++) {
        const std::string payload = patterned(i % 7 * 9000 + 40000, i);
        wire += frame(100 + i, payload);
        EXPECT_EQ(MSG_SendMsg("svc", to, makeMsg(100 + i, payload, MSG_SEND_NOWAIT)), MSG_OK);
    }
    EXPECT_LT(msSince(start), 1000) << "the sends waited for a peer that does not read";
    return wire;
}

// A service's event loop in one blocking receive: its own descriptor, or a client leaving, ends
// the wait at once; what one wait read is taken without another look at the sockets.
TEST_F(MsgPassTest, WatchedDescriptorsAndClosedConnectionsEndAReceive) {
    ASSERT_EQ(MSG_OpenService("svc"), MSG_OK);
    const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const uint64_t one = 1;
    EXPECT_EQ(MSG_WatchFd("svc", -1), MSG_ERR_BAD_ARG);
    EXPECT_EQ(MSG_UnwatchFd("svc", event), MSG_ERR_BAD_ARG) << "not watched";
    EXPECT_EQ(MSG_WatchFd("nobody", event), MSG_ERR_NOT_OPEN);
    ASSERT_EQ(MSG_WatchFd("svc", event), MSG_OK);
    EXPECT_EQ(MSG_WatchFd("svc", event), MSG_ERR_BAD_ARG) << "watched already";
    EXPECT_EQ(MSG_RecvQueued("svc"), nullptr) << "nothing read yet";

    int peer = unixSocket("svc");
    sendRaw(peer, frame(1, "a") + frame(2, "b"));
    EXPECT_EQ(take(MSG_RecvAny("svc", 1000)), "a");
    EXPECT_EQ(take(MSG_RecvQueued("svc")), "b") << "read by the same wait";
    std::thread writer([&] {
        usleep(50 * 1000);
        EXPECT_EQ(write(event, &one, sizeof one), 8);
    });
    // A five-second wait that something ended well before its time-out.
    const auto endedEarly = [] {
        const auto start = std::chrono::steady_clock::now();
        return MSG_RecvAny("svc", 5000) == nullptr &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(2);
    };
    EXPECT_TRUE(endedEarly()) << "the event";
    writer.join();
    sendRaw(peer, frame(3, "c"));
    usleep(50 * 1000);
    EXPECT_EQ(MSG_RecvAny("svc", 0), nullptr) << "the event, still readable, comes first";
    uint64_t count = 0;
    ASSERT_EQ(read(event, &count, sizeof count), 8);
    EXPECT_EQ(take(MSG_RecvAny("svc", 1000)), "c");

    close(peer);
    EXPECT_TRUE(endedEarly()) << "the client left";
    ASSERT_EQ(MSG_UnwatchFd("svc", event), MSG_OK);
    EXPECT_EQ(write(event, &one, sizeof one), 8);
    EXPECT_EQ(MSG_RecvAny("svc", 100), nullptr);
    EXPECT_EQ(MSG_RecvQueued("svc"), nullptr);
    close(event);
}

// The descriptor of MSG_GetPollFd is readable exactly while something waits: in a socket, or
// already read and queued (messages that arrived with the first, one of another id). What the
// socket did not take goes out as the peer reads: written by the receive loop of a service that
// polls that descriptor, by the next send that waits, and by the receive loop even while the
// peer's own input is paused (its requests pile up unclaimed).
TEST_F(MsgPassTest, QueuedFramesArriveInOrderAsThePeerReads) {
    ASSERT_EQ(MSG_OpenService("svc"), MSG_OK);
    pollfd service{MSG_GetPollFd("svc"), POLLIN, 0};
    ASSERT_GE(service.fd, 0);
    EXPECT_EQ(poll(&service, 1, 0), 0);
    int peer = unixSocket("svc");
    sendRaw(peer, frame(1, "") + frame(2, "b") + frame(3, "c"));
    EXPECT_EQ(poll(&service, 1, 1000), 1) << "a new client with a message must wake the service";
    const uint32_t toPeer = senderOfNext("svc");
    EXPECT_EQ(poll(&service, 1, 0), 1) << "two read and queued";
    EXPECT_EQ(take(MSG_RecvMsg("svc", 3, 1000)), "c");
    EXPECT_EQ(poll(&service, 1, 0), 1) << "one of another id queued";
    EXPECT_EQ(take(MSG_RecvAny("svc", 1000)), "b");
    EXPECT_EQ(poll(&service, 1, 0), 0) << "none left";
    std::string wire = queueStream(toPeer);
    EXPECT_EQ(poll(&service, 1, 0), 0) << "nothing to do while the client reads nothing";
    size_t queued = 0;
    ASSERT_EQ(MSG_GetQueuedBytes("svc", toPeer, &queued), MSG_OK);
    EXPECT_GT(queued, wire.size() / 2) << "the socket cannot have taken most of 2 MiB";
    EXPECT_LE(queued, MSG_SEND_QUEUE_BYTES);
    EXPECT_EQ(MSG_GetQueuedBytes("svc", toPeer + 1, &queued), MSG_ERR_NO_ROUTE);
    EXPECT_EQ(MSG_GetQueuedBytes("svc", toPeer, nullptr), MSG_ERR_BAD_ARG);
    int wakeups = 0;
    auto serviceLoop = [&] {
        wakeups++;
        EXPECT_EQ(poll(&service, 1, 1000), 1) << "room in the socket must wake the service";
        return MSG_RecvAny("svc", 0) == nullptr && !HasFailure();
    };
    EXPECT_TRUE(readAll(peer, wire.size(), serviceLoop) == wire) << "the frames differ";
    EXPECT_GT(wakeups, 0);
    ASSERT_EQ(MSG_GetQueuedBytes("svc", toPeer, &queued), MSG_OK);
    EXPECT_EQ(queued, 0u) << "everything was read";

    wire = queueStream(toPeer) + frame(7, "last");
    int status = -1;
    std::thread waiter([&] { status = MSG_SendMsg("svc", toPeer, makeMsg(7, "last")); });
    EXPECT_TRUE(readAll(peer, wire.size()) == wire) << "a send that waits: the frames differ";
    waiter.join();
    EXPECT_EQ(status, MSG_OK);

    std::string requests;
    for (int i = 0; i < 5000; i++) {  // more unclaimed messages than one connection may have
        requests += frame(1, "");
    }
    sendRaw(peer, requests);
    constexpr uint32_t kNeverSent = 777;
    EXPECT_EQ(MSG_RecvMsg("svc", kNeverSent, 100), nullptr);  // reads until it pauses
    wire = queueStream(toPeer);
    auto pump = [] { return MSG_RecvMsg("svc", kNeverSent, 10) == nullptr; };
    EXPECT_TRUE(readAll(peer, wire.size(), pump) == wire) << "input paused: the frames differ";
    close(peer);
}

// ---- The process's memory bound ----

// A service that answers "fill" with three 1 MiB messages that never wait, faces peers that
// announce large frames and send little, peers that send much, and peers that never read: it
// reserves memory as bytes come, stays within the bound by dropping peers, and gives the memory
// back when they are gone.
TEST_F(MsgPassTest, MemoryStaysWithinTheBoundAndGoesBack) {
    const pid_t service = spawnService();
    ASSERT_GT(service, 0);
    const long bound = MSG_MEMORY_BYTES >> 20, size = testsupport::statusKiB(service, "VmSize"),
               rss = testsupport::statusKiB(service, "VmRSS");
    auto grownMiB = [&](const char* field, long base) {
        return (testsupport::statusKiB(service, field) - base) / 1024;
    };
    // The peers, some of them dropped for `what`, are closed, and the memory must go back.
    auto expectDroppedWithinTheBound = [&](const std::vector<int>& peers, const char* what) {
        EXPECT_TRUE(testsupport::waitFor([&] { return stillOpen(peers) < (int)peers.size(); }))
            << what << ": nobody was dropped";
        EXPECT_LT(grownMiB("VmRSS", rss), bound + 8) << what << " beyond the bound";
        for (int fd : peers) {
            close(fd);
        }
        EXPECT_TRUE(testsupport::waitFor([&] { return grownMiB("VmRSS", rss) < 16; }))
            << what << ": memory not given back";
    };
    std::vector<int> peers;
    for (int i = 0; i < 48; i++) {  // 16 MiB announced, 1 KiB sent: 768 MiB if reserved at once
        peers.push_back(unixSocket("svc"));
        sendRaw(peers.back(), frameHeader(kWireMagic, 1, kMax) + std::string(1024, 'x'));
    }
    usleep(300 * 1000);
    EXPECT_LT(grownMiB("VmSize", size), 32) << "announced sizes were reserved";
    const std::string more(3 << 20, 'y');  // 144 MiB sent in all
    for (int fd : peers) {
        send(fd, more.data(), more.size(), MSG_NOSIGNAL);
    }
    expectDroppedWithinTheBound(peers, "partial frames");
    peers.clear();
    for (int i = 0; i < 30; i++) {  // 3 MiB each waits for readers that never read: 90 MiB
        peers.push_back(unixSocket("svc"));
        sendRaw(peers.back(), frame(1, "fill"));
    }
    expectDroppedWithinTheBound(peers, "unread answers");
}

// ---- Bad peers: cut off at once, without a word from the others, who go on ----

// A peer that writes what is not a frame, or that never reads what the service sends it. Each is
// a test of its own, so that the one that waits out the real stall limit runs alongside the rest.
struct BadPeer {
    const char* name;
    std::string writes;  // what the bad peer writes, after a good first frame
    bool stopsWriting = false;
    int flags = 0;  // else the service sends it payloads of `bytes` until refused
    uint32_t bytes = 0;
    size_t least = 0, most = 0;  // payload taken before the refusal, the socket's buffer too
    int refusal = MSG_OK;
    long fastestMs = 0, slowestMs = 2000;  // how long the service's sends to it take
};

const BadPeer kBadPeers[] = {
    {"BadMagic", frameHeader(0x12345678, 1, 4) + "abcd"},
    {"ReservedWordSet", frameHeader(kWireMagic, 1, 4, 1) + "abcd"},
    {"OversizedLength", frameHeader(kWireMagic, 1, kMax + 1)},
    {"TruncatedFrame", frameHeader(kWireMagic, 1, 100) + "only part", true},
    {"TruncatedHeader", frameHeader(kWireMagic, 1, 100).substr(0, 7), true},
    {"UnreadSmallMessages", "", false, MSG_SEND_NOWAIT, 1000, kQueue * 3 / 4, kQueue * 2,
     MSG_ERR_QUEUE_FULL},
    {"UnreadMessageOverTheBound", "", false, MSG_SEND_NOWAIT, kMax, kMax, kMax, MSG_ERR_QUEUE_FULL},
    {"SendThatWaitsStalls", "", false, 0, kMax, 0, 0, MSG_ERR_TIMEOUT, MSG_SEND_STALL_MS - 10,
     MSG_SEND_STALL_MS + 2000},
};

class BadPeerTest : public MsgPassTest, public testing::WithParamInterface<BadPeer> {};

TEST_P(BadPeerTest, IsCutOffAloneAndAtOnce) {
    const BadPeer& c = GetParam();
    ASSERT_EQ(MSG_OpenService("svc"), MSG_OK);
    uint32_t toGood = 0, toBad = 0;
    int good = rawPeer("svc", &toGood);
    // Half a frame and then silence: a slow peer, not a bad one, which must hold up nobody.
    int slow = unixSocket("svc");
    sendRaw(slow, frameHeader(kWireMagic, 1, 50) + "half");
    int bad = rawPeer("svc", &toBad);
    sendRaw(bad, c.writes);
    if (c.stopsWriting) {
        shutdown(bad, SHUT_WR);
    }
    const std::string payload(c.bytes, 'z');
    size_t accepted = 0;
    int status = MSG_OK;
    const long long start = monotonicNs();
    for (; c.bytes && status == MSG_OK && accepted <= 4 * kQueue; accepted += c.bytes) {
        status = MSG_SendMsg("svc", toBad, makeMsg(7, payload, c.flags));
    }
    const long took = msSince(start);
    EXPECT_GE(took, c.fastestMs);
    EXPECT_LT(took, c.slowestMs);
    accepted -= c.bytes;  // the refused one
    EXPECT_EQ(status, c.refusal);
    EXPECT_GE(accepted, c.least);
    EXPECT_LE(accepted, c.most);

    sendRaw(good, frame(5, "ping"));
    EXPECT_EQ(take(MSG_RecvAny("svc", 2000)), "ping");
    EXPECT_EQ(MSG_RecvAny("svc", 20), nullptr) << "nothing made up";
    readAll(bad, SIZE_MAX);  // what was sent before the cut, until a second of silence
    char byte;
    EXPECT_EQ(recv(bad, &byte, 1, MSG_DONTWAIT), 0) << "the connection was not closed";
    EXPECT_EQ(MSG_SendMsg("svc", toBad, makeMsg(7, "")), MSG_ERR_NO_ROUTE);
    EXPECT_EQ(MSG_SendMsg("svc", toGood, makeMsg(6, "pong", MSG_SEND_NOWAIT)), MSG_OK);
    EXPECT_EQ(readAll(good, 20), frame(6, "pong"));
    pollfd pfd{slow, POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 0), 0) << "the slow peer was cut off";
    for (int fd : {bad, slow, good}) {
        close(fd);
    }
}

INSTANTIATE_TEST_SUITE_P(Peers, BadPeerTest, testing::ValuesIn(kBadPeers),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

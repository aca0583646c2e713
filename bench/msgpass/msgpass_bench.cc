// msgpass_bench: libmsgpass between two processes, measured side by side with the same traffic
// over a plain Unix stream socket (the floor: what the kernel alone costs) in the same run.
//
// Latency: 100-byte request, 100-byte reply, both processes pinned to one CPU so that every
// round trip pays the same two context switches. Throughput: one sender, 100-byte messages
// one way, the receiver acknowledging the last.
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "msgpass.h"

namespace {

constexpr size_t kMessageBytes = 100;
constexpr uint32_t kPingId = 1, kPongId = 2, kDataId = 3, kStopId = 4, kAckId = 5;
constexpr const char* kServiceName = "bench-service";
constexpr const char* kClientName = "bench-client";

struct Options {
    int runs = 15;
    int roundTrips = 20000;
    int messages = 300000;
    int cpu = 0;
};

using Clock = std::chrono::steady_clock;

double nsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

double percentile(std::vector<double> values, double fraction) {
    size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[index];
}

bool pinToCpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

bool readFull(int fd, char* into, size_t length) {
    while (length > 0) {
        ssize_t n = read(fd, into, length);
        if (n <= 0) {
            return false;
        }
        into += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool writeFull(int fd, const char* from, size_t length) {
    while (length > 0) {
        ssize_t n = write(fd, from, length);
        if (n <= 0) {
            return false;
        }
        from += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// ---- The floor: plain socket ----

// Echoes fixed-size messages until the peer closes.
int plainEchoServer(int fd) {
    char buffer[kMessageBytes];
    while (readFull(fd, buffer, sizeof(buffer))) {
        if (!writeFull(fd, buffer, sizeof(buffer))) {
            return 1;
        }
    }
    return 0;
}

std::vector<double> plainRoundTrips(int count) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return {};
    }
    pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        _exit(plainEchoServer(fds[1]));
    }
    close(fds[1]);
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(count));
    char message[kMessageBytes] = {};
    for (int i = 0; i < count; i++) {
        auto start = Clock::now();
        if (!writeFull(fds[0], message, sizeof(message)) ||
            !readFull(fds[0], message, sizeof(message))) {
            break;
        }
        samples.push_back(nsSince(start));
    }
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return samples;
}

double plainThroughput(int count) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return 0;
    }
    pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        std::vector<char> buffer(64 * 1024);
        size_t want = static_cast<size_t>(count) * kMessageBytes, got = 0;
        while (got < want) {
            ssize_t n = read(fds[1], buffer.data(), buffer.size());
            if (n <= 0) {
                _exit(1);
            }
            got += static_cast<size_t>(n);
        }
        _exit(writeFull(fds[1], "k", 1) ? 0 : 1);
    }
    close(fds[1]);
    char message[kMessageBytes] = {};
    auto start = Clock::now();
    for (int i = 0; i < count; i++) {
        writeFull(fds[0], message, sizeof(message));
    }
    char ack;
    bool acked = readFull(fds[0], &ack, 1);
    double seconds = nsSince(start) / 1e9;
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return acked ? count / seconds : 0;
}

// ---- libmsgpass ----

MSG_Msg* makeMessage(uint32_t id) {
    MSG_Msg* msg = MSG_AllocMsg(id, 0, kMessageBytes);
    if (msg) {
        memset(MSG_GetPayloadMutable(msg), 'm', kMessageBytes);
    }
    return msg;
}

// Answers pings, counts data messages and acknowledges a stop, like a service would.
int msgpassService() {
    if (MSG_OpenService(kServiceName) != MSG_OK) {
        return 1;
    }
    for (;;) {
        MSG_Msg* msg = MSG_RecvAny(kServiceName, -1);
        if (!msg) {
            return 2;
        }
        uint32_t id = MSG_GetMsgId(msg);
        MSG_Sender sender{};
        MSG_GetSender(msg, &sender);
        MSG_ReleaseMsg(msg);
        if (id == kPingId || id == kStopId) {
            MSG_SendMsg(kServiceName, sender.address,
                        makeMessage(id == kPingId ? kPongId : kAckId));
        }
        if (id == kStopId) {
            return 0;
        }
    }
}

struct MsgpassSession {
    pid_t service = -1;
    uint32_t address = 0;

    bool start() {
        service = fork();
        if (service == 0) {
            _exit(msgpassService());
        }
        return MSG_OpenLocal(kClientName) == MSG_OK &&
               MSG_OpenRemoteSync(kClientName, kServiceName, 5000, &address) == MSG_OK;
    }

    bool stop() {
        bool acked = MSG_SendMsg(kClientName, address, makeMessage(kStopId)) == MSG_OK;
        MSG_Msg* ack = acked ? MSG_RecvMsg(kClientName, kAckId, 10000) : nullptr;
        MSG_ReleaseMsg(ack);
        MSG_CloseLocal(kClientName);
        waitpid(service, nullptr, 0);
        return ack != nullptr;
    }
};

std::vector<double> msgpassRoundTrips(int count) {
    MsgpassSession session;
    std::vector<double> samples;
    if (!session.start()) {
        session.stop();
        return samples;
    }
    samples.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        auto start = Clock::now();
        if (MSG_SendMsg(kClientName, session.address, makeMessage(kPingId)) != MSG_OK) {
            break;
        }
        MSG_Msg* reply = MSG_RecvMsg(kClientName, kPongId, 10000);
        if (!reply) {
            break;
        }
        MSG_ReleaseMsg(reply);
        samples.push_back(nsSince(start));
    }
    session.stop();
    return samples;
}

double msgpassThroughput(int count) {
    MsgpassSession session;
    if (!session.start()) {
        session.stop();
        return 0;
    }
    auto start = Clock::now();
    for (int i = 0; i < count; i++) {
        if (MSG_SendMsg(kClientName, session.address, makeMessage(kDataId)) != MSG_OK) {
            session.stop();
            return 0;
        }
    }
    bool acked = session.stop();  // the stop is answered after every data message was read
    double seconds = nsSince(start) / 1e9;
    return acked ? count / seconds : 0;
}

// ---- Driver ----

bool parseInt(const char* text, int minimum, int* value) {
    char* end = nullptr;
    long parsed = strtol(text, &end, 10);
    if (!*text || *end || parsed < minimum || parsed > 100000000) {
        return false;
    }
    *value = static_cast<int>(parsed);
    return true;
}

int usage(const char* program, const char* problem) {
    fprintf(stderr, "%s: %s\nusage: %s [--runs N] [--round-trips N] [--messages N] [--cpu N]\n",
            program, problem, program);
    return 2;
}

struct Series {
    std::vector<double> runMedians, all;
    void add(const std::vector<double>& samples) {
        if (samples.empty()) {
            return;
        }
        runMedians.push_back(percentile(samples, 0.5));
        all.insert(all.end(), samples.begin(), samples.end());
    }
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i++) {
        std::string flag = argv[i];
        int* target = flag == "--runs"          ? &options.runs
                      : flag == "--round-trips" ? &options.roundTrips
                      : flag == "--messages"    ? &options.messages
                      : flag == "--cpu"         ? &options.cpu
                                                : nullptr;
        if (!target) {
            return usage(argv[0], ("unknown option " + flag).c_str());
        }
        if (i + 1 >= argc || !parseInt(argv[++i], flag == "--cpu" ? 0 : 1, target)) {
            return usage(argv[0], (flag + " needs a positive whole number").c_str());
        }
    }
    char dir[] = "/tmp/msgpass-bench-XXXXXX";
    if (!mkdtemp(dir)) {
        perror("mkdtemp");
        return 1;
    }
    setenv(MSG_DIR_ENV, dir, 1);

    // Throughput first, on both CPUs, then latency pinned to one.
    std::vector<double> plainRates, msgpassRates;
    for (int run = 0; run < options.runs; run++) {
        plainRates.push_back(plainThroughput(options.messages));
        msgpassRates.push_back(msgpassThroughput(options.messages));
    }
    if (!pinToCpu(options.cpu)) {
        perror("sched_setaffinity");
        return 1;
    }
    Series plain, msgpass;
    for (int run = 0; run < options.runs; run++) {
        plain.add(plainRoundTrips(options.roundTrips));
        msgpass.add(msgpassRoundTrips(options.roundTrips));
    }
    std::filesystem::remove_all(dir);
    if (plain.all.empty() || msgpass.all.empty() ||
        std::count(msgpassRates.begin(), msgpassRates.end(), 0.0) > 0) {
        fprintf(stderr, "a measurement failed; no figures\n");
        return 1;
    }

    double plainRtt = percentile(plain.runMedians, 0.5);
    double msgpassRtt = percentile(msgpass.runMedians, 0.5);
    printf("%d runs; %zu-byte messages; round trips pinned to CPU %d\n", options.runs,
           kMessageBytes, options.cpu);
    printf("%-34s %14s %14s %8s\n", "", "plain socket", "libmsgpass", "ratio");
    printf("%-34s %14.2f %14.2f %8.2f\n", "round trip, median of runs (us)", plainRtt / 1e3,
           msgpassRtt / 1e3, msgpassRtt / plainRtt);
    printf("%-34s %14.2f %14.2f %8.2f\n", "round trip, p99 of all (us)",
           percentile(plain.all, 0.99) / 1e3, percentile(msgpass.all, 0.99) / 1e3,
           percentile(msgpass.all, 0.99) / percentile(plain.all, 0.99));
    double plainRate = percentile(plainRates, 0.5), msgpassRate = percentile(msgpassRates, 0.5);
    printf("%-34s %14.0f %14.0f %8.2f\n", "one-way messages/s, median", plainRate, msgpassRate,
           msgpassRate / plainRate);
    printf("targets: round trip <= 1.5x floor: %s; >= 100000 messages/s: %s\n",
           msgpassRtt <= 1.5 * plainRtt ? "met" : "MISSED",
           msgpassRate >= 100000 ? "met" : "MISSED");
    return 0;
}

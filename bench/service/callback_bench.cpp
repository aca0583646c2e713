// Change notifications and validators of configsrvc, against the real service in one run:
//
// Fan-out: one writer process (this one) writes system.location as fast as its connections
// allow, one write in flight on each, while 1, 8 and 32 subscriber processes, each with a
// session and a CallbackDispatcher registered for kChangeNotify on the variable, receive every
// change. Each value written is the CLOCK_MONOTONIC time at which its write was sent (the clock
// is system-wide), so a subscriber knows how long the change took to reach it, the write's own
// path and durable commit included; set against the time the writer had the write's answer
// (sent as soon as it was committed, just before the notifications), it tells how long the
// notification alone took. Notifications per second are those delivered to all subscribers over
// the time from the first write to the last delivery. One subscriber is the latency line: one
// writer connection, everything on CPU 0.
//
// Validated write: durable writes of system.location with one validator process registered
// that allows everything, against plain writes of the same variable with none, the two in turn
// write by write. The service, this program and the validator run on CPU 0.
//
//   configsrvc_callback_bench [--rounds N] [--seconds S] [--writers W] [--writes K] [--dir DIR]
//                             [--check]
//
// Every subscriber must receive every change exactly once and the validator be asked about
// every validated write; otherwise the program exits 1. With --check a missed target also
// exits 1.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CallbackDispatcher.h"
#include "bench_options.h"
#include "service_runner.h"

namespace {

using configclient::ConfigSession;
using servicebench::kAnswerMs;
using servicebench::kConnectMs;

constexpr char kVariable[] = "system.location";  // a free string: it carries the send time
constexpr char kEndValue[] = "end";              // after the timed writes: subscribers stop
constexpr uint32_t kMaxKept = 1u << 19;          // deliveries a subscriber keeps of a round
constexpr int kMaxSubscribers = 32;
constexpr int kSubscriberWaitMs = 30000;
constexpr double kTargetRate = 50000;   // notifications per second to 8 subscribers, at least
constexpr double kTargetP99Ms = 5;      // delivery to 8 subscribers, at most
constexpr double kTargetExtraMs = 0.2;  // validated write median over the plain one, at most

struct Settings {
    int rounds = 5;
    double seconds = 0.5;
    int writers = 8;
    int writes = 200;
    std::string dir;
    bool check = false;
};

long long monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

double msBetween(long long startNs, long long endNs) {
    return static_cast<double>(endNs - startNs) / 1e6;
}

double percentile(std::vector<float>* values, double p) {
    if (values->empty()) {
        return 0;
    }
    const size_t index = static_cast<size_t>(p * static_cast<double>(values->size() - 1));
    std::nth_element(values->begin(), values->begin() + index, values->end());
    return (*values)[index];
}

ConfigIF::Inst variableInstance() {
    ConfigIF::Inst instance;
    for (const char* name : {"system", "location"}) {
        ConfigIF::Node* node = instance.add_node();
        node->set_name(name);
        node->set_instance(0);
    }
    return instance;
}

bool written(ConfigSession* session, const std::string& value) {
    ConfigIF::WriteReq request;
    request.set_name("bench-writer");
    request.set_role(CommonIF::kAdmin);
    *request.mutable_instance_val()->mutable_instance() = variableInstance();
    request.mutable_instance_val()->add_value(value);
    ConfigIF::WriteRsp response;
    return session->write(request, &response, kAnswerMs) == ConfigSession::kOk &&
           response.ret_message().error() == CommonIF::kErrNoError;
}

// A (un)registration of a callback of `type` on the variable.
template <typename Request>
Request callbackRequest(ConfigIF::CallbackType type) {
    Request request;
    request.set_name("bench-callback");
    request.set_role(CommonIF::kAdmin);
    request.set_node_name(kVariable);
    request.set_type(type);
    request.set_user_context("bench");
    return request;
}

// Whether the service took the session's registration of a callback of `type` on the variable.
bool registered(ConfigSession* session, ConfigIF::CallbackType type) {
    ConfigIF::RegisterClientCallbackRsp response;
    return session->registerClientCallback(
               callbackRequest<ConfigIF::RegisterClientCallbackReq>(type), &response, kAnswerMs) ==
               ConfigSession::kOk &&
           response.error() == CommonIF::kErrNoError;
}

bool unregistered(ConfigSession* session, ConfigIF::CallbackType type) {
    ConfigIF::UnregisterClientCallbackRsp response;
    return session->unregisterClientCallback(
               callbackRequest<ConfigIF::UnregisterClientCallbackReq>(type), &response,
               kAnswerMs) == ConfigSession::kOk &&
           response.error() == CommonIF::kErrNoError;
}

std::unique_ptr<ConfigSession> connected(const std::string& role) {
    auto session = std::make_unique<ConfigSession>();
    if (session->connect("bench-" + role + "-" + std::to_string(getpid()), kConnectMs) !=
        ConfigSession::kOk) {
        return nullptr;
    }
    return session;
}

// ---- Fan-out -------------------------------------------------------------------------------

// One notification as a subscriber received it.
struct Delivery {
    long long sentNs;       // the time in the value: when its write was sent
    long long deliveredNs;  // when the subscriber's handler had it
    int writer;             // the writer connection that sent it
};

// What one subscriber process received in a round, in memory shared with this program.
struct SubscriberReport {
    long delivered;  // notifications of timed writes
    long malformed;  // notifications whose value is not one this program writes
    uint32_t kept;   // deliveries kept (the first kMaxKept)
    Delivery deliveries[kMaxKept];
};

class DeliveryRecorder : public configclient::CallbackHandler {
  public:
    explicit DeliveryRecorder(SubscriberReport* report) : report_(report) {}

    void configChanged(const ConfigIF::ConfigChangedNtfy& notice) override {
        const long long now = monotonicNs();
        const std::string value =
            notice.instance_val().value_size() == 1 ? notice.instance_val().value(0) : "";
        if (value == kEndValue) {
            finished_ = true;
            return;
        }
        char* slash = nullptr;
        const long long sentNs = std::strtoll(value.c_str(), &slash, 10);
        char* end = nullptr;
        const long writer = *slash == '/' ? std::strtol(slash + 1, &end, 10) : -1;
        if (sentNs <= 0 || sentNs > now || writer < 0 || end == slash + 1 || *end != '\0') {
            ++report_->malformed;
            return;
        }
        ++report_->delivered;
        if (report_->kept < kMaxKept) {
            report_->deliveries[report_->kept++] = {sentNs, now, static_cast<int>(writer)};
        }
    }

    bool finished() const { return finished_; }

  private:
    SubscriberReport* report_;
    bool finished_ = false;
};

// A subscriber process: registers, says so on `readyFd`, and records every notification until
// the end value. Its exit status: 0 when it saw the end, 1 otherwise.
int subscribe(SubscriberReport* report, int readyFd) {
    report->delivered = 0;  // the deliveries themselves are written before they are read
    report->malformed = 0;
    report->kept = 0;
    auto session = connected("subscriber");
    const bool ready = session != nullptr && registered(session.get(), ConfigIF::kChangeNotify);
    const char word = ready ? 'r' : 'x';
    if (write(readyFd, &word, 1) != 1 || !ready) {
        return 1;
    }
    DeliveryRecorder recorder(report);
    configclient::CallbackDispatcher dispatcher(session.get(), &recorder);
    while (!recorder.finished()) {
        if (dispatcher.dispatch(kSubscriberWaitMs) <= 0) {
            return 1;  // the service went away, or nothing came for far too long
        }
    }
    return 0;
}

// Forks `count` subscribers, each reporting into reports[i]; their pids, once all are
// registered, or none (and those started are killed).
std::vector<pid_t> startSubscribers(int count, SubscriberReport* reports) {
    int ready[2];
    if (pipe(ready) != 0) {
        return {};
    }
    std::vector<pid_t> pids;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            close(ready[0]);
            _exit(subscribe(&reports[i], ready[1]));  // no destructors of this program's objects
        }
        if (pid > 0) {
            pids.push_back(pid);
        }
    }
    close(ready[1]);
    int registeredCount = 0;
    pollfd wait{ready[0], POLLIN, 0};
    char word = 0;
    while (registeredCount < count && poll(&wait, 1, kSubscriberWaitMs) == 1 &&
           read(ready[0], &word, 1) == 1 && word == 'r') {
        ++registeredCount;
    }
    close(ready[0]);
    if (registeredCount < count) {
        for (pid_t pid : pids) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        pids.clear();
    }
    return pids;
}

// Whether every subscriber ended on its own within the wait.
bool subscribersEnded(const std::vector<pid_t>& pids) {
    const long long deadline = monotonicNs() + kSubscriberWaitMs * 1000000LL;
    bool allWell = true;
    for (pid_t pid : pids) {
        int status = -1;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (monotonicNs() > deadline) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            usleep(1000);
        }
        allWell = allWell && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return allWell;
}

// One writer connection's writes of a round: (sent, answered) times of those that succeeded,
// in the order sent, so that the send times increase.
struct WriterLog {
    std::vector<std::pair<long long, long long>> done;
    long failed = 0;
};

struct Writes {
    std::vector<WriterLog> writers;
    long long startNs = 0;
    long long endNs = 0;
    long done = 0;
    long failed = 0;

    // When the write that writer `w` sent at `sentNs` was answered; 0 when it was not.
    long long answeredNs(int w, long long sentNs) const {
        if (w < 0 || static_cast<size_t>(w) >= writers.size()) {
            return 0;
        }
        const auto& log = writers[w].done;
        auto it = std::lower_bound(log.begin(), log.end(), std::make_pair(sentNs, 0LL));
        return it != log.end() && it->first == sentNs ? it->second : 0;
    }
};

// Writes the send time into the variable on every session, one write in flight on each, for
// `seconds`; then the end value, once every timed write is answered.
Writes writeFor(const std::vector<std::unique_ptr<ConfigSession>>& sessions, double seconds) {
    Writes all;
    all.writers.resize(sessions.size());
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    all.startNs = monotonicNs();
    for (size_t w = 0; w < sessions.size(); ++w) {
        threads.emplace_back([&, w] {
            WriterLog& log = all.writers[w];
            while (!stop) {
                const long long sentNs = monotonicNs();
                if (written(sessions[w].get(), std::to_string(sentNs) + "/" + std::to_string(w))) {
                    log.done.emplace_back(sentNs, monotonicNs());
                } else {
                    ++log.failed;
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    all.endNs = monotonicNs();
    for (const WriterLog& log : all.writers) {
        all.done += static_cast<long>(log.done.size());
        all.failed += log.failed;
    }
    all.failed += written(sessions[0].get(), kEndValue) ? 0 : 1;
    return all;
}

// Latencies of every delivery, in milliseconds: from the write's send (its durable commit
// included) and from its answer (sent as soon as it was committed, just before the
// notifications), and of the writes themselves.
struct Latencies {
    std::vector<float> fromSend;
    std::vector<float> fromAnswer;
    std::vector<float> writes;
};

struct FanOutRound {
    double writesPerSecond = 0;
    double notificationsPerSecond = 0;
    bool ok = false;
};

// Whether what the subscribers received is exactly what was written; adds their latencies.
bool deliveredExactly(const Writes& writes, const SubscriberReport* reports, int subscribers,
                      Latencies* latencies, long long* lastNs, long* delivered) {
    bool ok = true;
    for (int i = 0; i < subscribers; ++i) {
        const SubscriberReport& report = reports[i];
        long unknown = 0;
        for (uint32_t k = 0; k < report.kept; ++k) {
            const Delivery& one = report.deliveries[k];
            const long long answeredNs = writes.answeredNs(one.writer, one.sentNs);
            unknown += answeredNs == 0 ? 1 : 0;
            latencies->fromSend.push_back(
                static_cast<float>(msBetween(one.sentNs, one.deliveredNs)));
            latencies->fromAnswer.push_back(
                static_cast<float>(msBetween(answeredNs, one.deliveredNs)));
            *lastNs = std::max(*lastNs, one.deliveredNs);
        }
        if (report.delivered != writes.done || report.malformed != 0 || unknown != 0) {
            std::fprintf(stderr, "subscriber %d: %ld of %ld changes, %ld malformed, %ld unknown\n",
                         i, report.delivered, writes.done, report.malformed, unknown);
            ok = false;
        }
        *delivered += report.delivered;
    }
    return ok;
}

FanOutRound fanOutRound(int subscribers, int writers, double seconds, SubscriberReport* reports,
                        Latencies* latencies) {
    FanOutRound round;
    const std::vector<pid_t> pids = startSubscribers(subscribers, reports);
    if (pids.empty()) {
        std::fprintf(stderr, "the subscribers could not register\n");
        return round;
    }
    // Connected after the fork, so that no subscriber holds a copy of a writer's connection.
    std::vector<std::unique_ptr<ConfigSession>> sessions;
    for (int w = 0; w < writers; ++w) {
        sessions.push_back(connected("writer" + std::to_string(w)));
    }
    Writes writes;
    if (std::all_of(sessions.begin(), sessions.end(), [](const auto& s) { return s != nullptr; })) {
        writes = writeFor(sessions, seconds);
    } else {
        writes.failed = 1;
        for (const auto& session : sessions) {
            if (session != nullptr) {
                written(session.get(), kEndValue);  // so that the subscribers end
                break;
            }
        }
    }
    round.ok = subscribersEnded(pids) && writes.failed == 0;
    long long lastNs = writes.endNs;
    long delivered = 0;
    round.ok =
        deliveredExactly(writes, reports, subscribers, latencies, &lastNs, &delivered) && round.ok;
    for (const WriterLog& log : writes.writers) {
        for (const auto& [sentNs, answeredNs] : log.done) {
            latencies->writes.push_back(static_cast<float>(msBetween(sentNs, answeredNs)));
        }
    }
    round.writesPerSecond = writes.done / (msBetween(writes.startNs, writes.endNs) / 1000);
    round.notificationsPerSecond = delivered / (msBetween(writes.startNs, lastNs) / 1000);
    return round;
}

struct FanOut {
    double notificationsPerSecond = 0;
    double p99FromSendMs = 0;
    double p99FromAnswerMs = 0;
    bool ok = true;
};

FanOut fanOut(int subscribers, const Settings& settings, const std::string& state,
              SubscriberReport* reports) {
    // One subscriber is the latency line: one writer connection, and everything on CPU 0.
    const bool pinned = subscribers == 1;
    const int writers = pinned ? 1 : settings.writers;
    FanOut result;
    const pid_t service = servicebench::startService(state, pinned);
    if (service < 0) {
        std::fprintf(stderr, "configsrvc did not start\n");
        result.ok = false;
        return result;
    }
    if (pinned) {
        servicebench::pinToCpu0();
    }
    std::vector<double> writeRates;
    std::vector<double> rates;
    Latencies latencies;
    for (int r = 0; r < settings.rounds && result.ok; ++r) {
        const FanOutRound round =
            fanOutRound(subscribers, writers, settings.seconds, reports, &latencies);
        result.ok = round.ok;
        writeRates.push_back(round.writesPerSecond);
        rates.push_back(round.notificationsPerSecond);
    }
    servicebench::unpin();
    servicebench::stopService(service);
    result.notificationsPerSecond = servicebench::median(rates);
    result.p99FromSendMs = percentile(&latencies.fromSend, 0.99);
    result.p99FromAnswerMs = percentile(&latencies.fromAnswer, 0.99);
    std::printf("%-11d %-7s %9.0f %15.0f %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f %8.3f\n", subscribers,
                (std::to_string(writers) + (pinned ? " CPU 0" : "")).c_str(),
                servicebench::median(writeRates), result.notificationsPerSecond,
                percentile(&latencies.writes, 0.5), percentile(&latencies.writes, 0.99),
                percentile(&latencies.fromSend, 0.5), result.p99FromSendMs,
                percentile(&latencies.fromAnswer, 0.5), percentile(&latencies.fromAnswer, 0.9),
                result.p99FromAnswerMs);
    return result;
}

// ---- Validated write -----------------------------------------------------------------------

class CountingValidator : public configclient::CallbackHandler {
  public:
    CommonIF::eErrorType validate(const ConfigIF::DynamicValidateReq&, std::string*) override {
        ++asked;
        return CommonIF::kErrNoError;
    }
    uint32_t asked = 0;
};

// The validator process: on 'r' from `control` it registers, on 'u' it unregisters, and to
// either it answers how many changes it was asked about since the command before (0xffffffff
// when a step failed): so a plain write it was asked about shows at the next 'r'. It serves its
// callbacks meanwhile and ends when `control` closes.
int validate(int control) {
    auto session = connected("validator");
    if (session == nullptr) {
        return 1;
    }
    CountingValidator validator;
    configclient::CallbackDispatcher dispatcher(session.get(), &validator);
    for (;;) {
        pollfd waits[2] = {{control, POLLIN, 0}, {dispatcher.pollFd(), POLLIN, 0}};
        if (poll(waits, 2, -1) < 0) {
            return 1;
        }
        if (waits[1].revents != 0 && dispatcher.dispatch(0) < 0) {
            return 1;
        }
        if (waits[0].revents == 0) {
            continue;
        }
        char command = 0;
        if (read(control, &command, 1) != 1) {
            return 0;
        }
        const bool on = command == 'r';
        const bool ok = on ? registered(session.get(), ConfigIF::kDynamicValidator)
                           : unregistered(session.get(), ConfigIF::kDynamicValidator);
        const uint32_t answer = ok ? validator.asked : 0xffffffffu;
        validator.asked = 0;
        if (write(control, &answer, sizeof answer) != sizeof answer) {
            return 1;
        }
    }
}

// Tells the validator `command`; its answer, or 0xffffffff when it gave none.
uint32_t tellValidator(int control, char command) {
    uint32_t answer = 0xffffffffu;
    if (write(control, &command, 1) != 1 ||
        read(control, &answer, sizeof answer) != sizeof answer) {
        return 0xffffffffu;
    }
    return answer;
}

// One durable write of a new value; its time in milliseconds, or -1 when it failed.
double timedWrite(ConfigSession* session, long* serial) {
    const std::string value = "v" + std::to_string(++*serial);
    const long long start = monotonicNs();
    const bool ok = written(session, value);
    return ok ? msBetween(start, monotonicNs()) : -1;
}

// One validated write: the validator registered, asked about the write and only about it, and
// unregistered again. Its time, or -1 when any step failed.
double validatedWrite(ConfigSession* session, int control, long* serial) {
    if (const uint32_t asked = tellValidator(control, 'r'); asked != 0) {
        std::fprintf(stderr, "the validator was asked %d times about plain writes\n",
                     static_cast<int>(asked));
        return -1;
    }
    const double ms = timedWrite(session, serial);
    const uint32_t asked = tellValidator(control, 'u');
    if (asked != 1) {
        std::fprintf(stderr, "the validator was asked %d times about one write\n",
                     static_cast<int>(asked));
        return -1;
    }
    return ms;
}

struct Validated {
    double plainMs = 0;
    double validatedMs = 0;
    bool ok = false;
};

Validated validatedAgainstPlain(const Settings& settings, const std::string& state) {
    Validated result;
    const pid_t service = servicebench::startService(state, true);
    if (service < 0) {
        std::fprintf(stderr, "configsrvc did not start\n");
        return result;
    }
    servicebench::pinToCpu0();
    int control[2];
    pid_t validator = -1;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, control) == 0) {
        validator = fork();
        if (validator == 0) {
            close(control[0]);
            _exit(validate(control[1]));
        }
        close(control[1]);
    }
    auto session = validator > 0 ? connected("validated-writer") : nullptr;
    std::vector<float> plain;  // every write, for the tail
    std::vector<float> validated;
    std::vector<double> plainMedians;  // per round
    std::vector<double> validatedMedians;
    long serial = 0;
    bool ok = session != nullptr;
    for (int r = 0; r < settings.rounds && ok; ++r) {
        std::vector<double> plainRound;
        std::vector<double> validatedRound;
        // Write by write, the two kinds in turn and each first half the time, so that a disk
        // that slows down and speeds up again meets both alike.
        for (int i = 0; i < 2 * settings.writes && ok; ++i) {
            const bool withValidator = (i % 2 == 0) == (i / 2 % 2 == 0);
            const double ms = withValidator ? validatedWrite(session.get(), control[0], &serial)
                                            : timedWrite(session.get(), &serial);
            ok = ms >= 0;
            (withValidator ? validatedRound : plainRound).push_back(ms);
            (withValidator ? validated : plain).push_back(static_cast<float>(ms));
        }
        plainMedians.push_back(servicebench::median(plainRound));
        validatedMedians.push_back(servicebench::median(validatedRound));
    }
    session.reset();
    if (validator > 0) {
        close(control[0]);
        waitpid(validator, nullptr, 0);
    }
    servicebench::unpin();
    servicebench::stopService(service);
    result.ok = ok;
    result.plainMs = servicebench::median(plainMedians);
    result.validatedMs = servicebench::median(validatedMedians);
    std::printf("%-28s %9.3f %9.3f %9.3f\n", "plain", result.plainMs, percentile(&plain, 0.9),
                percentile(&plain, 0.99));
    std::printf("%-28s %9.3f %9.3f %9.3f\n", "one validator, allows all", result.validatedMs,
                percentile(&validated, 0.9), percentile(&validated, 0.99));
    std::printf("%-28s %9.3f\n", "validated - plain", result.validatedMs - result.plainMs);
    return result;
}

// Prints one target's line; whether `value` meets it.
bool target(const char* what, double value, double limit, bool atLeast) {
    const bool met = atLeast ? value >= limit : value <= limit;
    std::printf("  %-32s %10.3f  %s %-8g %s\n", what, value, atLeast ? ">=" : "<=", limit,
                met ? "met" : "NOT MET");
    return met;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    servicebench::BenchOptions options("configsrvc_callback_bench");
    options.add("--rounds", "N", &settings.rounds, 1);
    options.add("--seconds", "S", &settings.seconds, 0.1);
    options.add("--writers", "W", &settings.writers, 1);
    options.add("--writes", "K", &settings.writes, 1);
    options.add("--dir", "DIR", &settings.dir);
    options.addFlag("--check", &settings.check);
    if (!options.parseOrExplain(argc, argv)) {
        return 2;
    }
    const servicebench::ScratchDir dir(settings.dir);
    void* shared = mmap(nullptr, sizeof(SubscriberReport) * kMaxSubscribers, PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    auto* reports = static_cast<SubscriberReport*>(shared);

    std::printf("fsync (512 bytes + fdatasync) on %s: median %.3f ms\n\n", dir.path().c_str(),
                servicebench::fsyncCostMs(dir.path(), 200));
    std::printf(
        "fan-out: %s written by 1 process over 1 or %d connections, one write in flight on "
        "each; %d rounds of %.1f s; rates: median of the rounds\n",
        kVariable, settings.writers, settings.rounds, settings.seconds);
    std::printf(
        "delivery latency from the write's send (its durable commit included) and from "
        "its answer (sent once committed, just before the notifications)\n\n");
    std::printf("%-11s %-7s %9s %15s %17s %17s %26s\n", "", "", "", "", "write ms", "from send ms",
                "from answer ms");
    std::printf("%-11s %-7s %9s %15s %8s %8s %8s %8s %8s %8s %8s\n", "subscribers", "writers",
                "writes/s", "notifications/s", "p50", "p99", "p50", "p99", "p50", "p90", "p99");
    bool ok = true;
    FanOut eight;
    for (int subscribers : {1, 8, kMaxSubscribers}) {
        const FanOut result = fanOut(
            subscribers, settings, dir.path() + "/fan-out-" + std::to_string(subscribers), reports);
        ok = ok && result.ok;
        if (subscribers == 8) {
            eight = result;
        }
    }

    std::printf(
        "\nvalidated write: %s; service, writer and validator on CPU 0; %d rounds of %d "
        "writes each way, in turn\n\n",
        kVariable, settings.rounds, settings.writes);
    std::printf("%-28s %9s %9s %9s\n", "write", "p50 ms", "p90 ms", "p99 ms");
    std::printf("%-28s %9s %19s\n", "", "(rounds)", "(every write)");
    const Validated validated = validatedAgainstPlain(settings, dir.path() + "/validated");
    ok = ok && validated.ok;
    munmap(shared, sizeof(SubscriberReport) * kMaxSubscribers);

    const double extraMs = validated.validatedMs - validated.plainMs;
    std::printf("\ntargets (8 subscribers):\n");
    bool met = target("notifications/s", eight.notificationsPerSecond, kTargetRate, true);
    met = target("p99 delivery ms from send", eight.p99FromSendMs, kTargetP99Ms, false) && met;
    target("p99 delivery ms from answer", eight.p99FromAnswerMs, kTargetP99Ms, false);
    met = target("validated - plain write p50 ms", extraMs, kTargetExtraMs, false) && met;
    if (!ok) {
        std::fprintf(stderr, "a request failed, or a change was lost, repeated or not validated\n");
        return 1;
    }
    return settings.check && !met ? 1 : 0;
}

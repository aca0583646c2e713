// The time to read 100 variable instances from configsrvc with one BatchReadReq against the time
// to read the same 100 with one ReadReq each, over one session, measured in the same run.
//
//   configsrvc_batch_bench [--rounds N] [--repeats R] [--dir DIR] [--check]
//
// The service and this program both run on CPU 0, so each figure is the cost of the requests
// themselves rather than of cross-CPU wake-ups. A round times R batch reads and R sets of 100
// single reads, one after the other, and takes the time of one of each; the figures printed are
// the medians over the rounds. Every answer is checked, and any failed or wrong answer makes the
// program exit 1. The target is single / batch >= 20; with --check, missing it also exits 1.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"
#include "bench_options.h"
#include "service_runner.h"

namespace {

using Clock = std::chrono::steady_clock;
using configclient::ConfigSession;
using servicebench::kAnswerMs;

constexpr int kInstances = 100;
constexpr double kTargetRatio = 20;

struct Settings {
    int rounds = 31;
    int repeats = 10;
    std::string dir;
    bool check = false;
};

using Path = std::vector<std::pair<const char*, int>>;

// Every variable of the example model that a kUser may read, in model order.
std::vector<Path> readablePaths() {
    std::vector<Path> paths;
    for (const char* name :
         {"hostname", "location", "timezone", "language", "ntp-servers", "watchdog", "log-level"}) {
        paths.push_back({{"system", 0}, {name, 0}});
    }
    paths.push_back({{"network", 0}, {"domain", 0}});
    for (int interface = 1; interface <= 3; ++interface) {
        for (const char* name :
             {"enabled", "dhcp", "address", "netmask", "gateway", "mtu", "dns"}) {
            paths.push_back({{"network", 0}, {"interface", interface}, {name, 0}});
        }
    }
    for (const char* name : {"volume", "mute", "output"}) {
        paths.push_back({{"audio", 0}, {name, 0}});
    }
    for (int microphone = 1; microphone <= 2; ++microphone) {
        for (const char* name : {"gain", "enabled"}) {
            paths.push_back({{"audio", 0}, {"microphone", microphone}, {name, 0}});
        }
    }
    for (const char* name : {"resolution", "brightness", "layouts"}) {
        paths.push_back({{"video", 0}, {name, 0}});
    }
    return paths;
}

// kInstances instances, cycling over the readable variables.
std::vector<ConfigIF::Inst> benchInstances() {
    const std::vector<Path> paths = readablePaths();
    std::vector<ConfigIF::Inst> instances(kInstances);
    for (int i = 0; i < kInstances; ++i) {
        for (const auto& step : paths[i % paths.size()]) {
            ConfigIF::Node* node = instances[i].add_node();
            node->set_name(step.first);
            node->set_instance(step.second);
        }
    }
    return instances;
}

struct Requests {
    std::vector<ConfigIF::ReadReq> singles;
    ConfigIF::BatchReadReq batch;
};

Requests buildRequests() {
    Requests requests;
    requests.batch.set_name("bench");
    requests.batch.set_role(CommonIF::kUser);
    for (const ConfigIF::Inst& instance : benchInstances()) {
        ConfigIF::ReadReq& single = requests.singles.emplace_back();
        single.set_name("bench");
        single.set_role(CommonIF::kUser);
        *single.mutable_instance() = instance;
        *requests.batch.add_instance() = instance;
    }
    return requests;
}

bool singleOk(ConfigSession::Status status, const ConfigIF::ReadRsp& response) {
    return status == ConfigSession::kOk && response.error() == CommonIF::kErrNoError;
}

bool batchOk(ConfigSession::Status status, const ConfigIF::BatchReadRsp& response) {
    if (status != ConfigSession::kOk || response.error() != CommonIF::kErrNoError ||
        response.response_size() != kInstances) {
        return false;
    }
    for (const ConfigIF::ReadRsp& item : response.response()) {
        if (item.error() != CommonIF::kErrNoError) {
            return false;
        }
    }
    return true;
}

bool sameRead(const ConfigIF::ReadRsp& a, const ConfigIF::ReadRsp& b) {
    return a.error() == b.error() && a.is_default() == b.is_default() &&
           a.value_size() == b.value_size() &&
           std::equal(a.value().begin(), a.value().end(), b.value().begin());
}

// Before anything is timed: the batch answers every instance, in request order, as the single
// reads of the same instances do. Otherwise the two sides would not be doing the same work.
bool batchMatchesSingles(ConfigSession* session, const Requests& requests) {
    ConfigIF::BatchReadRsp batch;
    if (!batchOk(session->batchRead(requests.batch, &batch, kAnswerMs), batch)) {
        std::fprintf(stderr, "the batch read failed\n");
        return false;
    }
    for (int i = 0; i < kInstances; ++i) {
        ConfigIF::ReadRsp single;
        if (!singleOk(session->read(requests.singles[i], &single, kAnswerMs), single)) {
            std::fprintf(stderr, "single read %d failed\n", i);
            return false;
        }
        if (!sameRead(single, batch.response(i))) {
            std::fprintf(stderr, "batch item %d differs from the single read\n", i);
            return false;
        }
    }
    return true;
}

double sinceMs(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Round {
    double batchMs;
    double singlesMs;
    long failures;
};

Round measureRound(ConfigSession* session, const Requests& requests, int repeats) {
    Round round{0, 0, 0};
    // Responses are reused, as a client that asks again and again does: parsing into them again
    // keeps what they allocated.
    ConfigIF::BatchReadRsp batchResponse;
    ConfigIF::ReadRsp singleResponse;
    auto start = Clock::now();
    for (int r = 0; r < repeats; ++r) {
        ConfigIF::BatchReadRsp& response = batchResponse;
        round.failures +=
            batchOk(session->batchRead(requests.batch, &response, kAnswerMs), response) ? 0 : 1;
    }
    round.batchMs = sinceMs(start) / repeats;
    start = Clock::now();
    for (int r = 0; r < repeats; ++r) {
        for (const ConfigIF::ReadReq& request : requests.singles) {
            ConfigIF::ReadRsp& response = singleResponse;
            round.failures +=
                singleOk(session->read(request, &response, kAnswerMs), response) ? 0 : 1;
        }
    }
    round.singlesMs = sinceMs(start) / repeats;
    return round;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    servicebench::BenchOptions options("configsrvc_batch_bench");
    options.add("--rounds", "N", &settings.rounds, 1);
    options.add("--repeats", "R", &settings.repeats, 1);
    options.add("--dir", "DIR", &settings.dir);
    options.addFlag("--check", &settings.check);
    if (!options.parseOrExplain(argc, argv)) {
        return 2;
    }
    const servicebench::ScratchDir dir(settings.dir);
    const pid_t service = servicebench::startService(dir.path() + "/state", true);
    if (service < 0) {
        std::fprintf(stderr, "configsrvc did not start\n");
        return 1;
    }
    servicebench::pinToCpu0();

    const Requests requests = buildRequests();
    ConfigSession session;
    long failures = 0;
    std::vector<double> batchMs;
    std::vector<double> singlesMs;
    if (session.connect("bench-batch-" + std::to_string(getpid()), servicebench::kConnectMs) !=
            ConfigSession::kOk ||
        !batchMatchesSingles(&session, requests)) {
        failures = 1;
    } else {
        for (int round = 0; round < settings.rounds; ++round) {
            const Round result = measureRound(&session, requests, settings.repeats);
            batchMs.push_back(result.batchMs);
            singlesMs.push_back(result.singlesMs);
            failures += result.failures;
        }
    }
    servicebench::stopService(service);
    if (failures != 0) {
        std::fprintf(stderr, "%ld failed or wrong answers\n", failures);
        return 1;
    }

    const double batch = servicebench::median(batchMs);
    const double singles = servicebench::median(singlesMs);
    const double ratio = singles / batch;
    const bool pass = ratio >= kTargetRatio;
    std::printf("%d instances; service and client on CPU 0; median of %d rounds of %d repeats\n\n",
                kInstances, settings.rounds, settings.repeats);
    std::printf("%-24s %10s %16s\n", "requests", "ms", "us per instance");
    std::printf("%-24s %10.3f %16.2f\n", "100 ReadReq", singles, singles * 1000 / kInstances);
    std::printf("%-24s %10.3f %16.2f\n", "1 BatchReadReq of 100", batch, batch * 1000 / kInstances);
    std::printf("\nsingle / batch %.1fx, target >= %.0fx: %s\n", ratio, kTargetRatio,
                pass ? "PASS" : "FAIL");
    return settings.check && !pass ? 1 : 0;
}

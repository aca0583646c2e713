// The time to store 100 writes with one submission (start, 100 staged writes, end) against the
// time to store the same 100 writes one durable write at a time, over one session, measured in
// the same run.
//
//   configsrvc_submission_bench [--rounds N] [--dir DIR] [--check]
//
// The service and this program both run on CPU 0. Each round writes new values (so that every
// write changes something) first as 100 single writes, then as one submission, and both are
// read back and checked; the figures are the medians over the rounds. Any failed or wrong
// answer makes the program exit 1. The target is single / submission >= 10; with --check,
// missing it also exits 1.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"
#include "bench_options.h"
#include "service_runner.h"

namespace {

using Clock = std::chrono::steady_clock;
using configclient::ConfigSession;
using servicebench::kAnswerMs;

constexpr int kWrites = 100;
constexpr double kTargetRatio = 10;
constexpr char kScope[] = "network";

struct Settings {
    int rounds = 21;
    std::string dir;
    bool check = false;
};

ConfigIF::Inst mtuOf(int interface) {
    ConfigIF::Inst instance;
    for (const auto& [name, number] :
         {std::pair<const char*, int>{"network", 0}, {"interface", interface}, {"mtu", 0}}) {
        ConfigIF::Node* node = instance.add_node();
        node->set_name(name);
        node->set_instance(number);
    }
    return instance;
}

// Write i of a round: the mtu of interface 1 to 3 in turn, each time a new value, so the last
// three writes of the round decide what is stored.
ConfigIF::WriteReq writeOf(int round, int i) {
    ConfigIF::WriteReq request;
    request.set_name("bench");
    request.set_role(CommonIF::kAdmin);
    *request.mutable_instance_val()->mutable_instance() = mtuOf(1 + i % 3);
    request.mutable_instance_val()->add_value(std::to_string(1000 + (round * kWrites + i) % 8000));
    return request;
}

bool written(ConfigSession* session, const ConfigIF::WriteReq& request) {
    ConfigIF::WriteRsp response;
    return session->write(request, &response, kAnswerMs) == ConfigSession::kOk &&
           response.ret_message().error() == CommonIF::kErrNoError;
}

bool submitted(ConfigSession* session, ConfigIF::SubmitType type) {
    ConfigIF::SubmitReq request;
    request.set_name("bench");
    request.set_role(CommonIF::kAdmin);
    request.mutable_instance()->add_node()->set_name(kScope);
    request.mutable_instance()->mutable_node(0)->set_instance(0);
    request.set_type(type);
    ConfigIF::SubmitRsp response;
    return session->submit(request, &response, kAnswerMs) == ConfigSession::kOk &&
           response.error() == CommonIF::kErrNoError;
}

// Whether the service holds the values of the last three writes of `round`.
bool holdsRound(ConfigSession* session, int round) {
    for (int i = kWrites - 3; i < kWrites; ++i) {
        const ConfigIF::WriteReq expected = writeOf(round, i);
        ConfigIF::ReadReq request;
        request.set_name("bench");
        request.set_role(CommonIF::kAdmin);
        *request.mutable_instance() = expected.instance_val().instance();
        ConfigIF::ReadRsp response;
        if (session->read(request, &response, kAnswerMs) != ConfigSession::kOk ||
            response.value_size() != 1 || response.value(0) != expected.instance_val().value(0)) {
            return false;
        }
    }
    return true;
}

double sinceMs(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Round {
    double singlesMs = 0;
    double submissionMs = 0;
    bool ok = true;
};

Round measureRound(ConfigSession* session, int round) {
    Round result;
    auto start = Clock::now();
    for (int i = 0; i < kWrites; ++i) {
        result.ok = written(session, writeOf(2 * round, i)) && result.ok;
    }
    result.singlesMs = sinceMs(start);
    result.ok = holdsRound(session, 2 * round) && result.ok;
    start = Clock::now();
    result.ok = submitted(session, ConfigIF::kSubmitStart) && result.ok;
    for (int i = 0; i < kWrites; ++i) {
        result.ok = written(session, writeOf(2 * round + 1, i)) && result.ok;
    }
    result.ok = submitted(session, ConfigIF::kSubmitEnd) && result.ok;
    result.submissionMs = sinceMs(start);
    result.ok = holdsRound(session, 2 * round + 1) && result.ok;
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    servicebench::BenchOptions options("configsrvc_submission_bench");
    options.add("--rounds", "N", &settings.rounds, 1);
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
    ConfigSession session;
    bool ok = session.connect("bench-submission-" + std::to_string(getpid()),
                              servicebench::kConnectMs) == ConfigSession::kOk;
    std::vector<double> singlesMs;
    std::vector<double> submissionMs;
    for (int round = 0; ok && round < settings.rounds; ++round) {
        const Round result = measureRound(&session, round);
        ok = result.ok;
        singlesMs.push_back(result.singlesMs);
        submissionMs.push_back(result.submissionMs);
    }
    servicebench::stopService(service);
    if (!ok) {
        std::fprintf(stderr, "a request failed, or a value read back was not the one written\n");
        return 1;
    }
    const double singles = servicebench::median(singlesMs);
    const double submission = servicebench::median(submissionMs);
    const double ratio = singles / submission;
    const bool pass = ratio >= kTargetRatio;
    std::printf("%d durable writes; service and client on CPU 0; median of %d rounds\n\n", kWrites,
                settings.rounds);
    std::printf("%-34s %10s %14s\n", "requests", "ms", "us per write");
    std::printf("%-34s %10.3f %14.1f\n", "100 WriteReq", singles, singles * 1000 / kWrites);
    std::printf("%-34s %10.3f %14.1f\n", "submission: start, 100 WriteReq, end", submission,
                submission * 1000 / kWrites);
    std::printf("\nsingle / submission %.1fx, target >= %.0fx: %s\n", ratio, kTargetRatio,
                pass ? "PASS" : "FAIL");
    return settings.check && !pass ? 1 : 0;
}

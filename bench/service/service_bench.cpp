// Throughput and latency of configsrvc with 1, 8 and 32 concurrent clients, each a session of
// the client library, beside the cost of one fsync on the same disk, measured in the same run.
//
//   configsrvc_bench [--rounds N] [--seconds S] [--dir DIR]
//
// The service's state and the fsync probe both live under DIR (default: a fresh folder in
// /tmp). The one-client runs pin the service and this program to CPU 0, so the latency measured
// is the service's and not the scheduler's.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"
#include "ConfigSession.h"
#include "bench_options.h"
#include "service_runner.h"

namespace {

using Clock = std::chrono::steady_clock;
using configclient::ConfigSession;
using servicebench::kAnswerMs;
using servicebench::kConnectMs;
using servicebench::median;

struct Settings {
    int rounds = 5;
    double seconds = 0.5;
    std::string dir;
};

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    size_t index = static_cast<size_t>(p * static_cast<double>(sorted.size() - 1));
    return sorted[index];
}

// One request/response on `session`; false on any failure or error answer.
bool readOnce(ConfigSession* session, const ConfigIF::ReadReq& request) {
    ConfigIF::ReadRsp response;
    return session->read(request, &response, kAnswerMs) == ConfigSession::kOk &&
           response.error() == CommonIF::kErrNoError;
}

bool writeOnce(ConfigSession* session, const ConfigIF::WriteReq& request) {
    ConfigIF::WriteRsp response;
    return session->write(request, &response, kAnswerMs) == ConfigSession::kOk &&
           response.ret_message().error() == CommonIF::kErrNoError;
}

ConfigIF::ReadReq volumeReadRequest() {
    ConfigIF::ReadReq request;
    request.set_name("bench");
    request.set_role(CommonIF::kUser);
    ConfigIF::Node* node = request.mutable_instance()->add_node();
    node->set_name("audio");
    node->set_instance(0);
    node = request.mutable_instance()->add_node();
    node->set_name("volume");
    node->set_instance(0);
    return request;
}

// Client c writes network/interface/dns of instance c % 3 + 1 with values of its own.
ConfigIF::WriteReq dnsWriteRequest(int client, int i) {
    ConfigIF::WriteReq request;
    request.set_name("bench");
    request.set_role(CommonIF::kAdmin);
    ConfigIF::Inst* inst = request.mutable_instance_val()->mutable_instance();
    const std::pair<const char*, int> path[] = {
        {"network", 0}, {"interface", client % 3 + 1}, {"dns", 0}};
    for (const auto& step : path) {
        ConfigIF::Node* node = inst->add_node();
        node->set_name(step.first);
        node->set_instance(step.second);
    }
    request.mutable_instance_val()->add_value("c" + std::to_string(client) + "-" +
                                              std::to_string(i));
    return request;
}

struct Result {
    double perSecond;
    std::vector<double> latenciesMs;
    long failures;
};

Result measure(int clients, bool writes, double seconds) {
    std::vector<std::vector<double>> latencies(clients);
    std::atomic<long> failures{0};
    std::atomic<bool> go{false};
    std::atomic<bool> stop{false};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    const ConfigIF::ReadReq read = volumeReadRequest();
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            ConfigSession session;
            const ConfigSession::Status connected = session.connect(
                "bench-" + std::to_string(getpid()) + "-" + std::to_string(c), kConnectMs);
            ++ready;
            if (connected != ConfigSession::kOk) {
                ++failures;
                return;
            }
            while (!go) {
                std::this_thread::yield();
            }
            for (int i = 0; !stop; ++i) {
                const ConfigIF::WriteReq write =
                    writes ? dnsWriteRequest(c, i) : ConfigIF::WriteReq();
                auto start = Clock::now();
                bool ok = writes ? writeOnce(&session, write) : readOnce(&session, read);
                latencies[c].push_back(
                    std::chrono::duration<double, std::milli>(Clock::now() - start).count());
                failures += ok ? 0 : 1;
            }
        });
    }
    while (ready < clients) {
        std::this_thread::yield();
    }
    auto start = Clock::now();
    go = true;
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    Result result{0, {}, failures};
    for (auto& own : latencies) {
        result.latenciesMs.insert(result.latenciesMs.end(), own.begin(), own.end());
    }
    result.perSecond = static_cast<double>(result.latenciesMs.size()) / elapsed;
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    servicebench::BenchOptions options("configsrvc_bench");
    options.add("--rounds", "N", &settings.rounds, 1);
    options.add("--seconds", "S", &settings.seconds, 0.1);
    options.add("--dir", "DIR", &settings.dir);
    if (!options.parseOrExplain(argc, argv)) {
        return 2;
    }
    const servicebench::ScratchDir dir(settings.dir);

    double fsyncMs = servicebench::fsyncCostMs(dir.path(), 200);
    std::printf("fsync (512 bytes + fdatasync) on %s: median %.3f ms\n\n", dir.path().c_str(),
                fsyncMs);
    std::printf("%-6s %-8s %12s %9s %9s %9s   (%d rounds of %.1f s; median rate)\n", "op",
                "clients", "per second", "p50 ms", "p90 ms", "p99 ms", settings.rounds,
                settings.seconds);

    double reads8 = 0;
    double writeP50One = 0;
    double writes32 = 0;
    long failures = 0;
    for (int clients : {1, 8, 32}) {
        bool pinned = clients == 1;
        std::string state = dir.path() + "/state-" + std::to_string(clients);
        pid_t service = servicebench::startService(state, pinned);
        if (service < 0) {
            std::fprintf(stderr, "configsrvc did not start\n");
            return 1;
        }
        if (pinned) {
            servicebench::pinToCpu0();
        }
        for (bool writes : {false, true}) {
            std::vector<double> rates;
            std::vector<double> all;
            for (int round = 0; round < settings.rounds; ++round) {
                Result result = measure(clients, writes, settings.seconds);
                rates.push_back(result.perSecond);
                all.insert(all.end(), result.latenciesMs.begin(), result.latenciesMs.end());
                failures += result.failures;
            }
            std::sort(all.begin(), all.end());
            double rate = median(rates);
            std::printf("%-6s %-8d %12.0f %9.3f %9.3f %9.3f\n", writes ? "write" : "read", clients,
                        rate, percentile(all, 0.5), percentile(all, 0.9), percentile(all, 0.99));
            if (!writes && clients == 8) {
                reads8 = rate;
            } else if (writes && clients == 1) {
                writeP50One = percentile(all, 0.5);
            } else if (writes && clients == 32) {
                writes32 = rate;
            }
        }
        servicebench::unpin();
        servicebench::stopService(service);
    }

    std::printf("\ntargets:\n");
    std::printf("  reads/s with 8 clients        %10.0f  >= 50000        %s\n", reads8,
                reads8 >= 50000 ? "met" : "NOT MET");
    std::printf("  write p50 with 1 client (ms)  %10.3f  <= %.3f + 0.5  %s\n", writeP50One, fsyncMs,
                writeP50One <= fsyncMs + 0.5 ? "met" : "NOT MET");
    std::printf("  writes/s with 32 clients      %10.0f  >= 2000         %s\n", writes32,
                writes32 >= 2000 ? "met" : "NOT MET");
    std::printf("  failed requests               %10ld\n", failures);
    return failures == 0 ? 0 : 1;
}

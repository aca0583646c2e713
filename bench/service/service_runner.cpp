#include "service_runner.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "ConfigSession.h"

extern char** environ;

namespace servicebench {

ScratchDir::ScratchDir(std::string dir) : path_(std::move(dir)) {
    if (path_.empty()) {
        char pattern[] = "/tmp/configsrvc-bench-XXXXXX";
        own_ = mkdtemp(pattern) != nullptr;
        path_ = own_ ? pattern : "/tmp";
    }
    std::string endpoints = path_ + "/ep";
    mkdir(endpoints.c_str(), 0755);
    setenv("MSGPASS_DIR", endpoints.c_str(), 1);
    signal(SIGPIPE, SIG_IGN);
}

ScratchDir::~ScratchDir() {
    if (own_) {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
}

namespace {

bool serviceAnswers() {
    configclient::ConfigSession probe;
    return probe.connect("bench-probe-" + std::to_string(getpid()), kConnectMs) ==
           configclient::ConfigSession::kOk;
}

}  // namespace

pid_t startService(const std::string& state, bool pinned) {
    std::vector<std::string> argv = {CONFIGSRVC_BIN, "--model", EXAMPLE_MODEL, "--state", state};
    if (pinned) {
        argv.insert(argv.begin(), {"/usr/bin/taskset", "-c", "0"});
    }
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(arg.data());
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    if (pid > 0 && !serviceAnswers()) {
        stopService(pid);
        pid = -1;
    }
    return pid;
}

void stopService(pid_t service) {
    kill(service, SIGTERM);
    waitpid(service, nullptr, 0);
}

void pinToCpu0() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    sched_setaffinity(0, sizeof set, &set);
}

void unpin() {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        CPU_SET(cpu, &set);
    }
    sched_setaffinity(0, sizeof set, &set);
}

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double fsyncCostMs(const std::string& dir, int samples) {
    std::string path = dir + "/fsync-probe";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        return -1;
    }
    char block[512] = {};
    std::vector<double> times;
    for (int i = 0; i < samples; ++i) {
        auto start = std::chrono::steady_clock::now();
        if (pwrite(fd, block, sizeof block, (i % 64) * 512) < 0 || fdatasync(fd) != 0) {
            close(fd);
            return -1;
        }
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
    close(fd);
    unlink(path.c_str());
    return median(times);
}

}  // namespace servicebench

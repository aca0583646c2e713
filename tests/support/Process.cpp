#include "Process.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "TempDir.h"

namespace testsupport {
namespace {

// In the child: becomes `program` with `env` applied, or ends with status 127.
[[noreturn]] void execute(const std::string& program, const std::vector<std::string>& argv,
                          const Environment& env) {
    for (const auto& [name, value] : env) {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }
    std::vector<char*> pointers;
    for (const std::string& word : argv) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    execv(program.c_str(), pointers.data());
    _exit(127);
}

int statusOf(int waitStatus) {
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
}

void redirectInput() {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
}

}  // namespace

Outcome runProgram(const std::string& program, const std::vector<std::string>& argv,
                   const Environment& env) {
    Outcome run;
    std::FILE* out = std::tmpfile();
    int err[2];
    if (out == nullptr || pipe2(err, O_CLOEXEC) != 0) {
        return run;
    }
    run.pid = fork();
    if (run.pid == 0) {
        redirectInput();
        dup2(fileno(out), 1);
        dup2(err[1], 2);
        execute(program, argv, env);
    }
    close(err[1]);
    run.err = drain(err[0]);
    int status = 0;
    waitpid(run.pid, &status, 0);
    run.status = statusOf(status);
    lseek(fileno(out), 0, SEEK_SET);
    run.out = drain(dup(fileno(out)));
    std::fclose(out);
    return run;
}

Outcome runShell(const std::string& command, const Environment& env) {
    return runProgram("/bin/sh", {"sh", "-c", command}, env);
}

Background::Background(const std::string& program, const std::vector<std::string>& argv,
                       const Environment& env, const std::string& logPath)
    : logPath(logPath) {
    pid = fork();
    if (pid == 0) {
        redirectInput();
        const int log = logPath.empty()
                            ? open("/dev/null", O_WRONLY)
                            : open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(log, 1);
        dup2(log, 2);
        execute(program, argv, env);
    }
}

Background::Background(const std::function<int()>& body) {
    std::fflush(nullptr);  // else the child would write this process's buffered output again
    pid = fork();
    if (pid == 0) {
        _exit(body());
    }
}

Background::~Background() {
    stop(SIGKILL);
}

bool Background::running() {
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
        endStatus = statusOf(status);
        pid = -1;
    }
    return pid > 0;
}

bool waitFor(const std::function<bool()>& holds, int timeoutMs) {
    for (const long long start = monotonicNs(); !holds(); usleep(2000)) {
        if (msSince(start) >= timeoutMs) {
            return false;
        }
    }
    return true;
}

bool Background::waitUntil(const std::function<bool()>& ready, int timeoutMs) {
    bool met = false;
    waitFor([&] { return (met = ready()) || !running(); }, timeoutMs);
    return met;
}

bool Background::waitForLog(const std::string& text, int timeoutMs) {
    return waitUntil([&] { return log().find(text) != std::string::npos; }, timeoutMs);
}

std::string Background::log() const {
    return logPath.empty() ? std::string() : readFile(logPath);
}

int Background::stop(int signal) {
    if (pid <= 0) {
        return endStatus;
    }
    int status = 0;
    kill(pid, signal);
    endStatus = waitpid(pid, &status, 0) == pid ? statusOf(status) : -1;
    pid = -1;
    return endStatus;
}

long long monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

long msSince(long long startNs) {
    return static_cast<long>((monotonicNs() - startNs) / 1000000);
}

long statusKiB(pid_t pid, const std::string& field) {
    for (const std::string& line :
         split(readFile("/proc/" + std::to_string(pid) + "/status"), "\n")) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::stol(line.substr(field.size() + 1));
        }
    }
    return -1;
}

}  // namespace testsupport

#include "Harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

// In the child: replaces it with `program`, or ends it with status 127.
[[noreturn]] void execute(const std::string& program, const std::vector<std::string>& argv,
                          const Environment& env) {
    for (const char* name :
         {"MSGPASS_MAX_WAIT_MS", "BOOT_MODE", "LOGMSG_TEST_DEVICE", "SETVANE_TEST_PID_FILE"}) {
        unsetenv(name);
    }
    for (const auto& entry : env) {
        setenv(entry.first.c_str(), entry.second.c_str(), 1);
    }
    std::vector<char*> pointers;
    for (const std::string& word : argv) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    execv(program.c_str(), pointers.data());
    _exit(127);
}

}  // namespace

Outcome runProgram(const std::string& program, const std::vector<std::string>& argv,
                   const Environment& env) {
    Outcome run;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        return run;
    }
    run.pid = fork();
    if (run.pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        execute(program, argv, env);
    }
    close(out[1]);
    close(err[1]);
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* into[2] = {&run.out, &run.err};
    for (int open = 2; open > 0 && poll(fds, 2, -1) > 0;) {
        for (int i = 0; i < 2; ++i) {
            char buffer[4096];
            const ssize_t n = fds[i].revents != 0 ? read(fds[i].fd, buffer, sizeof buffer) : -1;
            if (n > 0) {
                into[i]->append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || fds[i].revents != 0) {
                close(fds[i].fd);
                fds[i].fd = -1;  // poll skips it from now on
                --open;
            }
        }
    }
    int status = 0;
    waitpid(run.pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

Outcome runSetvane(const std::vector<std::string>& words, const Environment& env,
                   const char* program) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    return runProgram(program, argv, env);
}

Background::Background(const std::string& program, const std::vector<std::string>& argv,
                       const Environment& env, bool untilReady) {
    // Closes on exec, or carries the child's standard output when it is to say "ready".
    int sync[2];
    if (pipe2(sync, O_CLOEXEC) != 0) {
        return;
    }
    pid = fork();
    if (pid == 0) {
        if (untilReady) {
            dup2(sync[1], 1);
        }
        execute(program, argv, env);
    }
    close(sync[1]);
    std::string said;
    char c;
    while (said != "ready\n" && read(sync[0], &c, 1) == 1) {
        said.push_back(c);
    }
    close(sync[0]);
    // The exec has begun; its new command line shows once the kernel has set up the arguments.
    const std::string cmdline = "/proc/" + std::to_string(pid) + "/cmdline";
    for (int tries = 0; !untilReady && tries < 1000 && readFile(cmdline).empty(); ++tries) {
        usleep(100);
    }
    ready = pid > 0 && (!untilReady || said == "ready\n");
}

Background::~Background() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

TempDir::TempDir() {
    char pattern[] = "/tmp/setvane-test-XXXXXX";
    path = mkdtemp(pattern) != nullptr ? pattern : "";
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string toHex(const std::string& bytes) {
    std::string hex;
    for (unsigned char c : bytes) {
        hex += "0123456789abcdef"[c >> 4];
        hex += "0123456789abcdef"[c & 15];
    }
    return hex;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
    return text;
}

#include "Harness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace {

// In the child: becomes `program`, or ends with status 127.
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

// Everything left to read from `fd`, which is then closed.
std::string drain(int fd) {
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
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
        dup2(fileno(out), 1);
        dup2(err[1], 2);
        execute(program, argv, env);
    }
    close(err[1]);
    run.err = drain(err[0]);
    int status = 0;
    waitpid(run.pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    lseek(fileno(out), 0, SEEK_SET);
    run.out = drain(dup(fileno(out)));
    std::fclose(out);
    return run;
}

Background::Background(const std::string& program, const std::vector<std::string>& argv,
                       const Environment& env) {
    int said[2];
    if (pipe2(said, O_CLOEXEC) != 0) {
        return;
    }
    pid = fork();
    if (pid == 0) {
        dup2(said[1], 1);
        execute(program, argv, env);
    }
    close(said[1]);
    std::string line;
    for (char c; line != "ready\n" && read(said[0], &c, 1) == 1;) {
        line.push_back(c);
    }
    close(said[0]);
    ready = line == "ready\n";
}

Background::~Background() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

std::string readFile(const std::string& path) {
    return drain(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    for (size_t begin = 0, end = 0; !text.empty() && end != std::string::npos;
         begin = end + separator.size()) {
        end = text.find(separator, begin);
        pieces.push_back(text.substr(begin, end - begin));
    }
    return pieces;
}

std::vector<std::string> dataLines(const std::string& path) {
    std::vector<std::string> lines;
    for (const std::string& line : split(readFile(path), "\n")) {
        if (!line.empty() && line[0] != '#') {
            lines.push_back(line);
        }
    }
    EXPECT_FALSE(lines.empty()) << path;  // a missing file would check nothing
    return lines;
}

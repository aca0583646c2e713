#include "ToolProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

void applyEnvironment(const Environment& env) {
    for (const char* name :
         {"MSGPASS_MAX_WAIT_MS", "BOOT_MODE", "LOGMSG_TEST_DEVICE", "SETVANE_TEST_PID_FILE"}) {
        unsetenv(name);
    }
    for (const auto& entry : env) {
        setenv(entry.first.c_str(), entry.second.c_str(), 1);
    }
}

std::vector<char*> argvOf(const std::string& program, const std::vector<std::string>& words) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

int exitStatusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return 128 + WTERMSIG(waitStatus);
}

}  // namespace

TempDir::TempDir() {
    char pattern[] = "/tmp/setvane-test-XXXXXX";
    const char* made = mkdtemp(pattern);
    dir = made != nullptr ? made : "";
}

TempDir::~TempDir() {
    if (!dir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

ToolRun runProgram(const std::string& binary, const std::vector<std::string>& argv,
                   const Environment& env, const std::string& input) {
    TempDir files;
    const std::string inPath = files.file("stdin");
    const std::string outPath = files.file("stdout");
    const std::string errPath = files.file("stderr");
    std::ofstream(inPath, std::ios::binary) << input;
    std::vector<char*> argvPointers;
    for (const std::string& word : argv) {
        argvPointers.push_back(const_cast<char*>(word.c_str()));
    }
    argvPointers.push_back(nullptr);

    ToolRun run;
    run.pid = fork();
    if (run.pid == 0) {
        const int in = open(inPath.c_str(), O_RDONLY);
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(err, 2) < 0) {
            _exit(126);
        }
        applyEnvironment(env);
        execv(binary.c_str(), argvPointers.data());
        _exit(127);
    }
    int waitStatus = 0;
    waitpid(run.pid, &waitStatus, 0);
    run.status = exitStatusOf(waitStatus);
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    return run;
}

ToolRun runSetvane(const std::vector<std::string>& words, const Environment& env) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    return runProgram(SETVANE_BINARY, argv, env);
}

StandinService::~StandinService() {
    stop();
}

bool StandinService::start(const std::vector<std::string>& options) {
    int ready[2];
    if (pipe(ready) != 0) {
        return false;
    }
    const std::string program = STANDIN_BINARY;
    std::vector<char*> argv = argvOf(program, options);
    pid = fork();
    if (pid == 0) {
        dup2(ready[1], 1);
        close(ready[0]);
        close(ready[1]);
        setenv("MSGPASS_DIR", dir.c_str(), 1);
        unsetenv("MSGPASS_MAX_WAIT_MS");
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(ready[1]);
    char line[6] = {};
    size_t got = 0;
    while (got < sizeof line) {
        const ssize_t n = read(ready[0], line + got, sizeof line - got);
        if (n <= 0) {
            break;
        }
        got += static_cast<size_t>(n);
    }
    close(ready[0]);
    return got == sizeof line && std::string(line, sizeof line) == "ready\n";
}

void StandinService::stop() {
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        pid = 0;
    }
}

std::string toHex(const std::string& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char c : bytes) {
        hex.push_back(kDigits[c >> 4]);
        hex.push_back(kDigits[c & 15]);
    }
    return hex;
}

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

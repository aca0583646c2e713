#include "IdleProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

IdleProcess::IdleProcess(const std::vector<std::string>& argv) {
    std::vector<char*> pointers;
    for (const std::string& word : argv) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    // The write end closes on a successful exec; until then /proc shows the test's own
    // command line, so the constructor waits for that close.
    int execDone[2];
    if (pipe2(execDone, O_CLOEXEC) != 0) {
        return;
    }
    child = fork();
    if (child == 0) {
        execv(IDLE_PROCESS_BINARY, pointers.data());
        const char failed = 1;
        ssize_t ignored = write(execDone[1], &failed, 1);
        (void)ignored;
        _exit(127);
    }
    close(execDone[1]);
    char failed = 0;
    const ssize_t got = read(execDone[0], &failed, 1);
    close(execDone[0]);
    if (child > 0 && got != 0) {
        waitpid(child, nullptr, 0);
        child = 0;
    }
    if (child < 0) {
        child = 0;
    }
}

IdleProcess::~IdleProcess() {
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

void IdleProcess::becomeZombie() {
    if (child > 0) {
        kill(child, SIGKILL);
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
    }
}

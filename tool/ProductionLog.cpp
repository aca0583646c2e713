#include "ProductionLog.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ProcessCmdline.h"
#include "logmsg.h"

namespace {

const char kBootModeVariable[] = "BOOT_MODE";
const char kProductionMode[] = "PRODUCTION";
const char kLogDaemonPidFile[] = "/tmp/nxlog.pid";
const char kSystemLogDaemon[] = "syslogd";
const char kLogName[] = "setvane";
// A pid line longer than this could not make a path that opens.
const size_t kLongestPidLine = PATH_MAX;
// The kernel bounds a command line; a file of it is read whole.
const size_t kAnyLength = std::string::npos - 1;

const char* logDaemonPidFile() {
#ifdef SETVANE_TEST_PID_FILE_ENV
    const char* path = std::getenv(SETVANE_TEST_PID_FILE_ENV);
    if (path != nullptr && path[0] != '\0') {
        return path;
    }
#endif
    return kLogDaemonPidFile;
}

// Reads `path` up to its first newline or its end, NUL bytes included. False when the file
// cannot be opened or its first line is longer than `limit`. Opened without blocking, so that a
// FIFO in place of a file reads as empty instead of holding up the tool.
bool readFirstLine(const char* path, size_t limit, std::string& line) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::FILE* file = fdopen(fd, "r");
    if (file == nullptr) {
        close(fd);
        return false;
    }
    line.clear();
    int c;
    while ((c = std::getc(file)) != EOF && c != '\n' && line.size() <= limit) {
        line.push_back(static_cast<char>(c));
    }
    std::fclose(file);
    return line.size() <= limit;
}

bool isProductionBoot() {
    const char* mode = std::getenv(kBootModeVariable);
    return mode != nullptr && std::strcmp(mode, kProductionMode) == 0;
}

bool logDaemonIsSyslogd() {
    std::string pid;
    if (!readFirstLine(logDaemonPidFile(), kLongestPidLine, pid)) {
        return false;
    }
    // The pid is taken exactly as written: stray blanks or a carriage return name no process.
    const std::string cmdlinePath = "/proc/" + pid + "/cmdline";
    std::string cmdline;
    if (!readFirstLine(cmdlinePath.c_str(), kAnyLength, cmdline)) {
        return false;
    }
    // Byte-wise: the name may sit in any word of the NUL-separated command line.
    return cmdline.find(kSystemLogDaemon, 0, sizeof kSystemLogDaemon - 1) != std::string::npos;
}

}  // namespace

bool startProductionLog() {
    if (!isProductionBoot() || !logDaemonIsSyslogd()) {
        return false;
    }
    logmsg_init(0, kLogName);
    return true;
}

void writeProductionLog(const std::string& line) {
    const std::string cmdline = getProcessCmdline(getpid());
    logmsg_err(nullptr, "(%s): %s\n", cmdline.c_str(), line.c_str());
}

#include "ProductionLog.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ProcessCmdline.h"
#include "logmsg.h"

const char ProductionLog::kLogDaemonPidFile[] = "/tmp/nxlog.pid";
const char ProductionLog::kLogDevice[] = LOGMSG_DEVICE_PATH;

namespace {

const char kBootModeVariable[] = "BOOT_MODE";
const char kProductionMode[] = "PRODUCTION";
const char kSystemLogDaemon[] = "syslogd";
const char kLogName[] = "setvane";
// A pid line longer than this could not make a path that opens.
const size_t kLongestPidLine = PATH_MAX;

// Reads `fd` up to its first newline or its end, NUL bytes included, and closes it. False when
// `fd` is not open or the first line is longer than `limit`.
bool readFirstLine(int fd, size_t limit, std::string& line) {
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

// Opened without blocking, so that a FIFO in place of the pid file reads as empty instead of
// holding up the tool.
bool logDaemonIsSyslogd(const char* pidFile) {
    std::string pid;
    if (!readFirstLine(open(pidFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC), kLongestPidLine, pid)) {
        return false;
    }
    // The pid is taken exactly as written: stray blanks or a carriage return name no process.
    std::string cmdline;
    if (!readFirstLine(logmsg_open_cmdline(pid.c_str()), std::string::npos - 1, cmdline)) {
        return false;
    }
    // Byte-wise: the name may sit in any word of the NUL-separated command line.
    return cmdline.find(kSystemLogDaemon, 0, sizeof kSystemLogDaemon - 1) != std::string::npos;
}

}  // namespace

bool ProductionLog::start() {
    if (!isProductionBoot() || !logDaemonIsSyslogd(pidFile)) {
        return false;
    }
    logmsg_init_with_device(0, kLogName, logDevice);
    return true;
}

void ProductionLog::write(const std::string& line) {
    const std::string cmdline = getProcessCmdline(getpid());
    logmsg_err(nullptr, "(%s): %s\n", cmdline.c_str(), line.c_str());
}

// Runs the tool's production-log code as setvane does, with files of the test's: the mirror is
// ProductionLog(PROBE_PID_FILE, PROBE_LOG_DEVICE) and the line "ReadRsp error kErrItemNotFound"
// goes through the LogStream. With PROBE_CMDLINE_OF=<pid> it writes getProcessCmdline(<pid>) to
// standard error between brackets instead; with PROBE_IDLE set it says "ready" and idles until
// killed, under whatever command line it was given (a log daemon's, say). Linked with logmsg,
// whose printf owns standard output, so it is a program of its own rather than part of a test
// runner.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "LogStream.h"
#include "ProcessCmdline.h"
#include "ProductionLog.h"

int main() {
    if (std::getenv("PROBE_IDLE") != nullptr) {
        for (bool said = write(1, "ready\n", 6) == 6; said;) {
            pause();
        }
        return 1;
    }
    if (const char* pid = std::getenv("PROBE_CMDLINE_OF")) {
        const std::string cmdline = getProcessCmdline(std::atoi(pid));
        std::fprintf(stderr, "[%.*s]", static_cast<int>(cmdline.size()), cmdline.data());
        return 0;
    }
    setLogMirror(new ProductionLog(std::getenv("PROBE_PID_FILE"), std::getenv("PROBE_LOG_DEVICE")));
    LogStream::instance() << "ReadRsp error "
                          << "kErrItemNotFound" << '\n';
    return 0;
}

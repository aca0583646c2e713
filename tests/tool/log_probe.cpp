// Runs the tool's production-log code as setvane does, with files of the test's: the mirror is
// ProductionLog(PROBE_PID_FILE, PROBE_LOG_DEVICE) and the line "ReadRsp error kErrItemNotFound"
// goes through the LogStream. With PROBE_CMDLINE_OF=<pid> it writes getProcessCmdline(<pid>) to
// standard error between brackets instead. Linked with logmsg, whose printf owns standard
// output, so it is a program of its own rather than part of a test runner.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "LogStream.h"
#include "ProcessCmdline.h"
#include "ProductionLog.h"

int main() {
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

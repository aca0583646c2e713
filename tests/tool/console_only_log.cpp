// The in-process test runner's build of the system-log mirroring: lines stay on the console.
//
// The real builds link logmsg, whose printf would take over GoogleTest's own output, so this
// runner cannot have them; the mirroring is tested through programs that link them instead.
#include <cstdlib>

#include "ProductionLog.h"

bool startProductionLog() {
    return false;
}

void writeProductionLog(const std::string&) {
    // Unreachable: LogStream mirrors only after startProductionLog returned true.
    std::abort();
}

// The in-process test runner's build of the system-log mirroring: lines stay on the console (the
// real builds link logmsg, whose printf would take over the runner's own output).
#include <cstdlib>

#include "ProductionLog.h"

bool startProductionLog() {
    return false;
}

void writeProductionLog(const std::string&) {
    std::abort();  // LogStream mirrors only after startProductionLog said yes
}

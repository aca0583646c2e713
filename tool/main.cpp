// setvane: reads or writes one configuration variable instance held by ConfigSrvc.
#include <cstdio>
#include <cstring>

#include "Arg.h"
#include "CommandLine.h"
#include "ConfigClient.h"
#include "ProductionLog.h"
#include "transport/DebugTrace.h"

namespace {

// One transaction with the service; its result is the exit status.
int run(const CommandLine& line) {
    debugTrace = line.debug;
    // Connects before the command is looked at: a rejected command has still reached the service.
    ConfigClient client;
    if (std::strcmp(line.command, "--read") == 0) {
        return client.read(line.clientName, line.roleName, line.request.instance());
    }
    if (std::strcmp(line.command, "--write") == 0 || std::strcmp(line.command, "-w") == 0) {
        return client.write(line.clientName, line.roleName, line.request);
    }
    std::fprintf(stderr, "\"%s\" not supported yet\n", line.command);
    exitWithHelpHint();
}

}  // namespace

// The protocol buffer runtime keeps its own log handler: its complaints (a string field that is
// not UTF-8, the required fields a reply lacks) go to standard error as it writes them, beside
// the tool's own lines.
int main(int argc, char** argv) {
    // Before the first line: the log stream decides on its targets when it is created. Never
    // freed, like the stream that uses it.
    setLogMirror(new ProductionLog());
    CommandLine line;
    parseCommandLine(argc, argv, line);
    return run(line);
}

// The command line: `setvane [options]... [command] [parameters]...`.
//
// Plain words name the variable instance as nodes, each optionally followed by its instance
// number ("sys 1 net" is (sys, 1), (net, 0)); after --value/-v every plain word is a value.
// Options may stand anywhere. Every error here ends the process with status 1 before any
// contact with the service.
#ifndef SETVANE_TOOL_COMMANDLINE_H
#define SETVANE_TOOL_COMMANDLINE_H

#include "Common/protobuf/v3/configservice.pb.h"

// What the command line asks for, resolved to one transaction. The texts point into argv or
// at literals and live as long as the process.
struct CommandLine {
    const char* command = nullptr;     // "--read", "--write" or "-w"
    const char* clientName = nullptr;  // null: the endpoint's own name is sent
    const char* roleName = nullptr;    // given with --role, else the default for the command
    bool debug = false;
    ConfigIF::InstValue request;  // always carries an `instance`, possibly without nodes
};

// Reads argv[1..argc-1] into `line`. Shows the usage text and ends the process with status 1
// for --help and when there is nothing to read; reports misuse and ends the process likewise.
void parseCommandLine(int argc, char** argv, CommandLine& line);

#endif  // SETVANE_TOOL_COMMANDLINE_H

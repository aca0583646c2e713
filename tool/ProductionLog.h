// Mirroring of the tool's error lines into the system log on production devices.
//
// A production device (BOOT_MODE exactly "PRODUCTION") whose log daemon, named by the pid file
// /tmp/nxlog.pid, is the system log daemon (its command line holds "syslogd" somewhere) keeps a
// copy of every error line in the log, so that a log reader sees which invocation of the tool
// failed. Anything else keeps the lines on the console only, without a word.
//
// Two builds of ProductionLog.cpp exist: the product's, linked with logmsg, and a test build,
// linked with logmsg_testdev, where SETVANE_TEST_PID_FILE_ENV names an environment variable that
// may replace the pid file's path. The product reads /tmp/nxlog.pid and nothing else.
#ifndef SETVANE_TOOL_PRODUCTIONLOG_H
#define SETVANE_TOOL_PRODUCTIONLOG_H

#include <string>

// Decides whether lines are mirrored; when they are, initialises logmsg under the name "setvane"
// (which opens the log device) and returns true. Reads the environment and the files once per
// call; meant to be called once per process.
bool startProductionLog();

// Logs `line` at error level as "(<this process's command line>): <line>". The command line is
// read anew for every line. Only valid after startProductionLog returned true. Failures of the
// log device are handled inside logmsg and never reach the caller.
void writeProductionLog(const std::string& line);

#endif  // SETVANE_TOOL_PRODUCTIONLOG_H

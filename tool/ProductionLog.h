// Mirroring of the tool's error lines into the system log on production devices.
//
// A production device (BOOT_MODE exactly "PRODUCTION") whose log daemon, named by the pid file
// /tmp/nxlog.pid, is the system log daemon (its command line holds "syslogd" somewhere) keeps a
// copy of every error line in the log, so that a log reader sees which invocation of the tool
// failed. Anything else keeps the lines on the console only, without a word.
//
// setvane's main installs one ProductionLog with the default paths as the LogStream's mirror.
// The pid file and the log device are constructor parameters so that tests can run this same
// code against files of their own; the program has no other way to change them.
#ifndef SETVANE_TOOL_PRODUCTIONLOG_H
#define SETVANE_TOOL_PRODUCTIONLOG_H

#include <string>

#include "LogStream.h"

class ProductionLog : public LogMirror {
  public:
    static const char kLogDaemonPidFile[];  // "/tmp/nxlog.pid"
    static const char kLogDevice[];         // the kernel log device logmsg_init opens

    // Both strings must outlive the object; they are not copied.
    explicit ProductionLog(const char* pidFile = kLogDaemonPidFile,
                           const char* logDevice = kLogDevice)
        : pidFile(pidFile), logDevice(logDevice) {}
    virtual ~ProductionLog() {}

    // Decides whether lines are mirrored; when they are, initialises logmsg under the name
    // "setvane" with the log device (which opens it) and returns true. Reads the environment
    // and the files once per call; meant to be called once per process.
    bool start() override;

    // Logs `line` at error level as "(<this process's command line>): <line>". The command line
    // is read anew for every line. Only valid after start() returned true. Failures of the log
    // device are handled inside logmsg and never reach the caller.
    void write(const std::string& line) override;

    const char* pidFile;
    const char* logDevice;
};

#endif  // SETVANE_TOOL_PRODUCTIONLOG_H

// LogTarget: where the service's log goes.
//
// On the device every program logs to the kernel log device, and so does the service. A host has
// no such device, and there the logging library's fallback (standard output, block-buffered, every
// line labelled DEBUG) would leave a log file empty while the service runs and lose it on SIGKILL.
// So where the device is missing the service logs to standard error instead: one line per record,
// written as it happens, each starting with the "<level>" prefix that the system journal (or
// syslog) reads as its priority.
#ifndef CONFIGSRVC_LOG_TARGET_H
#define CONFIGSRVC_LOG_TARGET_H

#include <string>

namespace configsrvc {

enum class LogTarget {
    kAuto,           // the device when it can be opened for writing, else standard error
    kDevice,         // the device; the library's own fallback while it cannot be opened
    kStandardError,  // standard error, whatever else there is
};

// The target a command line names: "auto", "device" or "stderr". False for any other word.
bool parseLogTarget(const std::string& word, LogTarget* target);

// Initialises the logging library for `program`, once and before any thread logs. Returns the
// target taken (never kAuto).
LogTarget startLogging(LogTarget wanted, const char* program);

}  // namespace configsrvc

#endif  // CONFIGSRVC_LOG_TARGET_H

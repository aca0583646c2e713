// Programs run as a user runs them: exact standard output and error, exit status, and helper
// processes kept alive in the background for the length of a test.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

// Changes to the test's own environment for a child: a value sets, nullopt unsets.
using Environment = std::vector<std::pair<std::string, std::optional<std::string>>>;

struct Outcome {
    int status = -1;  // exit status, or 128 + the number of the signal that ended it
    pid_t pid = 0;
    std::string out;
    std::string err;
};

// Runs `program` with `argv` (argv[0] included) to its end, standard input from /dev/null.
// Standard output goes to a file and standard error to a pipe, so that a program that tells the
// two apart (isatty, buffering) behaves as it does for a user who redirects them.
Outcome runProgram(const std::string& program, const std::vector<std::string>& argv,
                   const Environment& env = {});

// `command` run by /bin/sh -c.
Outcome runShell(const std::string& command, const Environment& env = {});

// Polls `holds` every few milliseconds until it is true (true) or `timeoutMs` passed (false).
bool waitFor(const std::function<bool()>& holds, int timeoutMs = 5000);

// A child process that lives until stop() or the object's end (then SIGKILL). Its standard
// output and error go to `logPath` (appended), or to /dev/null when that is empty.
class Background {
  public:
    Background(const std::string& program, const std::vector<std::string>& argv,
               const Environment& env = {}, const std::string& logPath = "");
    // `body` run in a copy of this process made by fork(), its result the child's exit status;
    // the child writes where this process does.
    explicit Background(const std::function<int()>& body);
    virtual ~Background();
    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    // Polls `ready` every few milliseconds until it is true (true), or until `timeoutMs` passed
    // or the process ended (false).
    bool waitUntil(const std::function<bool()>& ready, int timeoutMs = 5000);
    // Waits until the log file holds `text`.
    bool waitForLog(const std::string& text, int timeoutMs = 5000);
    // The log file's content so far.
    std::string log() const;
    bool running();

    // Sends `signal` (0: none, waits for the process to end) and reaps the process: its exit
    // status, or 128 + the signal that ended it. A process that had already ended gives the
    // status it ended with; none started: -1.
    int stop(int signal);

    pid_t pid = -1;  // -1 once the process was reaped
    std::string logPath;
    int endStatus = -1;
};

// Milliseconds since `start` on the monotonic clock.
long msSince(long long startNs);
long long monotonicNs();

// Field `field` of /proc/<pid>/status ("VmRSS", "VmSize") in KiB, or -1 when it cannot be read.
long statusKiB(pid_t pid, const std::string& field);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_PROCESS_H

// A process with a command line of the test's choosing, for code that reads /proc/<pid>/cmdline.
#ifndef SETVANE_TESTS_TOOL_IDLEPROCESS_H
#define SETVANE_TESTS_TOOL_IDLEPROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// Starts the idle helper with `argv` (argv[0] included) as its command line; by the time the
// constructor returns, /proc shows that command line (or pid() is 0 when the start failed).
// Killed and reaped when the object goes.
class IdleProcess {
  public:
    explicit IdleProcess(const std::vector<std::string>& argv);
    virtual ~IdleProcess();
    pid_t pid() const { return child; }
    // Ends the process without reaping it: /proc keeps the zombie, whose command line is empty.
    void becomeZombie();

  private:
    pid_t child = 0;
};

#endif  // SETVANE_TESTS_TOOL_IDLEPROCESS_H

// Running setvane and its helpers as processes, and the bytes it is expected to write.
#ifndef SETVANE_TESTS_TOOL_HARNESS_H
#define SETVANE_TESTS_TOOL_HARNESS_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

using Environment = std::vector<std::pair<std::string, std::string>>;

struct Outcome {
    int status = -1;  // exit status, or 128 + signal number
    pid_t pid = 0;
    std::string out;
    std::string err;
};

// Runs `program` under `argv` (argv[0] included) and captures both output streams through pipes.
// `env` is added to the test's environment, from which the variables that change where setvane
// logs or how long libmsgpass waits are removed first.
Outcome runProgram(const std::string& program, const std::vector<std::string>& argv,
                   const Environment& env);

// setvane (by default the product build) with argv[0] "setvane" and `words` after it.
Outcome runSetvane(const std::vector<std::string>& words, const Environment& env,
                   const char* program = SETVANE_BINARY);

// A process left running until the object goes (then killed and reaped). Once constructed, its
// command line in /proc is `argv`; with `untilReady` it has also printed "ready" (the stand-in
// service does once it listens).
class Background {
  public:
    Background(const std::string& program, const std::vector<std::string>& argv,
               const Environment& env, bool untilReady);
    virtual ~Background();
    pid_t pid = 0;
    bool ready = false;
};

// A fresh directory under /tmp, removed with its contents when the object goes.
class TempDir {
  public:
    TempDir();
    virtual ~TempDir();
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path;
};

std::string readFile(const std::string& path);
std::string toHex(const std::string& bytes);
// `text` with every `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

// One LogStream line as it reaches standard error.
inline std::string redLine(const std::string& text) {
    return "\033[31m" + text + "\033[0m\n";
}

#endif  // SETVANE_TESTS_TOOL_HARNESS_H

// Running setvane and its helpers as processes, and the bytes setvane writes.
#ifndef SETVANE_TESTS_TOOL_HARNESS_H
#define SETVANE_TESTS_TOOL_HARNESS_H

#include <stdlib.h>
#include <sys/types.h>

#include <filesystem>
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

// Runs `program` under `argv` (argv[0] included) until it ends. Standard error is a pipe.
// `env` is added to the test's environment, less the variables that change where setvane logs
// or how long libmsgpass waits.
Outcome runProgram(const std::string& program, const std::vector<std::string>& argv,
                   const Environment& env);

// setvane (the product build unless `program` says otherwise) with argv[0] "setvane".
inline Outcome runSetvane(const std::vector<std::string>& words, const Environment& env,
                          const char* program = SETVANE_BINARY) {
    std::vector<std::string> argv = {"setvane"};
    argv.insert(argv.end(), words.begin(), words.end());
    return runProgram(program, argv, env);
}

// A helper process (the stand-in service, or the idle process under a chosen command line),
// kept running until the object goes. It is ready once it has printed "ready".
class Background {
  public:
    Background(const std::string& program, const std::vector<std::string>& argv,
               const Environment& env);
    virtual ~Background();
    pid_t pid = 0;
    bool ready = false;
};

// A fresh directory under /tmp, removed with its contents when the object goes.
class TempDir {
  public:
    TempDir() { path = mkdtemp(pattern) != nullptr ? pattern : ""; }
    virtual ~TempDir() { std::filesystem::remove_all(path, removeError); }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path;

  private:
    char pattern[32] = "/tmp/setvane-test-XXXXXX";
    std::error_code removeError;  // none expected; nothing to do about one
};

std::string readFile(const std::string& path);
std::string replaced(std::string text, const std::string& from, const std::string& to);
// The pieces of `text` between the separators; none for an empty text.
std::vector<std::string> split(const std::string& text, const std::string& separator);
// The lines of a data file of cases, less blank lines and "#" comments.
std::vector<std::string> dataLines(const std::string& path);

const char kHelpHint[] = "Please try `setvane --help' for more information.\n";

inline std::string redLine(const std::string& text) {
    return "\033[31m" + text + "\033[0m\n";
}

#endif  // SETVANE_TESTS_TOOL_HARNESS_H

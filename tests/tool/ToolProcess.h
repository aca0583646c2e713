// Running the built setvane binary, and the stand-in service, the way a user's shell would.
#ifndef SETVANE_TESTS_TOOL_TOOLPROCESS_H
#define SETVANE_TESTS_TOOL_TOOLPROCESS_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

using Environment = std::vector<std::pair<std::string, std::string>>;

struct ToolRun {
    int status = -1;  // exit status, or 128 + signal number
    pid_t pid = 0;
    std::string out;
    std::string err;
};

// A fresh directory under /tmp, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    virtual ~TempDir();
    const std::string& path() const { return dir; }
    std::string file(const std::string& name) const { return dir + "/" + name; }

  private:
    std::string dir;
};

// Runs `binary` with the argument vector `argv` (argv[0] included) and `input` on standard
// input. `env` is added to (or replaces entries of) the test's own environment; the variables
// that change how setvane waits or where it logs (MSGPASS_MAX_WAIT_MS, BOOT_MODE,
// LOGMSG_TEST_DEVICE, SETVANE_TEST_PID_FILE) are dropped unless given.
ToolRun runProgram(const std::string& binary, const std::vector<std::string>& argv,
                   const Environment& env, const std::string& input = "");

// Runs setvane with argv[0] "setvane" and the given words, as runProgram does.
ToolRun runSetvane(const std::vector<std::string>& words, const Environment& env);

// The stand-in service in its own process, listening in `msgpassDir` once start() returned.
class StandinService {
  public:
    explicit StandinService(const std::string& msgpassDir) : dir(msgpassDir) {}
    virtual ~StandinService();
    // Starts it with the given options (see standin_service.cpp); false when it did not get ready.
    bool start(const std::vector<std::string>& options);
    void stop();

  private:
    std::string dir;
    pid_t pid = 0;
};

std::string readFile(const std::string& path);

std::string toHex(const std::string& bytes);
std::string fromHex(const std::string& hex);

#endif  // SETVANE_TESTS_TOOL_TOOLPROCESS_H

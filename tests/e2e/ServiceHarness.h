// Helpers for tests that run the real service: a private endpoint folder and state folder,
// the service as a child process, programs run to completion, and an in-process protocol
// client over libmsgpass.
#ifndef CONFIGSRVC_TESTS_E2E_SERVICE_HARNESS_H
#define CONFIGSRVC_TESTS_E2E_SERVICE_HARNESS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"

namespace e2e {

// A fresh folder holding ep/ (the endpoint folder, exported as MSGPASS_DIR) and state/.
// Both are open to every user, so clients may run under another uid.
class Sandbox {
  public:
    Sandbox();
    virtual ~Sandbox();
    const std::string& root() const { return root_; }
    std::string endpoints() const { return root_ + "/ep"; }
    std::string state() const { return root_ + "/state"; }

  private:
    std::string root_;
};

struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

// Runs a program to completion with its output captured.
RunResult run(const std::vector<std::string>& argv);

// The service as a child process.
class ServiceProcess {
  public:
    ServiceProcess() = default;
    virtual ~ServiceProcess();

    // Starts it and waits until its endpoint is there; false (with its output in *error) when
    // it exits or does not open the endpoint within five seconds.
    bool start(const std::string& model, const std::string& state, std::string* error);
    // Sends `signal` and waits for the exit; returns the status as run() reports it.
    int stop(int signal);
    pid_t pid() const { return pid_; }
    std::string output() const;

  private:
    pid_t pid_ = -1;
    std::string logPath_;
};

using Path = std::vector<std::pair<std::string, int>>;

// One client of the service, with an endpoint of its own.
class Client {
  public:
    explicit Client(const std::string& name);
    virtual ~Client();
    bool connected() const { return connected_; }

    // Each returns false when the exchange itself failed (no answer, unparseable answer).
    bool read(const Path& path, int role, ConfigIF::ReadRsp* response);
    bool write(const Path& path, const std::vector<std::string>& values, int role,
               ConfigIF::WriteRsp* response);
    // Sends raw bytes under `msgId` and expects no answer.
    bool sendOnly(uint32_t msgId, const std::string& payload);
    // Sends raw bytes under `msgId` and waits for a message of `answerId`.
    bool exchange(uint32_t msgId, const std::string& payload, uint32_t answerId,
                  std::string* answer);

  private:
    std::string name_;
    uint32_t address_ = 0;
    bool connected_ = false;
};

}  // namespace e2e

#endif  // CONFIGSRVC_TESTS_E2E_SERVICE_HARNESS_H

// The configuration service as tests run it: the real configsrvc as a child process in a fresh
// folder of its own, which holds
//   ep/     the endpoint folder (mode 0755: clients under another uid look names up in it),
//           exported as MSGPASS_DIR to this process and every child it starts from then on;
//   state/  the service's state folder (its value database);
//   log     what the service writes to standard output and error.
// The folder, and with it the state, lives as long as the object, across restarts. One object at
// a time per test process: MSGPASS_DIR names the folder of the latest.
#ifndef TESTS_SUPPORT_SERVICEPROCESS_H
#define TESTS_SUPPORT_SERVICEPROCESS_H

#include <memory>
#include <string>
#include <vector>

#include "Process.h"
#include "TempDir.h"

namespace testsupport {

// The programs and the model the build made for the tests.
extern const char kConfigsrvcBin[];
extern const char kExampleModel[];

class ServiceProcess {
  public:
    ServiceProcess();
    // Kills a service still running (SIGKILL) and removes the folder.
    virtual ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    // Starts configsrvc with `model` and the state folder, and waits up to five seconds until
    // its endpoint takes connections. False, with the log in *error, when it ended or did not
    // open its endpoint in time (it is then left running, or reaped, for stop() to tell).
    bool start(std::string* error);

    // Sends `signal` and reaps the service: its exit status, or 128 + the signal that ended it;
    // the status it ended with when it had ended already; -1 when none was started.
    int stop(int signal);

    // Sends `signal` to the running service and returns at once; false when none is running.
    bool signal(int signal);
    // Waits until the service's output holds `text` `times` times; false when it did not in time
    // or the service ended.
    bool waitForOutput(const std::string& text, int times = 1, int timeoutMs = 5000);

    // What the service wrote so far, over all its starts.
    std::string output() const { return readFile(logPath()); }

    std::string root() const { return dir_.path; }
    std::string endpoints() const { return dir_.file("ep"); }
    std::string state() const { return dir_.file("state"); }
    std::string logPath() const { return dir_.file("log"); }
    // The socket file of the service's endpoint: there exactly while the endpoint is open.
    std::string endpointPath() const;

    std::string model = kExampleModel;
    std::vector<std::string> options;  // further options of configsrvc
    // The service's process id while it runs, else -1.
    pid_t pid() const;

  private:
    TempDir dir_;
    std::unique_ptr<Background> process_;
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_SERVICEPROCESS_H

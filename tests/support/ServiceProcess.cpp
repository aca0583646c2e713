#include "ServiceProcess.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigSession.h"

namespace testsupport {

const char kConfigsrvcBin[] = CONFIGSRVC_BIN;
const char kExampleModel[] = EXAMPLE_MODEL;

namespace {

constexpr int kStartMs = 5000;
// Each attempt to connect waits this long, so that a service that died is noticed soon.
constexpr int kProbeMs = 100;

}  // namespace

ServiceProcess::ServiceProcess() : dir_("configsrvc") {
    // Others may need to reach ep/ through the folder: clients run under another uid.
    chmod(root().c_str(), 0755);
    mkdir(endpoints().c_str(), 0);
    // Clients under another uid only look the service up there: they need no write access.
    chmod(endpoints().c_str(), 0755);  // not through mkdir, which the umask would narrow
    setenv("MSGPASS_DIR", endpoints().c_str(), 1);
}

ServiceProcess::~ServiceProcess() {
    stop(SIGKILL);
}

std::string ServiceProcess::endpointPath() const {
    return endpoints() + "/" + ConfigProtocol::kServiceEndpoint;
}

bool ServiceProcess::start(std::string* error) {
    stop(SIGKILL);
    std::vector<std::string> argv{"configsrvc", "--model", model, "--state", state()};
    argv.insert(argv.end(), options.begin(), options.end());
    process_ = std::make_unique<Background>(kConfigsrvcBin, argv, Environment{}, logPath());
    const std::string probe = "probe-" + std::to_string(getpid());
    const bool up = process_->waitUntil(
        [&] {
            configclient::ConfigSession session;
            return session.connect(probe, kProbeMs) == configclient::ConfigSession::kOk;
        },
        kStartMs);
    if (!up) {
        *error = "the service did not start: " + output();
    }
    return up;
}

bool ServiceProcess::signal(int signal) {
    return process_ && process_->running() && kill(process_->pid, signal) == 0;
}

bool ServiceProcess::waitForOutput(const std::string& text, int times, int timeoutMs) {
    auto seen = [&] {
        const std::string log = output();
        int count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++count;
        }
        return count >= times;
    };
    return process_ && process_->waitUntil(seen, timeoutMs);
}

pid_t ServiceProcess::pid() const {
    return process_ ? process_->pid : -1;
}

int ServiceProcess::stop(int signal) {
    return process_ ? process_->stop(signal) : -1;
}

}  // namespace testsupport

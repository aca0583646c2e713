// configsrvc: the reference configuration service.
//
//   configsrvc --model FILE --state DIR [--endpoint NAME] [--log auto|device|stderr]
//   configsrvc --check-model FILE
//   configsrvc --version
//
// Runs in the foreground: loads the device model, opens the value store in the state folder,
// and only then opens the endpoint "ConfigSrvc", so any client that finds the endpoint gets
// answers. SIGTERM and SIGINT stop it cleanly: writes already accepted are committed and
// answered before the endpoint closes. SIGHUP reloads the model file (see Serving.h): a model
// that is refused changes nothing and the service goes on serving the one it had.
//
// Under a service manager (NOTIFY_SOCKET set) it reports itself ready once the endpoint is open,
// reloading for the length of a reload, and stopping once serving ends; elsewhere sd_notify does
// nothing.
#include <fcntl.h>
#include <google/protobuf/stubs/logging.h>
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "LogTarget.h"
#include "ModelLoader.h"
#include "Server.h"
#include "Serving.h"
#include "logmsg.h"
#include "msgpass.h"

namespace {

using namespace configsrvc;

constexpr char kProgram[] = "configsrvc";
constexpr char kLogModule[] = "main";
// Changes accepted but not yet answered; beyond this a change is refused, not queued.
constexpr size_t kMaxPendingWrites = 4096;

constexpr char kUsage[] =
    "usage: configsrvc --model FILE --state DIR [--endpoint NAME] [--log TARGET]\n"
    "                  [--callback-timeout MS] [--retain-changes N]\n"
    "       configsrvc --check-model FILE\n"
    "       configsrvc --version\n"
    "  --model FILE        device model (XML) declaring the variables served\n"
    "  --state DIR         folder of the value database (created when missing)\n"
    "  --endpoint NAME     endpoint to serve on (default " CONFIG_SERVICE_ENDPOINT
    ")\n"
    "  --log TARGET        auto (default): the log device " LOGMSG_DEVICE_PATH
    " when there is one,\n"
    "                      else standard error; or device, or stderr\n"
    "  --callback-timeout MS  how long validators and appliers may take to answer\n"
    "                      (default 1000, at most 10000)\n"
    "  --retain-changes N  notifications kept for subscribers that fall behind or\n"
    "                      reconnect (default 65536)\n"
    "  --check-model FILE  check a model file and exit: 0 when it is good, else 1 and\n"
    "                      FILE:LINE: REASON on standard error\n"
    "Endpoints live in $MSGPASS_DIR when it is set. SIGHUP reloads the model.\n";

struct Options {
    std::string model;
    std::string state;
    std::string endpoint = ConfigProtocol::kServiceEndpoint;
    std::string log = "auto";
    std::string checkModel;
    std::string callbackTimeout;
    std::string retainChanges;
    LogTarget logTarget = LogTarget::kAuto;
    CallbackSettings callbacks;
};

// A whole decimal number from `min` to `max`, else false.
bool parseBounded(const std::string& text, long long min, long long max, long long* value) {
    char* end = nullptr;
    errno = 0;
    *value = std::strtoll(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && errno == 0 && *value >= min && *value <= max;
}

// Written to by the signal handlers, read by the event loop.
int stopPipe[2] = {-1, -1};
int reloadPipe[2] = {-1, -1};

void onSignal(int number) {
    int saved = errno;
    char byte = 1;
    (void)!write(number == SIGHUP ? reloadPipe[1] : stopPipe[1], &byte, 1);
    errno = saved;
}

int usageError(const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n%s", kProgram, problem.c_str(), kUsage);
    return 1;
}

// Returns -1 when the options are good, else the exit status to end with.
int parseOptions(int argc, char** argv, Options* options) {
    std::vector<std::string> seen;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--help" || word == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (word == "--version") {
            std::fputs(kProgram, stdout);
            std::fputs(" " CONFIGSRVC_VERSION "\n", stdout);
            return 0;
        }
        std::string* target = word == "--model"              ? &options->model
                              : word == "--state"            ? &options->state
                              : word == "--endpoint"         ? &options->endpoint
                              : word == "--log"              ? &options->log
                              : word == "--check-model"      ? &options->checkModel
                              : word == "--callback-timeout" ? &options->callbackTimeout
                              : word == "--retain-changes"   ? &options->retainChanges
                                                             : nullptr;
        if (target == nullptr) {
            return usageError("unknown option '" + word + "'");
        }
        if (std::find(seen.begin(), seen.end(), word) != seen.end()) {
            return usageError(word + " given twice");
        }
        seen.push_back(word);
        if (i + 1 >= argc || argv[i + 1][0] == '\0') {
            return usageError(word + " needs a value");
        }
        *target = argv[++i];
    }
    if (!options->checkModel.empty()) {
        return seen.size() == 1 ? -1 : usageError("--check-model takes no other option");
    }
    if (!parseLogTarget(options->log, &options->logTarget)) {
        return usageError("--log takes auto, device or stderr, not '" + options->log + "'");
    }
    long long number = 0;
    if (!options->callbackTimeout.empty()) {
        if (!parseBounded(options->callbackTimeout, 1, kMaxCallbackDeadlineMs, &number)) {
            return usageError("--callback-timeout takes 1 to " +
                              std::to_string(kMaxCallbackDeadlineMs) + " milliseconds");
        }
        options->callbacks.deadlineMs = static_cast<int>(number);
    }
    if (!options->retainChanges.empty()) {
        if (!parseBounded(options->retainChanges, 1, kMaxRetainedChanges, &number)) {
            return usageError("--retain-changes takes 1 to " + std::to_string(kMaxRetainedChanges));
        }
        options->callbacks.retainedChanges = static_cast<size_t>(number);
    }
    if (options->model.empty() || options->state.empty()) {
        return usageError("--model and --state are required");
    }
    return -1;
}

// Checks a model file as start-up and reload do, touching nothing else.
int checkModel(const std::string& path) {
    DeviceModel model;
    std::string error;
    if (!loadModelFile(path, &model, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::fprintf(stdout, "%s: ok\n", path.c_str());
    return 0;
}

bool installSignals(std::string* error) {
    if (pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0 ||
        pipe2(reloadPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
    // A client that closes its connection mid-answer must not end the service.
    std::signal(SIGPIPE, SIG_IGN);
    return true;
}

// Protocol buffer diagnostics (for instance about malformed text in a request) go to our log
// rather than straight to standard error.
void logProtobufMessage(google::protobuf::LogLevel level, const char* file, int line,
                        const std::string& message) {
    if (level >= google::protobuf::LOGLEVEL_ERROR) {
        logmsg_warn("protobuf", "%s:%d: %s\n", file, line, message.c_str());
    } else {
        logmsg_info("protobuf", "%s:%d: %s\n", file, line, message.c_str());
    }
}

void logWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) {
        logmsg_warn(kLogModule, "%s\n", warning.c_str());
    }
}

// Reloads the model on SIGHUP, between requests.
class Reloader : public Server::Pause {
  public:
    Reloader(const std::string& modelPath, const ServingSettings& settings,
             std::unique_ptr<Serving>* serving)
        : modelPath_(modelPath), settings_(settings), serving_(serving) {}

    int fd() const override { return reloadPipe[0]; }

    bool run(Server* server) override {
        char bytes[64];
        while (read(reloadPipe[0], bytes, sizeof bytes) > 0) {
            // Signals that arrived together make one reload.
        }
        sd_notify(0, "RELOADING=1");
        const bool serving = reload(server);
        if (serving) {
            sd_notify(0, "READY=1");
        }
        return serving;
    }

  private:
    // False when the store can be opened for neither model, which ends serving.
    bool reload(Server* server) {
        std::unique_ptr<Serving> previous;
        std::vector<std::string> warnings;
        std::string error;
        ReloadResult result =
            reloadModel(modelPath_, settings_, serving_, &previous, &warnings, &error);
        switch (result) {
            case ReloadResult::kKept:
                logmsg_err(kLogModule, "model not reloaded, still serving the one before: %s\n",
                           error.c_str());
                return true;
            case ReloadResult::kFailed:
                logmsg_crit(kLogModule, "cannot open the store again, for either model: %s\n",
                            error.c_str());
                *serving_ = std::move(previous);  // what the server still holds, to close with
                return false;
            case ReloadResult::kOldReopened:
                logmsg_err(kLogModule,
                           "model not reloaded, the store refused it; serving the one before: "
                           "%s\n",
                           error.c_str());
                break;
            case ReloadResult::kReloaded:
                logmsg_info(kLogModule, "model %s reloaded\n", modelPath_.c_str());
                break;
        }
        logWarnings(warnings);
        Serving& now = **serving_;
        server->serveFrom(now.service(), now.state(), now.committer());
        return true;
    }

    std::string modelPath_;
    ServingSettings settings_;
    std::unique_ptr<Serving>* serving_;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int early = parseOptions(argc, argv, &options);
    if (early >= 0) {
        return early;
    }
    if (!options.checkModel.empty()) {
        return checkModel(options.checkModel);
    }
    // On standard error the log is the operator's console too: each problem is said once there.
    const bool logOnStderr = startLogging(options.logTarget, kProgram) == LogTarget::kStandardError;
    auto fail = [logOnStderr](const std::string& problem) {
        if (!logOnStderr) {
            std::fprintf(stderr, "%s: %s\n", kProgram, problem.c_str());
        }
        logmsg_err(kLogModule, "%s\n", problem.c_str());
        return 1;
    };
    google::protobuf::SetLogHandler(logProtobufMessage);
    MSG_DebugSetName(kProgram);

    // Before the long steps of start-up, so that a signal during them is served afterwards
    // rather than ending the process at once.
    std::string error;
    if (!installSignals(&error)) {
        return fail(error);
    }
    auto model = std::make_shared<DeviceModel>();
    if (!loadModelFile(options.model, model.get(), &error)) {
        return fail(error);
    }
    const ServingSettings settings{options.state, geteuid(), kMaxPendingWrites};
    std::vector<std::string> warnings;
    std::unique_ptr<Serving> serving = Serving::open(model, settings, &warnings, &error);
    if (serving == nullptr) {
        return fail(error);
    }
    logWarnings(warnings);
    CallbackSettings callbacks = options.callbacks;
    callbacks.lastCommit = serving->lastCommit();
    Server server(serving->service(), serving->state(), serving->committer(), options.endpoint,
                  callbacks);
    if (!server.open(&error)) {
        return fail(error);
    }
    logmsg_info(kLogModule, "model %s, values in %s\n", options.model.c_str(),
                serving->databasePath().c_str());
    sd_notify(0, "READY=1");
    Reloader reloader(options.model, settings, &serving);
    const bool served = server.run(stopPipe[0], &reloader);
    sd_notify(0, "STOPPING=1");
    if (!served) {
        return fail("stopped: serving could not go on");
    }
    logmsg_info(kLogModule, "stopped\n");
    return 0;
}

// configsrvc: the reference configuration service.
//
//   configsrvc --model FILE --state DIR
//
// Runs in the foreground: loads the device model, opens the value store in the state folder,
// and only then opens the endpoint "ConfigSrvc", so any client that finds the endpoint gets
// answers. SIGTERM, SIGINT and SIGHUP stop it cleanly: writes already accepted are committed
// and answered before the endpoint closes.
#include <fcntl.h>
#include <google/protobuf/stubs/logging.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Committer.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigService.h"
#include "ModelLoader.h"
#include "Server.h"
#include "ValueStore.h"
#include "logmsg.h"
#include "msgpass.h"

namespace {

using namespace configsrvc;

constexpr char kProgram[] = "configsrvc";
constexpr char kLogModule[] = "main";
// Changes accepted but not yet answered; beyond this a change is refused, not queued.
constexpr size_t kMaxPendingWrites = 4096;

constexpr char kUsage[] =
    "usage: configsrvc --model FILE --state DIR [--endpoint NAME]\n"
    "  --model FILE     device model (XML) declaring the variables served\n"
    "  --state DIR      folder of the value database (created when missing)\n"
    "  --endpoint NAME  endpoint to serve on (default " CONFIG_SERVICE_ENDPOINT
    ")\n"
    "Endpoints live in $MSGPASS_DIR when it is set.\n";

struct Options {
    std::string model;
    std::string state;
    std::string endpoint = ConfigProtocol::kServiceEndpoint;
};

int stopPipe[2] = {-1, -1};

void onStopSignal(int) {
    int saved = errno;
    char byte = 1;
    (void)!write(stopPipe[1], &byte, 1);
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
        std::string* target = word == "--model"      ? &options->model
                              : word == "--state"    ? &options->state
                              : word == "--endpoint" ? &options->endpoint
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
    if (options->model.empty() || options->state.empty()) {
        return usageError("--model and --state are required");
    }
    return -1;
}

bool installStopSignals(std::string* error) {
    if (pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        *error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
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

int fail(const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", kProgram, problem.c_str());
    logmsg_err(kLogModule, "%s\n", problem.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int early = parseOptions(argc, argv, &options);
    if (early >= 0) {
        return early;
    }
    logmsg_init(0, kProgram);
    google::protobuf::SetLogHandler(logProtobufMessage);
    MSG_DebugSetName(kProgram);

    std::string error;
    DeviceModel model;
    if (!loadModelFile(options.model, &model, &error)) {
        return fail(error);
    }
    std::unique_ptr<ValueStore> store;
    Records records;
    std::vector<std::string> warnings;
    if (!ValueStore::open(options.state, model, &store, &records, &warnings, &error)) {
        return fail(error);
    }
    RecordState state(std::move(records));
    for (const std::string& warning : warnings) {
        logmsg_warn(kLogModule, "%s\n", warning.c_str());
    }
    if (!installStopSignals(&error)) {
        return fail(error);
    }
    Committer committer(store.get(), kMaxPendingWrites);
    if (!committer.start(&error)) {
        return fail(error);
    }
    ConfigService service(model, state, geteuid());
    Server server(service, &state, &committer, options.endpoint);
    if (!server.open(&error)) {
        return fail(error);
    }
    logmsg_info(kLogModule, "model %s, values in %s\n", options.model.c_str(),
                store->databasePath().c_str());
    if (!server.run(stopPipe[0])) {
        return fail("stopped: waiting for requests failed");
    }
    logmsg_info(kLogModule, "stopped\n");
    return 0;
}

#include "ServiceHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "msgpass.h"

extern char** environ;

namespace e2e {

namespace {

constexpr uint32_t kReadReqMsgId = 0x001A0000;
constexpr uint32_t kReadRspMsgId = 0x001A0041;
constexpr uint32_t kWriteReqMsgId = 0x001A0080;
constexpr uint32_t kWriteRspMsgId = 0x001A0191;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int statusOf(int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        return WEXITSTATUS(waitStatus);
    }
    return 128 + WTERMSIG(waitStatus);
}

// Starts argv with standard output and error going to the two files.
pid_t spawn(const std::vector<std::string>& argv, const std::string& outPath,
            const std::string& errPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    if (errPath == outPath) {
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    } else {
        posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
        pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

std::string scratchFile(const char* what) {
    static int counter = 0;
    return "/tmp/configsrvc-e2e-" + std::to_string(getpid()) + "-" + std::to_string(++counter) +
           "." + what;
}

void fillInst(const Path& path, ConfigIF::Inst* inst) {
    for (const auto& step : path) {
        ConfigIF::Node* node = inst->add_node();
        node->set_name(step.first);
        node->set_instance(step.second);
    }
}

}  // namespace

Sandbox::Sandbox() {
    char pattern[] = "/tmp/configsrvc-e2e-XXXXXX";
    root_ = mkdtemp(pattern) ? pattern : "/tmp/configsrvc-e2e-failed";
    chmod(root_.c_str(), 0755);
    mkdir(endpoints().c_str(), 01777);
    chmod(endpoints().c_str(), 01777);
    setenv("MSGPASS_DIR", endpoints().c_str(), 1);
}

Sandbox::~Sandbox() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

RunResult run(const std::vector<std::string>& argv) {
    std::string outPath = scratchFile("out");
    std::string errPath = scratchFile("err");
    RunResult result;
    pid_t pid = spawn(argv, outPath, errPath);
    int waitStatus = 0;
    if (pid > 0 && waitpid(pid, &waitStatus, 0) == pid) {
        result.status = statusOf(waitStatus);
    }
    result.out = slurp(outPath);
    result.err = slurp(errPath);
    unlink(outPath.c_str());
    unlink(errPath.c_str());
    return result;
}

ServiceProcess::~ServiceProcess() {
    if (pid_ > 0) {
        stop(SIGKILL);
    }
    if (!logPath_.empty()) {
        unlink(logPath_.c_str());
    }
}

std::string ServiceProcess::output() const {
    return slurp(logPath_);
}

bool ServiceProcess::start(const std::string& model, const std::string& state, std::string* error) {
    if (logPath_.empty()) {
        logPath_ = scratchFile("log");
    }
    pid_ = spawn({CONFIGSRVC_BIN, "--model", model, "--state", state}, logPath_, logPath_);
    if (pid_ < 0) {
        *error = "cannot start " CONFIGSRVC_BIN;
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string probe = "probe-" + std::to_string(getpid());
    while (std::chrono::steady_clock::now() < deadline) {
        int waitStatus = 0;
        if (waitpid(pid_, &waitStatus, WNOHANG) == pid_) {
            pid_ = -1;
            *error = "exited with status " + std::to_string(statusOf(waitStatus)) + ": " + output();
            return false;
        }
        uint32_t address = 0;
        MSG_OpenLocal(probe.c_str());
        int status = MSG_OpenRemoteSync(probe.c_str(), "ConfigSrvc", 100, &address);
        MSG_CloseLocal(probe.c_str());
        if (status == MSG_OK) {
            return true;
        }
    }
    *error = "no endpoint after five seconds: " + output();
    return false;
}

int ServiceProcess::stop(int signal) {
    if (pid_ <= 0) {
        return -1;
    }
    kill(pid_, signal);
    int waitStatus = 0;
    waitpid(pid_, &waitStatus, 0);
    pid_ = -1;
    return statusOf(waitStatus);
}

Client::Client(const std::string& name) : name_(name) {
    connected_ = MSG_OpenLocal(name_.c_str()) == MSG_OK &&
                 MSG_OpenRemoteSync(name_.c_str(), "ConfigSrvc", 5000, &address_) == MSG_OK;
}

Client::~Client() {
    MSG_CloseLocal(name_.c_str());
}

bool Client::sendOnly(uint32_t msgId, const std::string& payload) {
    MSG_Msg* request = MSG_AllocMsg(msgId, 0, static_cast<uint32_t>(payload.size()));
    if (request == nullptr) {
        return false;
    }
    std::memcpy(MSG_GetPayloadMutable(request), payload.data(), payload.size());
    return MSG_SendMsg(name_.c_str(), address_, request) == MSG_OK;
}

bool Client::exchange(uint32_t msgId, const std::string& payload, uint32_t answerId,
                      std::string* answer) {
    if (!sendOnly(msgId, payload)) {
        return false;
    }
    MSG_Msg* reply = MSG_RecvMsg(name_.c_str(), answerId, 10000);
    if (reply == nullptr) {
        return false;
    }
    answer->assign(static_cast<const char*>(MSG_GetPayload(reply)),
                   static_cast<size_t>(MSG_GetPayloadBytes(reply)));
    MSG_ReleaseMsg(reply);
    return true;
}

bool Client::read(const Path& path, int role, ConfigIF::ReadRsp* response) {
    ConfigIF::ReadReq request;
    request.set_name(name_);
    request.set_role(static_cast<CommonIF::eSecurityRole>(role));
    fillInst(path, request.mutable_instance());
    std::string answer;
    return exchange(kReadReqMsgId, request.SerializeAsString(), kReadRspMsgId, &answer) &&
           response->ParseFromString(answer);
}

bool Client::write(const Path& path, const std::vector<std::string>& values, int role,
                   ConfigIF::WriteRsp* response) {
    ConfigIF::WriteReq request;
    request.set_name(name_);
    request.set_role(static_cast<CommonIF::eSecurityRole>(role));
    fillInst(path, request.mutable_instance_val()->mutable_instance());
    for (const std::string& value : values) {
        request.mutable_instance_val()->add_value(value);
    }
    std::string answer;
    return exchange(kWriteReqMsgId, request.SerializeAsString(), kWriteRspMsgId, &answer) &&
           response->ParseFromString(answer);
}

}  // namespace e2e

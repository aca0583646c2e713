#include "test_support.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

void EndpointTest::SetUp() {
    char pattern[] = "/tmp/msgpass-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setenv(MSG_DIR_ENV, dir_.c_str(), 1);
    unsetenv(MSG_MAX_WAIT_ENV);
}

void EndpointTest::TearDown() {
    MSG_CloseLocal(nullptr);
    for (pid_t pid : children_) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    std::filesystem::remove_all(dir_);
}

pid_t EndpointTest::spawn(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        _exit(body());
    }
    children_.push_back(pid);
    return pid;
}

int EndpointTest::reap(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int EndpointTest::rawConnect(const std::string& name) const {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = socketPath(name);
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

MSG_Msg* makeMsg(uint32_t id, const std::string& bytes) {
    MSG_Msg* msg = MSG_AllocMsg(id, 0, static_cast<uint32_t>(bytes.size()));
    if (msg && !bytes.empty()) {
        memcpy(MSG_GetPayloadMutable(msg), bytes.data(), bytes.size());
    }
    return msg;
}

std::string payloadOf(const MSG_Msg* msg) {
    return std::string(static_cast<const char*>(MSG_GetPayload(msg)), MSG_GetPayloadBytes(msg));
}

int serveEcho(const char* name, int count) {
    if (MSG_OpenLocal(name) != MSG_OK) {
        return 10;
    }
    for (int i = 0; i < count; i++) {
        MSG_Msg* request = MSG_RecvAny(name, 5000);
        MSG_Sender sender;
        if (!request || MSG_GetSender(request, &sender) != MSG_OK) {
            return 11;
        }
        MSG_Msg* reply = makeMsg(MSG_GetMsgId(request) + 1, payloadOf(request));
        MSG_ReleaseMsg(request);
        if (MSG_SendMsg(name, sender.address, reply) != MSG_OK) {
            return 12;
        }
    }
    return 0;
}

std::string frameHeader(uint32_t magic, uint32_t id, uint32_t length, uint32_t reserved) {
    std::string header;
    for (uint32_t word : {magic, id, length, reserved}) {
        for (int shift = 0; shift < 32; shift += 8) {
            header.push_back(static_cast<char>(word >> shift));
        }
    }
    return header;
}

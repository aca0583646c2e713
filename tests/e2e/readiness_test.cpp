// configsrvc under a service manager: what it tells NOTIFY_SOCKET, and when.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ConfigPath.h"
#include "ConfigSession.h"
#include "ServiceProcess.h"

namespace {

using configclient::ConfigSession;
using testsupport::Background;
using testsupport::ServiceProcess;

constexpr char kFiller[] = "FILLER=1";

// The receiving end of NOTIFY_SOCKET, as a service manager holds it.
class NotifySocket {
  public:
    explicit NotifySocket(const std::string& path) : path(path) {
        address_.sun_family = AF_UNIX;
        std::strncpy(address_.sun_path, path.c_str(), sizeof address_.sun_path - 1);
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bound = bind(fd_, reinterpret_cast<sockaddr*>(&address_), sizeof address_) == 0;
    }
    virtual ~NotifySocket() { close(fd_); }

    // Fills the receive queue, so that the next notifier blocks in its send until next() makes
    // room: what it does after notifying waits, what it did before is there to see. True when
    // the queue is full.
    bool fill() {
        while (sendto(fd_, kFiller, sizeof kFiller - 1, MSG_DONTWAIT,
                      reinterpret_cast<sockaddr*>(&address_), sizeof address_) > 0) {
        }
        return errno == EAGAIN;
    }

    // The next notification (past the fillers), or "" when none came within `timeoutMs`.
    std::string next(int timeoutMs = 10000) {
        for (;;) {
            pollfd ready{fd_, POLLIN, 0};
            if (poll(&ready, 1, timeoutMs) != 1) {
                return "";
            }
            char bytes[512];
            ssize_t got = recv(fd_, bytes, sizeof bytes, 0);
            std::string message = got > 0 ? std::string(bytes, static_cast<size_t>(got)) : "";
            if (message != kFiller) {
                return message;
            }
        }
    }

    std::string path;
    bool bound = false;

  private:
    sockaddr_un address_{};
    int fd_ = -1;
};

// Whether the service answers at once: a client that finds no endpoint fails without waiting.
bool answersAtOnce() {
    ConfigSession client;
    if (client.connect("readiness", 0) != ConfigSession::kOk) {
        return false;
    }
    ConfigIF::ReadRsp answer;
    return client.read(testsupport::readRequest("system/hostname", CommonIF::kUser), &answer,
                       5000) == ConfigSession::kOk &&
           answer.error() == CommonIF::kErrNoError;
}

TEST(Readiness, ReadyOnlyOnceServingReloadingAroundAReloadStoppingAtTheEnd) {
    ServiceProcess folders;  // the endpoint and state folders, and MSGPASS_DIR
    NotifySocket manager(folders.root() + "/notify");
    ASSERT_TRUE(manager.bound);
    ASSERT_TRUE(manager.fill());
    Background service(testsupport::kConfigsrvcBin,
                       {"configsrvc", "--model", testsupport::kExampleModel, "--state",
                        folders.state(), "--log", "stderr"},
                       {{"NOTIFY_SOCKET", manager.path}}, folders.logPath());

    // Its readiness waits in the full queue: the endpoint must be open already.
    EXPECT_TRUE(service.waitUntil([&] {
        return access(folders.endpointPath().c_str(), F_OK) == 0;
    })) << "notified before the endpoint was open";
    ASSERT_EQ(manager.next(), "READY=1") << service.log();
    EXPECT_TRUE(answersAtOnce());

    ASSERT_EQ(kill(service.pid, SIGHUP), 0);
    EXPECT_EQ(manager.next(), "RELOADING=1");
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(answersAtOnce());

    ASSERT_EQ(kill(service.pid, SIGTERM), 0);
    EXPECT_EQ(manager.next(), "STOPPING=1");
    EXPECT_EQ(service.stop(0), 0) << service.log();
    EXPECT_EQ(manager.next(100), "") << "nothing after stopping";
}

// Where no service manager listens (a socket that is not there), the service serves as ever.
TEST(Readiness, NoManagerListeningChangesNothing) {
    ServiceProcess service;
    setenv("NOTIFY_SOCKET", (service.root() + "/nobody").c_str(), 1);
    std::string error;
    const bool started = service.start(&error);
    unsetenv("NOTIFY_SOCKET");
    ASSERT_TRUE(started) << error;
    EXPECT_TRUE(answersAtOnce());
    EXPECT_EQ(service.stop(SIGTERM), 0) << service.output();
}

}  // namespace

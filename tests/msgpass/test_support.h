// Helpers for tests that run endpoints in child processes, each test in its own directory.
#ifndef MSGPASS_TEST_SUPPORT_H
#define MSGPASS_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "msgpass.h"

// Gives each test a fresh endpoint directory and no wait cap; closes everything afterwards.
class EndpointTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Runs `body` in a child process; its result becomes the child's exit status.
    pid_t spawn(const std::function<int()>& body);
    // Exit status of the child, or 128 + signal.
    static int reap(pid_t pid);

    std::string socketPath(const std::string& name) const { return dir_ + "/" + name; }
    // A plain Unix-socket client of endpoint `name`, or -1.
    int rawConnect(const std::string& name) const;

    std::string dir_;
    std::vector<pid_t> children_;
};

// A message of `id` whose payload is `bytes`.
MSG_Msg* makeMsg(uint32_t id, const std::string& bytes);
std::string payloadOf(const MSG_Msg* msg);
// Receives one message of any id and answers it with id + 1 and the same payload, `count` times.
int serveEcho(const char* name, int count);
// A wire header as the library frames messages.
std::string frameHeader(uint32_t magic, uint32_t id, uint32_t length, uint32_t reserved = 0);
constexpr uint32_t kWireMagic = 0x0001504du;

#endif

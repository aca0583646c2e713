// Callbacks and notifications between real processes: the real configsrvc, watch_client
// programs as validators, appliers and subscribers, and writers in processes of their own.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ConfigPath.h"
#include "ConfigSession.h"
#include "ServiceProcess.h"

namespace {

using configclient::ConfigSession;
using testsupport::Background;
using namespace CommonIF;

constexpr int kAnswerMs = 10000;
constexpr int kDeadlineMs = 300;  // the service's callback deadline in these tests
constexpr char kLocation[] = "system/location";

std::vector<std::string> linesOf(const std::string& text, const std::string& prefix) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(prefix, 0) == 0) {
            lines.push_back(line);
        }
    }
    return lines;
}

class Callbacks : public testing::Test {
  protected:
    void SetUp() override {
        service_.options = {"--callback-timeout", std::to_string(kDeadlineMs)};
        ASSERT_TRUE(service_.start(&error_)) << error_;
        session_ = connect("writer");
    }

    std::unique_ptr<ConfigSession> connect(const std::string& name) {
        auto session = std::make_unique<ConfigSession>();
        EXPECT_EQ(session->connect(name + "-" + std::to_string(++clients_), kAnswerMs),
                  ConfigSession::kOk);
        return session;
    }

    // A watch_client in `mode`, registered for `path`, once it says so.
    std::unique_ptr<Background> client(const std::string& mode, const std::string& name,
                                       const std::string& path, const std::string& file = "") {
        std::vector<std::string> argv{"watch_client", mode, name, path};
        if (!file.empty()) {
            argv.push_back(file);
        }
        auto process = std::make_unique<Background>(
            WATCH_CLIENT_BIN, argv, testsupport::Environment{},
            service_.root() + "/" + name + "-" + std::to_string(++clients_) + ".log");
        EXPECT_TRUE(process->waitForLog("ready")) << process->log();
        return process;
    }

    static ConfigIF::ReturnMessage write(ConfigSession* session, const std::string& value,
                                         const std::string& name = "test") {
        ConfigIF::WriteReq request = testsupport::writeRequest(kLocation, {value}, kAdmin);
        request.set_name(name);
        ConfigIF::WriteRsp response;
        EXPECT_EQ(session->write(request, &response, kAnswerMs), ConfigSession::kOk);
        return response.ret_message();
    }

    std::string read() {
        ConfigIF::ReadRsp response;
        EXPECT_EQ(session_->read(testsupport::readRequest(kLocation, kAdmin), &response, kAnswerMs),
                  ConfigSession::kOk);
        return response.value_size() == 1 ? response.value(0) : "?";
    }

    testsupport::ServiceProcess service_;
    std::unique_ptr<ConfigSession> session_;
    std::string error_;
    int clients_ = 0;
};

// 8 writer processes and 4 subscribers: every subscriber sees every change exactly once, all
// in the same order.
TEST_F(Callbacks, EverySubscriberSeesEveryChangeOnceInOneOrder) {
    constexpr int kWriters = 8;
    constexpr int kWrites = 40;
    std::vector<std::unique_ptr<Background>> subscribers;
    for (int i = 0; i < 4; ++i) {
        subscribers.push_back(client("watch", "sub" + std::to_string(i), "system"));
    }
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ConfigSession session;
            bool fine = session.connect("w" + std::to_string(w), kAnswerMs) == ConfigSession::kOk;
            for (int i = 0; fine && i < kWrites; ++i) {
                ConfigIF::WriteRsp response;
                fine = session.write(
                           testsupport::writeRequest(
                               kLocation, {std::to_string(w) + "-" + std::to_string(i)}, kAdmin),
                           &response, kAnswerMs) == ConfigSession::kOk &&
                       response.ret_message().error() == kErrNoError;
            }
            _exit(fine ? 0 : 1);
        }
        writers.push_back(child);
    }
    for (pid_t writer : writers) {
        int status = -1;
        waitpid(writer, &status, 0);
        EXPECT_EQ(status, 0);
    }
    const std::string last = read();
    std::vector<std::string> first;
    for (auto& subscriber : subscribers) {
        ASSERT_TRUE(subscriber->waitForLog("v system.location " + last)) << subscriber->log();
        const std::vector<std::string> seen = linesOf(subscriber->log(), "v ");
        EXPECT_EQ(seen.size(), static_cast<size_t>(kWriters * kWrites));
        std::vector<std::string> sorted = seen;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "a duplicate";
        if (first.empty()) {
            first = seen;
        }
        EXPECT_EQ(seen, first) << "subscribers saw different orders";
    }
}

struct ValidatorCase {
    const char* mode;
    const char* writerName;
    eErrorType expected;
    const char* message;  // in the writer's error messages, "" for none
};

// What a validator answers reaches the writer, and decides whether the value is stored.
TEST_F(Callbacks, ValidatorsDecideAndTheirWordReachesTheWriter) {
    const ValidatorCase cases[] = {
        {"allow", "test", kErrNoError, ""},
        {"veto", "test", kErrBadParameter, "vetoed by v-veto"},
        {"skip", "skipper", kErrNoError, ""},  // validate_skipname: not asked about its own
        {"skip", "test", kErrBadParameter, "vetoed by v-skip"},
        {"hang", "test", kErrTimeOut, "did not answer within 300 ms"},
    };
    int round = 0;
    for (const ValidatorCase& c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " for " + c.writerName);
        auto validator = client(c.mode, std::string("v-") + c.mode, "system");
        const std::string value = "value-" + std::to_string(++round);
        const std::string before = read();
        const long long start = testsupport::monotonicNs();
        const ConfigIF::ReturnMessage result = write(session_.get(), value, c.writerName);
        const long took = testsupport::msSince(start);
        EXPECT_EQ(result.error(), c.expected);
        const std::string messages = result.ShortDebugString();
        EXPECT_NE(messages.find(c.message), std::string::npos) << messages;
        EXPECT_EQ(read(), c.expected == kErrNoError ? value : before);
        if (c.expected == kErrTimeOut) {
            EXPECT_GE(took, kDeadlineMs - 5);
            EXPECT_LT(took, kDeadlineMs + 50);
        }
        validator->stop(SIGKILL);
    }
}

// While a validator keeps a write waiting, everyone else's reads are answered at once; killing
// the validator releases the write.
TEST_F(Callbacks, AHungValidatorHoldsOnlyItsChange) {
    service_.stop(SIGKILL);
    service_.options = {"--callback-timeout", "10000"};
    ASSERT_TRUE(service_.start(&error_)) << error_;
    session_ = connect("writer");
    auto validator = client("hang", "hung", "system.location");
    auto reader = connect("reader");
    ConfigIF::ReturnMessage result;
    std::thread writer([&] { result = write(session_.get(), "held"); });
    ASSERT_TRUE(validator->waitForLog("asked held"));
    for (int i = 0; i < 20; ++i) {
        const long long start = testsupport::monotonicNs();
        ConfigIF::ReadRsp response;
        ASSERT_EQ(reader->read(testsupport::readRequest("audio/volume", kAdmin), &response, 1000),
                  ConfigSession::kOk);
        EXPECT_LT(testsupport::msSince(start), 50);
    }
    const long long killed = testsupport::monotonicNs();
    validator->stop(SIGKILL);
    writer.join();
    EXPECT_LT(testsupport::msSince(killed), 50) << "the write waited on for a validator gone";
    EXPECT_EQ(result.error(), kErrNoError);
    ConfigIF::ReadRsp response;
    ASSERT_EQ(reader->read(testsupport::readRequest(kLocation, kAdmin), &response, kAnswerMs),
              ConfigSession::kOk);
    EXPECT_EQ(response.value(0), "held");
}

// A validator that writes what it is asked about is refused at once, not deadlocked; the change
// it was asked about then goes ahead.
TEST_F(Callbacks, AValidatorThatWritesWhatItValidatesIsRefusedAtOnce) {
    auto validator = client("write", "writing", "system");
    const long long start = testsupport::monotonicNs();
    EXPECT_EQ(write(session_.get(), "outer").error(), kErrNoError);
    EXPECT_LT(testsupport::msSince(start), kDeadlineMs);
    EXPECT_TRUE(validator->waitForLog("wrote 0 " + std::to_string(kErrBadState)))
        << validator->log();
    EXPECT_EQ(read(), "outer");
}

// An applier is told after the commit; its reboot_required reaches the writer.
TEST_F(Callbacks, AnAppliersRebootReachesTheWriter) {
    auto applier = client("reboot", "applier", "system.location");
    const ConfigIF::ReturnMessage result = write(session_.get(), "applied");
    EXPECT_EQ(result.error(), kErrNoError);
    EXPECT_TRUE(result.reboot_required());
    EXPECT_TRUE(applier->waitForLog("asked applied"));
}

// A registration ends with its connection: a vetoing validator that went away vetoes nothing.
TEST_F(Callbacks, RegistrationsGoWithTheirConnection) {
    auto validator = client("veto", "gone", "");
    EXPECT_EQ(write(session_.get(), "refused").error(), kErrBadParameter);
    validator->stop(SIGKILL);
    EXPECT_EQ(write(session_.get(), "accepted").error(), kErrNoError);
}

}  // namespace

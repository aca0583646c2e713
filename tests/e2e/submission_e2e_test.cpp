// Submissions and bare commands through the client library against the real configsrvc: all or
// nothing across SIGKILL, clients that overlap or go away, commands from users who may not.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ConfigPath.h"
#include "ConfigSession.h"
#include "ServiceProcess.h"

namespace {

using configclient::ConfigSession;
using namespace CommonIF;

constexpr int kConnectMs = 5000;
constexpr int kAnswerMs = 10000;
constexpr int kInterfaces = 3;  // of the example model

std::string mtuOf(int interface) {
    return "network/interface " + std::to_string(interface) + "/mtu";
}

class Submissions : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(service_.start(&error_)) << error_; }

    std::unique_ptr<ConfigSession> connect(const std::string& name) {
        auto session = std::make_unique<ConfigSession>();
        EXPECT_EQ(session->connect(name, kConnectMs), ConfigSession::kOk);
        return session;
    }

    static ConfigIF::SubmitReq submitRequest(const std::string& path, ConfigIF::SubmitType type) {
        ConfigIF::SubmitReq request;
        request.set_name("test");
        request.set_role(kAdmin);
        *request.mutable_instance() = testsupport::instOf(path);
        request.set_type(type);
        return request;
    }

    static eErrorType submit(ConfigSession* session, const std::string& path,
                             ConfigIF::SubmitType type) {
        ConfigIF::SubmitRsp response;
        EXPECT_EQ(session->submit(submitRequest(path, type), &response, kAnswerMs),
                  ConfigSession::kOk);
        return response.error();
    }

    static eErrorType write(ConfigSession* session, const std::string& path,
                            const std::string& value) {
        ConfigIF::WriteRsp response;
        EXPECT_EQ(
            session->write(testsupport::writeRequest(path, {value}, kAdmin), &response, kAnswerMs),
            ConfigSession::kOk);
        return response.ret_message().error();
    }

    // The value of each path, read in one batch.
    static std::vector<std::string> readAll(ConfigSession* session,
                                            const std::vector<std::string>& paths) {
        ConfigIF::BatchReadReq request;
        request.set_name("test");
        request.set_role(kAdmin);
        for (const std::string& path : paths) {
            *request.add_instance() = testsupport::instOf(path);
        }
        ConfigIF::BatchReadRsp response;
        EXPECT_EQ(session->batchRead(request, &response, kAnswerMs), ConfigSession::kOk);
        std::vector<std::string> values;
        for (const ConfigIF::ReadRsp& item : response.response()) {
            values.push_back(item.value_size() == 1 ? item.value(0) : "?");
        }
        return values;
    }

    testsupport::ServiceProcess service_;
    std::string error_;
};

// The service is killed at random points around the commit of a submission, 200 times: after
// each restart every value of the submission is the new one, or every one the old.
TEST_F(Submissions, KilledDuringItsCommitComeBackWithAllOfItsChangesOrNone) {
    std::vector<std::string> paths;
    for (int i = 1; i <= kInterfaces; ++i) {
        paths.push_back(mtuOf(i));
    }
    std::mt19937 random(20261123);
    std::string committed = "1500";
    int applied = 0;
    for (int round = 0; round < 200; ++round) {
        const std::string next = std::to_string(1000 + round);
        {
            std::unique_ptr<ConfigSession> session = connect("killed");
            ASSERT_EQ(submit(session.get(), "network", ConfigIF::kSubmitStart), kErrNoError);
            for (const std::string& path : paths) {
                ASSERT_EQ(write(session.get(), path, next), kErrNoError);
            }
            const std::string end =
                submitRequest("network", ConfigIF::kSubmitEnd).SerializeAsString();
            ASSERT_EQ(session->sendRaw(ConfigProtocol::kSubmitReqMsgId, end), ConfigSession::kOk);
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
            ASSERT_EQ(service_.stop(SIGKILL), 128 + SIGKILL);
        }
        ASSERT_TRUE(service_.start(&error_)) << error_;
        const std::vector<std::string> values = readAll(connect("check").get(), paths);
        const std::string first = values.at(0);
        ASSERT_TRUE(first == next || first == committed) << "round " << round << ": " << first;
        ASSERT_EQ(values, std::vector<std::string>(paths.size(), first)) << "round " << round;
        applied += first == next ? 1 : 0;
        committed = first;
    }
    std::printf("submissions applied before the kill: %d of 200\n", applied);
}

TEST_F(Submissions, OverlappingOnesCommitTheFirstAndRefuseTheStaleOneWhole) {
    std::unique_ptr<ConfigSession> a = connect("a");
    std::unique_ptr<ConfigSession> b = connect("b");
    ASSERT_EQ(submit(a.get(), "network/interface 1", ConfigIF::kSubmitStart), kErrNoError);
    ASSERT_EQ(submit(b.get(), "network", ConfigIF::kSubmitStart), kErrNoError);
    EXPECT_EQ(write(a.get(), mtuOf(1), "1400"), kErrNoError);
    EXPECT_EQ(write(b.get(), mtuOf(1), "1300"), kErrNoError);
    EXPECT_EQ(write(b.get(), mtuOf(2), "1300"), kErrNoError);
    EXPECT_EQ(readAll(a.get(), {mtuOf(1), mtuOf(2)}), (std::vector<std::string>{"1400", "1500"}));
    EXPECT_EQ(readAll(b.get(), {mtuOf(1), mtuOf(2)}), (std::vector<std::string>{"1300", "1300"}));
    EXPECT_EQ(submit(a.get(), "network/interface 1", ConfigIF::kSubmitEnd), kErrNoError);
    EXPECT_EQ(submit(b.get(), "network", ConfigIF::kSubmitEnd), kErrBadState);
    EXPECT_EQ(readAll(connect("c").get(), {mtuOf(1), mtuOf(2)}),
              (std::vector<std::string>{"1400", "1500"}));
    EXPECT_TRUE(service_.waitForOutput("'network[1]/interface[1]/mtu' was changed by another"));
}

TEST_F(Submissions, ConnectionThatGoesAwayLosesWhatItStaged) {
    {
        std::unique_ptr<ConfigSession> gone = connect("gone");
        ASSERT_EQ(submit(gone.get(), "network", ConfigIF::kSubmitStart), kErrNoError);
        ASSERT_EQ(write(gone.get(), mtuOf(1), "1400"), kErrNoError);
    }
    EXPECT_TRUE(service_.waitForOutput("submission under 'network' ended unapplied"));
    std::unique_ptr<ConfigSession> other = connect("other");
    EXPECT_EQ(readAll(other.get(), {mtuOf(1)}), std::vector<std::string>{"1500"});
    ASSERT_EQ(submit(other.get(), "network", ConfigIF::kSubmitStart), kErrNoError);
    EXPECT_EQ(submit(other.get(), "network", ConfigIF::kSubmitEnd), kErrNoError);
}

// A reload renumbers the changes a submission compares against: open ones end unapplied.
TEST_F(Submissions, ReloadEndsTheOpenOnes) {
    std::unique_ptr<ConfigSession> session = connect("reloaded");
    ASSERT_EQ(submit(session.get(), "network", ConfigIF::kSubmitStart), kErrNoError);
    ASSERT_EQ(write(session.get(), mtuOf(1), "1400"), kErrNoError);
    ASSERT_TRUE(service_.signal(SIGHUP));
    EXPECT_TRUE(service_.waitForOutput("ended unapplied: the model was reloaded"));
    EXPECT_EQ(submit(session.get(), "network", ConfigIF::kSubmitEnd), kErrBadState);
    EXPECT_EQ(readAll(session.get(), {mtuOf(1)}), std::vector<std::string>{"1500"});
}

// A profile with one value the model refuses applies nothing, through the client library.
TEST_F(Submissions, ProfileWithOneBadValueAppliesNothing) {
    std::unique_ptr<ConfigSession> session = connect("profiles");
    ASSERT_EQ(write(session.get(), mtuOf(1), "1400"), kErrNoError);
    ASSERT_EQ(write(session.get(), mtuOf(2), "1400"), kErrNoError);
    ConfigIF::CreateProfileReq create;
    create.set_name("test");
    create.set_role(kAdmin);
    create.set_file_location("saved");
    ConfigIF::CreateProfileRsp created;
    ASSERT_EQ(session->createProfile(create, &created, kAnswerMs), ConfigSession::kOk);
    ASSERT_EQ(created.error(), kErrNoError);
    const std::string file = service_.state() + "/profiles/saved";
    const std::string text = testsupport::readFile(file);
    ASSERT_NE(text.find("\"1400\""), std::string::npos) << text;
    ASSERT_TRUE(testsupport::writeFile(
        file,
        testsupport::replaced(text, "interface[2]/mtu\" \"1400\"", "interface[2]/mtu\" \"9001\"")));
    ASSERT_EQ(write(session.get(), mtuOf(1), "1300"), kErrNoError);
    ConfigIF::ApplyProfileReq apply;
    apply.set_name("test");
    apply.set_role(kAdmin);
    apply.set_file_location("saved");
    ConfigIF::ApplyProfileRsp applied;
    ASSERT_EQ(session->applyProfile(apply, &applied, kAnswerMs), ConfigSession::kOk);
    EXPECT_EQ(applied.error(), kErrBadParameter);
    EXPECT_EQ(readAll(session.get(), {mtuOf(1), mtuOf(2)}),
              (std::vector<std::string>{"1300", "1400"}));
    EXPECT_TRUE(service_.waitForOutput("above the maximum 9000"));
}

// A bare command from a user who may not claim every role changes nothing; from root it does.
TEST_F(Submissions, BareCommandsFromUnprivilegedSendersAreIgnored) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to send as another user (uid 65534)";
    }
    std::unique_ptr<ConfigSession> root = connect("root");
    ASSERT_EQ(write(root.get(), mtuOf(1), "1400"), kErrNoError);
    const pid_t child = fork();
    if (child == 0) {
        ConfigSession nobody;
        const bool sent =
            setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0 &&
            nobody.connect("nobody", kConnectMs) == ConfigSession::kOk &&
            nobody.clearConfig() == ConfigSession::kOk && nobody.flushAll() == ConfigSession::kOk;
        _exit(sent ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0) << "the unprivileged client could not send";
    EXPECT_TRUE(service_.waitForOutput("uid 65534 may not claim every role", 2));
    EXPECT_EQ(readAll(root.get(), {mtuOf(1)}), std::vector<std::string>{"1400"});
    ASSERT_EQ(root->clearConfig(), ConfigSession::kOk);
    EXPECT_TRUE(service_.waitForOutput("ClearConfigCmd from pid"));
    // Nothing answers a bare command: its change shows once it is stored.
    std::vector<std::string> values;
    for (int tries = 0; tries < 500 && values != std::vector<std::string>{"1500"}; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        values = readAll(root.get(), {mtuOf(1)});
    }
    EXPECT_EQ(values, std::vector<std::string>{"1500"});
}

}  // namespace

// Operating the real configsrvc: its log where it runs, its command line, reloading its model on
// SIGHUP while clients read and write, and the claims of its peers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CaseFile.h"
#include "ServiceClient.h"

namespace {

using namespace CommonIF;
using testing::HasSubstr;
using testsupport::ServiceClient;

size_t occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// A service of its own whose model is a file the test may rewrite, and a client connected to it.
class Operated : public testing::Test {
  protected:
    void SetUp() override {
        service_.model = service_.root() + "/model.xml";
        ASSERT_TRUE(testsupport::writeFile(service_.model, example_));
        ASSERT_TRUE(service_.start(&error_)) << error_;
        client_ = std::make_unique<ServiceClient>("ops");
    }

    // The value of `path` as the service's own user reads it, or the error's name.
    std::string read(const std::string& path) { return client_->value(path, kStartup); }

    // Rewrites the model file, sends SIGHUP and waits for the service to log `logged` once more.
    void reloadWith(const std::string& model, const std::string& logged) {
        ASSERT_TRUE(testsupport::writeFile(service_.model, model));
        const int seen = static_cast<int>(occurrences(service_.output(), logged));
        ASSERT_TRUE(service_.signal(SIGHUP));
        ASSERT_TRUE(service_.waitForOutput(logged, seen + 1)) << service_.output();
    }

    std::string reloaded() const {
        return "<6>configsrvc: main: model " + service_.model + " reloaded\n";
    }

    const std::string example_ = testsupport::readFile(testsupport::kExampleModel);
    testsupport::ServiceProcess service_;
    std::unique_ptr<ServiceClient> client_;
    std::string error_;
};

// Off the device the log goes to standard error: each line as it happens, once, with the priority
// prefix the journal reads; a file that takes it holds every line even after SIGKILL. An unknown
// message id is dropped with a warning.
TEST_F(Operated, LogLinesReachTheFileAsTheyHappenWithTheirPriority) {
    ASSERT_EQ(client_->session.sendRaw(0x12345678, "abc"), configclient::ConfigSession::kOk);
    const std::string warning = "<4>configsrvc: server: unknown message id 0x12345678 from pid " +
                                std::to_string(getpid()) + " dropped\n";
    EXPECT_TRUE(service_.waitForOutput(warning)) << service_.output();
    EXPECT_EQ(read("audio/volume"), "50") << "dropped without an answer, the next one is served";
    ASSERT_EQ(service_.stop(SIGKILL), 128 + SIGKILL);
    const std::string log = service_.output();
    for (const std::string& line :
         {"<6>configsrvc: main: model " + service_.model + ", values in " + service_.state() +
              "/values.db\n",
          std::string("<6>configsrvc: server: serving ConfigSrvc\n"), warning}) {
        EXPECT_EQ(occurrences(log, line), 1u) << line << "in:\n" << log;
    }
    EXPECT_THAT(log, testing::Not(HasSubstr("DEBUG")));
}

// The command lines that end at once (configsrvc_command_lines.txt), and the log line a fatal
// error makes: each says what it has to say once, where it belongs, and no state folder comes of
// any of them.
TEST(CommandLine, ChecksVersionAndRefusalsSayTheirPieceOnce) {
    testsupport::ServiceProcess sandbox;
    ASSERT_TRUE(testsupport::writeFile(sandbox.root() + "/bad.xml",
                                       "<device-model>\n<nod/>\n</device-model>\n"));
    const auto expand = [&](std::string text) {
        for (const auto& [name, value] :
             {std::pair<std::string, std::string>{"$EXAMPLE", testsupport::kExampleModel},
              {"$BAD", sandbox.root() + "/bad.xml"},
              {"$STATE", sandbox.state()},
              {"$VERSION", CONFIGSRVC_VERSION}}) {
            text = testsupport::replaced(text, name, value);
        }
        return text;
    };
    for (const testsupport::CaseRow& row : testsupport::readCaseFile(COMMAND_LINES).rows) {
        SCOPED_TRACE(row.where);
        std::vector<std::string> argv = testsupport::split(expand(row[0]), " ");
        argv.insert(argv.begin(), "configsrvc");
        const testsupport::Outcome run = testsupport::runProgram(testsupport::kConfigsrvcBin, argv);
        const std::string err = expand(row[3]);
        const bool usage = err.size() >= 7 && err.compare(err.size() - 7, 7, "usage: ") == 0;
        EXPECT_EQ(std::to_string(run.status), row[1]);
        EXPECT_EQ(run.out, expand(row[2]));
        EXPECT_EQ(usage ? run.err.substr(0, err.size()) : run.err, err);
    }
    EXPECT_FALSE(std::filesystem::exists(sandbox.state()));
}

// A reload serves the new model with the stored values checked against it as at start-up; a
// model that is refused changes nothing.
TEST_F(Operated, ReloadServesTheNewModelAndARefusedOneChangesNothing) {
    ASSERT_EQ(client_->write("audio/volume", {"80"}), kErrNoError);
    const std::string narrower = testsupport::replaced(
        example_, R"(min="0" max="100" default="50")", R"(min="0" max="60" default="50")");
    reloadWith(narrower, reloaded());
    EXPECT_THAT(service_.output(),
                HasSubstr("<4>configsrvc: main: stored value of 'audio[1]/volume' is ignored: "));
    EXPECT_EQ(read("audio/volume"), "50");

    reloadWith("<device-model>\n<nod/>\n</device-model>\n",
               "<3>configsrvc: main: model not reloaded, still serving the one before: " +
                   service_.model + ":2: unknown element <nod> in <device-model>\n");
    EXPECT_EQ(read("audio/volume"), "50");
    EXPECT_EQ(client_->write("audio/volume", {"70"}), kErrBadParameter) << "the narrower model";
}

// Claims are judged by the uid the endpoint tells of the peer, not by the service's own: here a
// peer the reloaded model lets claim up to kSystem, in a child of its own (as root, of uid 65534).
TEST_F(Operated, ClaimsFollowThePeersUid) {
    const uid_t peer = geteuid() == 0 ? 65534 : geteuid();
    const std::string claims = "<claims others=\"kAdmin\">";
    const std::string limited = "<uid id=\"" + std::to_string(peer) + "\" max=\"kSystem\"/>";
    reloadWith(testsupport::replaced(example_, claims, claims + limited), reloaded());
    const pid_t child = fork();
    if (child == 0) {
        configclient::ConfigSession session;
        ConfigIF::ReadRsp above, within;
        const auto ask = [&](eSecurityRole role, ConfigIF::ReadRsp* answer) {
            return session.read(testsupport::readRequest("audio/volume", role), answer,
                                testsupport::kAnswerMs) == configclient::ConfigSession::kOk;
        };
        const bool judged = (peer == geteuid() || (setresgid(peer, peer, peer) == 0 &&
                                                   setresuid(peer, peer, peer) == 0)) &&
                            session.connect("claims", testsupport::kConnectMs) ==
                                configclient::ConfigSession::kOk &&
                            ask(kProvisioning, &above) && above.error() == kErrNotAuthorized &&
                            ask(kSystem, &within) && within.error() == kErrNoError;
        _exit(judged ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "uid " << peer << " was not judged by its claims";
}

// A store that cannot be opened again at a reload, for the new model or the one before, ends the
// service with the reason rather than leaving it serving nothing.
TEST_F(Operated, ReloadThatCannotReopenTheStoreStopsTheService) {
    ASSERT_EQ(client_->write("audio/volume", {"80"}), kErrNoError);
    const std::string database = service_.state() + "/values.db";
    ASSERT_TRUE(testsupport::writeFile(database, "SQLite format 3\nnot really"));
    ASSERT_TRUE(service_.signal(SIGHUP));
    // Until it ends; one that hangs is killed below and fails.
    testsupport::waitFor([&] { return !service_.signal(0); }, 10000);
    EXPECT_EQ(service_.stop(SIGKILL), 1) << service_.output();
    EXPECT_THAT(service_.output(),
                HasSubstr("<2>configsrvc: main: cannot open the store again, for either model: " +
                          database + " is damaged"));
    EXPECT_THAT(service_.output(),
                HasSubstr("<3>configsrvc: main: stopped: serving could not go on\n"));
    EXPECT_FALSE(std::filesystem::exists(service_.endpointPath()));
}

// Its socket file removed, the service puts it back and new clients reach it; its name then
// taken by another live endpoint, it stops with the reason, for its supervisor to restart it.
TEST_F(Operated, RemovedEndpointComesBackAndATakenOneStopsTheService) {
    ASSERT_EQ(unlink(service_.endpointPath().c_str()), 0);
    ServiceClient late("late");
    EXPECT_EQ(late.write("audio/volume", {"70"}), kErrNoError);
    EXPECT_EQ(read("audio/volume"), "70") << "the first client lost its connection";

    // Stopped meanwhile, so that the other one takes the name before this one can put it back.
    ASSERT_TRUE(service_.signal(SIGSTOP));
    ASSERT_EQ(unlink(service_.endpointPath().c_str()), 0);
    testsupport::Background other(
        testsupport::kConfigsrvcBin,
        {"configsrvc", "--model", service_.model, "--state", service_.root() + "/other-state"}, {},
        service_.root() + "/other.log");
    EXPECT_TRUE(other.waitForLog("serving ConfigSrvc")) << other.log();
    ASSERT_TRUE(service_.signal(SIGCONT));
    testsupport::waitFor([&] { return !service_.signal(0); }, 10000);
    EXPECT_EQ(service_.stop(SIGKILL), 1) << service_.output();
    EXPECT_THAT(service_.output(), HasSubstr("<3>configsrvc: server: the endpoint ConfigSrvc can "
                                             "no longer be reached: a live endpoint of that name "
                                             "exists already; stopping\n"));
    EXPECT_TRUE(other.running()) << other.log();
}

// Writes keep coming while the model is reloaded again and again: every one is answered, and
// what was answered is served.
TEST_F(Operated, WritesDuringReloadsAreAllAnsweredAndStored) {
    std::atomic<bool> stop{false};
    std::atomic<int> acked{-1}, failed{0};
    std::thread writer([&] {
        ServiceClient client("writer");
        for (int i = 0; !stop; ++i) {
            if (client.write("system/hostname", {"h" + std::to_string(i)}) != kErrNoError) {
                ++failed;
                return;
            }
            acked = i;
        }
    });
    constexpr int kReloads = 8;
    for (int i = 1; i <= kReloads && failed == 0; ++i) {
        const int before = acked;
        ASSERT_TRUE(service_.signal(SIGHUP));
        ASSERT_TRUE(service_.waitForOutput(reloaded(), i)) << service_.output();
        // Some writes between reloads, so that reloads meet writes in flight.
        for (int spins = 0; acked < before + 3 && failed == 0 && spins < 5000; ++spins) {
            usleep(1000);
        }
    }
    stop = true;
    writer.join();
    EXPECT_EQ(failed, 0) << service_.output();
    EXPECT_GE(acked + 1, 3 * kReloads) << "fewer than three writes answered between reloads";
    EXPECT_EQ(read("system/hostname"), "h" + std::to_string(acked));
}

}  // namespace

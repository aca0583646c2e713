// Submissions, profiles and bare commands through the client library against the real configsrvc:
// all or nothing across SIGKILL, clients that go away or reload, profiles where the service keeps
// them, bare commands obeyed unanswered. What each request means is tested in the service core.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ServiceClient.h"

namespace {

using namespace CommonIF;
using testsupport::readFile;
using testsupport::ServiceClient;
using testsupport::writeFile;
using Session = configclient::ConfigSession;

constexpr int kInterfaces = 3;  // of the example model

std::string mtuOf(int interface) {
    return "network/interface " + std::to_string(interface) + "/mtu";
}

using Submissions = testsupport::ServiceTest;
using Values = std::vector<std::string>;

// The service is killed at random points around the commit of a submission, 200 times: after
// each restart every value of the submission is the new one, or every one the old.
TEST_F(Submissions, KilledDuringItsCommitComeBackWithAllOfItsChangesOrNone) {
    Values paths;
    for (int i = 1; i <= kInterfaces; ++i) {
        paths.push_back(mtuOf(i));
    }
    std::mt19937 random(20261123);
    std::string committed = "1500";
    int applied = 0;
    for (int round = 0; round < 200; ++round) {
        const std::string next = std::to_string(1000 + round);
        {
            ServiceClient killed("killed");
            ASSERT_EQ(killed.submit("network", ConfigIF::kSubmitStart), kErrNoError);
            for (const std::string& path : paths) {
                ASSERT_EQ(killed.write(path, {next}), kErrNoError);
            }
            const std::string end =
                testsupport::submitRequest("network", ConfigIF::kSubmitEnd, kAdmin)
                    .SerializeAsString();
            ASSERT_EQ(killed.session.sendRaw(ConfigProtocol::kSubmitReqMsgId, end), Session::kOk);
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
            ASSERT_EQ(service_.stop(SIGKILL), 128 + SIGKILL);
        }
        ASSERT_TRUE(service_.start(&error_)) << error_;
        const Values values = ServiceClient("check").values(paths);
        const std::string first = values.at(0);
        ASSERT_TRUE(first == next || first == committed) << "round " << round << ": " << first;
        ASSERT_EQ(values, Values(paths.size(), first)) << "round " << round;
        applied += first == next ? 1 : 0;
        committed = first;
    }
    std::printf("submissions applied before the kill: %d of 200\n", applied);
}

// What a connection staged goes with it; a reload renumbers the changes a submission compares
// against. Either way the open submission ends unapplied, and the service says so.
TEST_F(Submissions, OpenOnesEndUnappliedWhenTheirClientGoesOrTheModelIsReloaded) {
    {
        ServiceClient gone("gone");
        ASSERT_EQ(gone.submit("network", ConfigIF::kSubmitStart), kErrNoError);
        ASSERT_EQ(gone.write(mtuOf(1), {"1400"}), kErrNoError);
    }
    EXPECT_TRUE(service_.waitForOutput("under 'network' ended unapplied: its connection closed"));
    ServiceClient reloaded("reloaded");
    ASSERT_EQ(reloaded.submit("network", ConfigIF::kSubmitStart), kErrNoError);
    ASSERT_EQ(reloaded.write(mtuOf(1), {"1400"}), kErrNoError);
    ASSERT_TRUE(service_.signal(SIGHUP));
    EXPECT_TRUE(service_.waitForOutput("ended unapplied: the model was reloaded"));
    EXPECT_EQ(reloaded.submit("network", ConfigIF::kSubmitEnd), kErrBadState);
    EXPECT_EQ(reloaded.value(mtuOf(1)), "1500");
}

// Profiles are files of the state folder's profiles/, which the service reads as they are now.
TEST_F(Submissions, ProfilesAreFilesOfTheStateFolder) {
    ServiceClient client("profiles");
    ASSERT_EQ(client.write(mtuOf(2), {"1400"}), kErrNoError);
    ASSERT_EQ(client.call("CreateProfile", kAdmin, "file_location: 'saved'"), kErrNoError);
    const std::string file = service_.state() + "/profiles/saved";
    ASSERT_TRUE(writeFile(file, testsupport::replaced(readFile(file), "\"1400\"", "\"1300\"")));
    EXPECT_EQ(client.call("ApplyProfile", kAdmin, "file_location: 'saved'"), kErrNoError);
    EXPECT_EQ(client.value(mtuOf(2)), "1300");
}

// A bare command is obeyed with no answer: its change shows once it is stored. (Whose are
// obeyed is decided in the service core, by the uid the endpoint tells:
// Operated.ClaimsFollowThePeersUid.)
TEST_F(Submissions, BareCommandsAreObeyedWithoutAnAnswer) {
    ServiceClient client("commands");
    ASSERT_EQ(client.write(mtuOf(1), {"1400"}), kErrNoError);
    ASSERT_EQ(client.session.clearConfig(), Session::kOk);
    EXPECT_TRUE(service_.waitForOutput("ClearConfigCmd from pid"));
    EXPECT_TRUE(testsupport::waitFor([&] { return client.value(mtuOf(1)) == "1500"; }));
}

}  // namespace

// Submissions in the service core: scopes and bounds (staging, visibility, all-or-nothing ends
// and misuse: sessions.txt); bare commands; checkpoints.
#include <gtest/gtest.h>

#include <filesystem>

#include "service_fixture.h"

namespace configsrvc {
namespace {

// A submission's scope is a node instance, a variable or everything: writes within it are
// staged, others stored at once.
TEST_F(ConfigServiceTest, SubmissionScopesCoverTheirNodeInstanceOrVariableOrEverything) {
    const struct {
        const char* scope;
        const char* path;
        bool staged;
    } cases[] = {
        {"network/interface 2", kMtu, true},
        {"network/interface 2", "network/interface 1/mtu", false},
        {kMtu, kMtu, true},
        {kMtu, "network/interface 2/dns", false},
        {"", "network/interface 1/mtu", true},
        {"network", "network/interface 1/mtu", true},
        {"network/interface 1", kMtu, false},
    };
    for (const auto& c : cases) {
        const std::string scope = std::string("instance { {{") + c.scope + "}} } type: ";
        ASSERT_EQ(error("Submit", "kAdmin", scope + "kSubmitStart", on(1)), kErrNoError);
        const Answer written = ask(
            "Write", "kAdmin",
            std::string("instance_val { instance { {{") + c.path + "}} } value: '1280' }", on(1));
        EXPECT_EQ(testsupport::errorOf(*written.message), kErrNoError) << c.path;
        EXPECT_EQ(written.changes.empty(), c.staged) << c.scope << " " << c.path;
        EXPECT_EQ(error("Submit", "kAdmin", scope + "kSubmitEnd", on(1)), kErrNoError) << c.scope;
    }
}

TEST(Submissions, BoundsAndIdleLimitEndSubmissionsWithoutLeakingTheirBytes) {
    Submissions submissions(std::chrono::seconds(5));
    Submission* open = submissions.start(7, "", "everything");
    ASSERT_NE(open, nullptr);
    EXPECT_EQ(submissions.start(7, "", "again"), nullptr);
    const auto write = [](const std::string& key, size_t bytes) {
        StagedWrite staged;
        staged.change.key = key;
        staged.change.values = {std::string(bytes, 'x')};
        return staged;
    };
    for (size_t i = 0; i < kMaxStagedChanges; ++i) {
        ASSERT_TRUE(submissions.stage(open, write("k" + std::to_string(i), 1)));
    }
    EXPECT_FALSE(submissions.stage(open, write("one more", 1)));
    EXPECT_TRUE(submissions.stage(open, write("k0", 2))) << "replacing takes no new room";
    Submission* other = submissions.start(8, "", "other");
    EXPECT_FALSE(submissions.stage(other, write("big", kMaxStagedBytes)))
        << "the bytes bound is over all submissions";
    EXPECT_TRUE(submissions.end(7));
    EXPECT_TRUE(submissions.stage(other, write("big", kMaxStagedBytes - 3)))
        << "an ended submission gives its bytes back";

    EXPECT_TRUE(submissions.expire(Submissions::Clock::now()).empty());
    const auto later = Submissions::Clock::now() + std::chrono::seconds(6);
    EXPECT_EQ(submissions.expire(later), std::vector<std::string>{"other"});
    EXPECT_EQ(submissions.find(8), nullptr);
    EXPECT_NE(submissions.start(8, "", "after"), nullptr);
    EXPECT_TRUE(submissions.stage(submissions.find(8), write("big", kMaxStagedBytes - 3)))
        << "an expired submission gives its bytes back";
}

// FlushAllCmd and ClearConfigCmd: no name, no role, no answer; obeyed only from a uid that may
// claim every role.
TEST_F(ConfigServiceTest, BareCommandsAreObeyedOnlyFromUidsThatMayClaimEveryRole) {
    ASSERT_EQ(write(kMtu, {"1400"}).error(), kErrNoError);
    ASSERT_EQ(write(kDns, {"10.0.0.1"}).error(), kErrNoError);
    const struct {
        uint32_t id;
        const char* payload;
        uid_t uid;
        const char* refusal;  // as logged; "" when obeyed
    } cases[] = {
        {ConfigProtocol::kFlushAllCmdMsgId, "", 4321,
         "uid 4321 may not claim every role, which it takes: ignored"},
        {ConfigProtocol::kClearConfigCmdMsgId, "", 1500,
         "uid 1500 may not claim every role, which it takes: ignored"},
        {ConfigProtocol::kClearConfigCmdMsgId, "\xff", kService,
         "request does not parse as ConfigIF.FlushAllCmd: ignored"},
        {ConfigProtocol::kFlushAllCmdMsgId, "", 0, ""},
        {ConfigProtocol::kClearConfigCmdMsgId, "\x08\x01", kService, ""},  // unknown field
    };
    for (const auto& c : cases) {
        const bool obeyed = *c.refusal == '\0';
        const Answer answer = ask(c.id, c.payload, Sender{c.uid});
        EXPECT_EQ(answer.message, nullptr);
        EXPECT_EQ(answer.msgId, 0u);
        EXPECT_EQ(answer.refusals, obeyed ? Values{} : Values{c.refusal}) << c.uid;
        EXPECT_EQ(answer.checkpoint, obeyed && c.id == ConfigProtocol::kFlushAllCmdMsgId);
        if (c.id == ConfigProtocol::kClearConfigCmdMsgId) {
            EXPECT_EQ(answer.changes.size(), obeyed ? 2u : 0u) << c.uid;
        }
    }
    EXPECT_TRUE(read(kMtu).is_default());
    EXPECT_TRUE(read(kDns).is_default());
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_TRUE(read(kMtu).is_default()) << "cleared durably";
}

// After a checkpoint the database file holds every committed change on its own: a copy of it
// without its log still has them.
TEST_F(ConfigServiceTest, CheckpointLeavesEverythingInTheDatabaseFile) {
    ASSERT_EQ(write(kMtu, {"1400"}).error(), kErrNoError);
    ASSERT_TRUE(store_->checkpoint(&error_)) << error_;
    testsupport::TempDir copy{"configsrvc-checkpoint"};
    std::filesystem::copy_file(database(), copy.file("values.db"));
    std::unique_ptr<ValueStore> store;
    Records records;
    ASSERT_TRUE(ValueStore::open(copy.path, model_, &store, &records, &warnings_, &error_))
        << error_;
    const Values* mtu = records.find(RecordKind::kValue, "network[1]/interface[2]/mtu");
    ASSERT_NE(mtu, nullptr);
    EXPECT_EQ(*mtu, Values{"1400"});
}

}  // namespace
}  // namespace configsrvc

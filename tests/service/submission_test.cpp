// Submissions in the service core: staging, visibility, all-or-nothing ends, misuse, bounds.
#include <gtest/gtest.h>

#include <filesystem>

#include "service_fixture.h"

namespace configsrvc {
namespace {

constexpr char kInterface[] = "network/interface 2";
constexpr char kOtherMtu[] = "network/interface 1/mtu";

class SubmissionTest : public ConfigServiceTest {
  protected:
    eErrorType submit(const Sender& sender, const std::string& path, const char* type) {
        return error("Submit", kAdmin, "instance { {{" + path + "}} } type: " + type, sender);
    }

    eErrorType start(const Sender& sender, const std::string& path = kInterface) {
        return submit(sender, path, "kSubmitStart");
    }
    eErrorType end(const Sender& sender, const std::string& path = kInterface) {
        return submit(sender, path, "kSubmitEnd");
    }

    // A write as `sender`; true when it was stored at once rather than staged.
    bool writeAs(const Sender& sender, const std::string& path, const Values& values) {
        const Answer answer =
            ask(ConfigProtocol::kWriteReqMsgId,
                testsupport::writeRequest(path, values, kAdmin).SerializeAsString(), sender);
        EXPECT_EQ(static_cast<const ConfigIF::WriteRsp&>(*answer.message).ret_message().error(),
                  kErrNoError)
            << path;
        return !answer.changes.empty();
    }

    Values readAs(const Sender& sender, const std::string& path) {
        const Answer answer =
            ask(ConfigProtocol::kReadReqMsgId,
                testsupport::readRequest(path, kAdmin).SerializeAsString(), sender);
        return valuesOf(static_cast<const ConfigIF::ReadRsp&>(*answer.message));
    }

    Submissions submissions_;
    Sender a_{kService, 1, &submissions_};
    Sender b_{kService, 2, &submissions_};
};

TEST_F(SubmissionTest, StagedWritesAreSeenOnlyByTheirConnectionUntilTheEndCommitsThemAll) {
    ASSERT_EQ(start(a_), kErrNoError);
    EXPECT_FALSE(writeAs(a_, kMtu, {"1400"}));
    EXPECT_FALSE(writeAs(a_, "network/interface 2/dns", {"10.0.0.9"}));
    EXPECT_TRUE(writeAs(a_, kVolume, {"10"})) << "outside the submission: stored at once";
    EXPECT_EQ(readAs(a_, kMtu), Values{"1400"});
    EXPECT_EQ(readAs(b_, kMtu), Values{"1500"});
    const Answer batch = ask(ConfigProtocol::kBatchReadReqMsgId, batchRead(kAdmin, {kMtu}), a_);
    EXPECT_EQ(valuesOf(static_cast<const ConfigIF::BatchReadRsp&>(*batch.message).response(0)),
              Values{"1400"});
    std::string encoded;
    Answer fromWire;
    const std::string plain = batchRead(kAdmin, {kMtu});
    EXPECT_FALSE(
        service_->answerBatchReadFromWire(plain.data(), plain.size(), a_, &encoded, &fromWire))
        << "the wire path cannot see staged writes";

    EXPECT_EQ(end(a_), kErrNoError);
    EXPECT_EQ(readAs(b_, kMtu), Values{"1400"});
    EXPECT_EQ(readAs(b_, "network/interface 2/dns"), Values{"10.0.0.9"});
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(readAs(b_, kMtu), Values{"1400"}) << "committed durably";
    EXPECT_EQ(submissions_.open(), 0u);
}

TEST_F(SubmissionTest, ChangeByAnotherClientMeanwhileAppliesNothing) {
    ASSERT_EQ(start(a_), kErrNoError);
    writeAs(a_, kMtu, {"1400"});
    writeAs(a_, "network/interface 2/gateway", {"10.0.0.1"});
    EXPECT_TRUE(writeAs(b_, kMtu, {"1300"}));
    EXPECT_EQ(end(a_), kErrBadState);
    EXPECT_EQ(readAs(a_, kMtu), Values{"1300"});
    EXPECT_TRUE(read("network/interface 2/gateway").is_default());
    EXPECT_EQ(submissions_.open(), 0u) << "a failed end closes the submission";
}

TEST_F(SubmissionTest, WriteThatNoLongerPassesItsChecksAppliesNothing) {
    ASSERT_EQ(start(a_), kErrNoError);
    writeAs(a_, kMtu, {"1400"});
    writeAs(a_, "network/interface 2/gateway", {"10.0.0.1"});
    ask("SetAccessLevels", kProvisioning,
        "instance { {{" + std::string(kMtu) + "}} } write_level: kSystem");
    EXPECT_EQ(end(a_), kErrBadState);
    EXPECT_TRUE(read(kMtu).is_default());
    EXPECT_TRUE(read("network/interface 2/gateway").is_default());
}

TEST_F(SubmissionTest, MisuseIsABadStateAndLeavesTheOpenSubmissionAsItWas) {
    EXPECT_EQ(end(a_), kErrBadState) << "end without a start";
    EXPECT_EQ(start(Sender{kService}), kErrBadState) << "no connection";
    EXPECT_EQ(start(a_, "network/interface 9"), kErrItemNotFound);
    ASSERT_EQ(start(a_), kErrNoError);
    writeAs(a_, kMtu, {"1400"});
    EXPECT_EQ(start(a_), kErrBadState) << "second start";
    EXPECT_EQ(start(a_, "audio"), kErrBadState) << "second start elsewhere";
    EXPECT_EQ(end(a_, "network/interface 1"), kErrBadState) << "end under another instance";
    EXPECT_EQ(end(b_), kErrBadState) << "end from another connection";
    EXPECT_EQ(error("Write", kAdmin,
                    "instance_val { instance { {{network/interface 2/mtu}} } value: '99999' }", a_),
              kErrBadParameter)
        << "a staged value is checked as it is written";
    EXPECT_EQ(readAs(a_, kMtu), Values{"1400"});
    EXPECT_EQ(end(a_), kErrNoError);
    EXPECT_EQ(readAs(b_, kMtu), Values{"1400"});
}

TEST_F(SubmissionTest, ScopesCoverTheirNodeInstanceOrVariableOrEverything) {
    const struct {
        const char* scope;
        const char* path;
        bool staged;
    } cases[] = {
        {kInterface, kMtu, true},
        {kInterface, kOtherMtu, false},
        {kMtu, kMtu, true},
        {kMtu, "network/interface 2/dns", false},
        {"", kOtherMtu, true},
        {"network", kOtherMtu, true},
        {"network/interface 1", kMtu, false},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(start(a_, c.scope), kErrNoError) << c.scope;
        EXPECT_EQ(writeAs(a_, c.path, {"1280"}) == false, c.staged) << c.scope << " " << c.path;
        EXPECT_EQ(end(a_, c.scope), kErrNoError) << c.scope;
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
        bool obeyed;
    } cases[] = {
        {ConfigProtocol::kFlushAllCmdMsgId, "", 4321, false},
        {ConfigProtocol::kClearConfigCmdMsgId, "", 1500, false},
        {ConfigProtocol::kClearConfigCmdMsgId, "\xff", kService, false},
        {ConfigProtocol::kFlushAllCmdMsgId, "", 0, true},
        {ConfigProtocol::kClearConfigCmdMsgId, "\x08\x01", kService, true},  // unknown field
    };
    for (const auto& c : cases) {
        const Answer answer = ask(c.id, c.payload, c.uid);
        EXPECT_EQ(answer.message, nullptr);
        EXPECT_EQ(answer.msgId, 0u);
        EXPECT_EQ(answer.refusals.empty(), c.obeyed) << c.uid << " " << c.payload;
        EXPECT_EQ(answer.checkpoint, c.obeyed && c.id == ConfigProtocol::kFlushAllCmdMsgId);
        if (c.id == ConfigProtocol::kClearConfigCmdMsgId) {
            EXPECT_EQ(answer.changes.size(), c.obeyed ? 2u : 0u) << c.uid;
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

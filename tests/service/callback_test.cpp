// Registering callbacks (who may register what), what a committed change tells subscribers, and
// how much the change log keeps.
#include <gtest/gtest.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "ChangeLog.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "service_fixture.h"

namespace configsrvc {
namespace {

constexpr uid_t kOther = 4242;  // may claim what the example model lets others claim

struct RegistrationStep {
    const char* type;  // the request: RegisterClientCallback, UnregisterClientCallback, ...
    eSecurityRole role;
    const char* fields;
    eErrorType expected;
};

// One connection's registrations, in order: each step's answer depends on the ones before.
TEST_F(ConfigServiceTest, RegistrationsAreCheckedAgainstTheModelTheRoleAndEachOther) {
    const RegistrationStep steps[] = {
        {"RegisterClientCallback", kUser, "type: kChangeNotify node_name: 'system.location'",
         kErrNoError},
        {"RegisterClientCallback", kUser, "type: kChangeNotify node_name: 'system.location'",
         kErrAlreadyExists},
        {"RegisterClientCallback", kUser, "type: kDynamicValidator node_name: 'system.location'",
         kErrNotAuthorized},  // validating needs the write level
        {"RegisterClientCallback", kAdmin, "type: kDynamicValidator node_name: 'system.location'",
         kErrNoError},
        {"RegisterClientCallback", kAdmin,
         "type: kChangeNotify node_name: 'provisioning.serial-number'",
         kErrNotAuthorized},  // watching needs the read level
        {"RegisterClientCallback", kUser, "type: kChangeNotify node_name: 'provisioning'",
         kErrNoError},  // a node: what the role may not read is left out later
        {"RegisterClientCallback", kUser, "type: kOnChange node_name: 'no.such'", kErrItemNotFound},
        {"RegisterClientCallback", kUser,
         "type: kChangeNotify node_name: 'network.interface' instance: 4", kErrBadParameter},
        {"RegisterClientCallback", kUser, "type: kChangeNotify node_name: '' instance: 1",
         kErrBadParameter},
        {"RegisterClientCallback", kUser,
         "type: kChangeNotify node_name: 'network.interface.mtu' instance: 3", kErrNoError},
        {"RegisterClientCallback", kSystem, "type: kChangeNotify", kErrNotAuthorized},  // claim
        {"UnregisterClientCallback", kUser,
         "type: kChangeNotify node_name: 'network.interface.mtu' instance: 2", kErrItemNotFound},
        {"UnregisterClientCallback", kUser,
         "type: kChangeNotify node_name: 'network.interface.mtu' instance: 3", kErrNoError},
        {"UnregisterClientCallback", kUser,
         "type: kChangeNotify node_name: 'network.interface.mtu' instance: 3", kErrItemNotFound},
    };
    Callbacks callbacks;
    const Sender sender{kOther, 7, nullptr, &callbacks, 0};
    for (const RegistrationStep& step : steps) {
        EXPECT_EQ(
            error(step.type, step.role, std::string(step.fields) + " user_context: 'u'", sender),
            step.expected)
            << step.type << " " << step.fields;
    }
    EXPECT_EQ(callbacks.all().size(), 3u);
    ConfigIF::UnregisterAllClientCallbacksReq all;  // the one request without a role
    all.set_name("test");
    EXPECT_EQ(testsupport::errorOf(*ask(ConfigProtocol::kUnregisterAllClientCallbacksReqMsgId,
                                        all.SerializeAsString(), sender)
                                        .message),
              kErrNoError);
    EXPECT_TRUE(callbacks.all().empty());
    // The bound is per connection: another connection may still register.
    Registration registration;
    registration.connection = 8;
    std::string reason;
    for (size_t i = 0; i < kMaxCallbacksPerConnection; ++i) {
        registration.path = "p" + std::to_string(i);
        ASSERT_EQ(callbacks.add(registration, &reason), kErrNoError);
    }
    registration.path = "one.more";
    EXPECT_EQ(callbacks.add(registration, &reason), kErrOutOfResources);
    registration.connection = 9;
    EXPECT_EQ(callbacks.add(registration, &reason), kErrNoError);
    EXPECT_EQ(callbacks.dropConnection(8), kMaxCallbacksPerConnection);
}

struct NoticeCase {
    RecordKind kind;
    const char* key;
    bool hadRecord;  // whether a record stood before: {"x"} for values
    bool reset;
    Values values;
    const char* expected;  // the notification as text, with user_context 'u'; "" for none
};

// A committed record tells what it is now, once, and only when it changed.
TEST_F(ConfigServiceTest, ACommittedChangeToldAsItIsNow) {
    const NoticeCase cases[] = {
        {RecordKind::kValue,
         "audio[1]/volume",
         false,
         false,
         {"80"},
         "instance_val { instance { node { name: \"audio\" instance: 1 } node { name: \"volume\" "
         "instance: 1 } } value: \"80\" } user_context: \"u\""},
        {RecordKind::kValue,
         "audio[1]/volume",
         true,
         true,
         {},
         "instance_val { instance { node { name: \"audio\" instance: 1 } node { name: \"volume\" "
         "instance: 1 } } value: \"50\" } user_context: \"u\""},          // the default again
        {RecordKind::kValue, "audio[1]/volume", false, true, {}, ""},     // was default already
        {RecordKind::kValue, "audio[1]/volume", true, false, {"x"}, ""},  // the same value
        {RecordKind::kAttributes,
         "audio.volume",
         false,
         false,
         {"max", "90"},
         "node_name: \"audio.volume\" node_xml_attributes: \"<attributes max=\\\"90\\\"/>\" "
         "user_context: \"u\""},
        {RecordKind::kAttributes,
         "audio.volume",
         true,
         true,
         {},
         "node_name: \"audio.volume\" node_xml_attributes: \"<attributes/>\" user_context: \"u\""},
        {RecordKind::kComponents,
         "video",
         false,
         false,
         {"detached"},
         "node_name: \"video\" node_xml_attributes: \"<attributes detached=\\\"true\\\"/>\" "
         "user_context: \"u\""},
        {RecordKind::kLevels,
         "audio[1]/mute",
         false,
         false,
         {"kAdmin", ""},
         "instance { node { name: \"audio\" instance: 1 } node { name: \"mute\" instance: 1 } } "
         "read_role: kAdmin write_role: kUser user_context: \"u\""},
    };
    for (const NoticeCase& c : cases) {
        SCOPED_TRACE(c.key);
        const StoredChange change{c.kind, c.key, c.reset, c.values};
        Records after;
        after.apply(change);
        const Values before = c.hadRecord ? Values{"x"} : Values{};
        std::vector<ChangeEntry> entries;
        noticesOf(model_, after, change, c.hadRecord ? &before : nullptr, &entries);
        if (*c.expected == '\0') {
            EXPECT_TRUE(entries.empty());
            continue;
        }
        ASSERT_EQ(entries.size(), 1u);
        const std::unique_ptr<google::protobuf::Message> notice(
            google::protobuf::MessageFactory::generated_factory()
                ->GetPrototype(
                    google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(
                        std::string("ConfigIF.") + ConfigProtocol::messageNameOf(entries[0].msgId)))
                ->New());
        ASSERT_TRUE(notice->ParseFromString(encodeNotice(entries[0], "u")));
        EXPECT_EQ(notice->ShortDebugString(), c.expected);
    }
}

// The log forgets whole commits, oldest first; a resume is served only from what it still has.
TEST(ChangeLogTest, KeepsWholeCommitsWithinItsBound) {
    ChangeLog log(10, 3);
    auto commit = [&](uint64_t sequence, size_t count) {
        std::vector<ChangeEntry> entries(count);
        log.commit(sequence, &entries);
    };
    commit(11, 2);
    commit(12, 1);
    uint64_t index = 99;
    EXPECT_FALSE(log.indexAfter(9, &index));  // from before the log began
    ASSERT_TRUE(log.indexAfter(10, &index));
    EXPECT_EQ(index, 0u);
    commit(13, 0);  // a commit that changed nothing
    commit(14, 2);  // five entries, two too many: commit 11 goes whole
    EXPECT_EQ(log.begin(), 2u);
    EXPECT_EQ(log.end(), 5u);
    EXPECT_EQ(log.forgottenThrough(), 11u);
    EXPECT_EQ(log.lastSequence(), 14u);
    EXPECT_FALSE(log.indexAfter(10, &index));
    ASSERT_TRUE(log.indexAfter(11, &index));
    EXPECT_EQ(index, 2u);
    ASSERT_TRUE(log.indexAfter(13, &index));
    EXPECT_EQ(index, 3u);  // commit 13 had no entries: the next is 14's
    ASSERT_TRUE(log.indexAfter(14, &index));
    EXPECT_EQ(index, 5u);
}

}  // namespace
}  // namespace configsrvc

// The bound on registered callbacks, what a committed change tells subscribers, and how much the
// change log keeps (who may register what: sessions.txt).
#include <gtest/gtest.h>

#include "ChangeLog.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "service_fixture.h"

namespace configsrvc {
namespace {

// Registrations are bounded per connection: another connection may still register.
TEST(CallbacksTest, BoundIsPerConnection) {
    Callbacks callbacks;
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

// A committed record tells what it is now, once, and only when it changed, in the bytes the
// runtime would write for it (a value's notice is written without building messages).
TEST_F(ConfigServiceTest, ACommittedChangeToldAsItIsNow) {
    const std::string kLong(200, 'l');  // lengths of two bytes, in the value and around it
    const struct {
        RecordKind kind;
        const char* key;
        bool hadRecord;  // whether a record stood before: {"x"} for values
        bool reset;
        std::string values;    // separated by ','
        std::string expected;  // the notice (ConfigPath.h shorthands) but its user_context; "" none
    } cases[] = {
        {RecordKind::kValue, "audio[1]/volume", false, false, "80",
         "instance_val { instance { {{audio 1/volume 1}} } value: '80' }"},
        {RecordKind::kValue, "audio[1]/volume", true, true, "",  // the default again
         "instance_val { instance { {{audio 1/volume 1}} } value: '50' }"},
        {RecordKind::kValue, "network[1]/interface[3]/dns", false, false, ",10.0.0.1," + kLong,
         "instance_val { instance { {{network 1/interface 3/dns 1}} } value: '' value: '10.0.0.1'"
         " value: '" +
             kLong + "' }"},
        {RecordKind::kValue, "audio[1]/volume", false, true, "", ""},   // was default already
        {RecordKind::kValue, "audio[1]/volume", true, false, "x", ""},  // the same value
        {RecordKind::kAttributes, "audio.volume", false, false, "max,90",
         "node_name: 'audio.volume' node_xml_attributes: '<attributes max=\"90\"/>'"},
        {RecordKind::kAttributes, "audio.volume", true, true, "",
         "node_name: 'audio.volume' node_xml_attributes: '<attributes/>'"},
        {RecordKind::kComponents, "video", false, false, "detached",
         "node_name: 'video' node_xml_attributes: '<attributes detached=\"true\"/>'"},
        {RecordKind::kLevels, "audio[1]/mute", false, false, "kAdmin,",
         "instance { {{audio 1/mute 1}} } read_role: kAdmin write_role: kUser"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        const StoredChange change{c.kind, c.key, c.reset, testsupport::split(c.values, ",")};
        Records after;
        after.apply(change);
        const Values before = c.hadRecord ? Values{"x"} : Values{};
        std::vector<ChangeEntry> entries;
        noticesOf(model_, after, change, c.hadRecord ? &before : nullptr, &entries);
        ASSERT_EQ(entries.size(), c.expected.empty() ? 0u : 1u);
        if (entries.empty()) {
            continue;
        }
        const std::string type = ConfigProtocol::messageNameOf(entries[0].msgId);
        const auto notice = testsupport::messageOf(type, "");
        const auto expected = testsupport::messageOf(type, c.expected + " user_context: 'u'");
        ASSERT_TRUE(notice && expected && notice->ParseFromString(encodeNotice(entries[0], "u")));
        EXPECT_EQ(notice->ShortDebugString(), expected->ShortDebugString());
        EXPECT_EQ(encodeNotice(entries[0], "u"), expected->SerializeAsString());
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

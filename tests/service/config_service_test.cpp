// The service core on the example model: the sessions of sessions.txt, what they cannot show
// (answers straight from the wire, the store's files), and the store's refusals of databases it
// cannot trust.
#include "service_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "CaseFile.h"
#include "Committer.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigPath.h"
#include "ModelLoader.h"
#include "ServiceProcess.h"
#include "ValueStore.h"

namespace configsrvc {
namespace {

using testing::ElementsAre;
using testsupport::CaseRow;

const std::vector<testsupport::CaseBlock>& sessions() {
    static const std::vector<testsupport::CaseBlock> blocks =
        testsupport::readCaseFile(SESSIONS).blocks;
    return blocks;
}

class Sessions : public ConfigServiceTest, public testing::WithParamInterface<size_t> {
  protected:
    // Sends the request of `row` and checks the answer, how many changes it stores, and why it
    // was refused.
    void expectAnswer(const CaseRow& row) {
        std::istringstream head(row[0]);
        std::string type, role, word;
        head >> type >> role;
        Sender sender = on(1);
        for (uint32_t number = 0; head >> word >> number;) {
            (word == "on" ? sender.connection : sender.uid) = number;
        }
        const bool bytes = row[1].size() >= 2 && row[1].front() == '"' && row[1].back() == '"';
        const Answer answer = bytes ? ask(ConfigProtocol::messageIdOf(type + "Req"),
                                          row[1].substr(1, row[1].size() - 2), sender)
                                    : ask(type, role, row[1], sender);
        const bool whole = row[2].rfind("= ", 0) == 0;
        const auto expected = testsupport::messageOf(type + "Rsp", row[2].substr(whole ? 2 : 0));
        ASSERT_TRUE(answer.message != nullptr && expected != nullptr);
        std::string differences;
        if (whole) {
            EXPECT_EQ(answer.message->ShortDebugString(), expected->ShortDebugString());
        } else {
            EXPECT_TRUE(testsupport::holdsFields(*expected, *answer.message, &differences))
                << differences << "answer: " << answer.message->ShortDebugString();
        }
        if (!row[3].empty()) {
            EXPECT_EQ(std::to_string(answer.changes.size()), row[3]) << "changes stored";
        }
        if (!row[4].empty()) {
            EXPECT_EQ(answer.refusals, std::vector<std::string>{row[4]}) << "logged reason";
        }
    }
};

// The session of sessions.txt numbered by the parameter.
TEST_P(Sessions, AnswerAsListed) {
    for (const CaseRow& row : sessions()[GetParam()].body) {
        SCOPED_TRACE(row.where);
        if (row[0] == "(reopen)") {
            ASSERT_TRUE(reopen()) << error_;
            EXPECT_TRUE(warnings_.empty()) << "what was stored reads back with warnings";
        } else {
            expectAnswer(row);
        }
        if (HasFatalFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(File, Sessions, testing::Range(size_t{0}, sessions().size()),
                         [](const testing::TestParamInfo<size_t>& info) {
                             return "line" + std::to_string(sessions()[info.param].head.line);
                         });

// A read or batch read in the form clients send is answered straight from its bytes with exactly
// the bytes of the full answer; anything else is left to the full answer. A ReadReq is a
// BatchReadReq of one instance on the wire.
TEST_F(ConfigServiceTest, ReadsFromTheWireAnswerAsTheFullAnswerOrLeaveItToIt) {
    ASSERT_EQ(write(kDns, {"10.0.0.1", "10.0.0.2"}).error(), kErrNoError);
    const std::string plain = batchRead(kUser, {kMtu, kDns, "audio/microphone 2/gain 1"});
    ConfigIF::BatchReadReq scoped;
    ASSERT_TRUE(scoped.ParseFromString(plain));
    scoped.mutable_instance(1)->set_scope(ConfigIF::kLocal);
    ConfigIF::BatchReadReq noInstance;
    noInstance.set_name("test");
    noInstance.set_role(kUser);
    noInstance.add_instance()->add_node()->set_name("audio");
    ConfigIF::BatchReadReq scopedSingle;
    ASSERT_TRUE(scopedSingle.ParseFromString(batchRead(kUser, {kMtu})));
    scopedSingle.mutable_instance(0)->set_scope(ConfigIF::kLocal);
    constexpr uint32_t kRead = ConfigProtocol::kReadReqMsgId;
    std::string notPrintable = plain;
    notPrintable[3] = '\xe9';  // in the requester's name "test"
    const struct {
        const char* what;
        std::string bytes;
        uid_t uid;
        bool taken;
        uint32_t connection = 0;
        uint32_t request = ConfigProtocol::kBatchReadReqMsgId;
    } cases[] = {
        {"plain, one value stored", plain, 4321, true},
        {"scoped", scoped.SerializeAsString(), 4321, true},
        {"no instance", batchRead(kUser, {}), 4321, true},
        {"as many instances as one may name", batchRead(kUser, Values(1024, kVolume)), 4321, true},
        {"one instance too many", batchRead(kUser, Values(1025, kVolume)), 4321, false},
        {"two messages merged: the last role", plain + batchRead(kAdmin, {kVolume}), 4321, true},
        {"unknown field", plain + "\xf8\x01\x01", 4321, false},
        {"longer varint than needed",
         testsupport::replaced(plain, std::string("\xa0\x01\x0a", 3),
                               std::string("\xa0\x01\x8a\x00", 4)),
         4321, false},
        {"node without its instance", noInstance.SerializePartialAsString(), 4321, false},
        {"truncated", plain.substr(0, plain.size() - 1), 4321, false},
        {"requester not printable", notPrintable, 4321, false},
        {"no such variable", batchRead(kUser, {kMtu, "audio/bass"}), 4321, false},
        {"an item not readable", batchRead(kSystem, {kMtu, "provisioning/serial-number"}), 990,
         false},
        {"claim beyond the sender", batchRead(kSystem, {kMtu}), 4321, false},
        {"connection with staged writes", plain, 990, false, 1},
        {"single, stored", batchRead(kUser, {kDns}), 4321, true, 0, kRead},
        {"single, default, scoped", scopedSingle.SerializeAsString(), 4321, true, 0, kRead},
        {"single given twice: merged", batchRead(kUser, {kMtu, kDns}), 4321, false, 0, kRead},
        {"single without its instance", batchRead(kUser, {}), 4321, false, 0, kRead},
        {"single beyond the claim", batchRead(kUser, {"provisioning/serial-number"}), 4321, false,
         0, kRead},
        {"single with staged writes", batchRead(kUser, {kMtu}), 990, false, 1, kRead},
    };
    ASSERT_EQ(error("Submit", "kAdmin", "instance { } type: kSubmitStart", on(1)), kErrNoError);
    ASSERT_TRUE(
        ask("Write", "kAdmin", "instance_val { instance { {{audio/volume}} } value: '9' }", on(1))
            .changes.empty());
    for (const auto& c : cases) {
        std::string encoded = "left over";
        Answer fromWire;
        const bool taken =
            service_->answerReadFromWire(c.request, c.bytes.data(), c.bytes.size(),
                                         on(c.connection, c.uid), &encoded, &fromWire);
        EXPECT_EQ(taken, c.taken) << c.what;
        const Answer full = ask(c.request, c.bytes, on(c.connection, c.uid));
        if (taken) {
            EXPECT_EQ(encoded, full.message->SerializeAsString()) << c.what;
            EXPECT_EQ(fromWire.msgId, full.msgId) << c.what;
            EXPECT_EQ(fromWire.requester, full.requester) << c.what;
        }
    }
}

// Stored records the model no longer takes are ignored with a warning each, but kept for a model
// that takes them again.
TEST_F(ConfigServiceTest, StoredRecordsTheModelNoLongerTakesAreIgnoredButKept) {
    tamper(
        "INSERT INTO setting(key, value) VALUES('audio[3]/volume', '2:10'), ('audio[1]/volume', "
        "'3:110'), ('audio[1]/mute', '1:x'), ('system[1]/hostname', '');"
        "INSERT INTO override(kind, key, value) VALUES(3, 'audio.volume', '3:max3:120'), (3, "
        "'audio.bass', ''), (3, 'audio', '3:max1:3'), (3, 'video.brightness', '3:max2:10'),"
        "(1, 'audio[1]/volume', '1:01:a'), (2, 'audio[1]/mute', '6:kAdmin5:kRoot'), (9, 'x', '')");
    for (int reopened = 0; reopened < 2; ++reopened) {
        ASSERT_TRUE(reopen()) << error_;
        EXPECT_THAT(
            warnings_,
            testing::UnorderedElementsAre(
                "stored value of 'audio[1]/mute' is ignored: value 'x' of 'mute' is not a boolean "
                "(true, false, on, off, yes, no, 1, 0)",
                "stored value of 'system[1]/hostname' is ignored: 'hostname' takes exactly one "
                "value, not 0",
                "stored value of 'audio[3]/volume' is ignored: the model has no such variable",
                "stored attributes of 'audio.bass' is ignored: the model has no such node or "
                "variable",
                "stored attributes of 'audio' is ignored: attribute 'max' cannot be set on a node",
                "stored attributes of 'video.brightness' is ignored: the default would no longer "
                "fit: value 70 of 'brightness' is above the maximum 10",
                "stored options of 'audio[1]/volume' is ignored: 'volume' has no options (it is of "
                "kind integer)",
                "stored levels of 'audio[1]/mute' is ignored: unknown role 'kRoot'",
                "stored record of 'x' is ignored: it is of an unknown kind"));
        EXPECT_EQ(valuesOf(read(kVolume)), Values{"110"});  // fits the stored maximum of 120
        EXPECT_TRUE(read("audio/mute").is_default());
    }
}

// Databases of the older formats: values only (1), and values and overrides without checksums
// or a commit number (2).
class OlderFormat : public ConfigServiceTest, public testing::WithParamInterface<const char*> {};

TEST_P(OlderFormat, IsTakenOverWithItsValues) {
    tamper(std::string("DROP TABLE commits; DROP TABLE setting;"
                       "CREATE TABLE setting(key TEXT PRIMARY KEY NOT NULL, value BLOB NOT NULL)"
                       " WITHOUT ROWID; INSERT INTO setting VALUES('audio[1]/volume', '2:10');") +
               GetParam(),
           false);
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(valuesOf(read(kVolume)), Values{"10"});
    // The table of overrides was added: an override can be stored.
    EXPECT_EQ(error("SetAttribute", "kAdmin",
                    "node_name: 'audio.volume' node_xml_attributes: '<attributes max=\"90\"/>'"),
              kErrNoError);
    // Every row has its checksum now: one changed behind the service's back is found.
    tamper("UPDATE setting SET value = '2:11'", false);
    EXPECT_EQ(refusal(), database() +
                             " is damaged (the value of 'audio[1]/volume' fails its "
                             "checksum); it was left as it is");
}

INSTANTIATE_TEST_SUITE_P(
    Table, OlderFormat,
    testing::Values("DROP TABLE override; PRAGMA user_version=1",
                    "DROP TABLE override; CREATE TABLE override(kind INTEGER NOT NULL, key TEXT "
                    "NOT NULL, value BLOB NOT NULL, PRIMARY KEY(kind, key)) WITHOUT ROWID;"
                    "PRAGMA user_version=2"));

// The disk refuses the commit's log writes, as a full one would (a file size limit below the
// log's end; the signal that the limit raises is ignored, so the write fails instead).
TEST_F(ConfigServiceTest, ChangeThatCannotBeStoredIsAnsweredSoAndLeavesNoTrace) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit tiny{1, before.rlim_max};
    void (*const onLimit)(int) = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tiny), 0);
    const ConfigIF::ReturnMessage failed = write(kVolume, {"80"});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, onLimit);
    EXPECT_EQ(failed.error(), kErrGenericError);
    EXPECT_THAT(failed.error_message(),
                ElementsAre("the change could not be stored: disk I/O error"));
    EXPECT_TRUE(read(kVolume).is_default());
    // Nothing of the failed write is left among what later changes are checked against.
    EXPECT_TRUE(ask("ResetValue", "kAdmin", "instance { {{audio/volume}} }").changes.empty());
    // The store goes on: the same change is stored once the disk takes it.
    EXPECT_EQ(write(kVolume, {"80"}).error(), kErrNoError);
    EXPECT_EQ(read(kVolume).value(0), "80");
}

struct Damage {
    const char* sql;    // run on the closed database (rows resealed); "": text written over it
    double kept;        // the part of the file left, as a copy cut short leaves it
    const char* error;  // after the database's path
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.error;
}

class DamagedDatabase : public ConfigServiceTest, public testing::WithParamInterface<Damage> {};

// An empty or cut file is never taken for a new database: the values it should hold would be lost.
TEST_P(DamagedDatabase, IsRefusedAndLeftAsItWas) {
    tamper(*GetParam().sql == '\0' ? "SELECT 1" : GetParam().sql);
    if (*GetParam().sql == '\0') {
        ASSERT_TRUE(testsupport::writeFile(database(), "not the values you are looking for\n"));
    }
    const auto bytes = static_cast<double>(std::filesystem::file_size(database()));
    std::filesystem::resize_file(database(), static_cast<uintmax_t>(bytes * GetParam().kept));
    EXPECT_EQ(refusal(), database() + GetParam().error);
}

const Damage kDamages[] = {
    {"", 1, " is damaged (file is not a database); it was left as it is"},
    {"PRAGMA application_id=7", 1, " is not a database of this service; it was left as it is"},
    {"PRAGMA user_version=4", 1, " has format 4, this service reads 1 to 3; it was left as it is"},
    {"INSERT INTO setting(key, value) VALUES('audio[1]/volume', '9:1')", 1,
     " is damaged (the value of 'audio[1]/volume' does not decode); it was left as it is"},
    {"SELECT 1", 0,
     " is empty where a database of this service should be (its values are lost or were never "
     "there); it was left as it is"},
    {"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) INSERT INTO "
     "setting(key, value) SELECT 'k' || i, zeroblob(200) FROM n",
     0.5, " is damaged (database disk image is malformed); it was left as it is"},
};

INSTANTIATE_TEST_SUITE_P(Table, DamagedDatabase, testing::ValuesIn(kDamages));

// A log without its database is never taken for a new database: the log would be overwritten.
TEST_F(ConfigServiceTest, LogWithoutItsDatabaseIsRefused) {
    tamper("SELECT 1");
    std::filesystem::remove(database());
    ASSERT_TRUE(testsupport::writeFile(database() + "-wal", "a log"));
    EXPECT_FALSE(reopen());
    EXPECT_EQ(error_, database() + " is missing but its write-ahead log " + database() +
                          "-wal is there; it was left as it is");
    EXPECT_EQ(testsupport::readFile(database() + "-wal"), "a log");
    EXPECT_FALSE(std::filesystem::exists(database()));
}

TEST_F(ConfigServiceTest, SecondStoreOnTheSameStateFolderIsRefused) {
    std::unique_ptr<ValueStore> second;
    Records records;
    EXPECT_FALSE(ValueStore::open(folder_.path, model_, &second, &records, &warnings_, &error_));
    EXPECT_EQ(error_, "the state folder " + folder_.path + " is in use by another running service");
}

TEST_F(ConfigServiceTest, CommitterAnswersEveryWriteInOrderAndBoundsWhatIsPending) {
    Committer committer(store_.get(), 64);
    ASSERT_TRUE(committer.start(&error_)) << error_;
    for (uint32_t i = 0; i < 64; ++i) {
        const std::vector<StoredChange> changes{
            {RecordKind::kValue, "audio[1]/volume", false, {std::to_string(i)}}};
        ASSERT_TRUE(
            committer.submit({std::make_shared<const std::vector<StoredChange>>(changes), i}));
    }
    EXPECT_FALSE(committer.submit(PendingWrite()));
    committer.stop();
    // Served values change only when the server applies what came back.
    EXPECT_EQ(state_->committed().find(RecordKind::kValue, "audio[1]/volume"), nullptr);
    std::vector<FinishedWrite> finished;
    committer.takeFinished(&finished);
    ASSERT_EQ(finished.size(), 64u);
    for (uint32_t i = 0; i < 64; ++i) {
        EXPECT_TRUE(finished[i].committed);
        EXPECT_EQ(finished[i].write.ticket, i);
    }
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(valuesOf(read(kVolume)), Values{"63"});  // the last one wins
    // Commits are numbered durably: the batches of before, and one more for each batch after.
    const uint64_t before = store_->lastCommit();
    EXPECT_GE(before, 1u);
    EXPECT_EQ(write(kVolume, {"1"}).error(), kErrNoError);
    EXPECT_EQ(store_->lastCommit(), before + 1);
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(store_->lastCommit(), before + 1);
}

// A batch that changes one record several times stores what its last change leaves: a reset
// after a value, a value after a reset.
TEST_F(ConfigServiceTest, ABatchStoresTheLastChangeOfEachRecord) {
    const std::vector<StoredChange> batch{
        {RecordKind::kValue, "audio[1]/volume", false, {"7"}},
        {RecordKind::kValue, "audio[1]/volume", true, {}},
        {RecordKind::kValue, "audio[1]/mute", true, {}},
        {RecordKind::kValue, "audio[1]/mute", false, {"true"}},
    };
    std::vector<const StoredChange*> changes;
    for (const StoredChange& change : batch) {
        changes.push_back(&change);
    }
    ASSERT_TRUE(store_->commit(changes, &error_)) << error_;
    ASSERT_TRUE(reopen()) << error_;
    EXPECT_EQ(state_->committed().find(RecordKind::kValue, "audio[1]/volume"), nullptr);
    const Values* mute = state_->committed().find(RecordKind::kValue, "audio[1]/mute");
    ASSERT_NE(mute, nullptr);
    EXPECT_EQ(*mute, Values{"true"});
}

// Whether a write may be answered without the disk: only when it changes neither what is
// committed nor what is on its way there.
TEST(RecordStateTest, ChangesNothingOnlyWhereCommittedAndAcceptedAgree) {
    Records committed;
    committed.apply({RecordKind::kValue, "a", false, {"1"}});
    RecordState state(committed);
    const StoredChange setA1{RecordKind::kValue, "a", false, {"1"}};
    const StoredChange setA2{RecordKind::kValue, "a", false, {"2"}};
    const StoredChange resetB{RecordKind::kValue, "b", true, {}};
    const StoredChange optionsA1{RecordKind::kOptions, "a", false, {"1"}};
    EXPECT_TRUE(state.changesNothing({setA1, resetB}));
    EXPECT_FALSE(state.changesNothing({setA2}));
    EXPECT_FALSE(state.changesNothing({setA1, optionsA1})) << "another kind, another record";
    state.accept({setA2});  // on its way to the disk
    EXPECT_FALSE(state.changesNothing({setA2})) << "equal only to what is not durable yet";
    EXPECT_FALSE(state.changesNothing({setA1})) << "would be ordered after the change on its way";
    state.finish(true);
    EXPECT_TRUE(state.changesNothing({setA2}));
}

}  // namespace
}  // namespace configsrvc

#include "ValueStore.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "Committer.h"
#include "ModelLoader.h"
#include "TempFolder.h"

namespace configsrvc {
namespace {

using Values = std::vector<std::string>;

constexpr char kModel[] =
    "<device-model>\n"
    "  <node name='net' instances='2'>\n"
    "    <variable name='mtu' kind='integer' min='576' max='9000' default='1500'/>\n"
    "    <variable name='dns' kind='string' list='true'/>\n"
    "  </node>\n"
    "</device-model>\n";

class ValueStoreTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(parseModel(kModel, "m.xml", &model_, &error)) << error;
    }

    std::unique_ptr<ValueStore> open(std::string* error = nullptr) {
        std::unique_ptr<ValueStore> store;
        std::string ignored;
        warnings_.clear();
        ValueStore::open(folder_.path(), model_, &store, &warnings_, error ? error : &ignored);
        return store;
    }

    static bool commit(ValueStore* store, const std::vector<StoredChange>& changes) {
        std::vector<const StoredChange*> batch;
        for (const StoredChange& change : changes) {
            batch.push_back(&change);
        }
        std::string error;
        bool ok = store->commit(batch, &error);
        EXPECT_TRUE(ok) << error;
        return ok;
    }

    // Runs SQL on the database directly, as a damaged or foreign file would look.
    void tamper(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(folder_.file("values.db").c_str(), &db), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    TempFolder folder_;
    DeviceModel model_;
    std::vector<std::string> warnings_;
};

TEST_F(ValueStoreTest, CommittedValuesSurviveReopening) {
    {
        std::unique_ptr<ValueStore> store = open();
        ASSERT_TRUE(store);
        EXPECT_EQ(store->find("net[1]/mtu"), nullptr);
        ASSERT_TRUE(commit(store.get(), {{"net[1]/mtu", false, {"9000"}},
                                         {"net[2]/dns", false, {"a", "", "b:c"}},
                                         {"net[1]/dns", false, {}}}));
    }
    std::unique_ptr<ValueStore> store = open();
    ASSERT_TRUE(store);
    EXPECT_TRUE(warnings_.empty());
    ASSERT_NE(store->find("net[1]/mtu"), nullptr);
    EXPECT_EQ(*store->find("net[1]/mtu"), Values{"9000"});
    EXPECT_EQ(*store->find("net[2]/dns"), (Values{"a", "", "b:c"}));
    ASSERT_NE(store->find("net[1]/dns"), nullptr);  // the empty list is a stored value
    EXPECT_TRUE(store->find("net[1]/dns")->empty());

    ASSERT_TRUE(commit(store.get(), {{"net[1]/mtu", true, {}}}));
    store.reset();
    EXPECT_EQ(open()->find("net[1]/mtu"), nullptr);
}

TEST_F(ValueStoreTest, CommitDoesNotChangeMemoryUntilApplied) {
    std::unique_ptr<ValueStore> store = open();
    StoredChange change{"net[2]/mtu", false, {"1400"}};
    ASSERT_TRUE(commit(store.get(), {change}));
    EXPECT_EQ(store->find("net[2]/mtu"), nullptr);
    store->apply(change);
    EXPECT_EQ(*store->find("net[2]/mtu"), Values{"1400"});
}

TEST_F(ValueStoreTest, ValuesTheModelNoLongerTakesAreIgnoredButKept) {
    ASSERT_TRUE(open());
    tamper("INSERT INTO setting VALUES('net[3]/mtu', '4:1500'), ('net[1]/mtu', '5:99999')");
    std::unique_ptr<ValueStore> store = open();
    ASSERT_TRUE(store);
    EXPECT_EQ(warnings_, (std::vector<std::string>{
                             "stored value of 'net[1]/mtu' is ignored: value 99999 of 'mtu' is "
                             "above the maximum 9000",
                             "stored value of 'net[3]/mtu' is ignored: the model has no such "
                             "variable"}));
    EXPECT_EQ(store->find("net[1]/mtu"), nullptr);
    store.reset();
    open();
    EXPECT_EQ(warnings_.size(), 2u);  // still there for a model that takes them again
}

struct Damage {
    const char* what;
    std::string contents;  // written over the database file; empty: use `sql` instead
    const char* sql;
    const char* error;  // after the database path
};

class ValueStoreRefuses : public ValueStoreTest, public testing::WithParamInterface<Damage> {};

TEST_P(ValueStoreRefuses, AndLeavesTheFileAsItWas) {
    ASSERT_TRUE(open());
    std::string path = folder_.file("values.db");
    if (GetParam().sql != nullptr) {
        tamper(GetParam().sql);
    } else {
        writeWholeFile(path, GetParam().contents);
    }
    std::string before = readWholeFile(path);
    std::string error;
    EXPECT_FALSE(open(&error)) << GetParam().what;
    EXPECT_EQ(error, path + GetParam().error) << GetParam().what;
    EXPECT_EQ(readWholeFile(path), before) << GetParam().what;
}

const Damage kDamages[] = {
    {"text file", "these are not the values you are looking for\n", nullptr,
     " is damaged (file is not a database); it was left as it is"},
    {"another program's database", "", "PRAGMA application_id=7",
     " is not a database of this service; it was left as it is"},
    {"newer format", "", "PRAGMA user_version=2",
     " has format 2, this service reads 1; it was left as it is"},
    {"undecodable value", "", "INSERT INTO setting VALUES('net[1]/mtu', '9:1')",
     " is damaged (the value of 'net[1]/mtu' does not decode); it was left as it is"},
};

INSTANTIATE_TEST_SUITE_P(Table, ValueStoreRefuses, testing::ValuesIn(kDamages));

TEST_F(ValueStoreTest, TruncatedDatabaseIsRefused) {
    {
        std::unique_ptr<ValueStore> store = open();
        std::vector<StoredChange> many;
        for (int i = 0; i < 2000; ++i) {
            many.push_back({"k" + std::to_string(i), false, {std::string(200, 'x')}});
        }
        ASSERT_TRUE(commit(store.get(), many));
    }
    tamper("PRAGMA wal_checkpoint(TRUNCATE)");
    std::string path = folder_.file("values.db");
    std::string contents = readWholeFile(path);
    ASSERT_GT(contents.size(), 8192u);
    writeWholeFile(path, contents.substr(0, contents.size() / 2));
    std::string error;
    EXPECT_FALSE(open(&error));
    EXPECT_NE(error.find(" is damaged ("), std::string::npos) << error;
    EXPECT_EQ(readWholeFile(path), contents.substr(0, contents.size() / 2));
}

TEST_F(ValueStoreTest, SecondStoreOnTheSameFolderIsRefused) {
    std::unique_ptr<ValueStore> first = open();
    ASSERT_TRUE(first);
    std::string error;
    EXPECT_FALSE(open(&error));
    EXPECT_EQ(error,
              "the state folder " + folder_.path() + " is in use by another running service");
}

TEST(ValueEncoding, RoundTripsAndRejectsMalformedText) {
    for (const Values& values :
         {Values{}, Values{""}, Values{"a", "12:x", std::string(300, 'y')}}) {
        Values decoded;
        ASSERT_TRUE(decodeValues(encodeValues(values), &decoded));
        EXPECT_EQ(decoded, values);
    }
    Values ignored;
    for (const char* bad : {"1", "1:", ":a", "x:a", "2:a", "99999999:a"}) {
        EXPECT_FALSE(decodeValues(bad, &ignored)) << bad;
    }
}

TEST_F(ValueStoreTest, CommitterAnswersEveryWriteInOrderAndBoundsWhatIsPending) {
    std::unique_ptr<ValueStore> store = open();
    Committer committer(store.get(), 64);
    std::string error;
    ASSERT_TRUE(committer.start(&error)) << error;
    for (uint32_t i = 0; i < 64; ++i) {
        PendingWrite write;
        write.change = {"net[1]/mtu", false, {std::to_string(600 + i)}};
        write.replyAddress = i;
        ASSERT_TRUE(committer.submit(write));
    }
    PendingWrite oneTooMany;
    EXPECT_FALSE(committer.submit(oneTooMany));
    committer.stop();

    std::vector<FinishedWrite> finished;
    committer.takeFinished(&finished);
    ASSERT_EQ(finished.size(), 64u);
    for (uint32_t i = 0; i < 64; ++i) {
        EXPECT_TRUE(finished[i].committed);
        EXPECT_EQ(finished[i].write.replyAddress, i);
    }
    store.reset();
    EXPECT_EQ(*open()->find("net[1]/mtu"), Values{"663"});  // the last one wins
}

}  // namespace
}  // namespace configsrvc

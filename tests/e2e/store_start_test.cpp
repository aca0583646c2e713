// Starting the real configsrvc on a state folder that a crash, a failing disk or an operator left
// in a bad way: it refuses with the reason, and touches none of the files it refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ServiceClient.h"

namespace {

using namespace CommonIF;
using testing::HasSubstr;
using testing::Not;
using testsupport::readFile;
using testsupport::ServiceClient;
using testsupport::writeFile;

const char* const kStateFiles[] = {"values.db", "values.db-wal", "values.commit"};

// Where the last frame of a write-ahead log starts: frames follow the 32-byte header, each a
// 24-byte header and a page, and belong to the log while they carry the salts of its header.
size_t lastFrame(const std::string& wal) {
    const auto byte = [&](size_t at) { return static_cast<size_t>(static_cast<uint8_t>(wal[at])); };
    const size_t frameBytes = 24 + (byte(8) << 24 | byte(9) << 16 | byte(10) << 8 | byte(11));
    size_t last = 0;
    for (size_t at = 32; at + frameBytes <= wal.size(); at += frameBytes) {
        if (wal.compare(at + 8, 8, wal, 16, 8) != 0) {
            break;
        }
        last = at;
    }
    return last;
}

class StoreStart : public testing::Test {
  protected:
    std::string file(const char* name) const { return service_.state() + "/" + name; }

    // Acknowledged writes of `count` values, then SIGKILL: what a crash leaves.
    void writeThenKill(int count) {
        ASSERT_TRUE(service_.start(&error_)) << error_;
        ServiceClient client("store");
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(client.write("system/location", {"v" + std::to_string(i)}), kErrNoError);
        }
        service_.stop(SIGKILL);
    }

    // Starts the service and expects it to refuse with `reason`, leaving the files as they were.
    void expectRefusal(const std::string& reason) {
        std::vector<std::string> before;
        for (const char* name : kStateFiles) {
            before.push_back(readFile(file(name)));
        }
        const size_t logged = service_.output().size();
        EXPECT_FALSE(service_.start(&error_));
        EXPECT_EQ(service_.stop(SIGKILL), 1);
        EXPECT_THAT(service_.output().substr(logged), HasSubstr(reason));
        for (size_t i = 0; i < before.size(); ++i) {
            EXPECT_EQ(readFile(file(kStateFiles[i])), before[i]) << kStateFiles[i] << " changed";
        }
    }

    testsupport::ServiceProcess service_;
    std::string error_;
};

// Damage to the write-ahead log after a crash makes the database recover fewer commits than were
// acknowledged: the service says so and keeps the evidence, however often it is started.
TEST_F(StoreStart, LogThatLostAcknowledgedCommitsIsRefusedAndKept) {
    writeThenKill(40);
    const std::string log = readFile(file("values.db-wal"));
    const std::string database = readFile(file("values.db"));
    const size_t last = lastFrame(log);
    ASSERT_GT(last, 40u * 1024) << "fewer frames than the writes made";
    const std::pair<const char*, std::function<void(std::string*)>> damages[] = {
        {"a bit of the first commit", [](std::string* wal) { (*wal)[32 + 24 + 100] ^= 0x10; }},
        {"a bit of the last commit", [&](std::string* wal) { (*wal)[last + 24 + 200] ^= 1; }},
        {"a bit of the log's header", [](std::string* wal) { (*wal)[12] ^= 4; }},
    };
    const std::string reason = file("values.db") + " lost acknowledged changes";
    for (const auto& [what, damage] : damages) {
        SCOPED_TRACE(what);
        std::string damaged = log;
        damage(&damaged);
        ASSERT_TRUE(writeFile(file("values.db-wal"), damaged));
        expectRefusal(reason);
        expectRefusal(reason);
    }
    std::filesystem::remove(file("values.db-wal"));
    expectRefusal(reason);
    // The log as the crash left it: nothing was lost, and the last value is served.
    ASSERT_TRUE(writeFile(file("values.db-wal"), log));
    ASSERT_EQ(readFile(file("values.db")), database);
    ASSERT_TRUE(service_.start(&error_)) << error_;
    EXPECT_EQ(ServiceClient("store").value("system/location", kUser), "v39");
    // An operator who removes the database and its log starts anew, and the count with it.
    ASSERT_EQ(service_.stop(SIGTERM), 0);
    std::filesystem::remove(file("values.db"));
    std::filesystem::remove(file("values.db-wal"));
    for (int start = 0; start < 2; ++start) {
        ASSERT_TRUE(service_.start(&error_)) << error_;
        ASSERT_EQ(service_.stop(SIGTERM), 0);
    }
}

// A sound database is never called damaged when the system is what stands in the way, and one
// the service could not write is refused at start, not at the first client's write.
TEST_F(StoreStart, WhatTheSystemRefusesIsToldAsSuch) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run the service as another user and to mount a small disk";
    }
    writeThenKill(3);
    ASSERT_TRUE(service_.start(&error_)) << error_;
    ASSERT_EQ(service_.stop(SIGTERM), 0);
    // A sound database alone, as a clean stop of an older service left it: SQLite must create
    // its log and index beside it.
    for (const char* log : {"values.db-wal", "values.db-shm"}) {
        std::filesystem::remove(file(log));
    }
    // The service as uid 65534, with a model it can read; `setup` runs first, as root.
    const std::string model = service_.root() + "/model.xml";
    ASSERT_TRUE(writeFile(model, readFile(testsupport::kExampleModel)));
    const std::string state = service_.state();
    const std::string chown = "chmod 755 " + service_.root() + " && chown -R 65534 " + state;
    const std::string program = std::string(testsupport::kConfigsrvcBin) +
                                " --log stderr --model " + model + " --state " + state;
    const std::string asNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups " + program;
    const std::string db = state + "/values.db";
    const std::pair<std::string, std::string> cases[] = {
        {chown + " && chmod 555 " + state + " && " + asNobody,
         "cannot examine " + db + ": the state folder " + state +
             " cannot be written: Permission denied"},
        {chown + " && chmod 755 " + state + " && chown 0 " + db + " && " + asNobody,
         "cannot write " + db + " (owner uid 0, mode 0644; this service runs as uid 65534)"},
        // A disk with no room left: the database in a small memory disk that a file filled.
        {"chmod 755 " + state + " && chown -R 0 " + state + " && unshare --mount sh -c 'mount -t " +
             "tmpfs -o size=1m none " + state + " && cp -a " + service_.root() + "/copy/. " +
             state + " && (cat /dev/zero > " + state + "/filler 2>/dev/null; " + program + ")'",
         "cannot examine " + db + ": no space left on the disk"},
    };
    ASSERT_EQ(testsupport::runShell("cp -a " + state + " " + service_.root() + "/copy").status, 0);
    for (const auto& [command, reason] : cases) {
        const testsupport::Outcome started = testsupport::runShell(command);
        EXPECT_EQ(started.status, 1) << command << "\n" << started.err;
        EXPECT_THAT(started.err, HasSubstr(reason)) << command;
        EXPECT_THAT(started.err, Not(HasSubstr("damaged"))) << command;
    }
}

}  // namespace

// The service core on the example model over a store in a fresh state folder, as the service
// tests drive it: requests in, answers out, changes stored before they are answered.
#ifndef TESTS_SERVICE_SERVICE_FIXTURE_H
#define TESTS_SERVICE_SERVICE_FIXTURE_H

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <vector>

#include "Committer.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "ConfigPath.h"
#include "ConfigService.h"
#include "ModelLoader.h"
#include "ServiceProcess.h"
#include "ValueStore.h"

namespace configsrvc {

using namespace CommonIF;
using Values = std::vector<std::string>;

constexpr uid_t kService = 990;
constexpr char kMtu[] = "network/interface 2/mtu";
constexpr char kDns[] = "network/interface 3/dns";
constexpr char kVolume[] = "audio/volume";

// The example model over a store in a fresh state folder, and the service answering from them.
class ConfigServiceTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(loadModelFile(testsupport::kExampleModel, &model_, &error_)) << error_;
        ASSERT_TRUE(reopen()) << error_;
    }

    // Opens the store again, as a restarted service does.
    bool reopen() {
        service_.reset();
        state_.reset();
        store_.reset();
        warnings_.clear();
        Records records;
        if (!ValueStore::open(folder_.path, model_, &store_, &records, &warnings_, &error_)) {
            return false;
        }
        state_ = std::make_unique<RecordState>(std::move(records));
        if (!ProfileFolder::open(folder_.file("profiles"), &profiles_, &error_)) {
            return false;
        }
        service_ = std::make_unique<ConfigService>(model_, *state_, kService, profiles_.get());
        return true;
    }

    // Answers a request as the server does: its changes are stored before it is answered.
    Answer ask(uint32_t requestId, const std::string& payload,
               const Sender& sender = Sender{kService}) {
        Answer answer;
        service_->handle(requestId, payload.data(), payload.size(), sender, &arena_, &answer);
        if (!answer.changes.empty()) {
            std::vector<const StoredChange*> changes;
            for (const StoredChange& change : answer.changes) {
                changes.push_back(&change);
            }
            const bool stored = store_->commit(changes, &error_);
            state_->accept(answer.changes);
            state_->finish(stored);
            if (!stored) {
                ConfigService::answerUnstored(error_, answer.message);
            }
        }
        return answer;
    }

    // Answers the request of type `type` ("Submit" for a SubmitReq) claiming the role named
    // `role`, its other fields in protocol buffer text (testsupport::requestOf).
    Answer ask(const std::string& type, const std::string& role, const std::string& fields,
               const Sender& sender = Sender{kService}) {
        const auto request = testsupport::requestOf(type, role, fields);
        return ask(ConfigProtocol::messageIdOf(type + "Req"),
                   request ? request->SerializePartialAsString() : "", sender);
    }

    // The error of the request's answer: the response's field `error`, or its ret_message's.
    eErrorType error(const std::string& type, const std::string& role, const std::string& fields,
                     const Sender& sender = Sender{kService}) {
        return testsupport::errorOf(*ask(type, role, fields, sender).message);
    }

    // A sender on `connection` (0: none), with the submissions and callbacks of the test.
    Sender on(uint32_t connection, uid_t uid = kService) {
        return Sender{uid, connection, &submissions_, &callbacks_};
    }

    ConfigIF::ReadRsp read(const std::string& path, eSecurityRole role = kProvisioning) {
        const std::string request = testsupport::readRequest(path, role).SerializeAsString();
        return static_cast<const ConfigIF::ReadRsp&>(
            *ask(ConfigProtocol::kReadReqMsgId, request).message);
    }

    ConfigIF::ReturnMessage write(const std::string& path, const Values& values,
                                  eSecurityRole role = kAdmin) {
        const std::string request =
            testsupport::writeRequest(path, values, role).SerializeAsString();
        return static_cast<const ConfigIF::WriteRsp&>(
                   *ask(ConfigProtocol::kWriteReqMsgId, request).message)
            .ret_message();
    }

    std::string database() const { return folder_.file("values.db"); }

    // Closes the store and runs SQL on its database, as a damaged or foreign file would look.
    // Unless told not to, the rows then get their checksums, as if the service had written them.
    void tamper(const std::string& sql, bool reseal = true) {
        service_.reset();
        state_.reset();
        store_.reset();
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(database().c_str(), &db), SQLITE_OK);
        ASSERT_TRUE(registerRowChecksum(db));
        const std::string all =
            sql + (reseal ? ";UPDATE setting SET checksum = row_checksum(0, key, value);"
                            "UPDATE override SET checksum = row_checksum(kind, key, value)"
                          : "");
        EXPECT_EQ(sqlite3_exec(db, all.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }

    // The store must refuse to open and leave the file byte for byte as it was.
    std::string refusal() {
        const std::string before = testsupport::readFile(database());
        EXPECT_FALSE(reopen());
        EXPECT_EQ(testsupport::readFile(database()), before) << "the refused database was changed";
        return error_;
    }

    testsupport::TempDir folder_{"configsrvc-test"};
    std::string error_;
    DeviceModel model_;
    std::vector<std::string> warnings_;
    std::unique_ptr<ValueStore> store_;
    std::unique_ptr<RecordState> state_;
    std::unique_ptr<ProfileFolder> profiles_;
    Submissions submissions_;
    Callbacks callbacks_;
    google::protobuf::Arena arena_;  // holds every answer for the test's length
    std::unique_ptr<ConfigService> service_;
};

inline Values valuesOf(const ConfigIF::ReadRsp& response) {
    return Values(response.value().begin(), response.value().end());
}

// A BatchReadReq of client name "test" for the instances at `paths`.
inline std::string batchRead(eSecurityRole role, const std::vector<std::string>& paths) {
    ConfigIF::BatchReadReq request;
    request.set_name("test");
    request.set_role(role);
    for (const std::string& path : paths) {
        *request.add_instance() = testsupport::instOf(path);
    }
    return request.SerializePartialAsString();
}

}  // namespace configsrvc

#endif  // TESTS_SERVICE_SERVICE_FIXTURE_H

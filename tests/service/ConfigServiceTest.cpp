#include "ConfigService.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ModelLoader.h"
#include "TempFolder.h"

namespace configsrvc {
namespace {

using CommonIF::eErrorType;
using Path = std::vector<PathStep>;
using Values = std::vector<std::string>;

constexpr uid_t kServiceUid = 990;
constexpr uid_t kOtherUid = 4321;      // may claim up to kAdmin
constexpr uid_t kInstallerUid = 1500;  // listed in the example model: up to kSystem

const Path kMtu2 = {{"network", 0}, {"interface", 2}, {"mtu", 0}};
const Path kDns = {{"network", 0}, {"interface", 0}, {"dns", 0}};
const Path kVolume = {{"audio", 0}, {"volume", 0}};
const Path kMute = {{"audio", 0}, {"mute", 0}};
const Path kLayouts = {{"video", 0}, {"layouts", 0}};
const Path kWatchdog = {{"system", 0}, {"watchdog", 0}};
const Path kHostname = {{"system", 0}, {"hostname", 0}};
const Path kSerial = {{"provisioning", 0}, {"serial-number", 0}};

void fillInst(const Path& path, ConfigIF::Inst* inst) {
    for (const PathStep& step : path) {
        ConfigIF::Node* node = inst->add_node();
        node->set_name(step.name);
        node->set_instance(step.instance);
    }
}

class ConfigServiceTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        std::vector<std::string> warnings;
        ASSERT_TRUE(loadModelFile(EXAMPLE_MODEL, &model_, &error)) << error;
        ASSERT_TRUE(ValueStore::open(folder_.path(), model_, &store_, &warnings, &error)) << error;
        service_ = std::make_unique<ConfigService>(model_, *store_, kServiceUid);
    }

    ConfigIF::ReadRsp readBytes(const std::string& payload, uid_t uid = kServiceUid) {
        ConfigIF::ReadRsp response;
        service_->read(payload.data(), payload.size(), uid, &response);
        // Whatever came in, the answer must be a complete message a client can parse.
        EXPECT_TRUE(response.IsInitialized());
        return response;
    }

    ConfigIF::ReadRsp read(const Path& path, int role = kRoleUser, uid_t uid = kServiceUid) {
        ConfigIF::ReadReq request;
        request.set_name("test");
        request.set_role(static_cast<CommonIF::eSecurityRole>(role));
        fillInst(path, request.mutable_instance());
        return readBytes(request.SerializeAsString(), uid);
    }

    // Checks the write and, when it may go ahead, commits and applies it as the server does.
    ConfigIF::ReturnMessage writeBytes(const std::string& payload, uid_t uid = kServiceUid) {
        ConfigIF::WriteRsp response;
        PendingWrite pending;
        if (service_->checkWrite(payload.data(), payload.size(), uid, &pending, &response)) {
            FinishedWrite finished{pending, false, ""};
            finished.committed = store_->commit({&pending.change}, &finished.error);
            if (finished.committed) {
                store_->apply(pending.change);
            }
            ConfigService::answerCommitted(finished, &response);
        }
        EXPECT_TRUE(response.IsInitialized());
        return response.ret_message();
    }

    ConfigIF::ReturnMessage write(const Path& path, const Values& values, int role = kRoleAdmin,
                                  uid_t uid = kServiceUid, bool override = false) {
        ConfigIF::WriteReq request;
        request.set_name("test");
        request.set_role(static_cast<CommonIF::eSecurityRole>(role));
        fillInst(path, request.mutable_instance_val()->mutable_instance());
        for (const std::string& value : values) {
            request.mutable_instance_val()->add_value(value);
        }
        if (override) {
            request.set_override_security(true);
        }
        return writeBytes(request.SerializeAsString(), uid);
    }

    Values valuesOf(const ConfigIF::ReadRsp& response) {
        return Values(response.value().begin(), response.value().end());
    }

    TempFolder folder_;
    DeviceModel model_;
    std::unique_ptr<ValueStore> store_;
    std::unique_ptr<ConfigService> service_;
};

TEST_F(ConfigServiceTest, ReadOfAnUntouchedVariableGivesTheDefaultAndTheInstanceAnswered) {
    ConfigIF::ReadRsp response = read({{"network", 0}, {"interface", 0}, {"dns", 0}});
    EXPECT_EQ(response.error(), CommonIF::kErrNoError);
    EXPECT_EQ(valuesOf(response), (Values{"192.0.2.53", "198.51.100.53"}));
    EXPECT_TRUE(response.is_default());
    // Instance 0 is answered as the instance it stands for.
    ConfigIF::Inst expected;
    fillInst({{"network", 1}, {"interface", 1}, {"dns", 1}}, &expected);
    EXPECT_EQ(response.instance().SerializeAsString(), expected.SerializeAsString());
}

struct ReadCase {
    const char* what;
    Path path;
    int role;
    uid_t uid;
    eErrorType error;
};

class ReadSemantics : public ConfigServiceTest, public testing::WithParamInterface<ReadCase> {};

TEST_P(ReadSemantics, GivesTheExpectedResult) {
    EXPECT_EQ(read(GetParam().path, GetParam().role, GetParam().uid).error(), GetParam().error)
        << GetParam().what;
}

const ReadCase kReadCases[] = {
    {"last interface",
     {{"network", 0}, {"interface", 3}, {"mtu", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrNoError},
    {"interface beyond the model",
     {{"network", 0}, {"interface", 4}, {"mtu", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"negative instance",
     {{"network", 0}, {"interface", -1}, {"mtu", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"second instance of a single node",
     {{"network", 2}, {"interface", 1}, {"mtu", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"variable instance 1",
     {{"audio", 0}, {"volume", 1}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrNoError},
    {"variable instance 2",
     {{"audio", 0}, {"volume", 2}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"unknown name",
     {{"audio", 0}, {"volum", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"path ending on a node", {{"audio", 0}}, kRoleUser, kOtherUid, CommonIF::kErrItemNotFound},
    {"path beyond a variable",
     {{"audio", 0}, {"volume", 0}, {"x", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"empty path", {}, kRoleUser, kOtherUid, CommonIF::kErrItemNotFound},
    {"names are case-sensitive",
     {{"Audio", 0}, {"volume", 0}},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrItemNotFound},
    {"provisioning variable as user", kSerial, kRoleUser, kServiceUid, CommonIF::kErrNotAuthorized},
    {"provisioning variable as system", kSerial, kRoleSystem, kServiceUid,
     CommonIF::kErrNotAuthorized},
    {"provisioning variable as provisioning", kSerial, kRoleProvisioning, kServiceUid,
     CommonIF::kErrNoError},
    {"provisioning claimed by root", kSerial, kRoleProvisioning, 0, CommonIF::kErrNoError},
    {"provisioning claimed by another user", kSerial, kRoleProvisioning, kOtherUid,
     CommonIF::kErrNotAuthorized},
    {"kAdmin claimed by another user", kVolume, kRoleAdmin, kOtherUid, CommonIF::kErrNoError},
    {"kSystem claimed by another user", kVolume, kRoleSystem, kOtherUid,
     CommonIF::kErrNotAuthorized},
    {"kSystem claimed by the listed installer", kVolume, kRoleSystem, kInstallerUid,
     CommonIF::kErrNoError},
    {"kProvisioning claimed by the listed installer", kSerial, kRoleProvisioning, kInstallerUid,
     CommonIF::kErrNotAuthorized},
};

INSTANTIATE_TEST_SUITE_P(Table, ReadSemantics, testing::ValuesIn(kReadCases));

struct WriteCase {
    const char* what;
    Path path;
    Values values;
    int role;
    uid_t uid;
    eErrorType error;
    const char* reason;  // the error message, when refused
    Values readBack;     // when accepted
};

class WriteSemantics : public ConfigServiceTest, public testing::WithParamInterface<WriteCase> {};

TEST_P(WriteSemantics, GivesTheExpectedResult) {
    const WriteCase& c = GetParam();
    ConfigIF::ReturnMessage result = write(c.path, c.values, c.role, c.uid);
    EXPECT_EQ(result.error(), c.error) << c.what;
    if (c.error == CommonIF::kErrNoError) {
        EXPECT_EQ(result.error_message_size(), 0);
        EXPECT_EQ(valuesOf(read(c.path, kRoleProvisioning)), c.readBack) << c.what;
    } else {
        ASSERT_EQ(result.error_message_size(), 1) << c.what;
        EXPECT_EQ(result.error_message(0), c.reason) << c.what;
        if (c.error != CommonIF::kErrItemNotFound) {
            EXPECT_TRUE(read(c.path, kRoleProvisioning).is_default()) << c.what;
        }
    }
}

const WriteCase kWriteCases[] = {
    {"integer in range",
     kMtu2,
     {"9000"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrNoError,
     "",
     {"9000"}},
    {"integer out of range",
     kMtu2,
     {"9001"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrBadParameter,
     "value 9001 of 'mtu' is above the maximum 9000",
     {}},
    {"boolean kept canonical",
     kMute,
     {"on"},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrNoError,
     "",
     {"true"}},
    {"list of values",
     kDns,
     {"10.0.0.1", "10.0.0.2", "10.0.0.3"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrNoError,
     "",
     {"10.0.0.1", "10.0.0.2", "10.0.0.3"}},
    {"list too long",
     kDns,
     {"a", "b", "c", "d"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrBadParameter,
     "'dns' takes at most 3 values, not 4",
     {}},
    {"empty list", kDns, {}, kRoleAdmin, kOtherUid, CommonIF::kErrNoError, "", {}},
    {"empty list below min-count",
     kLayouts,
     {},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrBadParameter,
     "'layouts' takes at least 1 values, not 0",
     {}},
    {"two values for a single variable",
     kVolume,
     {"1", "2"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrBadParameter,
     "'volume' takes exactly one value, not 2",
     {}},
    {"option not offered",
     kLayouts,
     {"speaker", "cinema"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrBadParameter,
     "value 'cinema' of 'layouts' is not one of: speaker, gallery, content",
     {}},
    {"role below the write level",
     kVolume,
     {"10"},
     kRoleUser,
     kOtherUid,
     CommonIF::kErrNotAuthorized,
     "kUser may not write 'audio[1]/volume' (needs kAdmin)",
     {}},
    {"system variable as admin",
     kWatchdog,
     {"false"},
     kRoleAdmin,
     kServiceUid,
     CommonIF::kErrNotAuthorized,
     "kAdmin may not write 'system[1]/watchdog' (needs kSystem)",
     {}},
    {"claim beyond the sender",
     kWatchdog,
     {"false"},
     kRoleSystem,
     kOtherUid,
     CommonIF::kErrNotAuthorized,
     "uid 4321 may not act as kSystem (at most kAdmin)",
     {}},
    {"unknown variable",
     {{"audio", 0}, {"bass", 0}},
     {"1"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrItemNotFound,
     "no variable 'audio/bass' in the model",
     {}},
    {"instance beyond the model",
     {{"network", 0}, {"interface", 9}, {"mtu", 0}},
     {"1500"},
     kRoleAdmin,
     kOtherUid,
     CommonIF::kErrItemNotFound,
     "no variable 'network/interface 9/mtu' in the model",
     {}},
};

INSTANTIATE_TEST_SUITE_P(Table, WriteSemantics, testing::ValuesIn(kWriteCases));

TEST_F(ConfigServiceTest, WritesAreKeptPerInstance) {
    ASSERT_EQ(write(kMtu2, {"1400"}).error(), CommonIF::kErrNoError);
    EXPECT_EQ(valuesOf(read(kMtu2)), Values{"1400"});
    EXPECT_FALSE(read(kMtu2).is_default());
    EXPECT_EQ(valuesOf(read({{"network", 0}, {"interface", 1}, {"mtu", 0}})), Values{"1500"});
    EXPECT_EQ(valuesOf(read({{"network", 0}, {"interface", 3}, {"mtu", 0}})), Values{"1500"});
}

TEST_F(ConfigServiceTest, NoValuesOrTheDefaultValueResetsASingleVariable) {
    ASSERT_EQ(write(kVolume, {"80"}).error(), CommonIF::kErrNoError);
    ASSERT_EQ(write(kVolume, {}).error(), CommonIF::kErrNoError);
    EXPECT_TRUE(read(kVolume).is_default());
    EXPECT_EQ(valuesOf(read(kVolume)), Values{"50"});

    ASSERT_EQ(write(kVolume, {"80"}).error(), CommonIF::kErrNoError);
    ASSERT_EQ(write(kVolume, {"50"}).error(), CommonIF::kErrNoError);
    EXPECT_TRUE(read(kVolume).is_default());
}

TEST_F(ConfigServiceTest, RebootFlagIsSetOnlyForVariablesThatNeedIt) {
    EXPECT_TRUE(write(kMtu2, {"1400"}).reboot_required());
    EXPECT_TRUE(write(kWatchdog, {"false"}, kRoleSystem).reboot_required());
    EXPECT_FALSE(write(kVolume, {"10"}).reboot_required());
    EXPECT_FALSE(write(kMtu2, {"1"}).reboot_required());  // refused: nothing to reboot for
}

TEST_F(ConfigServiceTest, OverrideSecurityIsHonouredOnlyForPrivilegedSenders) {
    EXPECT_EQ(write(kHostname, {"lab"}, kRoleUser, kServiceUid, true).error(),
              CommonIF::kErrNoError);
    EXPECT_EQ(valuesOf(read(kHostname)), Values{"lab"});

    ConfigIF::ReturnMessage refused = write(kHostname, {"x"}, kRoleUser, kOtherUid, true);
    EXPECT_EQ(refused.error(), CommonIF::kErrNotAuthorized);
    EXPECT_EQ(valuesOf(read(kHostname)), Values{"lab"});
    // It skips the level check, not the value check.
    EXPECT_EQ(write(kMtu2, {"1"}, kRoleUser, 0, true).error(), CommonIF::kErrBadParameter);
}

TEST_F(ConfigServiceTest, GarbageIsAnsweredWithBadParameter) {
    ConfigIF::ReadReq noRole;
    noRole.set_name("x");
    noRole.mutable_instance();
    ConfigIF::WriteReq noInstance;
    noInstance.set_name("x");
    noInstance.set_role(CommonIF::kAdmin);
    // A role of 15 is no member of the enum: the field is left unset, so it lacks a role.
    std::string badRole = "\x52\x01x\xa0\x01\x0f\xf2\x01\x00";
    struct Garbage {
        std::string payload;
        const char* reason;
    } garbage[] = {
        {"", "ConfigIF.WriteReq lacks required fields: name, role, instance_val"},
        {"\xff\xff\xff", "request does not parse as ConfigIF.WriteReq"},
        {noInstance.SerializePartialAsString(),
         "ConfigIF.WriteReq lacks required fields: instance_val"},
        {std::string(kMaxRequestBytes + 1, '\0'),
         "request of 2097153 bytes is larger than the 2097152 accepted"},
    };
    for (const Garbage& g : garbage) {
        ConfigIF::ReturnMessage result = writeBytes(g.payload);
        EXPECT_EQ(result.error(), CommonIF::kErrBadParameter);
        ASSERT_EQ(result.error_message_size(), 1);
        EXPECT_EQ(result.error_message(0), g.reason);
    }
    for (const std::string& payload :
         {std::string(), std::string("\xff\xff\xff"), noRole.SerializePartialAsString(), badRole}) {
        EXPECT_EQ(readBytes(payload).error(), CommonIF::kErrBadParameter);
    }
}

}  // namespace
}  // namespace configsrvc

// What the messages look like on the wire: exact encodings, which byte strings parse as complete
// messages, what happens to enum values that are not members, and the defaults readers rely on.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/unknown_field_set.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "hex_bytes.h"

namespace schema_test {
namespace {

using google::protobuf::Message;
using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;

ConfigIF::ReadReq makeReadReq(CommonIF::eSecurityRole role) {
    ConfigIF::ReadReq request;
    request.set_name("cli");
    request.set_role(role);
    ConfigIF::Node* node = request.mutable_instance()->add_node();
    node->set_name("a");
    node->set_instance(1);
    return request;
}

// ---- Encodings ----

struct EncodeCase {
    const char* name;
    std::function<std::unique_ptr<Message>()> build;
    const char* hex;
};

template <typename T>
std::unique_ptr<Message> owned(T message) {
    return std::make_unique<T>(std::move(message));
}

const EncodeCase kEncodeCases[] = {
    {"NegativeErrorIsATenByteVarint",
     [] {
         CommonIF::SubsystemEventRsp rsp;
         rsp.set_error(CommonIF::kErrGenericError);
         return owned(rsp);
     },
     "50 ff ff ff ff ff ff ff ff ff 01"},
    {"UnsetOptionalWithDefaultIsNotWritten", [] { return owned(CommonIF::ProtocolVersion()); }, ""},
    {"SmallFieldNumbersHaveOneByteTags",
     [] {
         CommonIF::KeyValuePair pair;
         pair.set_name("a");
         pair.set_value("b");
         return owned(pair);
     },
     "0a 01 61 12 01 62"},
    {"FieldTwentyNeedsATwoByteTag",
     [] {
         CommonIF::AppParameter parameter;
         parameter.set_name("a");
         parameter.set_value("b");
         return owned(parameter);
     },
     "52 01 61 a2 01 01 62"},
    {"ReadReqLeavesUnsetScopeOut", [] { return owned(makeReadReq(CommonIF::kUser)); },
     "52 03 63 6c 69 a0 01 0a f2 01 08 52 06 52 01 61 a0 01 01"},
    {"ReadReqWritesExplicitDefaultScope",
     [] {
         ConfigIF::ReadReq request = makeReadReq(CommonIF::kUser);
         request.mutable_instance()->set_scope(ConfigIF::kGlobal);
         return owned(request);
     },
     "52 03 63 6c 69 a0 01 0a f2 01 0b 52 06 52 01 61 a0 01 01 a0 01 01"},
    {"ReadReqWritesEmptyInstWithLengthZero",
     [] {
         ConfigIF::ReadReq request;
         request.set_name("cli");
         request.set_role(CommonIF::kUser);
         request.mutable_instance();
         return owned(request);
     },
     "52 03 63 6c 69 a0 01 0a f2 01 00"},
    {"EmptyInstIsZeroBytes", [] { return owned(ConfigIF::Inst()); }, ""},
    {"ReadRspSuccessWithoutValues",
     [] {
         ConfigIF::ReadRsp rsp;
         rsp.set_error(CommonIF::kErrNoError);
         return owned(rsp);
     },
     "50 00"},
    {"ReadRspItemNotFound",
     [] {
         ConfigIF::ReadRsp rsp;
         rsp.set_error(CommonIF::kErrItemNotFound);
         return owned(rsp);
     },
     "50 f9 ff ff ff ff ff ff ff ff 01"},
    {"WriteReqWithOneValue",
     [] {
         ConfigIF::WriteReq request;
         request.set_name("cli");
         request.set_role(CommonIF::kAdmin);
         ConfigIF::InstValue* instance_val = request.mutable_instance_val();
         ConfigIF::Node* node = instance_val->mutable_instance()->add_node();
         node->set_name("a");
         node->set_instance(1);
         instance_val->add_value("on");
         return owned(request);
     },
     "52 03 63 6c 69 a0 01 14 f2 01 0f 52 08 52 06 52 01 61 a0 01 01 a2 01 02 6f 6e"},
    {"WriteRspNotAuthorized",
     [] {
         ConfigIF::WriteRsp rsp;
         rsp.mutable_ret_message()->set_error(CommonIF::kErrNotAuthorized);
         return owned(rsp);
     },
     "52 0b 50 f8 ff ff ff ff ff ff ff ff 01"},
    {"SetRequiredEnumEqualToDefaultIsWritten",
     [] {
         ConfigIF::SubmitReq request;
         request.set_name("a");
         request.set_role(CommonIF::kUser);
         request.mutable_instance();
         request.set_type(ConfigIF::kSubmitStart);
         return owned(request);
     },
     "52 01 61 a0 01 0a f2 01 00 c0 02 00"},
    {"UnsetDefaultIndexIsNotWritten",
     [] {
         ConfigIF::SetAttributeOptionsReq request;
         request.set_name("a");
         request.set_role(CommonIF::kUser);
         request.mutable_instance();
         return owned(request);
     },
     "52 01 61 a0 01 0a f2 01 00"},
    {"UnregisterAllCarriesOnlyTheName",
     [] {
         ConfigIF::UnregisterAllClientCallbacksReq request;
         request.set_name("cli");
         return owned(request);
     },
     "52 03 63 6c 69"},
    {"EmptySetAccessLevelsRsp", [] { return owned(ConfigIF::SetAccessLevelsRsp()); }, ""},
    {"FlushAllCmd", [] { return owned(ConfigIF::FlushAllCmd()); }, ""},
    {"ClearConfigCmd", [] { return owned(ConfigIF::ClearConfigCmd()); }, ""},
};

class EncodeTest : public testing::TestWithParam<EncodeCase> {};

TEST_P(EncodeTest, SerialisesToTheExactBytesAndParsesBack) {
    std::unique_ptr<Message> message = GetParam().build();
    std::string bytes;
    ASSERT_TRUE(message->SerializeToString(&bytes));
    EXPECT_EQ(bytesToHex(bytes), GetParam().hex);

    std::unique_ptr<Message> parsed(message->New());
    ASSERT_TRUE(parsed->ParseFromString(bytes));
    EXPECT_EQ(parsed->SerializeAsString(), bytes);
}

INSTANTIATE_TEST_SUITE_P(Examples, EncodeTest, testing::ValuesIn(kEncodeCases),
                         [](const testing::TestParamInfo<EncodeCase>& info) {
                             return std::string(info.param.name);
                         });

// ---- Completeness on parse ----

struct ParseCase {
    const char* name;
    const Message* prototype;
    const char* hex;
    bool complete;
};

const ParseCase kParseCases[] = {
    {"WriteRspWithoutRetMessage", &ConfigIF::WriteRsp::default_instance(), "", false},
    {"WriteRspWithRetMessageWithoutError", &ConfigIF::WriteRsp::default_instance(), "52 00", false},
    {"WriteRspWithError", &ConfigIF::WriteRsp::default_instance(), "52 02 50 00", true},
    {"ReadRspWithoutError", &ConfigIF::ReadRsp::default_instance(), "", false},
    {"ReadReqWithoutInstance", &ConfigIF::ReadReq::default_instance(), "52 03 63 6c 69 a0 01 0a",
     false},
    {"ReadReqWithEmptyInstance", &ConfigIF::ReadReq::default_instance(),
     "52 03 63 6c 69 a0 01 0a f2 01 00", true},
    {"EmptyInst", &ConfigIF::Inst::default_instance(), "", true},
    {"EmptySetAccessLevelsRsp", &ConfigIF::SetAccessLevelsRsp::default_instance(), "", true},
    {"EmptyFlushAllCmd", &ConfigIF::FlushAllCmd::default_instance(), "", true},
    {"EmptyClearConfigCmd", &ConfigIF::ClearConfigCmd::default_instance(), "", true},
    {"GetAttributeRspWithOnlyError", &ConfigIF::GetAttributeRsp::default_instance(), "a0 01 00",
     false},
    {"ValueOptionsAccessWithOptionsLackingError", &ConfigIF::ValueOptionsAccess::default_instance(),
     "a2 01 02 50 00 f2 01 00 c2 02 02 50 00", false},
    {"ValueOptionsAccessWithAllThreeComplete", &ConfigIF::ValueOptionsAccess::default_instance(),
     "a2 01 02 50 00 f2 01 02 50 00 c2 02 02 50 00", true},
    {"ConfigChangedNtfyWithEmptyValueList", &ConfigIF::ConfigChangedNtfy::default_instance(),
     "a2 01 02 52 00 f2 01 00", true},
    {"ConfigChangedNtfyWithoutUserContext", &ConfigIF::ConfigChangedNtfy::default_instance(),
     "a2 01 02 52 00", false},
    {"AccessLevelChangedNtfyWithoutRoles", &ConfigIF::AccessLevelChangedNtfy::default_instance(),
     "52 00 c2 02 00", true},
    {"RegisterCallbackWithoutNodeName", &ConfigIF::RegisterClientCallbackReq::default_instance(),
     "52 01 61 a0 01 0a 90 03 01 e2 03 00", true},
    {"UnregisterCallbackWithoutNodeName",
     &ConfigIF::UnregisterClientCallbackReq::default_instance(),
     "52 01 61 a0 01 0a 90 03 01 e2 03 00", false},
    {"DynamicValidateReqWithoutServerContext", &ConfigIF::DynamicValidateReq::default_instance(),
     "52 01 61 a0 01 0a f2 01 02 52 00 c2 02 00", false},
};

class ParseTest : public testing::TestWithParam<ParseCase> {};

TEST_P(ParseTest, ParsesOnlyWhenEveryRequiredFieldIsPresent) {
    const std::string bytes = hexToBytes(GetParam().hex);
    std::unique_ptr<Message> message(GetParam().prototype->New());
    // The bytes themselves are well formed; only completeness may differ.
    ASSERT_TRUE(message->ParsePartialFromString(bytes));
    EXPECT_EQ(message->IsInitialized(), GetParam().complete);
    EXPECT_EQ(message->ParseFromString(bytes), GetParam().complete);
}

INSTANTIATE_TEST_SUITE_P(Examples, ParseTest, testing::ValuesIn(kParseCases),
                         [](const testing::TestParamInfo<ParseCase>& info) {
                             return std::string(info.param.name);
                         });

// ---- Enum values that are not members ----

struct UnknownEnumCase {
    const char* name;
    const Message* prototype;
    const char* hex;
    int field_number;
    int64_t raw_value;
    bool complete;
};

const UnknownEnumCase kUnknownEnumCases[] = {
    {"SubsystemEventRspErrorBelowRange", &CommonIF::SubsystemEventRsp::default_instance(),
     "50 f3 ff ff ff ff ff ff ff ff 01", 10, -13, false},
    {"ReadRspErrorAboveRange", &ConfigIF::ReadRsp::default_instance(), "50 01", 10, 1, false},
    {"ReadReqRoleBetweenMembers", &ConfigIF::ReadReq::default_instance(),
     "52 03 63 6c 69 a0 01 0b f2 01 00", 20, 11, false},
    {"RegisterCallbackTypeEight", &ConfigIF::RegisterClientCallbackReq::default_instance(),
     "52 01 61 a0 01 0a 90 03 08 e2 03 00", 50, 8, false},
    {"OptionalReadLevelStaysUnsetButComplete", &ConfigIF::GetAccessLevelsRsp::default_instance(),
     "50 00 a0 01 0f", 20, 15, true},
};

class UnknownEnumTest : public testing::TestWithParam<UnknownEnumCase> {};

TEST_P(UnknownEnumTest, ValueMovesToUnknownFieldsAndIsWrittenAgain) {
    const UnknownEnumCase& c = GetParam();
    const std::string bytes = hexToBytes(c.hex);
    std::unique_ptr<Message> message(c.prototype->New());
    ASSERT_TRUE(message->ParsePartialFromString(bytes));

    const google::protobuf::FieldDescriptor* field =
        message->GetDescriptor()->FindFieldByNumber(c.field_number);
    ASSERT_NE(field, nullptr);
    EXPECT_FALSE(message->GetReflection()->HasField(*message, field));

    const UnknownFieldSet& unknown = message->GetReflection()->GetUnknownFields(*message);
    ASSERT_EQ(unknown.field_count(), 1);
    EXPECT_EQ(unknown.field(0).number(), c.field_number);
    ASSERT_EQ(unknown.field(0).type(), UnknownField::TYPE_VARINT);
    EXPECT_EQ(static_cast<int64_t>(unknown.field(0).varint()), c.raw_value);

    // Re-serialisation keeps the value. It comes after the known fields, so compare the sets
    // of fields by parsing the output again rather than the bytes' order.
    std::unique_ptr<Message> again(c.prototype->New());
    ASSERT_TRUE(again->ParsePartialFromString(message->SerializePartialAsString()));
    const UnknownFieldSet& kept = again->GetReflection()->GetUnknownFields(*again);
    ASSERT_EQ(kept.field_count(), 1);
    EXPECT_EQ(static_cast<int64_t>(kept.field(0).varint()), c.raw_value);

    EXPECT_EQ(message->ParseFromString(bytes), c.complete);
}

INSTANTIATE_TEST_SUITE_P(Examples, UnknownEnumTest, testing::ValuesIn(kUnknownEnumCases),
                         [](const testing::TestParamInfo<UnknownEnumCase>& info) {
                             return std::string(info.param.name);
                         });

// ---- Validity ranges ----

struct ValidityCase {
    const char* enum_name;
    bool (*is_valid)(int);
    std::vector<int> members;
    std::vector<int> non_members;
};

const ValidityCase kValidityCases[] = {
    {"eErrorType", CommonIF::eErrorType_IsValid, {-12, -7, -1, 0}, {-13, 1, 10}},
    {"eSecurityRole", CommonIF::eSecurityRole_IsValid, {10, 20, 30, 40, 50}, {0, 11, 15, 60}},
    {"eInfoType", CommonIF::eInfoType_IsValid, {-1, -2, -3}, {0, -4}},
    {"eAudioToneMode", CommonIF::eAudioToneMode_IsValid, {0, 4}, {-1, 5}},
    {"eSubsystemEvent", CommonIF::eSubsystemEvent_IsValid, {1, 8}, {0, 9}},
    {"EndpointState", CommonIF::EndpointState_IsValid, {1, 2}, {0, 3}},
    {"PeripheralCommand", CommonIF::PeripheralCommand_IsValid, {0, 20}, {-1, 21}},
    {"Scope", ConfigIF::Scope_IsValid, {1, 2, 3}, {0, 4}},
    {"SubmitType", ConfigIF::SubmitType_IsValid, {0, 1}, {-1, 2}},
    {"ProfileType", ConfigIF::ProfileType_IsValid, {0}, {1}},
    {"CallbackType", ConfigIF::CallbackType_IsValid, {1, 7}, {0, 8}},
};

TEST(EnumValidityTest, AcceptsExactlyTheMembers) {
    for (const ValidityCase& c : kValidityCases) {
        for (int value : c.members) {
            EXPECT_TRUE(c.is_valid(value)) << c.enum_name << " " << value;
        }
        for (int value : c.non_members) {
            EXPECT_FALSE(c.is_valid(value)) << c.enum_name << " " << value;
        }
    }
}

// ---- Defaults read from unset fields ----

TEST(UnsetFieldTest, ReadsTheExplicitDefaultOrTheFirstMember) {
    EXPECT_EQ(CommonIF::ProtocolVersion().version(), "1.0");
    EXPECT_EQ(ConfigIF::ReadRsp().error(), CommonIF::kErrNoError);
    EXPECT_EQ(CommonIF::SubsystemInfoNtfy().info_code(), CommonIF::kInfoNone);
    EXPECT_EQ(CommonIF::EndpointStateRsp().state(), CommonIF::kEndpointDown);
    EXPECT_EQ(CommonIF::SubsystemEventReq().event(), CommonIF::kSubsystemActivate);
    EXPECT_EQ(ConfigIF::Inst().scope(), ConfigIF::kGlobal);
    EXPECT_EQ(ConfigIF::CreateProfileReq().type(), ConfigIF::kNormal);
    EXPECT_EQ(ConfigIF::SetAttributeOptionsReq().default_index(), 0);
    EXPECT_FALSE(ConfigIF::WriteReq().override_security());
    // An absent sub-message reads as its default instance.
    EXPECT_EQ(ConfigIF::WriteRsp().ret_message().error(), CommonIF::kErrNoError);

    ConfigIF::AccessLevelChangedNtfy ntfy;
    ASSERT_TRUE(ntfy.ParseFromString(hexToBytes("52 00 c2 02 00")));
    EXPECT_EQ(ntfy.read_role(), CommonIF::kUser);
    EXPECT_EQ(ntfy.write_role(), CommonIF::kUser);

    ConfigIF::ReadRsp empty_values;
    ASSERT_TRUE(empty_values.ParseFromString(hexToBytes("50 00")));
    EXPECT_EQ(empty_values.value_size(), 0);
}

}  // namespace
}  // namespace schema_test

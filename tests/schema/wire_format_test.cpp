// What the messages look like on the wire: the examples of wire_examples.txt (exact bytes,
// completeness, non-member enum values) and the validity tests that the enum setters rely on.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "CaseFile.h"

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

using google::protobuf::Message;

struct WireExample {
    int line;
    std::string type;
    std::string hex;
    std::string text;
    std::string completeness;
};

// A row without four fields gets empty ones and fails its test as malformed; a missing or empty
// file fails in readCaseFile and leaves the suite without instances, which fails too.
std::vector<WireExample> loadWireExamples() {
    std::vector<WireExample> examples;
    for (const testsupport::CaseRow& row :
         testsupport::readCaseFile(SCHEMA_DATA_DIR "/wire_examples.txt").rows) {
        WireExample example{row.line, "", "", "", ""};
        if (row.fields.size() == 4) {
            example = {row.line, row[0], row[1], row[2], row[3]};
        }
        examples.push_back(example);
    }
    return examples;
}

std::string hexToBytes(const std::string& hex) {
    std::istringstream digits(hex);
    std::string bytes;
    for (unsigned byte; digits >> std::hex >> byte;) {
        bytes.push_back(static_cast<char>(byte));
    }
    return bytes;
}

std::string bytesToHex(const std::string& bytes) {
    std::string hex;
    char pair[4];
    for (unsigned char c : bytes) {
        std::snprintf(pair, sizeof pair, hex.empty() ? "%02x" : " %02x", c);
        hex += pair;
    }
    return hex;
}

void PrintTo(const WireExample& example, std::ostream* out) {
    *out << example.type << " | " << example.hex;
}

class WireExampleTest : public testing::TestWithParam<WireExample> {};

TEST_P(WireExampleTest, BytesParseIntoTheTextAndAreWrittenAgain) {
    const WireExample& example = GetParam();
    ASSERT_TRUE(example.completeness == "complete" || example.completeness == "partial")
        << "malformed line";
    const google::protobuf::Descriptor* type =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(example.type);
    ASSERT_NE(type, nullptr) << example.type;
    std::unique_ptr<Message> message(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());

    const std::string bytes = hexToBytes(example.hex);
    ASSERT_EQ(bytesToHex(bytes), example.hex) << "malformed hex";
    // The bytes themselves are well formed; only completeness may differ.
    ASSERT_TRUE(message->ParsePartialFromString(bytes));
    EXPECT_EQ(message->ShortDebugString(), example.text);
    EXPECT_EQ(bytesToHex(message->SerializePartialAsString()), example.hex);
    EXPECT_EQ(message->ParseFromString(bytes), example.completeness == "complete");
}

INSTANTIATE_TEST_SUITE_P(Examples, WireExampleTest, testing::ValuesIn(loadWireExamples()),
                         [](const testing::TestParamInfo<WireExample>& info) {
                             return "line" + std::to_string(info.param.line);
                         });

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

}  // namespace
}  // namespace schema_test

// What the messages look like on the wire: the examples of wire_examples.txt (exact bytes,
// completeness, non-member enum values).
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "CaseFile.h"

#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

using google::protobuf::Message;

// Every row, so that a malformed one fails its own test; a missing or empty file fails in
// readCaseFile and leaves the suite without instances, which fails too.
std::vector<testsupport::CaseRow> wireExamples() {
    return testsupport::readCaseFile(SCHEMA_DATA_DIR "/wire_examples.txt").rows;
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

class WireExampleTest : public testing::TestWithParam<testsupport::CaseRow> {};

// A row: message type | its bytes in hex | the message in short text form | completeness.
TEST_P(WireExampleTest, BytesParseIntoTheTextAndAreWrittenAgain) {
    const testsupport::CaseRow& example = GetParam();
    ASSERT_EQ(example.fields.size(), 4u) << "malformed line";
    ASSERT_TRUE(example[3] == "complete" || example[3] == "partial") << "malformed line";
    const google::protobuf::Descriptor* type =
        google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(example[0]);
    ASSERT_NE(type, nullptr) << example[0];
    std::unique_ptr<Message> message(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(type)->New());

    const std::string bytes = hexToBytes(example[1]);
    ASSERT_EQ(bytesToHex(bytes), example[1]) << "malformed hex";
    // The bytes themselves are well formed; only completeness may differ.
    ASSERT_TRUE(message->ParsePartialFromString(bytes));
    EXPECT_EQ(message->ShortDebugString(), example[2]);
    EXPECT_EQ(bytesToHex(message->SerializePartialAsString()), example[1]);
    EXPECT_EQ(message->ParseFromString(bytes), example[3] == "complete");
}

INSTANTIATE_TEST_SUITE_P(Examples, WireExampleTest, testing::ValuesIn(wireExamples()),
                         [](const testing::TestParamInfo<testsupport::CaseRow>& info) {
                             return "line" + std::to_string(info.param.line);
                         });

}  // namespace
}  // namespace schema_test

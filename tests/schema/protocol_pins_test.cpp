// The protocol, pinned. The descriptors compiled into the generated code are pinned by their size
// and a digest of their bytes: any change of the schema files (a name, number, label, type,
// default, option, or the order of declarations) changes the digest, so the protocol cannot change
// unnoticed; a deliberate change updates the pins here together with the documents that describe
// it. The message ids (Common/protobuf/v3/config_protocol.h) are checked against the pinned list
// in protocol_ids.txt and against the schema: every message that travels on its own has exactly
// one id, no two share one, and every request's response is found. (The tool's own four
// constants are checked against the list when the tool compiles: tool/transport/MessageIds.h.)
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <set>
#include <string>

#include "CaseFile.h"
#include "Common/protobuf/v3/ConfigProtocol.h"
#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "TempDir.h"

namespace testsupport {
namespace {

struct SchemaFile {
    const char* name;
    const google::protobuf::FileDescriptor* (*descriptor)();
    const google::protobuf::internal::DescriptorTable* table;
    int size;
    uint64_t digest;
};

const SchemaFile kSchemaFiles[] = {
    {"common", [] { return CommonIF::KeyValuePair::descriptor()->file(); },
     &descriptor_table_common_2eproto, 3615, 0xe274c21d5510bdd7ull},
    {"configservice", [] { return ConfigIF::ReadReq::descriptor()->file(); },
     &descriptor_table_configservice_2eproto, 6954, 0xd47a733a39365778ull},
};

void PrintTo(const SchemaFile& file, std::ostream* out) {
    *out << file.name;
}

// 64-bit FNV-1a: stable across builds and platforms, unlike std::hash.
uint64_t digestOf(const std::string& bytes) {
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : bytes) {
        hash = (hash ^ c) * 1099511628211ull;
    }
    return hash;
}

class SchemaFileTest : public testing::TestWithParam<SchemaFile> {};

TEST_P(SchemaFileTest, EmbeddedDescriptorIsThePinnedOneAndTheOneRegistered) {
    const SchemaFile& file = GetParam();
    const std::string embedded(file.table->descriptor, file.table->size);
    EXPECT_EQ(file.table->size, file.size);
    EXPECT_EQ(digestOf(embedded), file.digest) << std::hex << "0x" << digestOf(embedded);
    // The pool must hold the very bytes that the generated unit registered.
    google::protobuf::FileDescriptorProto proto;
    file.descriptor()->CopyTo(&proto);
    EXPECT_EQ(proto.SerializeAsString(), embedded);
}

INSTANTIATE_TEST_SUITE_P(BothFiles, SchemaFileTest, testing::ValuesIn(kSchemaFiles),
                         [](const testing::TestParamInfo<SchemaFile>& info) {
                             return std::string(info.param.name);
                         });

bool travelsAlone(const std::string& name) {
    return std::regex_search(name, std::regex(".(Req|Rsp|Cmd|Ntfy)$"));
}

TEST(ProtocolIds, AreThePinnedOnesInSchemaOrder) {
    std::vector<std::pair<std::string, uint32_t>> pinned;
    uint32_t id = 0;
    for (const CaseRow& row : readCaseFile(SCHEMA_DATA_DIR "/protocol_ids.txt").rows) {
        id = row[0] == "+" ? id : static_cast<uint32_t>(std::stoul(row[0], nullptr, 16));
        for (const std::string& name : split(row[1], " ")) {
            pinned.emplace_back(name, id++);
        }
    }
    std::vector<std::pair<std::string, uint32_t>> table;
    for (const ConfigProtocol::MessageType& type : ConfigProtocol::kMessageTypes) {
        table.emplace_back(type.name, type.id);
    }
    EXPECT_EQ(table, pinned);

    const google::protobuf::FileDescriptor* file = ConfigIF::ReadReq::descriptor()->file();
    std::vector<std::string> travelling;
    for (int i = 0; i < file->message_type_count(); ++i) {
        if (travelsAlone(file->message_type(i)->name())) {
            travelling.push_back(file->message_type(i)->name());
        }
    }
    std::vector<std::string> named;
    std::set<uint32_t> ids;
    for (const auto& [name, id] : table) {
        named.push_back(name);
        EXPECT_TRUE(ids.insert(id).second) << name << " shares its id";
    }
    EXPECT_EQ(named, travelling);
}

TEST(ProtocolIds, PairEveryRequestWithItsResponse) {
    for (const ConfigProtocol::MessageType& type : ConfigProtocol::kMessageTypes) {
        const std::string name = type.name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, "Req") == 0) {
            const uint32_t response = ConfigProtocol::responseIdOf(type.id);
            ASSERT_NE(response, 0u) << name;
            EXPECT_EQ(ConfigProtocol::messageNameOf(response),
                      name.substr(0, name.size() - 3) + "Rsp");
        } else {
            EXPECT_EQ(ConfigProtocol::responseIdOf(type.id), 0u) << name << " is no request";
        }
    }
    EXPECT_EQ(ConfigProtocol::responseIdOf(0x12345678), 0u);
}

}  // namespace
}  // namespace testsupport

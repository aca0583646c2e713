// The descriptors compiled into the generated code are pinned by their size and a digest of their
// bytes: any change of the schema files (a name, number, label, type, default, option, or the
// order of declarations) changes the digest, so the protocol cannot change unnoticed. A deliberate
// change of the protocol updates the pins here together with the documents that describe it.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
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

}  // namespace
}  // namespace schema_test

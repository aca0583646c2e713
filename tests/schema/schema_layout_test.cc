// The descriptors compiled into the generated code must match the schema field for field: the
// serialised size catches any change of text, the layout tables catch a change of order.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"
#include "expected_layout.h"

namespace schema_test {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;

struct SchemaFile {
    const char* file_name;
    const FileDescriptor* (*descriptor)();
    const google::protobuf::internal::DescriptorTable* table;
    int serialized_size;
    const char* package;
    const char* java_outer_classname;
    std::vector<std::string> dependencies;
    const FileLayout* layout;
};

const FileDescriptor* commonFile() {
    return CommonIF::KeyValuePair::descriptor()->file();
}
const FileDescriptor* configServiceFile() {
    return ConfigIF::ReadReq::descriptor()->file();
}

const SchemaFile kSchemaFiles[] = {
    {"common.proto",
     commonFile,
     &descriptor_table_common_2eproto,
     3615,
     "CommonIF",
     "CommonIF",
     {},
     &kCommonLayout},
    {"configservice.proto",
     configServiceFile,
     &descriptor_table_configservice_2eproto,
     6954,
     "ConfigIF",
     "ConfigIF",
     {"common.proto"},
     &kConfigServiceLayout},
};

class SchemaFileTest : public testing::TestWithParam<SchemaFile> {};

TEST_P(SchemaFileTest, EmbeddedDescriptorHasTheExpectedSize) {
    const SchemaFile& file = GetParam();
    const FileDescriptor* descriptor = file.descriptor();
    ASSERT_NE(descriptor, nullptr);
    FileDescriptorProto proto;
    descriptor->CopyTo(&proto);
    const std::string rebuilt = proto.SerializeAsString();

    EXPECT_EQ(file.table->size, file.serialized_size);
    EXPECT_EQ(rebuilt.size(), static_cast<size_t>(file.serialized_size));
    // The runtime's copy must be the very bytes the generated unit registered.
    EXPECT_EQ(rebuilt, std::string(file.table->descriptor, file.table->size));
}

TEST_P(SchemaFileTest, HeaderHasPackageImportsAndOnlyTheJavaOptions) {
    const SchemaFile& file = GetParam();
    const FileDescriptor* descriptor = file.descriptor();
    EXPECT_EQ(descriptor->name(), file.file_name);
    EXPECT_EQ(descriptor->package(), file.package);
    EXPECT_EQ(descriptor->syntax(), FileDescriptor::SYNTAX_PROTO2);

    std::vector<std::string> dependencies;
    for (int i = 0; i < descriptor->dependency_count(); ++i) {
        dependencies.push_back(descriptor->dependency(i)->name());
    }
    EXPECT_EQ(dependencies, file.dependencies);

    FileDescriptorProto proto;
    descriptor->CopyTo(&proto);
    EXPECT_FALSE(proto.has_syntax()) << "proto2 without a syntax line";

    google::protobuf::FileOptions expected_options;
    expected_options.set_java_package("quorvel.protobuf");
    expected_options.set_java_outer_classname(file.java_outer_classname);
    EXPECT_EQ(proto.options().SerializeAsString(), expected_options.SerializeAsString());
}

std::string labelName(Label label) {
    switch (label) {
        case kOptional:
            return "optional";
        case kRequired:
            return "required";
        case kRepeated:
            return "repeated";
    }
    return "?";
}

std::string labelName(FieldDescriptor::Label label) {
    switch (label) {
        case FieldDescriptor::LABEL_OPTIONAL:
            return "optional";
        case FieldDescriptor::LABEL_REQUIRED:
            return "required";
        case FieldDescriptor::LABEL_REPEATED:
            return "repeated";
    }
    return "?";
}

std::string typeName(const FieldDescriptor* field) {
    if (field->enum_type() != nullptr)
        return field->enum_type()->full_name();
    if (field->message_type() != nullptr)
        return field->message_type()->full_name();
    return field->type_name();
}

// The explicit default as it stands in the schema text, or "" when there is none.
std::string explicitDefault(const FieldDescriptor* field) {
    if (!field->has_default_value())
        return "";
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_STRING:
            return field->default_value_string();
        case FieldDescriptor::CPPTYPE_INT32:
            return std::to_string(field->default_value_int32());
        case FieldDescriptor::CPPTYPE_BOOL:
            return field->default_value_bool() ? "true" : "false";
        case FieldDescriptor::CPPTYPE_ENUM:
            return field->default_value_enum()->name();
        default:
            return "<unexpected type>";
    }
}

void expectFieldsMatch(const Descriptor* message, const MessageLayout& expected) {
    ASSERT_EQ(message->field_count(), static_cast<int>(expected.fields.size()));
    for (int i = 0; i < message->field_count(); ++i) {
        const FieldDescriptor* field = message->field(i);
        const FieldLayout& want = expected.fields[i];
        SCOPED_TRACE(field->full_name());
        EXPECT_EQ(field->name(), want.name);
        EXPECT_EQ(field->number(), want.number);
        EXPECT_EQ(labelName(field->label()), labelName(want.label));
        EXPECT_EQ(typeName(field), want.type);
        EXPECT_EQ(explicitDefault(field), want.default_value ? want.default_value : "");
        EXPECT_EQ(field->options().ByteSizeLong(), 0u) << "no field options";
    }
}

TEST_P(SchemaFileTest, MessagesAndFieldsStandInDeclarationOrder) {
    const FileDescriptor* descriptor = GetParam().descriptor();
    const std::vector<MessageLayout>& expected = GetParam().layout->messages;
    ASSERT_EQ(descriptor->message_type_count(), static_cast<int>(expected.size()));
    for (int i = 0; i < descriptor->message_type_count(); ++i) {
        const Descriptor* message = descriptor->message_type(i);
        SCOPED_TRACE(message->full_name());
        EXPECT_EQ(message->full_name(), expected[i].full_name);
        EXPECT_EQ(message->nested_type_count(), 0);
        EXPECT_EQ(message->enum_type_count(), 0);
        EXPECT_EQ(message->options().ByteSizeLong(), 0u) << "no message options";
        expectFieldsMatch(message, expected[i]);
    }
}

TEST_P(SchemaFileTest, EnumsAndMembersStandInDeclarationOrder) {
    const FileDescriptor* descriptor = GetParam().descriptor();
    const std::vector<EnumLayout>& expected = GetParam().layout->enums;
    ASSERT_EQ(descriptor->enum_type_count(), static_cast<int>(expected.size()));
    for (int i = 0; i < descriptor->enum_type_count(); ++i) {
        const EnumDescriptor* enum_type = descriptor->enum_type(i);
        SCOPED_TRACE(enum_type->full_name());
        EXPECT_EQ(enum_type->full_name(), expected[i].full_name);
        ASSERT_EQ(enum_type->value_count(), static_cast<int>(expected[i].values.size()));
        for (int v = 0; v < enum_type->value_count(); ++v) {
            EXPECT_EQ(enum_type->value(v)->name(), expected[i].values[v].name);
            EXPECT_EQ(enum_type->value(v)->number(), expected[i].values[v].number);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothFiles, SchemaFileTest, testing::ValuesIn(kSchemaFiles),
                         [](const testing::TestParamInfo<SchemaFile>& info) {
                             return std::string(info.param.package);
                         });

}  // namespace
}  // namespace schema_test

// The descriptors compiled into the generated code must match the schema exactly: the embedded
// size catches any change of text, the layout listing (<file>_layout.txt) any change of order,
// name, number, label, type, default or option.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

struct SchemaFile {
    const char* name;
    const FileDescriptor* (*descriptor)();
    const google::protobuf::internal::DescriptorTable* table;
    int serialized_size;
};

const SchemaFile kSchemaFiles[] = {
    {"common", [] { return CommonIF::KeyValuePair::descriptor()->file(); },
     &descriptor_table_common_2eproto, 3615},
    {"configservice", [] { return ConfigIF::ReadReq::descriptor()->file(); },
     &descriptor_table_configservice_2eproto, 6954},
};

void PrintTo(const SchemaFile& file, std::ostream* out) {
    *out << file.name;
}

// " [options in text form]", or "" when there are none.
std::string optionsText(const google::protobuf::Message& options) {
    const std::string text = options.ShortDebugString();
    return text.empty() ? "" : " [" + text + "]";
}

void writeEnum(const EnumDescriptor* enum_type, std::ostream& out) {
    out << "enum " << enum_type->full_name() << optionsText(enum_type->options()) << "\n";
    for (int i = 0; i < enum_type->value_count(); ++i) {
        out << "  " << enum_type->value(i)->number() << " " << enum_type->value(i)->name()
            << optionsText(enum_type->value(i)->options()) << "\n";
    }
}

std::string typeName(const FieldDescriptor* field) {
    if (field->enum_type() != nullptr)
        return field->enum_type()->full_name();
    if (field->message_type() != nullptr)
        return field->message_type()->full_name();
    return field->type_name();
}

void writeMessage(const Descriptor* message, std::ostream& out) {
    static const char* const kLabelNames[] = {"", "optional", "required", "repeated"};
    out << "message " << message->full_name() << optionsText(message->options()) << "\n";
    for (int i = 0; i < message->field_count(); ++i) {
        const FieldDescriptor* field = message->field(i);
        google::protobuf::FieldDescriptorProto proto;
        field->CopyTo(&proto);  // carries the default in its schema text form
        out << "  " << field->number() << " " << kLabelNames[field->label()] << " "
            << typeName(field) << " " << field->name();
        if (proto.has_default_value())
            out << " = " << proto.default_value();
        out << optionsText(field->options()) << "\n";
    }
    for (int i = 0; i < message->nested_type_count(); ++i)
        writeMessage(message->nested_type(i), out);
    for (int i = 0; i < message->enum_type_count(); ++i)
        writeEnum(message->enum_type(i), out);
}

std::string layoutOf(const FileDescriptor* file) {
    std::ostringstream out;
    out << "file " << file->name() << " package " << file->package() << optionsText(file->options())
        << "\n";
    for (int i = 0; i < file->dependency_count(); ++i)
        out << "import " << file->dependency(i)->name() << "\n";
    for (int i = 0; i < file->message_type_count(); ++i)
        writeMessage(file->message_type(i), out);
    for (int i = 0; i < file->enum_type_count(); ++i)
        writeEnum(file->enum_type(i), out);
    return out.str();
}

// The listing without its comment and blank lines.
std::string expectedLayout(const std::string& schema_name) {
    std::ifstream in(SCHEMA_DATA_DIR "/" + schema_name + "_layout.txt");
    std::string layout;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line[0] != '#')
            layout += line + "\n";
    }
    return layout;
}

class SchemaFileTest : public testing::TestWithParam<SchemaFile> {};

TEST_P(SchemaFileTest, EmbeddedDescriptorHasTheExpectedSize) {
    const SchemaFile& file = GetParam();
    EXPECT_EQ(file.table->size, file.serialized_size);
    // The pool must hold the very bytes that the generated unit registered.
    google::protobuf::FileDescriptorProto proto;
    file.descriptor()->CopyTo(&proto);
    EXPECT_EQ(proto.SerializeAsString(), std::string(file.table->descriptor, file.table->size));
}

TEST_P(SchemaFileTest, DeclarationsMatchTheExpectedLayout) {
    EXPECT_EQ(layoutOf(GetParam().descriptor()), expectedLayout(GetParam().name));
}

INSTANTIATE_TEST_SUITE_P(BothFiles, SchemaFileTest, testing::ValuesIn(kSchemaFiles),
                         [](const testing::TestParamInfo<SchemaFile>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace schema_test

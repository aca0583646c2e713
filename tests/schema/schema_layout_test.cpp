// The descriptors compiled into the generated code must match the schema exactly: the embedded
// size catches any change of text, the layout listing (<file>_layout.txt, a case file of one block
// per declaration) any change of order, name, number, label, type, default or option.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/empty.pb.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CaseFile.h"

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

// `fields` as a line of the case file, with a last field "[options in text form]" when there are
// any.
std::string row(std::vector<std::string> fields,
                const google::protobuf::Message& options = google::protobuf::Empty()) {
    const std::string text = options.ShortDebugString();
    if (!text.empty()) {
        fields.push_back("[" + text + "]");
    }
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i) {
        line += (i > 0 ? " | " : "") + fields[i];
    }
    return line + "\n";
}

std::string enumLayout(const EnumDescriptor* enum_type) {
    std::string out = "== " + row({"enum", enum_type->full_name()}, enum_type->options());
    for (int i = 0; i < enum_type->value_count(); ++i) {
        const google::protobuf::EnumValueDescriptor* value = enum_type->value(i);
        out += row({std::to_string(value->number()), value->name()}, value->options());
    }
    return out;
}

std::string typeName(const FieldDescriptor* field) {
    return field->enum_type()      ? field->enum_type()->full_name()
           : field->message_type() ? field->message_type()->full_name()
                                   : field->type_name();
}

std::string messageLayout(const Descriptor* message) {
    static const char* const kLabelNames[] = {"", "optional", "required", "repeated"};
    std::string out = "== " + row({"message", message->full_name()}, message->options());
    for (int i = 0; i < message->field_count(); ++i) {
        const FieldDescriptor* field = message->field(i);
        std::vector<std::string> fields = {std::to_string(field->number()),
                                           kLabelNames[field->label()], typeName(field),
                                           field->name()};
        google::protobuf::FieldDescriptorProto proto;
        field->CopyTo(&proto);  // carries the default in its schema text form
        if (proto.has_default_value()) {
            fields.push_back("= " + proto.default_value());
        }
        out += row(fields, field->options());
    }
    for (int i = 0; i < message->nested_type_count(); ++i) {
        out += messageLayout(message->nested_type(i));
    }
    for (int i = 0; i < message->enum_type_count(); ++i) {
        out += enumLayout(message->enum_type(i));
    }
    return out;
}

std::string layoutOf(const FileDescriptor* file) {
    std::string out = "== " + row({"file", file->name(), file->package()}, file->options());
    for (int i = 0; i < file->dependency_count(); ++i) {
        out += row({"import", file->dependency(i)->name()});
    }
    for (int i = 0; i < file->message_type_count(); ++i) {
        out += messageLayout(file->message_type(i));
    }
    for (int i = 0; i < file->enum_type_count(); ++i) {
        out += enumLayout(file->enum_type(i));
    }
    return out;
}

// The blocks of <schema>_layout.txt in the same text form; stray rows before the first block
// come first, so that they fail the comparison.
std::string expectedLayout(const std::string& schema_name) {
    const testsupport::CaseFile file =
        testsupport::readCaseFile(SCHEMA_DATA_DIR "/" + schema_name + "_layout.txt");
    std::string layout = testsupport::CaseBlock{{}, file.rows}.text();
    for (const testsupport::CaseBlock& block : file.blocks) {
        layout += "== " + row(block.head.fields) + block.text();
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

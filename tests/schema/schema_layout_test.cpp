// The descriptors compiled into the generated code must match the schema exactly: the embedded
// size catches any change of text, the layout listing (<file>_layout.txt, a case file of one line
// per declaration) any change of order, name, number, label, type, default or option.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
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

// `text`, then " [options in short text form]" when there are any.
std::string withOptions(std::string text, const google::protobuf::Message& options) {
    const std::string written = options.ShortDebugString();
    return written.empty() ? text : text + " [" + written + "]";
}

// A declaration's line: its head and members separated by " | ".
std::string line(const std::string& head, const std::vector<std::string>& members) {
    std::string out = head;
    for (const std::string& member : members) {
        out += " | " + member;
    }
    return out + "\n";
}

// Values that follow on from the one before them join its run.
std::string enumLayout(const EnumDescriptor* enum_type) {
    std::vector<std::string> runs;
    for (int i = 0; i < enum_type->value_count(); ++i) {
        const google::protobuf::EnumValueDescriptor* value = enum_type->value(i);
        const std::string name = withOptions(value->name(), value->options());
        if (i > 0 && value->number() == enum_type->value(i - 1)->number() + 1) {
            runs.back() += " " + name;
        } else {
            runs.push_back(std::to_string(value->number()) + " " + name);
        }
    }
    return line(withOptions("enum " + enum_type->full_name(), enum_type->options()), runs);
}

std::string typeName(const FieldDescriptor* field) {
    return field->enum_type()      ? field->enum_type()->full_name()
           : field->message_type() ? field->message_type()->full_name()
                                   : field->type_name();
}

std::string messageLayout(const Descriptor* message) {
    static const char* const kLabelNames[] = {"", "optional", "required", "repeated"};
    std::vector<std::string> fields;
    for (int i = 0; i < message->field_count(); ++i) {
        const FieldDescriptor* field = message->field(i);
        std::string text = std::to_string(field->number()) + " " + kLabelNames[field->label()] +
                           " " + typeName(field) + " " + field->name();
        google::protobuf::FieldDescriptorProto proto;
        field->CopyTo(&proto);  // carries the default in its schema text form
        if (proto.has_default_value()) {
            text += " = " + proto.default_value();
        }
        fields.push_back(withOptions(text, field->options()));
    }
    std::string out =
        line(withOptions("message " + message->full_name(), message->options()), fields);
    for (int i = 0; i < message->nested_type_count(); ++i) {
        out += messageLayout(message->nested_type(i));
    }
    for (int i = 0; i < message->enum_type_count(); ++i) {
        out += enumLayout(message->enum_type(i));
    }
    return out;
}

std::string layoutOf(const FileDescriptor* file) {
    std::vector<std::string> members = {"package " + file->package()};
    for (int i = 0; i < file->dependency_count(); ++i) {
        members.push_back("import " + file->dependency(i)->name());
    }
    if (const std::string options = withOptions("", file->options()); !options.empty()) {
        members.push_back(options.substr(1));
    }
    std::string out = line("file " + file->name(), members);
    for (int i = 0; i < file->message_type_count(); ++i) {
        out += messageLayout(file->message_type(i));
    }
    for (int i = 0; i < file->enum_type_count(); ++i) {
        out += enumLayout(file->enum_type(i));
    }
    return out;
}

// The lines of <schema>_layout.txt in the same text form; "==" blocks have no place there and
// come last, so that they fail the comparison.
std::string expectedLayout(const std::string& schema_name) {
    const testsupport::CaseFile file =
        testsupport::readCaseFile(SCHEMA_DATA_DIR "/" + schema_name + "_layout.txt");
    std::string layout = testsupport::CaseBlock{{}, file.rows}.text();
    for (const testsupport::CaseBlock& block : file.blocks) {
        layout += "== " + block.head[0] + "\n" + block.text();
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

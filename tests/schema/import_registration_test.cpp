// A program that names only ConfigIF types still has CommonIF registered: configservice.proto's
// registration runs common.proto's first. This file must stay free of any CommonIF symbol, or
// the linker would pull common.pb in on its own and the test would prove nothing.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

TEST(ImportRegistrationTest, ConfigIfAloneRegistersCommonIf) {
    ConfigIF::FlushAllCmd command;
    EXPECT_EQ(command.ByteSizeLong(), 0u);

    const google::protobuf::EnumDescriptor* error_type =
        google::protobuf::DescriptorPool::generated_pool()->FindEnumTypeByName(
            "CommonIF.eErrorType");
    ASSERT_NE(error_type, nullptr);
    EXPECT_EQ(error_type->file()->name(), "common.proto");
}

}  // namespace
}  // namespace schema_test

// Behaviour of the generated code that depends on how it was built: the enum setters' assertion
// and the UTF-8 checks must stay live in optimised builds, and both files must be registered.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

// The setter's assertion as the C library prints it; the function it names is the inline
// setter of the generated header.
const char kRoleAssertion[] =
    "ConfigIF::ReadReq::_internal_set_role\\(CommonIF::eSecurityRole\\): "
    "Assertion `::CommonIF::eSecurityRole_IsValid\\(value\\)' failed";

TEST(EnumSetterTest, AcceptsEveryRole) {
    for (int role = 10; role <= 50; role += 10) {
        ConfigIF::ReadReq request;
        request.set_role(static_cast<CommonIF::eSecurityRole>(role));
        EXPECT_TRUE(request.has_role());
        EXPECT_EQ(request.role(), role);
    }
}

TEST(EnumSetterDeathTest, NonMemberRoleEndsTheProcess) {
    for (int role : {0, 11}) {
        SCOPED_TRACE(role);
        ConfigIF::ReadReq request;
        EXPECT_DEATH(request.set_role(static_cast<CommonIF::eSecurityRole>(role)), kRoleAssertion);
    }
}

// Collects what the runtime logs while an instance is alive.
class RuntimeLogCapture {
  public:
    RuntimeLogCapture() { previous_ = google::protobuf::SetLogHandler(&record); }
    virtual ~RuntimeLogCapture() {
        google::protobuf::SetLogHandler(previous_);
        lines().clear();
    }

    static std::vector<std::string>& lines() {
        static std::vector<std::string> captured;
        return captured;
    }

    bool anyContains(const std::string& text) const {
        for (const std::string& line : lines()) {
            if (line.find(text) != std::string::npos)
                return true;
        }
        return false;
    }

  private:
    static void record(google::protobuf::LogLevel, const char*, int, const std::string& message) {
        lines().push_back(message);
    }

    google::protobuf::LogHandler* previous_;
};

TEST(Utf8CheckTest, InvalidValueParsesUnchangedAndIsReported) {
    // ReadRsp { error: 0, value: "\xff\xfe" }
    const std::string bytes("\x50\x00\xa2\x01\x02\xff\xfe", 7);
    ConfigIF::ReadRsp rsp;
    {
        RuntimeLogCapture log;
        ASSERT_TRUE(rsp.ParseFromString(bytes));
        EXPECT_TRUE(log.anyContains("ConfigIF.ReadRsp.value")) << "parse-side check is off";
    }
    ASSERT_EQ(rsp.value_size(), 1);
    EXPECT_EQ(rsp.value(0), std::string("\xff\xfe"));

    RuntimeLogCapture log;
    EXPECT_EQ(rsp.SerializeAsString(), bytes);
    EXPECT_TRUE(log.anyContains("ConfigIF.ReadRsp.value")) << "serialise-side check is off";
}

TEST(Utf8CheckTest, ValidValueIsNotReported) {
    ConfigIF::ReadRsp rsp;
    rsp.set_error(CommonIF::kErrNoError);
    rsp.add_value("on");
    RuntimeLogCapture log;
    ConfigIF::ReadRsp parsed;
    ASSERT_TRUE(parsed.ParseFromString(rsp.SerializeAsString()));
    EXPECT_TRUE(RuntimeLogCapture::lines().empty());
}

TEST(RegistrationTest, BothFilesAreInTheGeneratedPool) {
    const google::protobuf::DescriptorPool* pool =
        google::protobuf::DescriptorPool::generated_pool();
    EXPECT_NE(pool->FindFileByName("common.proto"), nullptr);
    EXPECT_NE(pool->FindFileByName("configservice.proto"), nullptr);
    EXPECT_EQ(pool->FindMessageTypeByName("ConfigIF.ReadReq"), ConfigIF::ReadReq::descriptor());
    EXPECT_EQ(pool->FindEnumTypeByName("CommonIF.eErrorType"), CommonIF::eErrorType_descriptor());
}

TEST(RegistrationTest, DescriptorNamesTheMessageType) {
    ConfigIF::ReadReq request;
    EXPECT_EQ(request.GetDescriptor()->full_name(), "ConfigIF.ReadReq");
    request.set_name("cli");
    request.set_role(CommonIF::kAdmin);
    request.mutable_instance();
    EXPECT_EQ(request.DebugString(), "name: \"cli\"\nrole: kAdmin\ninstance {\n}\n");
}

}  // namespace
}  // namespace schema_test

// Behaviour of the generated code that depends on how it was built: the enum setters' assertion
// and the UTF-8 checks must stay live in optimised builds.
#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include <string>

#include "Common/protobuf/v3/common.pb.h"
#include "Common/protobuf/v3/configservice.pb.h"

namespace schema_test {
namespace {

// The setter's assertion as the C library prints it; the function it names is the inline
// setter of the generated header.
const char kRoleAssertion[] =
    "ConfigIF::ReadReq::_internal_set_role\\(CommonIF::eSecurityRole\\): "
    "Assertion `::CommonIF::eSecurityRole_IsValid\\(value\\)' failed";

TEST(EnumSetterDeathTest, TakesEveryRoleAndANonMemberEndsTheProcess) {
    for (int role = 10; role <= 50; role += 10) {
        ConfigIF::ReadReq request;
        request.set_role(static_cast<CommonIF::eSecurityRole>(role));
        EXPECT_EQ(request.role(), role);
    }
    for (int role : {0, 11}) {
        ConfigIF::ReadReq request;
        EXPECT_DEATH(request.set_role(static_cast<CommonIF::eSecurityRole>(role)), kRoleAssertion)
            << role;
    }
}

int value_reports = 0;

void countValueReports(google::protobuf::LogLevel, const char*, int, const std::string& message) {
    if (message.find("ConfigIF.ReadRsp.value") != std::string::npos) {
        ++value_reports;
    }
}

TEST(Utf8CheckTest, InvalidValueIsReportedButKeptUnchanged) {
    // ReadRsp { error: 0, value: "\xff\xfe" }
    const std::string bytes("\x50\x00\xa2\x01\x02\xff\xfe", 7);
    google::protobuf::LogHandler* previous = google::protobuf::SetLogHandler(&countValueReports);
    ConfigIF::ReadRsp rsp;
    const bool parsed = rsp.ParseFromString(bytes);
    const int parse_reports = value_reports;
    const std::string written = rsp.SerializeAsString();
    google::protobuf::SetLogHandler(previous);

    ASSERT_TRUE(parsed);
    ASSERT_EQ(rsp.value_size(), 1);
    EXPECT_EQ(rsp.value(0), "\xff\xfe");
    EXPECT_EQ(written, bytes);
    EXPECT_GT(parse_reports, 0) << "parse-side check is off";
    EXPECT_GT(value_reports, parse_reports) << "serialise-side check is off";
}

}  // namespace
}  // namespace schema_test

// A client of the running service as the end-to-end tests use it: a session of the client
// library connected under a name of its own, with variables named by path (ConfigPath.h) and the
// answer's error, or the values read, as results.
#ifndef TESTS_SUPPORT_SERVICECLIENT_H
#define TESTS_SUPPORT_SERVICECLIENT_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigPath.h"
#include "ConfigSession.h"
#include "ServiceProcess.h"

namespace testsupport {

constexpr int kConnectMs = 5000;
constexpr int kAnswerMs = 10000;

class ServiceClient {
  public:
    // Connects to the service of $MSGPASS_DIR; a failure to connect fails the test, and every
    // call below then fails it again.
    explicit ServiceClient(const std::string& name);
    virtual ~ServiceClient() = default;

    // The error of the answer, or kErrGenericError when none came (a test failure).
    CommonIF::eErrorType write(const std::string& path, const std::vector<std::string>& values,
                               CommonIF::eSecurityRole role = CommonIF::kAdmin);
    // The request of type `type` ("CreateProfile") claiming `role`, its other fields in protocol
    // buffer text (messageOf).
    CommonIF::eErrorType call(const std::string& type, CommonIF::eSecurityRole role,
                              const std::string& fields);
    CommonIF::eErrorType submit(const std::string& path, ConfigIF::SubmitType type,
                                CommonIF::eSecurityRole role = CommonIF::kAdmin);
    // Each path's single value, read in one batch, or else the name of the item's error
    // (kErrNoError for a list of other than one value); "(no answer)" for every path when none
    // came (a test failure).
    std::vector<std::string> values(const std::vector<std::string>& paths,
                                    CommonIF::eSecurityRole role = CommonIF::kAdmin);
    std::string value(const std::string& path, CommonIF::eSecurityRole role = CommonIF::kAdmin) {
        return values({path}, role).at(0);
    }

    configclient::ConfigSession session;
};

// A test with a service of its own on the example model, started before the test's body.
class ServiceTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(service_.start(&error_)) << error_; }

    ServiceProcess service_;
    std::string error_;
};

}  // namespace testsupport

#endif  // TESTS_SUPPORT_SERVICECLIENT_H

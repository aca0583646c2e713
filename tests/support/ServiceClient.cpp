#include "ServiceClient.h"

#include <gtest/gtest.h>

namespace testsupport {

using configclient::ConfigSession;

ServiceClient::ServiceClient(const std::string& name) {
    EXPECT_EQ(session.connect(name, kConnectMs), ConfigSession::kOk) << name;
}

CommonIF::eErrorType ServiceClient::write(const std::string& path,
                                          const std::vector<std::string>& values,
                                          CommonIF::eSecurityRole role) {
    ConfigIF::WriteRsp answer;
    const bool answered =
        session.write(writeRequest(path, values, role), &answer, kAnswerMs) == ConfigSession::kOk;
    EXPECT_TRUE(answered) << "write " << path;
    return answered ? answer.ret_message().error() : CommonIF::kErrGenericError;
}

CommonIF::eErrorType ServiceClient::call(const std::string& type, CommonIF::eSecurityRole role,
                                         const std::string& fields) {
    const auto request = requestOf(type, CommonIF::eSecurityRole_Name(role), fields);
    const auto response = messageOf(type + "Rsp", "");
    const uint32_t id = ConfigProtocol::messageIdOf(type + "Req");
    const bool answered = request && response &&
                          session.call(id, *request, ConfigProtocol::responseIdOf(id),
                                       response.get(), kAnswerMs) == ConfigSession::kOk;
    EXPECT_TRUE(answered) << type << " " << fields;
    return answered ? errorOf(*response) : CommonIF::kErrGenericError;
}

CommonIF::eErrorType ServiceClient::submit(const std::string& path, ConfigIF::SubmitType type,
                                           CommonIF::eSecurityRole role) {
    return call("Submit", role,
                "instance { {{" + path + "}} } type: " + ConfigIF::SubmitType_Name(type));
}

std::vector<std::string> ServiceClient::values(const std::vector<std::string>& paths,
                                               CommonIF::eSecurityRole role) {
    ConfigIF::BatchReadReq request;
    request.set_name("test");
    request.set_role(role);
    for (const std::string& path : paths) {
        *request.add_instance() = instOf(path);
    }
    ConfigIF::BatchReadRsp answer;
    if (session.batchRead(request, &answer, kAnswerMs) != ConfigSession::kOk) {
        ADD_FAILURE() << "no answer to a batch read";
        return std::vector<std::string>(paths.size(), "(no answer)");
    }
    std::vector<std::string> values;
    for (const ConfigIF::ReadRsp& item : answer.response()) {
        values.push_back(item.value_size() == 1 && item.error() == CommonIF::kErrNoError
                             ? item.value(0)
                             : CommonIF::eErrorType_Name(item.error()));
    }
    return values;
}

}  // namespace testsupport

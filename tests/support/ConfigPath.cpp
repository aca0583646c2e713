#include "ConfigPath.h"

#include <cstdlib>

#include "TempDir.h"

namespace testsupport {

ConfigIF::Inst instOf(const std::string& path) {
    ConfigIF::Inst inst;
    for (const std::string& step : split(path, "/")) {
        ConfigIF::Node* node = inst.add_node();
        const size_t blank = step.find(' ');
        node->set_name(step.substr(0, blank));
        node->set_instance(blank == std::string::npos
                               ? 0
                               : static_cast<int32_t>(std::strtol(&step[blank], nullptr, 10)));
    }
    return inst;
}

ConfigIF::ReadReq readRequest(const std::string& path, CommonIF::eSecurityRole role) {
    ConfigIF::ReadReq request;
    request.set_name("test");
    request.set_role(role);
    *request.mutable_instance() = instOf(path);
    return request;
}

ConfigIF::WriteReq writeRequest(const std::string& path, const std::vector<std::string>& values,
                                CommonIF::eSecurityRole role) {
    ConfigIF::WriteReq request;
    request.set_name("test");
    request.set_role(role);
    *request.mutable_instance_val()->mutable_instance() = instOf(path);
    request.mutable_instance_val()->mutable_value()->Add(values.begin(), values.end());
    return request;
}

}  // namespace testsupport

// Requests as tests write them: a variable instance named by a path of node and variable names
// separated by '/', each with an optional instance number after a blank, as a person types it:
// "audio/microphone 2/gain". A name without a number is sent with instance 0.
#ifndef TESTS_SUPPORT_CONFIGPATH_H
#define TESTS_SUPPORT_CONFIGPATH_H

#include <string>
#include <vector>

#include "Common/protobuf/v3/configservice.pb.h"

namespace testsupport {

// The instance `path` names. A number that does not parse is sent as 0; an empty path has no
// node.
ConfigIF::Inst instOf(const std::string& path);

// A request of client name "test" claiming `role`.
ConfigIF::ReadReq readRequest(const std::string& path, CommonIF::eSecurityRole role);
ConfigIF::WriteReq writeRequest(const std::string& path, const std::vector<std::string>& values,
                                CommonIF::eSecurityRole role);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_CONFIGPATH_H

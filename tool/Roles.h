// Role names: the text given with --role (or defaulted) and the wire role it stands for.
#ifndef SETVANE_TOOL_ROLES_H
#define SETVANE_TOOL_ROLES_H

#include "Common/protobuf/v3/common.pb.h"

// Maps "kUser"/"user", "kAdmin"/"admin", "kSystem"/"system", "kProvisioning"/"provisioning" and
// "kStartup"/"startup" (exact, case-sensitive) to their role. Any other name is reported as
// "unknown role '<name>'" with the help hint and ends the process with status 1.
CommonIF::eSecurityRole roleFromName(const char* name);

#endif  // SETVANE_TOOL_ROLES_H

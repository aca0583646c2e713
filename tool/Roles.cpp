#include "Roles.h"

#include <cstring>

#include "Arg.h"
#include "LogStream.h"

namespace {

struct RoleName {
    const char* name;
    CommonIF::eSecurityRole role;
};

const RoleName kRoleNames[] = {
    {"kUser", CommonIF::kUser},
    {"user", CommonIF::kUser},
    {"kAdmin", CommonIF::kAdmin},
    {"admin", CommonIF::kAdmin},
    {"kSystem", CommonIF::kSystem},
    {"system", CommonIF::kSystem},
    {"kProvisioning", CommonIF::kProvisioning},
    {"provisioning", CommonIF::kProvisioning},
    {"kStartup", CommonIF::kStartup},
    {"startup", CommonIF::kStartup},
};

}  // namespace

CommonIF::eSecurityRole roleFromName(const char* name) {
    for (const RoleName& entry : kRoleNames) {
        if (std::strcmp(name, entry.name) == 0) {
            return entry.role;
        }
    }
    LogStream::instance() << "unknown role '" << name << "'\n";
    exitWithHelpHint();
}

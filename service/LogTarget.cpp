#include "LogTarget.h"

#include <fcntl.h>
#include <unistd.h>

#include "logmsg.h"

namespace configsrvc {

bool parseLogTarget(const std::string& word, LogTarget* target) {
    if (word == "auto") {
        *target = LogTarget::kAuto;
    } else if (word == "device") {
        *target = LogTarget::kDevice;
    } else if (word == "stderr") {
        *target = LogTarget::kStandardError;
    } else {
        return false;
    }
    return true;
}

LogTarget startLogging(LogTarget wanted, const char* program) {
    if (wanted == LogTarget::kAuto) {
        // The same test the library makes when it opens the device.
        int fd = open(LOGMSG_DEVICE_PATH, O_WRONLY | O_CLOEXEC);
        wanted = fd >= 0 ? LogTarget::kDevice : LogTarget::kStandardError;
        if (fd >= 0) {
            close(fd);
        }
    }
    if (wanted == LogTarget::kDevice) {
        logmsg_init(0, program);
    } else {
        logmsg_init_stderr(0, program);
    }
    return wanted;
}

}  // namespace configsrvc

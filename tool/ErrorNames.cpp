#include "ErrorNames.h"

namespace {

// Indexed by the negated error code.
const char* const kErrorNames[] = {
    "kErrNoError",       "kErrGenericError",   "kErrOutOfMemory",     "kErrBadParameter",
    "kErrBadState",      "kErrOutOfResources", "kErrNotYetSupported", "kErrItemNotFound",
    "kErrNotAuthorized", "kErrAlreadyExists",  "kErrTimeOut",         "kErrPortLocked",
};
const int kNamedErrors = sizeof(kErrorNames) / sizeof(kErrorNames[0]);

}  // namespace

LogStream& operator<<(LogStream& stream, CommonIF::eErrorType error) {
    const int code = static_cast<int>(error);
    std::ostream& buffer = stream;
    if (code <= 0 && code > -kNamedErrors) {
        buffer << kErrorNames[-code];
    } else {
        buffer << code << "/unknown_error";
    }
    return stream;
}

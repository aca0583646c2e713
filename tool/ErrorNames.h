// Naming of the service's error codes inside a LogStream line.
#ifndef SETVANE_TOOL_ERRORNAMES_H
#define SETVANE_TOOL_ERRORNAMES_H

#include "Common/protobuf/v3/common.pb.h"
#include "LogStream.h"

// Appends the error's name ("kErrItemNotFound" for -7) to the current line without ending it.
// Codes outside 0 to -11 are appended as "<decimal>/unknown_error"; that includes -12, which the
// schema calls kNotEnabled but which existing log readers know only by number.
LogStream& operator<<(LogStream& stream, CommonIF::eErrorType error);

#endif  // SETVANE_TOOL_ERRORNAMES_H

// In-process tests of the tool's error channel: LogStream lines and error names as they reach
// standard error. No mirror is installed here, so lines stay on the console.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ErrorNames.h"
#include "LogStream.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

const char* const kNoText = nullptr;

TEST(LogStream, EmitsARedLineAtEachNewlineOfItsText) {
    const std::pair<void (*)(LogStream&), const char*> cases[] = {
        {[](LogStream& s) { s << "a\nb\n"; }, "\033[31ma\033[0m\n\033[31mb\033[0m\n"},
        {[](LogStream& s) { s << std::string("x\ny\n"); }, "\033[31mx\033[0m\n\033[31my\033[0m\n"},
        {[](LogStream& s) { s << '\n'; }, "\033[31m\033[0m\n"},
        {[](LogStream& s) { s << "a" << kNoText << "b\n"; }, "\033[31mab\033[0m\n"},
        // A formatted value never ends a line.
        {[](LogStream& s) {
             static_cast<std::ostream&>(s) << "a\nb" << -7;
             s << '\n';
         },
         "\033[31ma\nb-7\033[0m\n"},
    };
    for (const auto& c : cases) {
        CaptureStderr();
        c.first(LogStream::instance());
        EXPECT_EQ(GetCapturedStderr(), c.second);
    }
    CaptureStderr();
    LogStream::instance() << "pending";
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    LogStream::instance() << " more\n";
    EXPECT_EQ(GetCapturedStderr(), "\033[31mpending more\033[0m\n");
}

// The members of the enumeration by name, other codes by number: no service reply can carry
// those, since they are not members.
TEST(LogStream, NamesErrorCodesByNameOrByNumber) {
    const char* const kNames[] = {"kErrGenericError", "kErrOutOfMemory",    "kErrBadParameter",
                                  "kErrBadState",     "kErrOutOfResources", "kErrNotYetSupported",
                                  "kErrItemNotFound", "kErrNotAuthorized",  "kErrAlreadyExists",
                                  "kErrTimeOut",      "kErrPortLocked"};
    std::vector<std::pair<int, std::string>> cases = {{0, "kErrNoError"}};
    for (int code = -1; code >= -11; --code) {
        cases.emplace_back(code, kNames[-code - 1]);
    }
    for (int code : {-12, -13, 1, 5, -2147483647 - 1}) {
        cases.emplace_back(code, std::to_string(code) + "/unknown_error");
    }
    for (const auto& [code, name] : cases) {
        CaptureStderr();
        LogStream::instance() << "error " << static_cast<CommonIF::eErrorType>(code) << '\n';
        EXPECT_EQ(GetCapturedStderr(), "\033[31merror " + name + "\033[0m\n");
    }
}

}  // namespace

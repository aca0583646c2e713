// LogStream line assembly and the naming of service errors, as they reach standard error.
#include <gtest/gtest.h>

#include "ErrorNames.h"
#include "LogStream.h"

namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

const char* const kNoText = nullptr;

struct LineCase {
    void (*insert)(LogStream&);
    const char* err;
};

TEST(LogStream, EmitsARedLineAtEachNewline) {
    const LineCase cases[] = {
        {[](LogStream& s) { s << "abc" << std::string("def") << '\n'; }, "\033[31mabcdef\033[0m\n"},
        {[](LogStream& s) { s << "a\nb\n"; }, "\033[31ma\033[0m\n\033[31mb\033[0m\n"},
        {[](LogStream& s) { s << std::string("x\ny\n"); }, "\033[31mx\033[0m\n\033[31my\033[0m\n"},
        {[](LogStream& s) { s << '\n'; }, "\033[31m\033[0m\n"},
        {[](LogStream& s) { s << "a" << kNoText << "b\n"; }, "\033[31mab\033[0m\n"},
        {[](LogStream& s) { s << "failed " << -7 << " " << 42u << '\n'; },
         "\033[31mfailed -7 42\033[0m\n"},
        // Only text insertions look for newlines: a formatted value never ends a line.
        {[](LogStream& s) {
             static_cast<std::ostream&>(s) << "a\nb" << 1;
             s << '\n';
         },
         "\033[31ma\nb1\033[0m\n"},
    };
    for (const LineCase& c : cases) {
        CaptureStderr();
        c.insert(LogStream::instance());
        EXPECT_EQ(GetCapturedStderr(), c.err);
    }
}

TEST(LogStream, TextWithoutANewlineWaitsForTheNextLine) {
    CaptureStderr();
    LogStream::instance() << "pending";
    EXPECT_EQ(GetCapturedStderr(), "");
    CaptureStderr();
    LogStream::instance() << " more\n";
    EXPECT_EQ(GetCapturedStderr(), "\033[31mpending more\033[0m\n");
}

// The named codes are checked end to end against the service; these are the codes a service
// reply cannot carry, since they do not parse as members of the enumeration.
TEST(LogStream, NamesErrorCodesInsideTheLine) {
    const std::pair<int, const char*> cases[] = {{0, "kErrNoError"},
                                                 {-13, "-13/unknown_error"},
                                                 {1, "1/unknown_error"},
                                                 {5, "5/unknown_error"},
                                                 {-2147483647 - 1, "-2147483648/unknown_error"}};
    for (const auto& c : cases) {
        CaptureStderr();
        LogStream::instance() << "error " << static_cast<CommonIF::eErrorType>(c.first) << '\n';
        EXPECT_EQ(GetCapturedStderr(), std::string("\033[31merror ") + c.second + "\033[0m\n");
    }
}

}  // namespace

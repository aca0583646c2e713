// LogStream line assembly and the naming of service errors, as they reach standard error.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "ErrorNames.h"
#include "LogStream.h"

namespace {

// Standard error of `insert`, captured through a temporary file.
std::string stderrOf(const std::function<void(LogStream&)>& insert) {
    char path[] = "/tmp/setvane-logstream-XXXXXX";
    const int file = mkstemp(path);
    const int saved = dup(2);
    std::fflush(stderr);
    dup2(file, 2);
    insert(LogStream::instance());
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    std::string captured;
    lseek(file, 0, SEEK_SET);
    char buffer[1024];
    ssize_t n;
    while ((n = read(file, buffer, sizeof buffer)) > 0) {
        captured.append(buffer, static_cast<size_t>(n));
    }
    close(file);
    unlink(path);
    return captured;
}

struct LineCase {
    const char* title;
    std::function<void(LogStream&)> insert;
    std::string err;
};

void PrintTo(const LineCase& c, std::ostream* os) {
    *os << c.title;
}

class LogStreamTest : public ::testing::TestWithParam<LineCase> {};

TEST_P(LogStreamTest, EmitsRedLinesAtEachNewline) {
    EXPECT_EQ(stderrOf(GetParam().insert), GetParam().err);
}

const char* const kNullText = nullptr;

INSTANTIATE_TEST_SUITE_P(
    Tool, LogStreamTest,
    ::testing::Values(
        LineCase{"PiecesMakeOneLine",
                 [](LogStream& s) {
                     s << "abc"
                       << "def\n";
                 },
                 "\033[31mabcdef\033[0m\n"},
        LineCase{"EachNewlineEndsALine", [](LogStream& s) { s << "a\nb\n"; },
                 "\033[31ma\033[0m\n\033[31mb\033[0m\n"},
        LineCase{"LoneNewlineIsAnEmptyLine", [](LogStream& s) { s << '\n'; }, "\033[31m\033[0m\n"},
        LineCase{"NullTextAddsNothing", [](LogStream& s) { s << "a" << kNullText << "b" << '\n'; },
                 "\033[31mab\033[0m\n"},
        LineCase{"IntegersInDecimal",
                 [](LogStream& s) { s << "MSG_SendMsg() failed " << -7 << " " << 42u << '\n'; },
                 "\033[31mMSG_SendMsg() failed -7 42\033[0m\n"},
        LineCase{"StdString", [](LogStream& s) { s << std::string("x\ny") << '\n'; },
                 "\033[31mx\033[0m\n\033[31my\033[0m\n"}),
    [](const ::testing::TestParamInfo<LineCase>& info) { return std::string(info.param.title); });

struct ErrorNameCase {
    int code;
    const char* text;
};

void PrintTo(const ErrorNameCase& c, std::ostream* os) {
    *os << c.code;
}

class ErrorNameTest : public ::testing::TestWithParam<ErrorNameCase> {};

TEST_P(ErrorNameTest, NamesTheCodeInsideTheLine) {
    const ErrorNameCase& c = GetParam();
    const std::string err = stderrOf([&](LogStream& s) {
        s << "ReadRsp error " << static_cast<CommonIF::eErrorType>(c.code) << '\n';
    });
    EXPECT_EQ(err, std::string("\033[31mReadRsp error ") + c.text + "\033[0m\n");
}

INSTANTIATE_TEST_SUITE_P(
    Tool, ErrorNameTest,
    // The named codes are checked end to end against the service; these are the codes a
    // service reply cannot carry, since they do not parse as members.
    ::testing::Values(ErrorNameCase{0, "kErrNoError"}, ErrorNameCase{-13, "-13/unknown_error"},
                      ErrorNameCase{1, "1/unknown_error"}, ErrorNameCase{5, "5/unknown_error"},
                      ErrorNameCase{-2147483647 - 1, "-2147483648/unknown_error"}));

TEST(LogStream, TextWithoutNewlineWaitsForTheNextLine) {
    EXPECT_EQ(stderrOf([](LogStream& s) { s << "pending"; }), "");
    EXPECT_EQ(stderrOf([](LogStream& s) { s << " more\n"; }), "\033[31mpending more\033[0m\n");
}

TEST(ErrorName, NewlineInsideAnIntegerInsertionDoesNotEndTheLine) {
    // Only text insertions look for newlines; a formatted value never ends a line.
    const std::string err = stderrOf([](LogStream& s) {
        static_cast<std::ostream&>(s) << "a\nb";
        s << '\n';
    });
    EXPECT_EQ(err, "\033[31ma\nb\033[0m\n");
}

}  // namespace

// In-process tests of setvane's pieces: LogStream lines and error names as they reach standard
// error, getProcessCmdline, and the small-block allocator.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "ErrorNames.h"
#include "Harness.h"
#include "LogStream.h"
#include "ProcessCmdline.h"
#include "SmallBlocks.h"

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

// The named codes are checked end to end against the service; a service reply cannot carry
// these, since they are not members of the enumeration.
TEST(LogStream, NamesErrorCodesOutsideTheEnumerationByNumber) {
    for (int code : {-13, 1, 5, -2147483647 - 1}) {
        CaptureStderr();
        LogStream::instance() << "error " << static_cast<CommonIF::eErrorType>(code) << '\n';
        EXPECT_EQ(GetCapturedStderr(),
                  "\033[31merror " + std::to_string(code) + "/unknown_error\033[0m\n");
    }
}

TEST(ProcessCmdline, JoinsTheWordsWithSingleSpaces) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"setvane", "-r", "x"}, "setvane -r x"},
        {{"a b\xff", "c\nd"}, "a b\xff c\nd"},  // a byte 0xff is not the end of the file
        {{"", "b"}, " b"},
        // Only the spaces for the last NUL and for the end of the file are trimmed.
        {{"a", ""}, "a "},
        {{"a", "", ""}, "a  "},
        {{""}, ""},
    };
    for (const auto& c : cases) {
        Background process(IDLE_PROCESS_BINARY, c.first, {});
        ASSERT_TRUE(process.ready);
        EXPECT_EQ(getProcessCmdline(process.pid), c.second);
    }
    EXPECT_EQ(getProcessCmdline(4194304), "");  // pid_max is never above 4194304
}

// An arena over buffers of its own, set up the way the program sets up its static one.
class SmallBlocksTest : public ::testing::Test {
  protected:
    static const size_t kSlabs = 32;
    alignas(kSmallBlockSlabBytes) unsigned char memory[kSlabs * kSmallBlockSlabBytes] = {};
    uint8_t classes[kSlabs] = {};
    SmallBlockArena arena{memory, classes, kSlabs, 0, {}, {}, {}};
};

TEST_F(SmallBlocksTest, GivesAlignedBlocksOfTheirSizeClassThatNeverOverlap) {
    std::vector<std::pair<unsigned char*, size_t>> blocks;
    // Two blocks for each size, carved one after the other: 16-byte steps, rounded up.
    for (size_t bytes : {0, 0, 1, 1, 16, 16, 17, 17, 40, 40, 200, 200, 500, 500, 512, 512}) {
        auto* block = static_cast<unsigned char*>(allocateSmallBlock(arena, bytes));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
        if (blocks.size() % 2 == 1) {
            EXPECT_EQ(block - blocks.back().first, std::max<ptrdiff_t>(16, (bytes + 15) / 16 * 16));
        }
        blocks.emplace_back(block, bytes);
        std::memset(block, static_cast<int>(blocks.size()), bytes);
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (size_t at = 0; at < blocks[i].second; ++at) {
            ASSERT_EQ(blocks[i].first[at], i + 1) << blocks[i].second;
        }
    }
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes + 1), nullptr);
}

TEST_F(SmallBlocksTest, ReleasedBlocksServeTheirOwnClassFirstAlsoOnceTheArenaIsFull) {
    std::set<void*> taken;
    while (void* block = allocateSmallBlock(arena, kLargestSmallBlockBytes)) {
        EXPECT_TRUE(taken.insert(block).second && ownsSmallBlock(arena, block));
    }
    EXPECT_EQ(taken.size(), kSlabs * kSmallBlockSlabBytes / kLargestSmallBlockBytes);
    EXPECT_EQ(allocateSmallBlock(arena, 16), nullptr);  // its class would need a slab
    EXPECT_FALSE(ownsSmallBlock(arena, memory + sizeof memory));
    releaseSmallBlock(arena, *taken.begin());
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes - 16), nullptr);  // another class
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes - 15), *taken.begin());
}

}  // namespace

// The start-up allocator's arena (startup/SmallBlocks.h), over buffers of the test's own, set up
// the way the program sets up its static one.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

#include "startup/SmallBlocks.h"

namespace {

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

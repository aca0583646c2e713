#include "SmallBlocks.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

namespace {

const size_t kSlabs = 32;

// An arena over a buffer of its own, set up the way the program sets up its static one.
class SmallBlocksTest : public ::testing::Test {
  protected:
    SmallBlocksTest() : arena{memory, classes, kSlabs, 0, {}, {}, {}} {}

    alignas(kSmallBlockSlabBytes) unsigned char memory[kSlabs * kSmallBlockSlabBytes] = {};
    uint8_t classes[kSlabs] = {};
    SmallBlockArena arena;
};

uintptr_t addressOf(const void* block) {
    return reinterpret_cast<uintptr_t>(block);
}

struct SizeCase {
    size_t bytes;
    size_t spacing;  // distance between two blocks carved one after the other
};

TEST_F(SmallBlocksTest, RoundsRequestsUpToTheirSizeClass) {
    const SizeCase cases[] = {{0, 16}, {1, 16}, {16, 16}, {17, 32}, {500, 512}, {512, 512}};
    for (const SizeCase& c : cases) {
        SCOPED_TRACE(c.bytes);
        void* first = allocateSmallBlock(arena, c.bytes);
        void* second = allocateSmallBlock(arena, c.bytes);
        ASSERT_NE(first, nullptr);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(addressOf(first) % 16, 0u);
        EXPECT_EQ(addressOf(second) - addressOf(first), c.spacing);
        releaseSmallBlock(arena, second);
        releaseSmallBlock(arena, first);
    }
}

TEST_F(SmallBlocksTest, LeavesLargerRequestsToTheCaller) {
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes + 1), nullptr);
    EXPECT_EQ(arena.slabsTaken, 0u);
}

TEST_F(SmallBlocksTest, ReusesAReleasedBlockOnlyForItsOwnSizeClass) {
    void* block = allocateSmallBlock(arena, 40);
    releaseSmallBlock(arena, block);
    void* other = allocateSmallBlock(arena, 64);
    EXPECT_NE(other, block);
    EXPECT_EQ(allocateSmallBlock(arena, 33), block);
}

TEST_F(SmallBlocksTest, BlocksOfManySizesNeverOverlap) {
    std::vector<std::pair<unsigned char*, size_t>> blocks;
    for (size_t bytes = 1; bytes <= 200; bytes += 7) {
        unsigned char* block = static_cast<unsigned char*>(allocateSmallBlock(arena, bytes));
        ASSERT_NE(block, nullptr) << bytes;
        std::memset(block, static_cast<int>(blocks.size()), bytes);
        blocks.emplace_back(block, bytes);
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (size_t offset = 0; offset < blocks[i].second; ++offset) {
            ASSERT_EQ(blocks[i].first[offset], static_cast<unsigned char>(i)) << i;
        }
    }
}

TEST_F(SmallBlocksTest, AFullArenaRefusesNewSlabsButStillServesFreedBlocks) {
    std::set<void*> taken;
    while (void* block = allocateSmallBlock(arena, kLargestSmallBlockBytes)) {
        EXPECT_TRUE(taken.insert(block).second);
    }
    EXPECT_EQ(taken.size(), kSlabs * kSmallBlockSlabBytes / kLargestSmallBlockBytes);
    EXPECT_EQ(allocateSmallBlock(arena, 16), nullptr);  // its class would need a slab

    void* freed = *taken.begin();
    releaseSmallBlock(arena, freed);
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes), freed);
}

}  // namespace

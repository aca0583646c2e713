#include "SmallBlocks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <vector>

namespace {

const size_t kSlabs = 32;

// An arena over buffers of its own, set up the way the program sets up its static one.
class SmallBlocksTest : public ::testing::Test {
  protected:
    alignas(kSmallBlockSlabBytes) unsigned char memory[kSlabs * kSmallBlockSlabBytes] = {};
    uint8_t classes[kSlabs] = {};
    SmallBlockArena arena{memory, classes, kSlabs, 0, {}, {}, {}};
};

TEST_F(SmallBlocksTest, RoundsRequestsUpToMultiplesOfSixteenBytes) {
    // Bytes asked for, and the distance between two blocks carved one after the other.
    const std::pair<size_t, ptrdiff_t> cases[] = {{0, 16},  {1, 16},    {16, 16},
                                                  {17, 32}, {500, 512}, {512, 512}};
    for (const auto& c : cases) {
        auto* first = static_cast<unsigned char*>(allocateSmallBlock(arena, c.first));
        auto* second = static_cast<unsigned char*>(allocateSmallBlock(arena, c.first));
        ASSERT_TRUE(first != nullptr && second != nullptr) << c.first;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 16, 0u) << c.first;
        EXPECT_EQ(second - first, c.second) << c.first;
    }
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes + 1), nullptr);
}

TEST_F(SmallBlocksTest, ReusesAReleasedBlockOnlyForItsOwnClass) {
    void* block = allocateSmallBlock(arena, 40);
    releaseSmallBlock(arena, block);
    EXPECT_NE(allocateSmallBlock(arena, 64), block);
    EXPECT_EQ(allocateSmallBlock(arena, 33), block);
}

TEST_F(SmallBlocksTest, BlocksOfManySizesNeverOverlap) {
    std::vector<std::pair<unsigned char*, size_t>> blocks;
    for (size_t bytes = 1; bytes <= 200; bytes += 7) {
        blocks.emplace_back(static_cast<unsigned char*>(allocateSmallBlock(arena, bytes)), bytes);
        ASSERT_NE(blocks.back().first, nullptr) << bytes;
        std::memset(blocks.back().first, static_cast<int>(blocks.size()), bytes);
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (size_t offset = 0; offset < blocks[i].second; ++offset) {
            ASSERT_EQ(blocks[i].first[offset], i + 1) << blocks[i].second;
        }
    }
}

TEST_F(SmallBlocksTest, AFullArenaRefusesNewSlabsButStillServesFreedBlocks) {
    std::set<void*> taken;
    while (void* block = allocateSmallBlock(arena, kLargestSmallBlockBytes)) {
        EXPECT_TRUE(taken.insert(block).second && ownsSmallBlock(arena, block));
    }
    EXPECT_EQ(taken.size(), kSlabs * kSmallBlockSlabBytes / kLargestSmallBlockBytes);
    EXPECT_EQ(allocateSmallBlock(arena, 16), nullptr);  // its class would need a slab
    EXPECT_FALSE(ownsSmallBlock(arena, memory + sizeof memory));
    releaseSmallBlock(arena, *taken.begin());
    EXPECT_EQ(allocateSmallBlock(arena, kLargestSmallBlockBytes), *taken.begin());
}

}  // namespace

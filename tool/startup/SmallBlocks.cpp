#include "SmallBlocks.h"

namespace {

// Gives the class a fresh slab to carve blocks from; false when none is left.
bool takeSlab(SmallBlockArena& arena, size_t sizeClass) {
    if (arena.slabsTaken == arena.slabCount) {
        return false;
    }
    unsigned char* slab = arena.slabs + arena.slabsTaken * kSmallBlockSlabBytes;
    arena.slabClasses[arena.slabsTaken] = static_cast<uint8_t>(sizeClass);
    ++arena.slabsTaken;
    arena.carveNext[sizeClass] = slab;
    arena.carveEnd[sizeClass] = slab + kSmallBlockSlabBytes;
    return true;
}

}  // namespace

void* carveSmallBlock(SmallBlockArena& arena, size_t sizeClass) {
    const size_t blockBytes = (sizeClass + 1) * kSmallBlockGranuleBytes;
    // Pointer difference, not addition: the carve pointers start out null.
    if (static_cast<size_t>(arena.carveEnd[sizeClass] - arena.carveNext[sizeClass]) < blockBytes &&
        !takeSlab(arena, sizeClass)) {
        return nullptr;
    }
    void* block = arena.carveNext[sizeClass];
    arena.carveNext[sizeClass] += blockBytes;
    return block;
}

#include "SmallBlocks.h"

namespace {

size_t sizeClassOf(size_t bytes) {
    return bytes == 0 ? 0 : (bytes - 1) / kSmallBlockGranuleBytes;
}

size_t blockBytesOf(size_t sizeClass) {
    return (sizeClass + 1) * kSmallBlockGranuleBytes;
}

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

void* allocateSmallBlock(SmallBlockArena& arena, size_t bytes) {
    if (bytes > kLargestSmallBlockBytes) {
        return nullptr;
    }
    const size_t sizeClass = sizeClassOf(bytes);
    if (SmallBlockFree* reused = arena.freeBlocks[sizeClass]) {
        arena.freeBlocks[sizeClass] = reused->next;
        return reused;
    }
    const size_t blockBytes = blockBytesOf(sizeClass);
    // Pointer difference, not addition: the carve pointers start out null.
    if (static_cast<size_t>(arena.carveEnd[sizeClass] - arena.carveNext[sizeClass]) < blockBytes &&
        !takeSlab(arena, sizeClass)) {
        return nullptr;
    }
    void* block = arena.carveNext[sizeClass];
    arena.carveNext[sizeClass] += blockBytes;
    return block;
}

void releaseSmallBlock(SmallBlockArena& arena, void* block) {
    const size_t slab = static_cast<size_t>(static_cast<unsigned char*>(block) - arena.slabs) /
                        kSmallBlockSlabBytes;
    const size_t sizeClass = arena.slabClasses[slab];
    SmallBlockFree* freed = static_cast<SmallBlockFree*>(block);
    freed->next = arena.freeBlocks[sizeClass];
    arena.freeBlocks[sizeClass] = freed;
}

// SmallBlocks: allocation of small blocks from a fixed arena of slabs.
//
// The arena is an array of kSmallBlockSlabBytes slabs supplied by the caller. Each slab, once
// taken, serves blocks of a single size class: a multiple of 16 bytes, up to
// kLargestSmallBlockBytes. A released block goes on its class's free list and is the first to be
// handed out again; slabs are never given back, nor moved to another class. Blocks carry no
// header (the slab says what size they are), are aligned to 16 bytes and are not cleared.
//
// The state is a plain aggregate so that it can be set up by constant initialisation: the
// program's operator new uses it before any constructor has run, and after every destructor.
// Not thread-safe: callers serialise.
#ifndef SETVANE_TOOL_STARTUP_SMALLBLOCKS_H
#define SETVANE_TOOL_STARTUP_SMALLBLOCKS_H

#include <cstddef>
#include <cstdint>

const size_t kSmallBlockSlabBytes = 1024;
const size_t kSmallBlockGranuleBytes = 16;
const size_t kLargestSmallBlockBytes = 512;
const size_t kSmallBlockClasses = kLargestSmallBlockBytes / kSmallBlockGranuleBytes;

struct SmallBlockFree {
    SmallBlockFree* next;
};

struct SmallBlockArena {
    unsigned char* slabs;  // slabCount slabs, aligned to kSmallBlockSlabBytes
    uint8_t* slabClasses;  // size class of each slab taken, slabCount entries
    size_t slabCount;
    size_t slabsTaken;
    SmallBlockFree* freeBlocks[kSmallBlockClasses];
    unsigned char* carveNext[kSmallBlockClasses];  // untouched rest of the class's newest slab
    unsigned char* carveEnd[kSmallBlockClasses];
};

// Carves a new block of class `sizeClass` (0 for 16 bytes, 1 for 32, ...) from the class's
// newest slab or a fresh one; nullptr when the arena has no slab left.
void* carveSmallBlock(SmallBlockArena& arena, size_t sizeClass);

// A block of at least `bytes` bytes (a zero-byte request gets the smallest block), or nullptr
// when `bytes` exceeds kLargestSmallBlockBytes or the arena has no slab left for its class.
// Inline: the program's operator new runs this thousands of times before main.
inline void* allocateSmallBlock(SmallBlockArena& arena, size_t bytes) {
    if (bytes > kLargestSmallBlockBytes) {
        return nullptr;
    }
    const size_t sizeClass = bytes == 0 ? 0 : (bytes - 1) / kSmallBlockGranuleBytes;
    if (SmallBlockFree* reused = arena.freeBlocks[sizeClass]) {
        arena.freeBlocks[sizeClass] = reused->next;
        return reused;
    }
    return carveSmallBlock(arena, sizeClass);
}

// Whether `block` lies in the arena's slabs, i.e. came from allocateSmallBlock.
inline bool ownsSmallBlock(const SmallBlockArena& arena, const void* block) {
    const unsigned char* address = static_cast<const unsigned char*>(block);
    return address >= arena.slabs && address < arena.slabs + arena.slabCount * kSmallBlockSlabBytes;
}

// Returns a block from allocateSmallBlock for reuse by blocks of its size class.
inline void releaseSmallBlock(SmallBlockArena& arena, void* block) {
    const size_t slab = static_cast<size_t>(static_cast<unsigned char*>(block) - arena.slabs) /
                        kSmallBlockSlabBytes;
    SmallBlockFree* freed = static_cast<SmallBlockFree*>(block);
    freed->next = arena.freeBlocks[arena.slabClasses[slab]];
    arena.freeBlocks[arena.slabClasses[slab]] = freed;
}

#endif  // SETVANE_TOOL_STARTUP_SMALLBLOCKS_H

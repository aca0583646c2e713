// The program's operator new and operator delete.
//
// Before main, the protocol buffer runtime registers the schema files: it decodes each embedded
// file descriptor into a tree of small objects, indexes its names and frees the tree again,
// some 2,700 allocations of mostly under 512 bytes. Through malloc they cost nearly half of the
// instructions of a whole run. Here small blocks come from size-class free lists over a static
// arena (SmallBlocks.h) for a few instructions each; larger ones, and any once the arena is
// full, come from malloc. The arena lives in .bss, so its pages cost memory only once touched;
// blocks have no header and freed ones are reused, and slabs of 1 KiB keep the space lost to
// partly used slabs small, so a run touches about as much memory as through malloc.
//
// Linked into the program only, not into any library: test runners keep the ordinary
// allocator, which sanitizers and leak checkers know.
#include <sys/single_threaded.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

#include "SmallBlocks.h"

namespace {

// A read or write takes about 80 slabs; room to spare for long command lines and values.
const size_t kArenaSlabs = 256;

alignas(kSmallBlockSlabBytes) unsigned char arenaSlabs[kArenaSlabs * kSmallBlockSlabBytes];
uint8_t arenaSlabClasses[kArenaSlabs];
// Constant initialisation: ready before the first static constructor allocates.
SmallBlockArena arena = {arenaSlabs, arenaSlabClasses, kArenaSlabs, 0, {}, {}, {}};
std::mutex arenaLock;

// Small blocks, or nullptr. The tool has one thread; the lock is only taken once a process has
// started another.
inline void* allocateFromArena(size_t bytes) {
    if (__libc_single_threaded) {
        return allocateSmallBlock(arena, bytes);
    }
    std::lock_guard<std::mutex> hold(arenaLock);
    return allocateSmallBlock(arena, bytes);
}

inline void release(void* block) {
    if (!ownsSmallBlock(arena, block)) {
        std::free(block);  // also takes null
    } else if (__libc_single_threaded) {
        releaseSmallBlock(arena, block);
    } else {
        std::lock_guard<std::mutex> hold(arenaLock);
        releaseSmallBlock(arena, block);
    }
}

void* allocateLarge(size_t bytes) {
    return std::malloc(bytes == 0 ? 1 : bytes);
}

// Out of memory: a new-handler may free some, as for any operator new. Without one the
// process ends with a message, rather than by an exception that nothing in the tool catches.
void* allocateLargeOrDie(size_t bytes) {
    for (;;) {
        if (void* block = allocateLarge(bytes)) {
            return block;
        }
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            std::fputs("out of memory\n", stderr);
            std::abort();
        }
        handler();
        if (void* block = allocateFromArena(bytes)) {
            return block;
        }
    }
}

inline void* allocateOrDie(size_t bytes) {
    void* block = allocateFromArena(bytes);
    return block != nullptr ? block : allocateLargeOrDie(bytes);
}

inline void* allocateOrNull(size_t bytes) {
    void* block = allocateFromArena(bytes);
    return block != nullptr ? block : allocateLarge(bytes);
}

}  // namespace

void* operator new(size_t bytes) {
    return allocateOrDie(bytes);
}

void* operator new[](size_t bytes) {
    return allocateOrDie(bytes);
}

void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    return allocateOrNull(bytes);
}

void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
    return allocateOrNull(bytes);
}

void operator delete(void* block) noexcept {
    release(block);
}

void operator delete[](void* block) noexcept {
    release(block);
}

void operator delete(void* block, size_t) noexcept {
    release(block);
}

void operator delete[](void* block, size_t) noexcept {
    release(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
    release(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept {
    release(block);
}

// The entry point every fuzz target defines. Built either with libFuzzer (clang,
// -DSETVANE_FUZZ=ON), which calls it with generated inputs, or with replay_main.cpp, which
// calls it once per file of a seed corpus so that CTest runs every target on every build.
#ifndef FUZZ_FUZZ_TARGET_H
#define FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A broken invariant is a crash to the fuzzer: say which and abort.
#define FUZZ_CHECK(condition)                                                       \
    do {                                                                            \
        if (!(condition)) {                                                         \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__,   \
                         #condition);                                               \
            std::abort();                                                           \
        }                                                                           \
    } while (0)

#endif  // FUZZ_FUZZ_TARGET_H

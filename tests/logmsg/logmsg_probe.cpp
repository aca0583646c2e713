// Runs the logmsg calls named on its command line, so that tests can check the exact bytes the
// library writes. A call's result goes to standard error as "ret <n>": the library owns standard
// output and the device.
//
//   init NAME | initerr NAME | log LEVEL MODULE FORMAT ARG | crit|err|warn|info|debug MODULE FORMAT
//   ARG printf|print|raw FORMAT ARG | sink RECORD LENGTH | device ON | mkdev
//   show+|show-|cull+|cull- FILTER | show?|cull? | showget|cullget INDEX
//   strlcpy SRC SIZE | threads COUNT RECORDS | dlopen LIBRARY N | failalloc
//
// "-" stands for a null NAME, MODULE or FORMAT and for "no argument"; ARG is "i:<int>" or
// "s:<text>".
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <thread>
#include <vector>

#include "logmsg.h"

namespace {

#ifdef LOGMSG_PROBE_OWN_MALLOC
bool failLineAlloc = false;
#endif

// The test's device file, in place of the kernel log device.
const char* devicePath() {
    const char* path = std::getenv("LOGMSG_PROBE_DEVICE");
    return path != nullptr ? path : "/nonexistent/vesklog";
}

const char* nullable(const char* word) {
    return std::strcmp(word, "-") == 0 ? nullptr : word;
}

void report(int result) {
    std::fprintf(stderr, "ret %d\n", result);
}

// Calls a variadic entry with the one optional argument of the command.
template <typename Entry, typename... Leading>
int callWithArg(Entry entry, const char* arg, Leading... leading) {
    if (std::strncmp(arg, "i:", 2) == 0) {
        return entry(leading..., std::atoi(arg + 2));
    }
    if (std::strncmp(arg, "s:", 2) == 0) {
        return entry(leading..., arg + 2);
    }
    return entry(leading...);
}

// Each thread writes records "T<t>:0123456789" piece by piece, yielding between pieces so that
// the threads' partial lines are in flight at the same time.
void logFromThreads(int count, int records) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < count; t++) {
        threads.emplace_back([&ready, count, records, t] {
            for (ready++; ready < count;) {
                sched_yield();
            }
            for (int r = 0; r < records; r++, std::printf("\n")) {
                std::printf("T%d:", t);
                for (int piece = 0; piece < 10; piece++, sched_yield()) {
                    std::printf("%d", piece);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

// The loaded library reaches the logging library only through what this program exports.
void sayFromLoadedLibrary(const char* path, int n) {
    void* say = dlsym(dlopen(path, RTLD_NOW), "probe_shared_say");
    if (say == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        std::exit(3);
    }
    reinterpret_cast<void (*)(int)>(say)(n);
}

void showStrlcpy(const char* src, int size) {
    char dst[16] = "XXXXXXXXXXXXXXX";
    size_t result = strlcpy(dst, src, static_cast<size_t>(size));
    std::fprintf(stderr, "ret %zu dst %s\n", result, dst);
}

struct Command {
    const char* name;
    int arity;
    void (*run)(char** args);
};

#define MODULE_ENTRY(name, entry)                                                              \
    {                                                                                          \
        name, 3,                                                                               \
            [](char** a) { report(callWithArg(entry, a[2], nullable(a[0]), nullable(a[1]))); } \
    }
#define PLAIN_ENTRY(name, entry)                                                    \
    {                                                                               \
        name, 2, [](char** a) { report(callWithArg(entry, a[1], nullable(a[0]))); } \
    }

const Command kCommands[] = {
    {"init", 1, [](char** a) { logmsg_init_with_device(0, nullable(a[0]), devicePath()); }},
    {"initerr", 1, [](char** a) { logmsg_init_stderr(0, nullable(a[0])); }},
    {"log", 4,
     [](char** a) {
         report(callWithArg(logmsg, a[3], std::atoi(a[0]), nullable(a[1]), nullable(a[2])));
     }},
    MODULE_ENTRY("crit", logmsg_crit),
    MODULE_ENTRY("err", logmsg_err),
    MODULE_ENTRY("warn", logmsg_warn),
    MODULE_ENTRY("info", logmsg_info),
    MODULE_ENTRY("debug", logmsg_debug),
    PLAIN_ENTRY("printf", std::printf),
    PLAIN_ENTRY("print", logmsg_print),
    PLAIN_ENTRY("raw", logmsg_raw),
    {"sink", 2, [](char** a) { logmsg_sink(a[0], std::atoi(a[1])); }},
    {"device", 1, [](char** a) { logmsg_set_use_device(std::atoi(a[0])); }},
    {"mkdev", 0, [](char**) { close(open(devicePath(), O_CREAT, 0600)); }},
    {"show+", 1, [](char** a) { report(logmsg_add_show_filter(a[0])); }},
    {"show-", 1, [](char** a) { report(logmsg_remove_show_filter(a[0])); }},
    {"show?", 0, [](char**) { report(logmsg_list_show_filters()); }},
    {"showget", 1,
     [](char** a) { std::fprintf(stderr, "[%s]\n", logmsg_get_show_filter(std::atoi(a[0]))); }},
    {"cull+", 1, [](char** a) { report(logmsg_add_cull_filter(a[0])); }},
    {"cull-", 1, [](char** a) { report(logmsg_remove_cull_filter(a[0])); }},
    {"cull?", 0, [](char**) { report(logmsg_list_cull_filters()); }},
    {"cullget", 1,
     [](char** a) { std::fprintf(stderr, "[%s]\n", logmsg_get_cull_filter(std::atoi(a[0]))); }},
    {"strlcpy", 2, [](char** a) { showStrlcpy(a[0], std::atoi(a[1])); }},
    {"threads", 2, [](char** a) { logFromThreads(std::atoi(a[0]), std::atoi(a[1])); }},
    {"dlopen", 2, [](char** a) { sayFromLoadedLibrary(a[0], std::atoi(a[1])); }},
#ifdef LOGMSG_PROBE_OWN_MALLOC
    {"failalloc", 0, [](char**) { failLineAlloc = true; }},
#else
    {"failalloc", 0, [](char**) { std::exit(77); }},  // sanitizers keep their own allocator
#endif
};

}  // namespace

#ifdef LOGMSG_PROBE_OWN_MALLOC
// Fails the allocation of a thread's line buffer after "failalloc".
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) noexcept {
    return failLineAlloc && size == LOGMSG_LINE_SIZE ? nullptr : __libc_malloc(size);
}
#endif

int main(int argc, char** argv) {
    for (int i = 1; i < argc; i++) {
        auto named = [&](const Command& c) { return std::strcmp(c.name, argv[i]) == 0; };
        const Command* command = std::find_if(std::begin(kCommands), std::end(kCommands), named);
        if (command == std::end(kCommands) || i + command->arity >= argc) {
            std::fprintf(stderr, "logmsg_probe: unknown or incomplete command \"%s\"\n", argv[i]);
            return 2;
        }
        command->run(argv + i + 1);
        i += command->arity;
    }
    return 0;
}

// Runs logmsg calls named on its command line, so that tests can check the exact
// bytes the library writes. Results of the calls go to standard error as
// "ret <n>"; the library owns standard output and the device.
//
//   init NAME | log LEVEL MODULE FORMAT ARG | crit|err|warn|info|debug MODULE FORMAT ARG
//   printf|print|raw FORMAT ARG | sink RECORD LENGTH | device ON | mkdev
//   show+|show-|cull+|cull- FILTER | show?|cull? | showget|cullget INDEX
//   strlcpy SRC SIZE | threads COUNT RECORDS | dlopen LIBRARY N
//   failalloc
//
// "-" stands for a null NAME, MODULE or FORMAT and for "no argument"; ARG is
// "i:<int>" or "s:<text>".
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "logmsg.h"

extern "C" int probe_fail_line_alloc(void);

namespace {

const char* nullable(const char* word) {
    return std::strcmp(word, "-") == 0 ? nullptr : word;
}

void report(int result) {
    std::fprintf(stderr, "ret %d\n", result);
}

// Calls a variadic entry with the one optional argument of the command.
template <typename Entry, typename... Leading>
int callWithArg(Entry entry, const char* arg, Leading... leading) {
    if (std::strncmp(arg, "i:", 2) == 0)
        return entry(leading..., std::atoi(arg + 2));
    if (std::strncmp(arg, "s:", 2) == 0)
        return entry(leading..., arg + 2);
    return entry(leading...);
}

// Each thread writes records "T<t>:0123456789" piece by piece, yielding between
// pieces so that the threads' partial lines are in flight at the same time.
void logFromThreads(int thread_count, int records) {
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < thread_count; t++) {
        threads.emplace_back([&ready, thread_count, records, t] {
            ready++;
            while (ready < thread_count)
                sched_yield();
            for (int r = 0; r < records; r++) {
                std::printf("T%d:", t);
                for (int piece = 0; piece < 10; piece++) {
                    std::printf("%d", piece);
                    sched_yield();
                }
                std::printf("\n");
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
}

void makeDevice() {
    int fd = open(std::getenv("LOGMSG_TEST_DEVICE"), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0)
        close(fd);
}

// Calls probe_shared_say from a library loaded at run time, which reaches the
// logging library only through what the program exports.
void sayFromLoadedLibrary(const char* path, int n) {
    void* library = dlopen(path, RTLD_NOW);
    void* say = library != nullptr ? dlsym(library, "probe_shared_say") : nullptr;
    if (say == nullptr) {
        std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
        std::exit(3);
    }
    reinterpret_cast<void (*)(int)>(say)(n);
}

void showStrlcpy(const char* src, int size) {
    char dst[16];
    std::memset(dst, 'X', sizeof dst - 1);
    dst[sizeof dst - 1] = '\0';
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
    {"init", 1, [](char** a) { logmsg_init(0, nullable(a[0])); }},
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
    {"mkdev", 0, [](char**) { makeDevice(); }},
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
    {"failalloc", 0,
     [](char**) {
         if (!probe_fail_line_alloc())
             std::exit(77);  // not available in this build
     }},
};

const Command* findCommand(const char* name) {
    for (const Command& command : kCommands) {
        if (std::strcmp(command.name, name) == 0)
            return &command;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc;) {
        const Command* command = findCommand(argv[i]);
        if (command == nullptr || i + command->arity >= argc) {
            std::fprintf(stderr, "logmsg_probe: unknown or incomplete command \"%s\"\n", argv[i]);
            return 2;
        }
        command->run(argv + i + 1);
        i += 1 + command->arity;
    }
    return 0;
}

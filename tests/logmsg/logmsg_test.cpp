// The logging library replaces printf for the whole process, so it is never linked
// into this runner: each case starts logmsg_probe with a list of library calls and
// compares the exact bytes of its device file, standard output and standard error.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Steps = std::vector<std::string>;

enum class Device { kPresent, kAbsent };

struct ProbeRun {
    bool device_exists = false;
    std::string device;
    std::string out;
    std::string err;
    int status = -1;  // exit code, or 128 + signal
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// The library names the application after argv[0] as /proc shows it; the real
// path of the probe is too long for a name, so tests choose what it shows.
const char kProbeArgv0[] = "/probes/logmsg_probe";

ProbeRun runProbe(const Steps& steps, Device device = Device::kPresent,
                  const char* argv0 = kProbeArgv0) {
    char dir_template[] = "/tmp/logmsg-test-XXXXXX";
    const std::string dir = mkdtemp(dir_template);
    const std::string device_path = dir + "/vesklog";
    const std::string out_path = dir + "/out";
    const std::string err_path = dir + "/err";
    if (device == Device::kPresent)
        std::ofstream(device_path).close();

    std::vector<char*> argv{const_cast<char*>(argv0)};
    for (const std::string& step : steps)
        argv.push_back(const_cast<char*>(step.c_str()));
    argv.push_back(nullptr);
    const std::string device_env = "LOGMSG_TEST_DEVICE=" + device_path;
    const std::string leak_env = "LSAN_OPTIONS=suppressions=" LOGMSG_LSAN_SUPPRESSIONS;
    std::vector<char*> envp{const_cast<char*>(device_env.c_str()),
                            const_cast<char*>(leak_env.c_str())};
    for (char** var = environ; *var != nullptr; var++) {
        if (std::strncmp(*var, "LOGMSG_TEST_DEVICE=", 19) != 0 &&
            std::strncmp(*var, "LSAN_OPTIONS=", 13) != 0) {
            envp.push_back(*var);
        }
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT, 0600);
    pid_t pid = -1;
    ProbeRun run;
    if (posix_spawn(&pid, LOGMSG_PROBE_PATH, &actions, nullptr, argv.data(), envp.data()) == 0) {
        int wait_status = 0;
        waitpid(pid, &wait_status, 0);
        run.status =
            WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    }
    posix_spawn_file_actions_destroy(&actions);

    run.device_exists = std::filesystem::exists(device_path);
    run.device = readFile(device_path);
    run.out = readFile(out_path);
    run.err = readFile(err_path);
    std::filesystem::remove_all(dir);
    return run;
}

// The probe's report of the results of its calls.
std::string rets(std::initializer_list<int> results) {
    std::string text;
    for (int result : results)
        text += "ret " + std::to_string(result) + "\n";
    return text;
}

Steps initSetvane(Steps steps) {
    steps.insert(steps.begin(), {"init", "setvane"});
    return steps;
}

struct Case {
    const char* title;
    Steps steps;
    std::string device;
    std::string err;
    std::string out = "";
};

void expectCases(const std::vector<Case>& cases, Device device = Device::kPresent) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.title);
        ProbeRun run = runProbe(initSetvane(c.steps), device);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.device, c.device);
        EXPECT_EQ(run.err, c.err);
        EXPECT_EQ(run.out, c.out);
    }
}

TEST(LogmsgRecord, AssemblesHeadersAndLines) {
    expectCases({
        {"error with null module", {"err", "-", "x=%d\n", "i:5"}, "<3>setvane: x=5", rets({15})},
        {"partial lines join under the first call's header",
         {"printf", "a", "-", "printf", "b%d", "i:1", "printf", "c\n", "-"},
         "<7>setvane: ab1c",
         rets({13, 15, 16})},
        {"continued line keeps first level and module",
         {"err", "mod", "a", "-", "printf", "b\n", "-"},
         "<3>setvane: mod: ab",
         rets({18, 19})},
        {"newline from an argument completes nothing",
         {"printf", "%s", "s:x\n", "printf", "y\n", "-"},
         "<7>setvane: x\ny",
         rets({14, 15})},
        {"lone newline with nothing pending is dropped", {"printf", "\n", "-"}, "", rets({0})},
        {"lone newline completes a pending line",
         {"printf", "abc", "-", "printf", "\n", "-"},
         "<7>setvane: abc",
         rets({15, 15})},
        {"newline inside the format completes",
         {"printf", "a\nb", "-"},
         "<7>setvane: a\nb",
         rets({15})},
        {"carriage return before newline is trimmed",
         {"err", "-", "x\r\n", "-"},
         "<3>setvane: x",
         rets({13})},
        {"raw records have no header", {"raw", "plain %d\n", "i:7"}, "plain 7", rets({7})},
        {"module in the header",
         {"log", "6", "net", "up\n", "-"},
         "<6>setvane: net: up",
         rets({19})},
        {"null format logs nothing", {"log", "3", "-", "-", "-"}, "", rets({0})},
        {"device switch off writes nothing",
         {"device", "0", "err", "-", "x\n", "-"},
         "",
         rets({13})},
    });
}

TEST(LogmsgRecord, NormalisesLevels) {
    const std::vector<std::pair<Steps, std::string>> calls = {
        {{"log", "9", "-", "m\n", "-"}, "<7>"},
        {{"log", "-1", "-", "m\n", "-"}, "<7>"},
        {{"log", "8", "-", "m\n", "-"}, "<7>"},
        {{"log", "100", "-", "m\n", "-"}, "<7>"},
        {{"log", "101", "-", "m\n", "-"}, ""},
        {{"log", "0", "-", "m\n", "-"}, "<0>"},
        {{"log", "5", "-", "m\n", "-"}, "<5>"},
        {{"crit", "-", "m\n", "-"}, "<2>"},
        {{"err", "-", "m\n", "-"}, "<3>"},
        {{"warn", "-", "m\n", "-"}, "<4>"},
        {{"info", "-", "m\n", "-"}, "<6>"},
        {{"debug", "-", "m\n", "-"}, "<7>"},
        {{"print", "m\n", "-"}, "<7>"},
        {{"printf", "m\n", "-"}, "<7>"},
        {{"raw", "m\n", "-"}, ""},
    };
    for (const auto& [steps, level] : calls) {
        SCOPED_TRACE(steps[0] + " " + steps[1]);
        const std::string name = level.empty() ? "" : "setvane: ";
        EXPECT_EQ(runProbe(initSetvane(steps)).device, level + name + "m");
    }
}

TEST(LogmsgRecord, CutsAtLineBufferSize) {
    const std::string header = "<7>setvane: ";
    const size_t room = 2047 - header.size();  // characters that fit with the terminator
    const std::string cut = header + std::string(room, 'x') + '\0';
    expectCases({
        {"fits exactly",
         {"printf", "%s\n", "s:" + std::string(room - 1, 'x')},
         header + std::string(room - 1, 'x'),
         rets({2046})},
        {"one more loses the newline and keeps the terminator",
         {"printf", "%s\n", "s:" + std::string(room, 'x')},
         cut,
         rets({2048})},
        {"partial line cut, then completed",
         {"printf", "%s", "s:" + std::string(2100, 'x'), "printf", "y\n", "-"},
         cut,
         rets({2048, 2048})},
    });
}

TEST(LogmsgInit, NamesTheApplication) {
    const char kLongPath[] = "/a-rather-long-install-directory/bin/logmsg_probe";
    const std::string kCutAtSlash = "/" + std::string(37, 'd') + "/logmsg_probe";
    const std::string kNoName = "shouldn't happen: could not get app name\n";
    const std::vector<std::tuple<std::string, const char*, std::string, std::string>> names = {
        {std::string(45, 'n'), kProbeArgv0, "<3>" + std::string(39, 'n') + ": x", ""},
        {"-", kProbeArgv0, "<3>logmsg_probe: x", ""},
        {"", kProbeArgv0, "<3>logmsg_probe: x", ""},
        {"-", "logmsg_probe", "<3>logmsg_probe: x", ""},
        // The path is cut to the name buffer before its last "/" is looked for.
        {"-", kLongPath, "<3>lo: x", ""},
        {"-", kCutAtSlash.c_str(), "<3>: x", kNoName},
    };
    for (const auto& [name, argv0, device, err] : names) {
        SCOPED_TRACE("name [" + name + "] argv0 " + argv0);
        ProbeRun run = runProbe({"init", name, "err", "-", "x\n", "-"}, Device::kPresent, argv0);
        EXPECT_EQ(run.device, device);
        EXPECT_EQ(run.err, err + rets({static_cast<int>(device.size())}));
    }
}

TEST(LogmsgInit, ComplainsWhenLoggingBeforeInit) {
    const std::string complaint =
        "logmsg_probe: va_logmsg: You should call logmsg_init() before any logging functions "
        "(including printf())\n";
    ProbeRun run = runProbe({"printf", "x\n", "-", "err", "m", "y", "-"});
    EXPECT_EQ(run.err, complaint + "ret 0\n" + complaint + "ret 0\n");
    EXPECT_EQ(run.device, "");
    EXPECT_EQ(run.out, "");
}

TEST(LogmsgSink, PrintsOnStdoutWhileDeviceIsAbsent) {
    expectCases(
        {
            {"headed records read DEBUG whatever their level",
             {"warn", "-", "w\n", "-"},
             "",
             rets({13}),
             "DEBUG  setvane: w\n"},
            {"raw records print as they are", {"raw", "r\n", "-"}, "", rets({1}), "r\n"},
            {"switching the device off keeps the fallback",
             {"device", "0", "err", "-", "e\n", "-"},
             "",
             rets({13}),
             "DEBUG  setvane: e\n"},
            {"label table by character code minus 2",
             {"sink", "<\x02>a\n", "4", "sink", "<\x03>b\n", "4", "sink", "<\x04>c\n", "4",
              "sink", "<\x05>d\n", "4", "sink", "<\x06>e\n", "4", "sink", "<\x07>f\n", "4",
              "sink", "<\x01>g\n", "4"},
             "",
             "",
             "CRIT   a\nERROR  b\nWARN   c\nDEBUG  d\nINFO   e\nDEBUG  f\nDEBUG  g\n"},
            {"records without a full header print as they are",
             {"sink", "<3x y\n", "5", "sink", "<", "1"},
             "",
             "",
             "<3x y\n<"},
        },
        Device::kAbsent);
}

TEST(LogmsgSink, RecoversWhenTheDeviceAppears) {
    ProbeRun run = runProbe(initSetvane({"warn", "-", "one\n", "-", "mkdev", "warn", "-", "two\n",
                                         "-", "warn", "-", "three\n", "-"}),
                            Device::kAbsent);
    EXPECT_EQ(run.out, "DEBUG  setvane: one\n");
    EXPECT_EQ(run.device, "<4>setvane: two<4>setvane: three");
}

Steps fillTable(const std::string& add, int count) {
    Steps steps;
    for (int i = 0; i < count; i++) {
        steps.push_back(add);
        steps.push_back("f" + std::to_string(i));
    }
    return steps;
}

std::string retZeros(int count) {
    std::string text;
    for (int i = 0; i < count; i++)
        text += rets({0});
    return text;
}

TEST(LogmsgFilter, FiltersRecords) {
    expectCases({
        {"show table full at the 11th", fillTable("show+", 11), "", retZeros(10) + rets({-1}),
         "\"f10\" show filter not added, table full\n"},
        {"show matching is case-sensitive",
         {"show+", "ERROR", "err", "-", "error here\n", "-", "err", "-", "ERROR here\n", "-"},
         "<3>setvane: ERROR here",
         rets({0, 23, 22})},
        {"show filters see the header",
         {"show+", "setvane", "info", "-", "x\n", "-"},
         "<6>setvane: x",
         rets({0, 13})},
        {"removal ignores case",
         {"show+", "setvane", "show-", "Setvane", "show?"},
         "",
         rets({0, 0, 0}),
         "show filters:\n"},
        {"removing * from an empty table leaves the count at 0",
         {"show-", "*", "show+", "abc", "err", "-", "xyz\n", "-", "err", "-", "abc\n", "-"},
         "<3>setvane: abc",
         rets({0, 0, 16, 15})},
        {"removing * clears the count of an empty filter",
         {"show+", "", "err", "-", "a\n", "-", "show-", "*", "err", "-", "b\n", "-"},
         "<3>setvane: b",
         rets({0, 14, 0, 13})},
        {"removing an empty filter lowers the count and removes nothing",
         {"show+", "abc", "show-", "", "err", "-", "xyz\n", "-", "show?"},
         "<3>setvane: xyz",
         rets({0, 0, 15, 0}),
         "show filters:\n  \"abc\"\n"},
        {"removing an unknown filter",
         {"show-", "nope", "cull-", "nope"},
         "",
         rets({0, 0}),
         "\"nope\" show filter not found\n\"nope\" cull filter not found\n"},
        {"cull matching is case-sensitive",
         {"cull+", "secret", "err", "-", "a secret\n", "-", "err", "-", "a SECRET\n", "-"},
         "<3>setvane: a SECRET",
         rets({0, 21, 20})},
        {"show and cull together",
         {"show+", "net", "cull+", "debug", "err", "-", "net up\n", "-", "err", "-", "net debug\n",
          "-", "err", "-", "disk\n", "-"},
         "<3>setvane: net up",
         rets({0, 0, 18, 22, 17})},
        {"listing follows the slots, and adding takes the first free one",
         {"show+", "a", "show+", "b", "show+", "c", "show-", "B", "show?", "show+", "d", "show?"},
         "",
         rets({0, 0, 0, 0, 0, 0, 0}),
         "show filters:\n  \"a\"\n  \"c\"\nshow filters:\n  \"a\"\n  \"d\"\n  \"c\"\n"},
        {"slots by index",
         {"cull+", "a", "cullget", "0", "cullget", "1", "cullget", "-1", "cullget", "10", "showget",
          "0"},
         "",
         rets({0}) + "[a]\n[]\n[]\n[]\n[]\n"},
        {"filters are cut to a slot",
         {"show+", std::string(400, 'y'), "showget", "0"},
         "",
         rets({0}) + "[" + std::string(369, 'y') + "]\n"},
    });
}

TEST(LogmsgStrlcpy, CopiesBoundedAndReturnsSourceLength) {
    const std::vector<std::tuple<std::string, std::string, std::string>> copies = {
        {"hello", "16", "ret 5 dst hello\n"},
        {"hello", "5", "ret 5 dst hell\n"},
        {"hello", "1", "ret 5 dst \n"},
        {"hello", "0", "ret 5 dst XXXXXXXXXXXXXXX\n"},
        {"", "8", "ret 0 dst \n"},
    };
    for (const auto& [src, size, expected] : copies) {
        SCOPED_TRACE(src + " into " + size);
        EXPECT_EQ(runProbe({"strlcpy", src, size}).err, expected);
    }
}

TEST(LogmsgThreads, PartialLinesOfThreadsNeverMix) {
    const int kThreads = 4;
    const int kRecords = 300;
    ProbeRun run =
        runProbe(initSetvane({"threads", std::to_string(kThreads), std::to_string(kRecords)}));
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    // Device records carry no separator; each starts with its header.
    const std::string header = "<7>setvane: ";
    std::map<std::string, int> records;
    size_t at = 0;
    while (at < run.device.size()) {
        ASSERT_EQ(run.device.compare(at, header.size(), header), 0) << "at byte " << at;
        size_t next = run.device.find(header, at + header.size());
        if (next == std::string::npos)
            next = run.device.size();
        records[run.device.substr(at + header.size(), next - at - header.size())]++;
        at = next;
    }
    std::map<std::string, int> expected;
    for (int t = 0; t < kThreads; t++)
        expected["T" + std::to_string(t) + ":0123456789"] = kRecords;
    EXPECT_EQ(records, expected);
}

TEST(LogmsgPrintf, LoadedLibrariesLogThroughIt) {
    ProbeRun run = runProbe(initSetvane({"dlopen", LOGMSG_LOADABLE_PATH, "43"}));
    EXPECT_EQ(run.device, "<7>setvane: shared- 43");
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST(LogmsgAbort, MissingLineBufferAbortsWithItsAssertion) {
    ProbeRun run =
        runProbe(initSetvane({"failalloc", "printf", "ok\n", "-", "printf", "pending", "-"}));
    if (run.status == 77)
        GTEST_SKIP() << "allocation failures cannot be injected in this build";
    EXPECT_EQ(run.status, 128 + SIGABRT);
    EXPECT_EQ(run.device, "<7>setvane: ok");  // completed lines need no thread buffer
    EXPECT_EQ(run.err,
              "ret 14\n"
              "logmsg_probe: logmsg.c:881: int va_logmsg(va_list, int, const char *, const char "
              "*): Assertion `pCurLine' failed.\n");
}

}  // namespace

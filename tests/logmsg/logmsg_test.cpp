// logmsg replaces printf for the whole process, so this runner never links it: each case runs
// logmsg_probe with a list of library calls and compares the exact bytes it left in its device
// file, on standard output and on standard error. The cases are in logmsg_cases.txt.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace {

struct ProbeRun {
    std::string device, out, err;
    int status;  // exit code, or 128 + signal
};

std::string readFile(const std::string& path) {
    return std::string(std::istreambuf_iterator<char>(std::ifstream(path).rdbuf()), {});
}

// The library names the application after the probe's path as /proc shows it; the real path is
// too long for a name, so each case says what it shows.
ProbeRun runProbe(std::vector<std::string> args, bool device = true,
                  std::string argv0 = "/probes/logmsg_probe") {
    char dir_template[] = "/tmp/logmsg-test-XXXXXX";
    const std::string dir = mkdtemp(dir_template), out = dir + "/out", err = dir + "/err";
    setenv("LOGMSG_PROBE_DEVICE", (dir + "/vesklog").c_str(), 1);
    setenv("LSAN_OPTIONS", "suppressions=" LOGMSG_LSAN_SUPPRESSIONS, 1);
    if (device)
        std::ofstream(dir + "/vesklog").close();
    std::vector<char*> argv{argv0.data()};
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_RDONLY), 0);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0600), 1);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0600), 2);
        execv(LOGMSG_PROBE_PATH, argv.data());
        _exit(126);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ProbeRun run{readFile(dir + "/vesklog"), readFile(out), readFile(err),
                 WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
    std::filesystem::remove_all(dir);
    return run;
}

// A case of the file: the probe's arguments, and each other key's words joined.
struct Case {
    std::string name;
    std::vector<std::string> args;
    std::map<std::string, std::string> fields;
};

// The words of a line of the case file, split at spaces outside double quotes, with the escapes
// \n \r \xHH and \*Nc (N times c); a backslash keeps any other character as it is.
std::vector<std::string> splitWords(const std::string& line) {
    std::vector<std::string> words;
    bool inWord = false, quoted = false;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == ' ' && !quoted) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back(), inWord = true;
        const char escaped = line[i] == '\\' ? line[++i] : 0;
        if (escaped == 'x' || escaped == '*') {
            size_t used = 0;
            const bool hex = escaped == 'x';
            const int n = std::stoi(line.substr(i + 1, hex ? 2 : 9), &used, hex ? 16 : 10);
            i += used + !hex;
            words.back().append(hex ? 1 : n, hex ? static_cast<char>(n) : line[i]);
        } else if (line[i] == '"' && !escaped) {
            quoted = !quoted;
        } else {
            words.back() += escaped == 'n' ? '\n' : escaped == 'r' ? '\r' : line[i];
        }
    }
    return words;
}

std::vector<Case> loadCases() {
    std::vector<Case> cases;
    std::ifstream in(LOGMSG_CASES_PATH);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> words = splitWords(line[0] == '#' ? "" : line);
        if (words.empty())
            continue;
        std::string key = words[0], joined;
        words.erase(words.begin());
        for (const std::string& word : words)
            joined += word;
        if (key == "case")
            cases.push_back({joined, {}, {}});
        else if (cases.empty() || !std::strstr(" run argv0 nodevice status device out err ",
                                               (" " + key + " ").c_str()))
            cases.push_back({"Unreadable", {}, {{"problem", line}}});
        else if (key == "run")
            cases.back().args.insert(cases.back().args.end(), words.begin(), words.end());
        else
            cases.back().fields[key] += joined;
    }
    return cases;
}

void PrintTo(const Case& c, std::ostream* os) {
    *os << c.name;
}

class Logmsg : public ::testing::TestWithParam<Case> {};

TEST_P(Logmsg, WritesExactlyTheseBytes) {
    Case c = GetParam();
    std::replace(c.args.begin(), c.args.end(), std::string("@loadable"),
                 std::string(LOGMSG_LOADABLE_PATH));
    ASSERT_EQ(c.fields["problem"], "") << "in " << LOGMSG_CASES_PATH;
    const std::string argv0 = c.fields["argv0"];
    ProbeRun run = runProbe(c.args, !c.fields.count("nodevice"),
                            argv0.empty() ? "/probes/logmsg_probe" : argv0);
    if (run.status == 77)
        GTEST_SKIP() << "the probe cannot do this in this build";
    EXPECT_EQ(run.status, std::atoi(c.fields["status"].c_str()));
    EXPECT_EQ(run.device, c.fields["device"]);
    EXPECT_EQ(run.out, c.fields["out"]);
    EXPECT_EQ(run.err, c.fields["err"]);
}

INSTANTIATE_TEST_SUITE_P(Case, Logmsg, ::testing::ValuesIn(loadCases()),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return info.param.name;
                         });

// Records of equal length, so that each starts at a multiple of it.
TEST(LogmsgThreads, PartialLinesOfThreadsNeverMix) {
    const int kThreads = 4, kRecords = 300;
    const ProbeRun run = runProbe(
        {"init", "setvane", "threads", std::to_string(kThreads), std::to_string(kRecords)});
    ASSERT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    const size_t length = std::string("<7>setvane: T0:0123456789").size();
    ASSERT_EQ(run.device.size(), length * kThreads * kRecords);
    std::map<std::string, int> records, expected;
    for (size_t at = 0; at < run.device.size(); at += length)
        records[run.device.substr(at, length)]++;
    for (int t = 0; t < kThreads; t++)
        expected["<7>setvane: T" + std::to_string(t) + ":0123456789"] = kRecords;
    EXPECT_EQ(records, expected);
}

}  // namespace

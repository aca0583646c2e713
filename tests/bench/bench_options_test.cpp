// The benchmarks' command line: what it takes, and what it refuses rather than clamps, so that a
// figure printed was measured as asked.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bench_options.h"

namespace {

struct Settings {
    int rounds = 5;
    double seconds = 0.5;
    std::string dir = "default";
    bool check = false;
};

struct Case {
    std::vector<const char*> words;
    const char* problem;  // "" when the words are good
    Settings expected;
};

servicebench::BenchOptions declared(Settings* settings) {
    servicebench::BenchOptions options("bench");
    options.add("--rounds", "N", &settings->rounds, 1);
    options.add("--seconds", "S", &settings->seconds, 0.1);
    options.add("--dir", "DIR", &settings->dir);
    options.addFlag("--check", &settings->check);
    return options;
}

TEST(BenchOptions, TakesDeclaredOptionsAndRefusesEverythingElse) {
    const Case cases[] = {
        {{}, "", {}},
        {{"--rounds", "11", "--seconds", "1.5", "--dir", "/d", "--check"},
         "",
         {11, 1.5, "/d", true}},
        {{"--rounds", "1", "--rounds", "3"}, "", {3, 0.5, "default", false}},
        {{"--rounds", "0"}, "--rounds takes at least 1, not 0", {}},
        {{"--seconds", "0.05"}, "--seconds takes at least 0.1, not 0.05", {}},
        {{"--rounds", "2x"}, "--rounds takes a number, not '2x'", {}},
        {{"--rounds", "1.5"}, "--rounds takes a number, not '1.5'", {}},
        {{"--rounds", ""}, "--rounds takes a number, not ''", {}},
        {{"--rounds", "2000000000"}, "--rounds takes at most 1000000000, not 2000000000", {}},
        {{"--rounds", "99999999999999999999"},
         "--rounds takes a number, not '99999999999999999999'",
         {}},
        {{"--seconds", "nan"}, "--seconds takes a number, not 'nan'", {}},
        {{"--rounds"}, "--rounds needs a value", {}},
        {{"--repeats", "3"}, "unknown option '--repeats'", {}},
        {{"5"}, "unknown option '5'", {}},
    };
    for (const Case& c : cases) {
        std::vector<char*> argv{const_cast<char*>("bench")};
        std::string words;
        for (const char* word : c.words) {
            argv.push_back(const_cast<char*>(word));
            words += std::string(" ") + word;
        }
        SCOPED_TRACE(words);
        Settings settings;
        const servicebench::BenchOptions options = declared(&settings);
        std::string problem;
        const bool parsed = options.parse(static_cast<int>(argv.size()), argv.data(), &problem);
        EXPECT_EQ(problem, c.problem);
        EXPECT_EQ(parsed, problem.empty());
        if (parsed) {
            EXPECT_EQ(settings.rounds, c.expected.rounds);
            EXPECT_EQ(settings.seconds, c.expected.seconds);
            EXPECT_EQ(settings.dir, c.expected.dir);
            EXPECT_EQ(settings.check, c.expected.check);
        }
    }
}

TEST(BenchOptions, UsageListsTheOptionsInOrder) {
    Settings settings;
    EXPECT_EQ(declared(&settings).usage(),
              "usage: bench [--rounds N] [--seconds S] [--dir DIR] [--check]");
}

}  // namespace

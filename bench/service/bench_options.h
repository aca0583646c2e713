// BenchOptions: the command line of the configsrvc benchmarks, "--name VALUE" options and
// flags, each stored straight into the benchmark's own settings.
//
// A benchmark declares its options with their settings' defaults already in place, then parses.
// Parsing refuses an option it was not told of, a missing value, a number that does not parse
// whole and one below its least value, and says which in *problem; it never clamps a value
// silently, so that a figure printed was measured as asked. Targets must outlive the parser.
#ifndef BENCH_SERVICE_BENCH_OPTIONS_H
#define BENCH_SERVICE_BENCH_OPTIONS_H

#include <string>
#include <utility>
#include <vector>

namespace servicebench {

class BenchOptions {
  public:
    explicit BenchOptions(std::string program) : program_(std::move(program)) {}
    virtual ~BenchOptions() = default;

    // "--name N": a whole number of at least `least`.
    void add(const char* name, const char* meta, int* target, int least);
    // "--name X": a number of at least `least`.
    void add(const char* name, const char* meta, double* target, double least);
    // "--name TEXT".
    void add(const char* name, const char* meta, std::string* target);
    // "--name", which sets *target.
    void addFlag(const char* name, bool* target);

    // Whether argv[1..] holds only declared options with good values; *problem says what is
    // wrong otherwise.
    bool parse(int argc, char** argv, std::string* problem) const;
    // "usage: PROGRAM [--name META]...".
    std::string usage() const;

    // parse(), and on failure the problem and the usage on standard error: false then.
    bool parseOrExplain(int argc, char** argv) const;

  private:
    enum class Kind { kInt, kDouble, kText, kFlag };
    struct Option {
        std::string name;
        std::string meta;
        Kind kind;
        void* target;
        double least;
    };

    bool store(const Option& option, const std::string& value, std::string* problem) const;

    std::string program_;
    std::vector<Option> options_;
};

}  // namespace servicebench

#endif  // BENCH_SERVICE_BENCH_OPTIONS_H

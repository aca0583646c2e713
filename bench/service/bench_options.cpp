#include "bench_options.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace servicebench {

namespace {

constexpr double kMostInt = 1e9;  // whole numbers beyond this are typing errors, not settings

std::string shortNumber(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", number);
    return text;
}

}  // namespace

void BenchOptions::add(const char* name, const char* meta, int* target, int least) {
    options_.push_back({name, meta, Kind::kInt, target, static_cast<double>(least)});
}

void BenchOptions::add(const char* name, const char* meta, double* target, double least) {
    options_.push_back({name, meta, Kind::kDouble, target, least});
}

void BenchOptions::add(const char* name, const char* meta, std::string* target) {
    options_.push_back({name, meta, Kind::kText, target, 0});
}

void BenchOptions::addFlag(const char* name, bool* target) {
    options_.push_back({name, "", Kind::kFlag, target, 0});
}

bool BenchOptions::store(const Option& option, const std::string& value,
                         std::string* problem) const {
    if (option.kind == Kind::kText) {
        *static_cast<std::string*>(option.target) = value;
        return true;
    }
    errno = 0;
    char* end = nullptr;
    const double number = option.kind == Kind::kInt
                              ? static_cast<double>(std::strtol(value.c_str(), &end, 10))
                              : std::strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(number)) {
        *problem = option.name + " takes a number, not '" + value + "'";
        return false;
    }
    if (number < option.least) {
        *problem = option.name + " takes at least " + shortNumber(option.least) + ", not " + value;
        return false;
    }
    if (option.kind == Kind::kInt && number > kMostInt) {
        *problem = option.name + " takes at most " + shortNumber(kMostInt) + ", not " + value;
        return false;
    }
    if (option.kind == Kind::kInt) {
        *static_cast<int*>(option.target) = static_cast<int>(number);
    } else {
        *static_cast<double*>(option.target) = number;
    }
    return true;
}

bool BenchOptions::parse(int argc, char** argv, std::string* problem) const {
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const Option* found = nullptr;
        for (const Option& option : options_) {
            found = option.name == word ? &option : found;
        }
        if (found == nullptr) {
            *problem = "unknown option '" + word + "'";
            return false;
        }
        if (found->kind == Kind::kFlag) {
            *static_cast<bool*>(found->target) = true;
            continue;
        }
        if (i + 1 >= argc) {
            *problem = word + " needs a value";
            return false;
        }
        if (!store(*found, argv[++i], problem)) {
            return false;
        }
    }
    return true;
}

std::string BenchOptions::usage() const {
    std::string text = "usage: " + program_;
    for (const Option& option : options_) {
        text += " [" + option.name + (option.meta.empty() ? "" : " " + option.meta) + "]";
    }
    return text;
}

bool BenchOptions::parseOrExplain(int argc, char** argv) const {
    std::string problem;
    if (parse(argc, argv, &problem)) {
        return true;
    }
    std::fprintf(stderr, "%s: %s\n%s\n", program_.c_str(), problem.c_str(), usage().c_str());
    return false;
}

}  // namespace servicebench

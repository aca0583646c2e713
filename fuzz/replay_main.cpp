// Runs a fuzz target once on each file named on the command line, or on every file of each
// directory named. Exits 0 when every input ran; a broken invariant aborts inside the target.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "FuzzTarget.h"

namespace {

bool readFile(const std::string& path, std::vector<uint8_t>* bytes) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    uint8_t buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        bytes->insert(bytes->end(), buffer, buffer + got);
    }
    const bool ok = std::ferror(file) == 0;
    std::fclose(file);
    return ok;
}

bool runFile(const std::string& path) {
    std::vector<uint8_t> bytes;
    if (!readFile(path, &bytes)) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

bool runPath(const std::string& path, int* count) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        std::fprintf(stderr, "cannot find %s\n", path.c_str());
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        ++*count;
        return runFile(path);
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return false;
    }
    bool ok = true;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ok = runPath(path + "/" + entry->d_name, count) && ok;
        }
    }
    closedir(dir);
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    bool ok = true;
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        ok = runPath(argv[i], &count) && ok;
    }
    std::printf("%d inputs run\n", count);
    return ok && count > 0 ? 0 : 1;
}

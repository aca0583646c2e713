// A folder under /tmp for one test, removed with everything in it when the test ends.
#ifndef CONFIGSRVC_TESTS_TEMP_FOLDER_H
#define CONFIGSRVC_TESTS_TEMP_FOLDER_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempFolder {
  public:
    TempFolder() {
        char pattern[] = "/tmp/configsrvc-test-XXXXXX";
        path_ = mkdtemp(pattern) ? pattern : "";
    }
    virtual ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeWholeFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

#endif  // CONFIGSRVC_TESTS_TEMP_FOLDER_H

#include "TempDir.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

namespace testsupport {

TempDir::TempDir(const std::string& purpose) {
    std::string pattern = "/tmp/" + purpose + "-XXXXXX";
    if (mkdtemp(pattern.data()) != nullptr) {
        path = pattern;
    }
}

TempDir::~TempDir() {
    if (!path.empty()) {
        std::error_code ignored;  // nothing useful to do about a folder that will not go
        std::filesystem::remove_all(path, ignored);
    }
}

std::string readFile(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return fd < 0 ? std::string() : drain(fd);
}

std::string drain(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

bool writeFile(const std::string& path, const std::string& content) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const bool written =
        write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    return close(fd) == 0 && written;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::vector<std::string> split(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    for (size_t begin = 0, end = 0; !text.empty() && end != std::string::npos;
         begin = end + separator.size()) {
        end = text.find(separator, begin);
        pieces.push_back(text.substr(begin, end - begin));
    }
    return pieces;
}

}  // namespace testsupport

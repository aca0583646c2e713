// Files for tests: a fresh folder that goes away with its contents, and whole-file reads and
// writes that report failure instead of hiding it.
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <string>
#include <vector>

namespace testsupport {

// A fresh folder under /tmp (mode 0700 unless chmod'ed), removed with everything below it when
// the object goes. `path` is empty when it could not be made; tests then fail on first use.
class TempDir {
  public:
    explicit TempDir(const std::string& purpose = "test");
    virtual ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // The path of `name` inside the folder (the file need not exist).
    std::string file(const std::string& name) const { return path + "/" + name; }

    std::string path;
};

// The whole content of `path`; "" when it cannot be read (a test that expects content fails).
std::string readFile(const std::string& path);
// Everything left to read from the descriptor `fd`, which is then closed.
std::string drain(int fd);
// Writes `content` to `path`, replacing it; false when that fails.
bool writeFile(const std::string& path, const std::string& content);
// `text` with every `from` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);
// The pieces of `text` between the separators; none for an empty text.
std::vector<std::string> split(const std::string& text, const std::string& separator);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_TEMPDIR_H

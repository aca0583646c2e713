#include "ProcessCmdline.h"

#include <cstdio>

namespace {

void dropOneTrailingSpace(std::string& text) {
    if (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
}

}  // namespace

std::string getProcessCmdline(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    std::string cmdline;
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return cmdline;
    }
    for (;;) {
        const int c = std::getc(file);
        if (c == EOF) {
            // The end of the file counts as one more separator, like the NUL after each word.
            cmdline.push_back(' ');
            break;
        }
        cmdline.push_back(c == '\0' ? ' ' : static_cast<char>(c));
    }
    std::fclose(file);
    // One trim for the last word's NUL, one for the end of the file.
    dropOneTrailingSpace(cmdline);
    dropOneTrailingSpace(cmdline);
    return cmdline;
}

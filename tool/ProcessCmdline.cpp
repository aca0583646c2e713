#include "ProcessCmdline.h"

#include <unistd.h>

#include <cstdio>

#include "logmsg.h"

namespace {

void dropOneTrailingSpace(std::string& text) {
    if (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
}

}  // namespace

std::string getProcessCmdline(pid_t pid) {
    std::string cmdline;
    const int fd = logmsg_open_cmdline(std::to_string(pid).c_str());
    std::FILE* file = fd >= 0 ? fdopen(fd, "r") : nullptr;
    if (file == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
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

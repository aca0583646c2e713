// Feeds its standard input into the LogStream, as setvane's own code does with its error lines,
// in a program linked with the test build of the system-log mirroring.
//
// After each line it advances the first character of its first argument (if any), so that the
// next line is logged under a changed command line.
#include <cstdio>

#include "LogStream.h"

int main(int argc, char** argv) {
    LogStream& log = LogStream::instance();
    int c;
    while ((c = std::getchar()) != EOF) {
        log << static_cast<char>(c);
        if (c == '\n' && argc > 1 && argv[1][0] != '\0') {
            ++argv[1][0];
        }
    }
    return 0;
}

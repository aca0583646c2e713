// The command line of a running process, as one string, read from /proc.
#ifndef SETVANE_TOOL_PROCESSCMDLINE_H
#define SETVANE_TOOL_PROCESSCMDLINE_H

#include <sys/types.h>

#include <string>

// The words of `pid`'s command line separated by single spaces ("setvane -r x"), or "" when
// /proc/<pid>/cmdline cannot be opened. Every NUL byte of the file becomes a space, and so does
// the end of the file; then at most two trailing spaces are removed, which drops exactly those
// two. A command line that ends in empty words therefore keeps their spaces beyond the first.
std::string getProcessCmdline(pid_t pid);

#endif  // SETVANE_TOOL_PROCESSCMDLINE_H

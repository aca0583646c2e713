/* logmsg helpers that stand on their own: the program name and strlcpy. */
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "logmsg.h"

char* logmsg_app_name_from_proc(char* buffer, int size) {
    if (buffer == NULL || size <= 0) {
        return buffer;
    }
    memset(buffer, 0, (size_t)size);
    char pid[24];
    snprintf(pid, sizeof pid, "%d", (int)getpid());
    int fd = logmsg_open_cmdline(pid);
    if (fd < 0) {
        return buffer;
    }
    ssize_t got = read(fd, buffer, (size_t)size - 1);
    close(fd);
    if (got <= 0) {
        return buffer;
    }
    // The buffer was zeroed, so the first word (the program path) is terminated.
    const char* slash = strrchr(buffer, '/');
    if (slash != NULL) {
        char base[80];
        strlcpy(base, slash + 1, sizeof base);
        strlcpy(buffer, base, (size_t)size);
    }
    return buffer;
}

int logmsg_open_cmdline(const char* process) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "/proc/%s/cmdline", process);
    if (length < 0 || (size_t)length >= sizeof path) {
        return -1;
    }
    return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

size_t strlcpy(char* dst, const char* src, size_t size) {
    size_t length = strlen(src);
    if (size != 0) {
        size_t copied = length < size - 1 ? length : size - 1;
        memcpy(dst, src, copied);
        dst[copied] = '\0';
    }
    return length;
}

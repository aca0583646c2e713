/* Lets the probe make the allocation of a thread's line buffer fail: malloc is
 * replaced by one that forwards to the C library's allocator, except for
 * line-buffer-sized requests once failing is switched on. Not built with
 * sanitizers, which bring their own allocator. */
#include <stddef.h>

#include "logmsg.h"

extern void* __libc_malloc(size_t size);

static int fail_line_alloc;

int probe_fail_line_alloc(void) {
    fail_line_alloc = 1;
    return 1;
}

void* malloc(size_t size) {
    if (fail_line_alloc && size == LOGMSG_LINE_SIZE) {
        return NULL;
    }
    return __libc_malloc(size);
}

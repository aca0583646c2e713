/* clock.c - monotonic deadlines, and the MSGPASS_MAX_WAIT_MS cap on every wait. */
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <time.h>

#include "internal.h"

int64_t msg_now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

/* The cap in milliseconds, or -1 when the variable is unset or not a plain number. */
static int64_t max_wait_ms(void) {
    const char* text = getenv(MSG_MAX_WAIT_ENV);
    if (!text || *text < '0' || *text > '9') {
        return -1;
    }
    char* end = NULL;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0') {
        return -1;
    }
    return value;
}

int64_t msg_deadline(int timeoutMs) {
    int64_t wait = timeoutMs < 0 ? kMsgForever : timeoutMs;
    int64_t cap = max_wait_ms();
    if (cap >= 0 && cap < wait) {
        wait = cap;
    }
    /* A cap near the largest number is "forever" too: the sum must not wrap into the past,
     * where every wait would end at once and waiting threads would spin. */
    int64_t now = msg_now_ms();
    return wait >= kMsgForever - now ? kMsgForever : now + wait;
}

int msg_remaining_ms(int64_t deadline) {
    if (deadline == kMsgForever) {
        return -1;
    }
    int64_t left = deadline - msg_now_ms();
    if (left <= 0) {
        return 0;
    }
    return left > INT_MAX ? INT_MAX : (int)left;
}

struct timespec msg_deadline_timespec(int64_t deadline) {
    struct timespec ts;
    ts.tv_sec = (time_t)(deadline / 1000);
    ts.tv_nsec = (long)(deadline % 1000) * 1000000L;
    return ts;
}

/* clock.c - monotonic deadlines for the library's waits. */
#include <limits.h>
#include <time.h>

#include "internal.h"

int64_t msg_now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int64_t msg_deadline(int timeoutMs) {
    if (timeoutMs < 0) {
        return kMsgForever;
    }
    /* Saturate rather than wrap: a deadline in the past would end every wait at once and make
     * waiting threads spin. */
    int64_t now = msg_now_ms();
    return timeoutMs >= kMsgForever - now ? kMsgForever : now + timeoutMs;
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

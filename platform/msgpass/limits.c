/* limits.c - what one user may hold of a published endpoint: a bounded number of connections,
 * none of them silent for long, and never the descriptors kept for root and the service's own
 * user. */
#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "internal.h"

int msg_count_open_fds(void) {
    DIR* fds = opendir("/proc/self/fd");
    if (!fds) {
        return 0; /* only the descriptors at the top of the range then count */
    }
    int count = 0;
    while (readdir(fds)) {
        count++;
    }
    closedir(fds);
    return count - 3; /* ".", ".." and the directory's own descriptor */
}

int msg_peer_is_limited(const struct msg_endpoint* ep, uid_t uid) {
    return uid != 0 && uid != ep->owner;
}

/* Whether a connection of a limited user, whose socket is `fd`, leaves the reserve alone. Both
 * ways of telling count: the kernel hands out the lowest free number, so every number below `fd`
 * is taken; and the process had base_fds open when the endpoint opened, besides our
 * connections. */
static int leaves_reserve(const struct msg_endpoint* ep, int fd, int conns) {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return 1;
    }
    const long usable = (long)limit.rlim_cur - MSG_RESERVED_DESCRIPTORS;
    return fd < usable && ep->base_fds + conns + 1 < usable;
}

int msg_admit(const struct msg_endpoint* ep, uid_t uid, int fd) {
    if (!msg_peer_is_limited(ep, uid)) {
        return 1;
    }
    int conns = 0, ofUser = 0;
    for (const struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
        conns++;
        ofUser += conn->peer.uid == uid;
    }
    return ofUser < MSG_MAX_CONNS_PER_USER && leaves_reserve(ep, fd, conns);
}

void msg_conn_set_deadline(struct msg_endpoint* ep, struct msg_conn* conn, int running) {
    if (!conn->limited) {
        return;
    }
    conn->deadline = running ? msg_now_ms() + MSG_IDLE_CONNECTION_MS : kMsgForever;
    if (conn->deadline < ep->next_deadline) {
        ep->next_deadline = conn->deadline;
    }
}

int msg_deadline_wait(const struct msg_endpoint* ep, int timeoutMs) {
    if (ep->next_deadline == kMsgForever) {
        return timeoutMs;
    }
    int left = msg_remaining_ms(ep->next_deadline);
    return timeoutMs >= 0 && timeoutMs < left ? timeoutMs : left;
}

void msg_drop_idle(struct msg_endpoint* ep) {
    if (ep->next_deadline == kMsgForever || msg_remaining_ms(ep->next_deadline) > 0) {
        return;
    }
    const int64_t now = msg_now_ms();
    ep->next_deadline = kMsgForever;
    for (struct msg_conn *conn = ep->conns, *next; conn; conn = next) {
        next = conn->next;
        if (conn->deadline <= now && conn->paused) {
            conn->deadline = now + MSG_IDLE_CONNECTION_MS; /* we stopped reading it, not it */
        } else if (conn->deadline <= now) {
            msg_conn_drop(ep, conn);
            continue;
        }
        if (conn->deadline < ep->next_deadline) {
            ep->next_deadline = conn->deadline;
        }
    }
}

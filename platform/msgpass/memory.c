/* memory.c - one bound on what the library holds for its peers in this process: frames being
 * received, messages received and not yet taken, and messages queued for peers that do not read.
 * When a peer's need would go beyond it, the connection that holds the most goes first. */
#include "internal.h"

static size_t held; /* atomic: charged by every endpoint of the process */

static int take(size_t bytes) {
    size_t now = __atomic_load_n(&held, __ATOMIC_RELAXED);
    do {
        if (bytes > MSG_MEMORY_BYTES || now > MSG_MEMORY_BYTES - bytes) {
            return 0;
        }
    } while (!__atomic_compare_exchange_n(&held, &now, now + bytes, 1, __ATOMIC_RELAXED,
                                          __ATOMIC_RELAXED));
    return 1;
}

void msg_memory_forget(void) {
    __atomic_store_n(&held, 0, __ATOMIC_RELAXED);
}

void msg_memory_release(size_t bytes) {
    __atomic_sub_fetch(&held, bytes, __ATOMIC_RELAXED);
}

/* What dropping the connection would give back. Its send queue is read without its write lock:
 * a figure a moment old is good enough to choose by. */
static size_t cost_of(const struct msg_conn* conn) {
    size_t queued = __atomic_load_n(&conn->out_held, __ATOMIC_RELAXED);
    return (conn->partial ? conn->partial->charged : 0) + conn->queued_bytes + queued;
}

static struct msg_conn* most_expensive(struct msg_endpoint* ep, struct msg_conn* asking,
                                       size_t bytes) {
    struct msg_conn* most = NULL;
    size_t mostCost = 0;
    for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
        size_t cost = cost_of(conn) + (conn == asking ? bytes : 0);
        if (!most || cost > mostCost) {
            most = conn;
            mostCost = cost;
        }
    }
    return most;
}

int msg_memory_reserve(struct msg_endpoint* ep, struct msg_conn* conn, size_t bytes) {
    while (!take(bytes)) {
        struct msg_conn* victim = most_expensive(ep, conn, bytes);
        if (!victim || victim == conn) {
            return -1;
        }
        msg_purge_input(ep, victim);
        msg_conn_drop(ep, victim);
    }
    return 0;
}

/* sendqueue.c - a connection's queue of outgoing frames, written in order and never interleaved.
 *
 * Every send goes through the queue: a send that waits drains it to the end, its own frame
 * being the last; a send that must not wait writes what the socket takes and leaves the rest,
 * which the endpoint's leader writes when epoll reports room. Only the holder of the write lock
 * touches the queue or writes to the socket, so frames follow each other whole.
 */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "internal.h"

/* Frames handed to the kernel in one call, so that a backlog of small answers goes out in a few
 * calls rather than one per answer. */
enum { kWriteBatchFrames = 64 };

static size_t frame_bytes(const MSG_Msg* msg) {
    return kMsgHeaderBytes + (size_t)msg->bytes;
}

/* What a queued message costs against the bound: its frame and its bookkeeping, so that a flood
 * of empty messages is bounded as well as a few large ones. */
static size_t held_bytes(const MSG_Msg* msg) {
    return sizeof(*msg) + frame_bytes(msg);
}

static int status_of_send_error(int error) {
    switch (error) {
        case EPIPE:
        case ECONNRESET:
        case ENOTCONN:
        case ESHUTDOWN:
            return MSG_ERR_PEER_GONE;
        case ENOMEM:
        case ENOBUFS:
            return MSG_ERR_NO_MEMORY;
        default:
            return MSG_ERR_SYSTEM;
    }
}

void msg_queue_append(struct msg_conn* conn, MSG_Msg* msg) {
    msg->next = NULL;
    if (conn->out_tail) {
        conn->out_tail->next = msg;
    } else {
        conn->out_head = msg;
    }
    conn->out_tail = msg;
    conn->out_held += held_bytes(msg);
}

/* An empty queue takes any message, so that the bound never refuses one larger than itself. */
int msg_queue_admit(struct msg_conn* conn, MSG_Msg* msg) {
    if (conn->out_head && conn->out_held + held_bytes(msg) > MSG_SEND_QUEUE_BYTES) {
        return MSG_ERR_QUEUE_FULL;
    }
    msg_queue_append(conn, msg);
    return MSG_OK;
}

static void free_head(struct msg_conn* conn) {
    MSG_Msg* head = conn->out_head;
    conn->out_head = head->next;
    if (!conn->out_head) {
        conn->out_tail = NULL;
    }
    conn->out_head_sent = 0;
    conn->out_held -= held_bytes(head);
    msg_free(head);
}

static void forget_written(struct msg_conn* conn, size_t written) {
    while (written > 0) {
        size_t left = frame_bytes(conn->out_head) - conn->out_head_sent;
        if (written < left) {
            conn->out_head_sent += written;
            return;
        }
        written -= left;
        free_head(conn);
    }
}

/* One frame, the usual case, goes out with send(): cheaper than sendmsg() with its vector. */
static ssize_t send_queued(struct msg_conn* conn) {
    struct iovec iov[kWriteBatchFrames];
    size_t count = 0;
    size_t skip = conn->out_head_sent;
    for (MSG_Msg* msg = conn->out_head; msg && count < kWriteBatchFrames; msg = msg->next) {
        iov[count].iov_base = msg->frame + skip;
        iov[count].iov_len = frame_bytes(msg) - skip;
        skip = 0;
        count++;
    }
    if (count == 1) {
        return send(conn->fd, iov[0].iov_base, iov[0].iov_len, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    struct msghdr message = {.msg_iov = iov, .msg_iovlen = count};
    return sendmsg(conn->fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

/* Hands the kernel what it takes now; *wrote is 0 when it takes nothing. */
static int write_some(struct msg_conn* conn, size_t* wrote) {
    *wrote = 0;
    for (;;) {
        ssize_t n = send_queued(conn);
        if (n >= 0) {
            *wrote = (size_t)n;
            forget_written(conn, *wrote);
            return MSG_OK;
        }
        if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? MSG_OK : status_of_send_error(errno);
        }
    }
}

int msg_queue_flush(struct msg_conn* conn) {
    size_t wrote = 1;
    int status = MSG_OK;
    while (status == MSG_OK && conn->out_head && wrote > 0) {
        status = write_some(conn, &wrote);
    }
    return status;
}

static int wait_for_room(int fd, int64_t deadline) {
    struct pollfd pfd = {.fd = fd, .events = POLLOUT};
    int ready = poll(&pfd, 1, msg_remaining_ms(deadline));
    if (ready == 0) {
        return MSG_ERR_TIMEOUT;
    }
    return ready > 0 || errno == EINTR ? MSG_OK : MSG_ERR_SYSTEM;
}

/* The stall limit restarts with every byte the peer takes, so a slow reader of a large message
 * is served while one that stopped reading is not waited for beyond the limit. */
int msg_queue_drain(struct msg_conn* conn) {
    int64_t stall_deadline = 0;
    int stalled = 0; /* stall_deadline is set: no progress since it was */
    while (conn->out_head) {
        size_t wrote = 0;
        int status = write_some(conn, &wrote);
        if (status != MSG_OK) {
            return status;
        }
        if (wrote > 0) {
            stalled = 0;
            continue;
        }
        if (!stalled) {
            stall_deadline = msg_deadline(MSG_SEND_STALL_MS);
            stalled = 1;
        }
        status = wait_for_room(conn->fd, stall_deadline);
        if (status != MSG_OK) {
            return status;
        }
    }
    return MSG_OK;
}

/* Frames go from the head, so a frame of this send that is left is the tail; those before it
 * were charged by their own sends. */
int msg_queue_charge(struct msg_endpoint* ep, struct msg_conn* conn) {
    MSG_Msg* msg = conn->out_tail;
    if (msg && !msg->charged) {
        const size_t cost = msg_footprint(msg->capacity);
        if (msg_memory_reserve(ep, conn, cost) != 0) {
            return -1;
        }
        msg->charged = cost;
    }
    return 0;
}

void msg_queue_discard(struct msg_conn* conn) {
    while (conn->out_head) {
        free_head(conn);
    }
}

int msg_conn_write_ready(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (pthread_mutex_trylock(&conn->write_lock) != 0) {
        /* A sender is at work here and looks at the queue again on its way out; until then the
         * report of room would only wake us in a loop. */
        msg_conn_want_output(ep, conn, 0);
        return MSG_OK;
    }
    int status = msg_queue_flush(conn);
    if (status == MSG_OK && msg_conn_want_output(ep, conn, conn->out_head != NULL) != 0) {
        status = MSG_ERR_SYSTEM;
    }
    pthread_mutex_unlock(&conn->write_lock);
    return status;
}

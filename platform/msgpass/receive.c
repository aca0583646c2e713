/* receive.c - reading frames from every connection of an endpoint and handing them out.
 *
 * One thread at a time, the leader, waits in epoll for the endpoint; other receivers wait on a
 * condition variable until the leader has queued something or stepped down. Reads never block
 * and each connection reassembles its own frame, so a peer that sends half a frame and then
 * nothing holds up no one. The leader also writes queued output (MSG_SEND_NOWAIT) to peers
 * whose sockets have room again.
 */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/single_threaded.h>
#include <unistd.h>

#include "internal.h"

enum {
    kMaxEvents = 32,
    kAcceptsPerPass = 32,
    /* Read at most this much from one connection per pass, so that a fast sender of large
     * messages does not starve the others. */
    kReadBudgetBytes = 1024 * 1024,
    /* Stop reading a connection when this much of its input waits unclaimed; resume at half. */
    kPauseQueuedBytes = MSG_MAX_PAYLOAD_BYTES,
    kPauseQueuedCount = 4096,
    /* Payload room given to a frame when its header arrives; it doubles as the bytes do. */
    kFirstRoomBytes = 64 * 1024,
    /* Out of descriptors, how long accepting waits before it is tried again. */
    kListenRetryMs = 100
};

/* The descriptor of MSG_GetPollFd must be readable while messages are queued, since the
 * sockets alone no longer say so. Kept only once someone asked for that descriptor. Brought up
 * to date only where the endpoint's lock is let go, not at every change of the queue: a message
 * that a receiver queues and takes in one call then costs no write and read of the event. */
static void sync_pending(struct msg_endpoint* ep) {
    const int pending = ep->queue_head != NULL;
    if (ep->pending_fd < 0 || pending == ep->pending_signalled) {
        return;
    }
    uint64_t value = 1;
    ssize_t done = pending ? write(ep->pending_fd, &value, sizeof(value))
                           : read(ep->pending_fd, &value, sizeof(value));
    if (done == (ssize_t)sizeof(value)) {
        ep->pending_signalled = pending;
    }
}

static void enqueue(struct msg_endpoint* ep, struct msg_conn* conn, MSG_Msg* msg) {
    msg->received = 1;
    msg->sender = conn->peer;
    msg->next = NULL;
    if (ep->queue_tail) {
        ep->queue_tail->next = msg;
    } else {
        ep->queue_head = msg;
    }
    ep->queue_tail = msg;
    conn->queued_bytes += msg->bytes;
    conn->queued_count++;
    if (conn->queued_bytes >= kPauseQueuedBytes || conn->queued_count >= kPauseQueuedCount) {
        msg_conn_pause(ep, conn);
    }
}

static void account_taken(struct msg_endpoint* ep, MSG_Msg* msg) {
    /* The caller's from now on: it no longer counts against the library's bound. */
    msg_memory_release(msg->charged);
    msg->charged = 0;
    struct msg_conn* conn = msg_conn_find(ep, msg->sender.address);
    if (!conn) {
        return; /* it has gone since; its messages stay deliverable */
    }
    conn->queued_bytes -= msg->bytes <= conn->queued_bytes ? msg->bytes : conn->queued_bytes;
    conn->queued_count -= conn->queued_count > 0;
    if (conn->queued_bytes <= kPauseQueuedBytes / 2 &&
        conn->queued_count <= kPauseQueuedCount / 2) {
        msg_conn_resume(ep, conn);
    }
}

/* First queued message of id `id` (of any id when `any`), unlinked, or NULL. */
static MSG_Msg* take_queued(struct msg_endpoint* ep, int any, uint32_t id) {
    MSG_Msg* previous = NULL;
    for (MSG_Msg* msg = ep->queue_head; msg; previous = msg, msg = msg->next) {
        if (!any && msg->id != id) {
            continue;
        }
        if (previous) {
            previous->next = msg->next;
        } else {
            ep->queue_head = msg->next;
        }
        if (ep->queue_tail == msg) {
            ep->queue_tail = previous;
        }
        msg->next = NULL;
        account_taken(ep, msg);
        return msg;
    }
    return NULL;
}

void msg_purge_input(struct msg_endpoint* ep, struct msg_conn* conn) {
    MSG_Msg** link = &ep->queue_head;
    ep->queue_tail = NULL;
    while (*link) {
        MSG_Msg* msg = *link;
        if (msg->sender.address == conn->address) {
            *link = msg->next;
            msg_free(msg);
        } else {
            ep->queue_tail = msg;
            link = &msg->next;
        }
    }
    conn->queued_bytes = 0;
    conn->queued_count = 0;
    sync_pending(ep); /* may be called outside a receive, which would not bring it up to date */
}

/* Room for the first part of a frame's payload, charged; the rest is added as bytes arrive,
 * so that a header announcing much and a peer sending little cost little. */
static int begin_frame(struct msg_endpoint* ep, struct msg_conn* conn, uint32_t id,
                       uint32_t bytes) {
    const uint32_t room = bytes < kFirstRoomBytes ? bytes : kFirstRoomBytes;
    const size_t cost = msg_footprint(room);
    if (msg_memory_reserve(ep, conn, cost) != 0) {
        return -1;
    }
    conn->partial = msg_new_room(id, bytes, room);
    if (!conn->partial) {
        msg_memory_release(cost);
        return -1;
    }
    conn->partial->charged = cost;
    conn->partial_fill = 0;
    return 0;
}

/* Doubles the room of the frame being read (up to its length) once it is full. */
static int make_room(struct msg_endpoint* ep, struct msg_conn* conn) {
    MSG_Msg* partial = conn->partial;
    if (conn->partial_fill < partial->capacity) {
        return 0;
    }
    const uint32_t room = partial->bytes - partial->capacity > partial->capacity
                              ? partial->capacity * 2
                              : partial->bytes;
    const size_t more = msg_footprint(room) - partial->charged;
    if (msg_memory_reserve(ep, conn, more) != 0) {
        return -1;
    }
    MSG_Msg* grown = msg_grow(partial, room);
    if (!grown) {
        msg_memory_release(more);
        return -1;
    }
    grown->charged += more;
    conn->partial = grown;
    return 0;
}

static void complete_if_whole(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (conn->partial && conn->partial_fill == conn->partial->bytes) {
        enqueue(ep, conn, conn->partial);
        conn->partial = NULL;
        msg_conn_set_deadline(ep, conn, 0);
    }
}

/* Feeds bytes read from `conn` into its reassembly; -1 when the peer speaks no sense. */
static int consume(struct msg_endpoint* ep, struct msg_conn* conn, const unsigned char* data,
                   size_t length) {
    while (length > 0) {
        size_t step;
        if (!conn->partial) {
            if (conn->header_fill == 0 && conn->deadline == kMsgForever) {
                msg_conn_set_deadline(ep, conn, 1); /* a frame begins: it must be finished */
            }
            step = kMsgHeaderBytes - conn->header_fill;
            step = step < length ? step : length;
            memcpy(conn->header + conn->header_fill, data, step);
            conn->header_fill += (uint32_t)step;
            if (conn->header_fill == kMsgHeaderBytes) {
                uint32_t id, bytes;
                if (msg_decode_header(conn->header, &id, &bytes) != 0) {
                    return -1;
                }
                conn->header_fill = 0;
                if (begin_frame(ep, conn, id, bytes) != 0) {
                    return -1;
                }
            }
        } else {
            if (make_room(ep, conn) != 0) {
                return -1;
            }
            step = conn->partial->capacity - conn->partial_fill;
            step = step < length ? step : length;
            memcpy(msg_payload(conn->partial) + conn->partial_fill, data, step);
            conn->partial_fill += (uint32_t)step;
        }
        complete_if_whole(ep, conn);
        data += step;
        length -= step;
    }
    return 0;
}

/* Reads what `conn` has for us now; -1 when the connection must go (closed by the peer, cut
 * in the middle of a frame, or garbage). */
static int read_conn(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (!ep->stage && !(ep->stage = malloc(kMsgStageBytes))) {
        return -1;
    }
    size_t budget = kReadBudgetBytes;
    while (budget > 0 && !conn->paused) {
        size_t missing = conn->partial ? conn->partial->bytes - conn->partial_fill : 0;
        int direct = missing >= kMsgStageBytes;
        if (direct && make_room(ep, conn) != 0) {
            return -1;
        }
        size_t room = direct ? conn->partial->capacity - conn->partial_fill : 0;
        unsigned char* into = direct ? msg_payload(conn->partial) + conn->partial_fill : ep->stage;
        size_t want = direct ? (room < budget ? room : budget) : kMsgStageBytes;
        ssize_t n = recv(conn->fd, into, want, MSG_DONTWAIT);
        if (n == 0) {
            return -1;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
        }
        if (direct) {
            conn->partial_fill += (uint32_t)n;
            complete_if_whole(ep, conn);
        } else if (consume(ep, conn, ep->stage, (size_t)n) != 0) {
            return -1;
        }
        if ((size_t)n < want) {
            return 0; /* drained for now */
        }
        budget -= (size_t)n < budget ? (size_t)n : budget;
    }
    return 0;
}

/* A client refused, or one whose connection failed, sees its socket closed before anything. */
static void admit(struct msg_endpoint* ep, int fd) {
    struct ucred cred;
    socklen_t length = sizeof(cred);
    uint32_t address;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0 ||
        !msg_admit(ep, cred.uid, fd)) {
        close(fd);
        return;
    }
    if (msg_conn_add(ep, fd, &cred, &address) == MSG_OK) {
        struct msg_conn* conn = msg_conn_find(ep, address);
        conn->limited = msg_peer_is_limited(ep, cred.uid);
        msg_conn_set_deadline(ep, conn, 1); /* its first message is owed */
    }
}

void msg_accept_pending(struct msg_endpoint* ep) {
    for (int i = 0; i < kAcceptsPerPass; i++) {
        int fd = accept4(ep->listen_fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            admit(ep, fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        }
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            /* Level-triggered, the listener would wake us for ever; wait for a free slot. */
            if (epoll_ctl(ep->wait_fd, EPOLL_CTL_DEL, ep->listen_fd, NULL) == 0) {
                ep->listen_paused = 1;
                ep->listen_retry_at = msg_now_ms() + kListenRetryMs;
            }
        }
        return;
    }
}

/* Reading comes first, so that what a peer sent before hanging up is still delivered. A paused
 * connection is not read: there a hang-up or error shows as a failed write of its queued output
 * (left unserved, epoll would report it again at once, for ever). */
static void serve_conn(struct msg_endpoint* ep, struct msg_conn* conn, uint32_t events) {
    int failed = 0;
    if (!conn->paused && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
        failed = read_conn(ep, conn) != 0;
    }
    if (!failed && conn->want_output && (events & (EPOLLOUT | EPOLLHUP | EPOLLERR))) {
        failed = msg_conn_write_ready(ep, conn) != MSG_OK;
    }
    if (failed) {
        msg_conn_drop(ep, conn);
    }
}

/* The wake-up event has done its work once the leader is up. Written when the endpoint
 * closes, it is left set, so that whoever polls MSG_GetPollFd's descriptor sees it too. */
static void take_wake(struct msg_endpoint* ep) {
    if (!ep->closed) {
        uint64_t value;
        ssize_t ignored = read(ep->wake_fd, &value, sizeof(value));
        (void)ignored;
    }
}

static void serve_events(struct msg_endpoint* ep, const struct epoll_event* events, int count) {
    for (int i = 0; i < count && !ep->closed; i++) {
        uint64_t token = events[i].data.u64;
        if (token == kMsgWakeToken) {
            take_wake(ep); /* a poll() turn's wake-up that came after the epoll set was made */
            continue;
        }
        if (token == kMsgListenToken) {
            msg_accept_pending(ep);
            continue;
        }
        if (token == kMsgNameToken) {
            msg_name_events(ep);
            ep->foreign_ready |= ep->foreign_count > 0; /* MSG_CheckPublished may say more now */
            continue;
        }
        if ((token & ~0xffffffffull) == kMsgForeignToken) {
            ep->foreign_ready = 1;
            continue;
        }
        struct msg_conn* conn = msg_conn_find(ep, (uint32_t)token);
        if (conn) {
            serve_conn(ep, conn, events[i].events);
        }
    }
}

/* The leader's wait while accepting is paused for want of descriptors. A connection of ours
 * going away resumes it, but the descriptors may be held elsewhere in the process, and a service
 * with no connection to lose would never accept again: so it is also retried after a while. */
static int wait_with_listen_retry(struct msg_endpoint* ep, int timeoutMs) {
    if (!ep->listen_paused) {
        return timeoutMs;
    }
    int64_t left = ep->listen_retry_at - msg_now_ms();
    if (left <= 0) {
        msg_listen_resume(ep);
        if (!ep->listen_paused) {
            return timeoutMs;
        }
        ep->listen_retry_at = msg_now_ms() + kListenRetryMs;
        left = kListenRetryMs;
    }
    return timeoutMs >= 0 && timeoutMs < left ? timeoutMs : (int)left;
}

/* Waits without the endpoint's lock in `wait`, then serves what came. */
static int lead_with(struct msg_endpoint* ep, int timeoutMs,
                     int (*wait)(struct msg_endpoint*, struct epoll_event*, int)) {
    struct epoll_event events[kMaxEvents];
    timeoutMs = msg_deadline_wait(ep, wait_with_listen_retry(ep, timeoutMs));
    ep->leader = 1;
    sync_pending(ep);
    int count = wait(ep, events, timeoutMs);
    ep->leader = 0;
    if (count > 0) {
        serve_events(ep, events, count);
    }
    msg_drop_idle(ep);
    pthread_cond_broadcast(&ep->turn);
    return 0;
}

static int wait_epoll(struct msg_endpoint* ep, struct epoll_event* events, int timeoutMs) {
    const int wait_fd = ep->wait_fd;
    pthread_mutex_unlock(&ep->lock);
    int count = epoll_wait(wait_fd, events, kMaxEvents, timeoutMs);
    pthread_mutex_lock(&ep->lock);
    return count;
}

/* An endpoint that only connects out waits with poll() on its few connections: a client's
 * transaction then needs no epoll set, nor the calls that make, fill and close it. Changes made
 * meanwhile by other threads (a new connection, a paused one, output that waits) write the wake
 * event, and the next turn polls what is there then; without a wake event (see lead()) there is
 * no other thread to make any. Results come back as epoll events. */
static int wait_poll(struct msg_endpoint* ep, struct epoll_event* events, int timeoutMs) {
    struct pollfd fds[kMaxEvents];
    uint32_t addresses[kMaxEvents];
    int count = 0;
    const int wakeable = ep->wake_fd >= 0;
    if (wakeable) {
        fds[count++] = (struct pollfd){.fd = ep->wake_fd, .events = POLLIN};
    }
    const int firstConn = count;
    for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
        short wanted = (short)((conn->paused ? 0 : POLLIN) | (conn->want_output ? POLLOUT : 0));
        if (wanted) {
            addresses[count] = conn->address;
            fds[count++] = (struct pollfd){.fd = conn->fd, .events = wanted};
        }
    }
    ep->polling = 1;
    pthread_mutex_unlock(&ep->lock);
    int ready = poll(fds, (nfds_t)count, timeoutMs);
    pthread_mutex_lock(&ep->lock);
    ep->polling = 0;
    if (ready > 0 && wakeable && fds[0].revents) {
        take_wake(ep);
    }
    int found = 0;
    for (int i = firstConn; ready > 0 && i < count; i++) {
        const short got = fds[i].revents;
        if (got) {
            events[found].data.u64 = addresses[i];
            events[found++].events = (got & POLLIN ? EPOLLIN : 0) | (got & POLLOUT ? EPOLLOUT : 0) |
                                     (got & POLLHUP ? EPOLLHUP : 0) |
                                     (got & (POLLERR | POLLNVAL) ? EPOLLERR : 0);
        }
    }
    return found;
}

static int count_conns(const struct msg_endpoint* ep, int atMost) {
    int count = 0;
    for (const struct msg_conn* conn = ep->conns; conn && count <= atMost; conn = conn->next) {
        count++;
    }
    return count;
}

/* An endpoint that only connects out waits with poll() for its first few waits: a client that
 * makes one transaction then needs no epoll set. One that keeps waiting makes the set once and
 * waits on it from then on: each poll() registers with every socket and unregisters again,
 * where epoll_wait() finds what is ready already listed. */
enum { kMsgPollWaits = 8 };

/* One turn as leader: wait for the endpoint without its lock, then serve what came. -1 when
 * there is nothing to wait with. A process with a single thread polls without a wake event:
 * while its only thread waits, no other can connect, pause, queue output or close, so nothing
 * would ever write the event, and a one-shot client saves making and closing it. The first wait
 * after a second thread starts makes it. */
static int lead(struct msg_endpoint* ep, int timeoutMs) {
    if (ep->wait_fd < 0 && ep->listen_fd < 0 && count_conns(ep, kMaxEvents - 1) < kMaxEvents &&
        ep->poll_waits++ < kMsgPollWaits) {
        if (!__libc_single_threaded && msg_endpoint_ensure_wake(ep) != 0) {
            return -1;
        }
        return lead_with(ep, timeoutMs, wait_poll);
    }
    if (msg_endpoint_ensure_wait_set(ep) != 0) {
        return -1;
    }
    return lead_with(ep, timeoutMs, wait_epoll);
}

static void wait_turn(struct msg_endpoint* ep, int64_t deadline) {
    sync_pending(ep);
    if (deadline == kMsgForever) {
        pthread_cond_wait(&ep->turn, &ep->lock);
    } else {
        struct timespec until = msg_deadline_timespec(deadline);
        pthread_cond_timedwait(&ep->turn, &ep->lock, &until);
    }
}

/* A RecvMsg caller that connected out and has lost every connection would wait for nothing. */
static int orphaned(const struct msg_endpoint* ep) {
    return ep->connected_out && !ep->conns;
}

static MSG_Msg* receive(const char* localName, int any, uint32_t id, int timeoutMs) {
    struct msg_endpoint* ep;
    if (msg_endpoint_lookup(localName, &ep) != MSG_OK) {
        return NULL;
    }
    int64_t deadline = msg_deadline(timeoutMs);
    int looked = 0; /* at least one look at the sockets, even with a zero time-out */
    MSG_Msg* msg = NULL;
    pthread_mutex_lock(&ep->lock);
    while (!ep->closed) {
        if (ep->foreign_ready) {
            /* First, so that a queue kept full by busy peers cannot hide the caller's events. */
            ep->foreign_ready = 0;
            break;
        }
        msg = take_queued(ep, any, id);
        if (msg || (!any && orphaned(ep))) {
            break;
        }
        int left = msg_remaining_ms(deadline);
        if (left == 0 && (looked || ep->leader)) {
            break;
        }
        if (ep->leader) {
            wait_turn(ep, deadline);
        } else if (lead(ep, left) != 0) {
            break;
        } else {
            looked = 1;
        }
    }
    sync_pending(ep);
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return msg;
}

MSG_EXPORT MSG_Msg* MSG_RecvMsg(const char* localName, uint32_t msgId, int timeoutMs) {
    return receive(localName, 0, msgId, timeoutMs);
}

MSG_EXPORT MSG_Msg* MSG_RecvAny(const char* localName, int timeoutMs) {
    return receive(localName, 1, 0, timeoutMs);
}

MSG_EXPORT MSG_Msg* MSG_RecvQueued(const char* localName) {
    struct msg_endpoint* ep;
    if (msg_endpoint_lookup(localName, &ep) != MSG_OK) {
        return NULL;
    }
    pthread_mutex_lock(&ep->lock);
    MSG_Msg* msg = ep->closed ? NULL : take_queued(ep, 1, 0);
    sync_pending(ep);
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return msg;
}

/* Adds (`watch`) or removes the caller's descriptor `fd` in the endpoint's epoll set. */
static int change_watch(const char* localName, int fd, int watch) {
    if (fd < 0) {
        return MSG_ERR_BAD_ARG;
    }
    struct msg_endpoint* ep;
    int status = msg_endpoint_lookup(localName, &ep);
    if (status != MSG_OK) {
        return status;
    }
    pthread_mutex_lock(&ep->lock);
    if (ep->closed) {
        status = MSG_ERR_NOT_OPEN;
    } else if (msg_endpoint_ensure_wait_set(ep) != 0) {
        status = MSG_ERR_SYSTEM;
    } else {
        struct epoll_event event = {.events = EPOLLIN, .data.u64 = kMsgForeignToken | (uint32_t)fd};
        if (epoll_ctl(ep->wait_fd, watch ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, fd, &event) != 0) {
            status = errno == EEXIST || errno == ENOENT || errno == EBADF || errno == EPERM
                         ? MSG_ERR_BAD_ARG
                         : MSG_ERR_SYSTEM;
        } else {
            ep->foreign_count += watch ? 1 : -1;
            /* A poll() under way does not follow the epoll set: it begins again. */
            msg_endpoint_wake_poller(ep);
        }
    }
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return status;
}

MSG_EXPORT int MSG_WatchFd(const char* localName, int fd) {
    return change_watch(localName, fd, 1);
}

MSG_EXPORT int MSG_UnwatchFd(const char* localName, int fd) {
    return change_watch(localName, fd, 0);
}

static int make_poll_fd(struct msg_endpoint* ep) {
    ep->pending_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ep->poll_fd = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event on_wait = {.events = EPOLLIN, .data.u64 = 0};
    struct epoll_event on_pending = {.events = EPOLLIN, .data.u64 = 1};
    if (ep->pending_fd < 0 || ep->poll_fd < 0 ||
        epoll_ctl(ep->poll_fd, EPOLL_CTL_ADD, ep->wait_fd, &on_wait) != 0 ||
        epoll_ctl(ep->poll_fd, EPOLL_CTL_ADD, ep->pending_fd, &on_pending) != 0) {
        if (ep->pending_fd >= 0) {
            close(ep->pending_fd);
        }
        if (ep->poll_fd >= 0) {
            close(ep->poll_fd);
        }
        ep->pending_fd = ep->poll_fd = -1;
        return -1;
    }
    ep->pending_signalled = 0;
    sync_pending(ep);
    return 0;
}

MSG_EXPORT int MSG_GetPollFd(const char* localName) {
    struct msg_endpoint* ep;
    if (msg_endpoint_lookup(localName, &ep) != MSG_OK) {
        return -1;
    }
    pthread_mutex_lock(&ep->lock);
    if (ep->poll_fd < 0 && !ep->closed && msg_endpoint_ensure_wait_set(ep) == 0) {
        make_poll_fd(ep);
    }
    int fd = ep->closed ? -1 : ep->poll_fd;
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return fd;
}

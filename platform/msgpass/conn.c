/* conn.c - an endpoint's table of connections, each known by a nonzero 32-bit address. */
#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <string.h>

#include "internal.h"

struct msg_conn* msg_conn_find(struct msg_endpoint* ep, uint32_t address) {
    for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
        if (conn->address == address) {
            return conn;
        }
    }
    return NULL;
}

static uint32_t next_free_address(struct msg_endpoint* ep) {
    uint32_t address;
    do {
        address = ++ep->last_address;
    } while (address == 0 || msg_conn_find(ep, address));
    return address;
}

/* Brings the wait set in line with what the connection needs: input unless paused, room in the
 * socket while its send queue waits. A connection that needs neither leaves the set, rather
 * than asking for no events, which also silences the hang-up reports that epoll gives whatever
 * was asked. */
static int rewatch(struct msg_endpoint* ep, struct msg_conn* conn) {
    /* A leader's poll() picks the change up when it begins again. */
    msg_endpoint_wake_poller(ep);
    if (ep->wait_fd < 0) {
        return 0; /* no epoll set yet: it takes every connection in when it is made */
    }
    uint32_t wanted = 0;
    if (!conn->dropped) {
        wanted = (conn->paused ? 0 : EPOLLIN) | (conn->want_output ? EPOLLOUT : 0);
    }
    if (wanted == conn->watched) {
        return 0;
    }
    int op = !conn->watched ? EPOLL_CTL_ADD : wanted ? EPOLL_CTL_MOD : EPOLL_CTL_DEL;
    struct epoll_event event = {.events = wanted, .data.u64 = conn->address};
    if (epoll_ctl(ep->wait_fd, op, conn->fd, &event) != 0) {
        return -1;
    }
    conn->watched = wanted;
    return 0;
}

/* Credentials come from the kernel, as they were when the peer connected. */
static int read_peer_credentials(int fd, MSG_Sender* peer) {
    struct ucred cred;
    socklen_t length = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) {
        return -1;
    }
    peer->pid = cred.pid;
    peer->uid = cred.uid;
    peer->gid = cred.gid;
    return 0;
}

int msg_conn_add(struct msg_endpoint* ep, int fd, const struct ucred* peer, uint32_t* address) {
    struct msg_conn* conn = calloc(1, sizeof(*conn));
    if (!conn) {
        close(fd);
        return MSG_ERR_NO_MEMORY;
    }
    conn->fd = fd;
    conn->refs = 1;
    conn->deadline = kMsgForever;
    conn->address = next_free_address(ep);
    conn->peer.address = conn->address;
    pthread_mutex_init(&conn->write_lock, NULL);
    if (peer) {
        conn->peer.pid = peer->pid;
        conn->peer.uid = peer->uid;
        conn->peer.gid = peer->gid;
    }
    if ((!peer && read_peer_credentials(fd, &conn->peer) != 0) || rewatch(ep, conn) != 0) {
        int saved = errno;
        msg_conn_unref(conn);
        errno = saved;
        return MSG_ERR_SYSTEM;
    }
    conn->next = ep->conns;
    ep->conns = conn;
    if (address) {
        *address = conn->address;
    }
    return MSG_OK;
}

void msg_conn_unref(struct msg_conn* conn) {
    if (--conn->refs > 0) {
        return;
    }
    close(conn->fd);
    if (conn->partial) {
        msg_free(conn->partial);
    }
    msg_queue_discard(conn);
    pthread_mutex_destroy(&conn->write_lock);
    free(conn);
}

void msg_listen_resume(struct msg_endpoint* ep) {
    if (!ep->listen_paused || ep->closed) {
        return;
    }
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = kMsgListenToken};
    if (epoll_ctl(ep->wait_fd, EPOLL_CTL_ADD, ep->listen_fd, &event) == 0) {
        ep->listen_paused = 0;
    }
}

void msg_conn_drop(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (conn->dropped) {
        return;
    }
    conn->dropped = 1;
    /* Noted for MSG_TakeClosed; when nobody takes them, the oldest make room. */
    if (ep->gone_count == MSG_MAX_CLOSED_NOTED) {
        memmove(ep->gone, ep->gone + 1, sizeof ep->gone - sizeof ep->gone[0]);
        ep->gone_count--;
    }
    ep->gone[ep->gone_count++] = conn->address;
    /* An event loop that waits in a receive learns of it now, not at its next request. */
    ep->foreign_ready |= ep->foreign_count > 0;
    for (struct msg_conn** link = &ep->conns; *link; link = &(*link)->next) {
        if (*link == conn) {
            *link = conn->next;
            break;
        }
    }
    rewatch(ep, conn); /* dropped: leaves the wait set */
    /* Wakes a sender blocked on this connection; the descriptor itself is closed by the last
     * reference, so no other thread ever uses a number that was reused meanwhile. */
    shutdown(conn->fd, SHUT_RDWR);
    msg_listen_resume(ep); /* out of descriptors, accepting waited for one to be freed */
    msg_conn_unref(conn);
}

void msg_conn_pause(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (conn->paused) {
        return;
    }
    conn->paused = 1;
    if (rewatch(ep, conn) != 0) {
        conn->paused = 0;
    }
}

void msg_conn_resume(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (!conn->paused || conn->dropped) {
        return;
    }
    conn->paused = 0;
    if (rewatch(ep, conn) != 0) {
        conn->paused = 1; /* tried again when the next queued message is taken */
    }
}

int msg_conn_watch_all(struct msg_endpoint* ep) {
    for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
        if (rewatch(ep, conn) != 0) {
            return -1;
        }
    }
    return 0;
}

int msg_conn_want_output(struct msg_endpoint* ep, struct msg_conn* conn, int want) {
    int before = conn->want_output;
    conn->want_output = want;
    if (rewatch(ep, conn) != 0) {
        conn->want_output = before;
        return -1;
    }
    return 0;
}

MSG_EXPORT int MSG_TakeClosed(const char* localName, uint32_t* addresses, int max, int* taken) {
    if (addresses == NULL || taken == NULL || max < 0) {
        return MSG_ERR_BAD_ARG;
    }
    struct msg_endpoint* ep;
    int status = msg_endpoint_lookup(localName, &ep);
    if (status != MSG_OK) {
        return status;
    }
    pthread_mutex_lock(&ep->lock);
    int count = ep->gone_count < max ? ep->gone_count : max;
    memcpy(addresses, ep->gone, (size_t)count * sizeof addresses[0]);
    memmove(ep->gone, ep->gone + count, (size_t)(ep->gone_count - count) * sizeof ep->gone[0]);
    ep->gone_count -= count;
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    *taken = count;
    return MSG_OK;
}

MSG_EXPORT int MSG_CloseConnection(const char* localName, uint32_t remoteAddress) {
    struct msg_endpoint* ep;
    int status = msg_endpoint_lookup(localName, &ep);
    if (status != MSG_OK) {
        return status;
    }
    pthread_mutex_lock(&ep->lock);
    struct msg_conn* conn = ep->closed ? NULL : msg_conn_find(ep, remoteAddress);
    if (conn) {
        msg_conn_drop(ep, conn);
    } else {
        status = MSG_ERR_NO_ROUTE;
    }
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return status;
}

/* conn.c - an endpoint's table of connections, each known by a nonzero 32-bit address. */
#include <errno.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

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

static int watch(struct msg_endpoint* ep, struct msg_conn* conn) {
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = conn->address};
    return epoll_ctl(ep->wait_fd, EPOLL_CTL_ADD, conn->fd, &event);
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

int msg_conn_add(struct msg_endpoint* ep, int fd, uint32_t* address) {
    struct msg_conn* conn = calloc(1, sizeof(*conn));
    if (!conn) {
        close(fd);
        return MSG_ERR_NO_MEMORY;
    }
    conn->fd = fd;
    conn->refs = 1;
    conn->address = next_free_address(ep);
    conn->peer.address = conn->address;
    pthread_mutex_init(&conn->write_lock, NULL);
    if (read_peer_credentials(fd, &conn->peer) != 0 || watch(ep, conn) != 0) {
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
    free(conn->partial);
    pthread_mutex_destroy(&conn->write_lock);
    free(conn);
}

/* Out of descriptors, accepting was paused; a connection going away frees one. */
static void resume_listening(struct msg_endpoint* ep) {
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
    for (struct msg_conn** link = &ep->conns; *link; link = &(*link)->next) {
        if (*link == conn) {
            *link = conn->next;
            break;
        }
    }
    if (!conn->paused) {
        epoll_ctl(ep->wait_fd, EPOLL_CTL_DEL, conn->fd, NULL);
    }
    /* Wakes a sender blocked on this connection; the descriptor itself is closed by the last
     * reference, so no other thread ever uses a number that was reused meanwhile. */
    shutdown(conn->fd, SHUT_RDWR);
    resume_listening(ep);
    msg_conn_unref(conn);
}

/* Removing the descriptor from the wait set, rather than asking for no events, also silences
 * the hang-up reports that epoll gives whatever was asked. */
void msg_conn_pause(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (!conn->paused && epoll_ctl(ep->wait_fd, EPOLL_CTL_DEL, conn->fd, NULL) == 0) {
        conn->paused = 1;
    }
}

void msg_conn_resume(struct msg_endpoint* ep, struct msg_conn* conn) {
    if (conn->paused && !conn->dropped && watch(ep, conn) == 0) {
        conn->paused = 0;
    }
}

/* send.c - writing one whole frame to a connection, never waiting on a stuck peer for ever. */
#include <errno.h>
#include <poll.h>
#include <stdlib.h>

#include "internal.h"

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

/* The stall limit restarts with every byte the peer takes, so a slow reader of a large message
 * is served while one that stopped reading is not waited for beyond the limit. */
static int write_frame(int fd, const unsigned char* data, size_t length) {
    size_t sent = 0;
    int64_t stall_deadline = 0;
    int stalled = 0; /* stall_deadline is set: no progress since it was */
    while (sent < length) {
        ssize_t n = send(fd, data + sent, length - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += (size_t)n;
            stalled = 0;
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return status_of_send_error(errno);
        }
        if (!stalled) {
            stall_deadline = msg_deadline(MSG_SEND_STALL_MS);
            stalled = 1;
        }
        struct pollfd pfd = {.fd = fd, .events = POLLOUT};
        int ready = poll(&pfd, 1, msg_remaining_ms(stall_deadline));
        if (ready == 0) {
            return MSG_ERR_TIMEOUT;
        }
        if (ready < 0 && errno != EINTR) {
            return MSG_ERR_SYSTEM;
        }
    }
    return MSG_OK;
}

/* Takes a reference so the connection outlives a concurrent drop while we write. */
static struct msg_conn* hold_conn(struct msg_endpoint* ep, uint32_t address) {
    pthread_mutex_lock(&ep->lock);
    struct msg_conn* conn = ep->closed ? NULL : msg_conn_find(ep, address);
    if (conn) {
        conn->refs++;
    }
    pthread_mutex_unlock(&ep->lock);
    return conn;
}

MSG_EXPORT int MSG_SendMsg(const char* localName, uint32_t remoteAddress, MSG_Msg* msg) {
    if (!msg) {
        return MSG_ERR_BAD_ARG;
    }
    struct msg_endpoint* ep = NULL;
    int status = msg_endpoint_lookup(localName, &ep);
    struct msg_conn* conn = NULL;
    if (status == MSG_OK && msg->bytes > MSG_MAX_PAYLOAD_BYTES) {
        status = MSG_ERR_TOO_BIG;
    }
    if (status == MSG_OK) {
        conn = hold_conn(ep, remoteAddress);
        status = conn ? MSG_OK : MSG_ERR_NO_ROUTE;
    }
    if (status == MSG_OK) {
        msg_encode_header(msg);
        pthread_mutex_lock(&conn->write_lock);
        status = write_frame(conn->fd, msg->frame, kMsgHeaderBytes + (size_t)msg->bytes);
        pthread_mutex_unlock(&conn->write_lock);
    }
    free(msg);
    if (conn) {
        pthread_mutex_lock(&ep->lock);
        /* A failed write may have left part of a frame on the stream: nothing after it could
         * be understood, so the connection goes. */
        if (status != MSG_OK) {
            msg_conn_drop(ep, conn);
        }
        msg_conn_unref(conn);
        pthread_mutex_unlock(&ep->lock);
    }
    if (ep) {
        msg_endpoint_put(ep);
    }
    return status;
}

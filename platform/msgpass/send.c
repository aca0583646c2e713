/* send.c - sending one whole frame to a connection, never waiting on a stuck peer for ever. */
#include <stdlib.h>

#include "internal.h"

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

/* Write lock held. Takes `msg` whatever the result. */
static int write_or_queue(struct msg_conn* conn, MSG_Msg* msg) {
    msg_encode_header(msg);
    if (!(msg->flags & MSG_SEND_NOWAIT)) {
        msg_queue_append(conn, msg);
        return msg_queue_drain(conn);
    }
    if (msg_queue_admit(conn, msg) != MSG_OK) {
        msg_free(msg);
        return MSG_ERR_QUEUE_FULL;
    }
    return msg_queue_flush(conn);
}

static int send_on(struct msg_endpoint* ep, struct msg_conn* conn, MSG_Msg* msg) {
    pthread_mutex_lock(&conn->write_lock);
    int status = write_or_queue(conn, msg);
    pthread_mutex_lock(&ep->lock);
    if (status == MSG_OK && msg_queue_charge(ep, conn) != 0) {
        status = MSG_ERR_QUEUE_FULL;
    }
    /* Whatever is left waits for the leader to see room in the socket. */
    if (status == MSG_OK && msg_conn_want_output(ep, conn, conn->out_head != NULL) != 0) {
        status = MSG_ERR_SYSTEM;
    }
    /* A failed write may have left part of a frame on the stream, and a full queue means a peer
     * that does not read: either way the connection goes. */
    if (status != MSG_OK) {
        msg_conn_drop(ep, conn);
    }
    pthread_mutex_unlock(&conn->write_lock);
    msg_conn_unref(conn);
    pthread_mutex_unlock(&ep->lock);
    return status;
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
        status = send_on(ep, conn, msg);
    } else {
        msg_free(msg);
    }
    if (ep) {
        msg_endpoint_put(ep);
    }
    return status;
}

MSG_EXPORT int MSG_GetQueuedBytes(const char* localName, uint32_t remoteAddress, size_t* bytes) {
    if (!bytes) {
        return MSG_ERR_BAD_ARG;
    }
    struct msg_endpoint* ep = NULL;
    int status = msg_endpoint_lookup(localName, &ep);
    if (status != MSG_OK) {
        return status;
    }
    struct msg_conn* conn = hold_conn(ep, remoteAddress);
    if (conn) {
        pthread_mutex_lock(&conn->write_lock);
        *bytes = conn->out_held;
        pthread_mutex_unlock(&conn->write_lock);
        pthread_mutex_lock(&ep->lock);
        msg_conn_unref(conn);
        pthread_mutex_unlock(&ep->lock);
    } else {
        status = MSG_ERR_NO_ROUTE;
    }
    msg_endpoint_put(ep);
    return status;
}

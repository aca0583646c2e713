/* remote.c - connecting a local endpoint to a named remote one, waiting for it to appear. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

/* Longest sleep between two attempts. Directory events normally wake us at once; this bounds
 * the wait where they cannot (a remote whose backlog is full, a file system without inotify). */
enum { kRetryMs = 50 };

/* A connected socket in *fd, or why not: MSG_ERR_TIMEOUT means "not there yet, try again". */
static int try_connect(const char* path, int* fd) {
    *fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (*fd < 0) {
        return MSG_ERR_SYSTEM;
    }
    struct sockaddr_un addr;
    socklen_t length = msg_sockaddr(path, &addr);
    if (connect(*fd, (struct sockaddr*)&addr, length) == 0) {
        return MSG_OK;
    }
    int saved = errno;
    close(*fd);
    *fd = -1;
    errno = saved;
    switch (saved) {
        case ENOENT:       /* not created yet */
        case ECONNREFUSED: /* a stale socket its successor has not reclaimed yet */
        case EAGAIN:       /* its backlog is full */
        case EINTR:
            return MSG_ERR_TIMEOUT;
        default:
            return MSG_ERR_SYSTEM;
    }
}

/* Whether the process behind the connection holds the name: the kernel's credentials of the
 * listener must be those of the name's owner, who must be someone allowed to hold names in the
 * directory. Checked before anything is sent, so that an impostor learns nothing. A name that
 * changed hands meanwhile counts as not there yet. */
static int check_holder(const char* dir, const char* path, int fd, struct ucred* cred) {
    socklen_t length = sizeof(*cred);
    struct stat nameSt, dirSt;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, cred, &length) != 0) {
        return MSG_ERR_SYSTEM;
    }
    if (lstat(path, &nameSt) != 0 || stat(dir, &dirSt) != 0) {
        return MSG_ERR_TIMEOUT;
    }
    return cred->uid == nameSt.st_uid && msg_may_hold_names(nameSt.st_uid, dirSt.st_uid)
               ? MSG_OK
               : MSG_ERR_NOT_TRUSTED;
}

/* Sleeps until something changes in the directory, the retry interval passes or the deadline
 * comes. Without a watch it simply sleeps the interval. */
static void wait_for_directory(int watch_fd, int64_t deadline) {
    int wait = msg_remaining_ms(deadline);
    if (wait < 0 || wait > kRetryMs) {
        wait = kRetryMs;
    }
    struct pollfd pfd = {.fd = watch_fd, .events = POLLIN};
    if (poll(&pfd, watch_fd >= 0 ? 1 : 0, wait) > 0) {
        char events[4096];
        while (read(watch_fd, events, sizeof(events)) > 0) {
        }
    }
}

/* Connects to whoever holds the name, once someone allowed to does. A name held by someone else
 * is waited out as if it were not there (its rightful owner replaces it on start), and reported
 * as such when the time is up. */
static int connect_when_there(const char* dir, const char* path, int64_t deadline, int* fd,
                              struct ucred* cred) {
    int watch_fd = -1;
    int status;
    for (;;) {
        status = try_connect(path, fd);
        if (status == MSG_OK && (status = check_holder(dir, path, *fd, cred)) != MSG_OK) {
            close(*fd);
            *fd = -1;
        }
        if ((status != MSG_ERR_TIMEOUT && status != MSG_ERR_NOT_TRUSTED) ||
            msg_remaining_ms(deadline) == 0) {
            break;
        }
        if (watch_fd < 0) {
            /* Watch first, then try again at once: a remote appearing between our attempt and
             * the watch must not go unnoticed. */
            watch_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
            if (watch_fd >= 0 &&
                inotify_add_watch(watch_fd, dir, IN_CREATE | IN_MOVED_TO | IN_ATTRIB) < 0) {
                close(watch_fd);
                watch_fd = -2; /* do not try again: fall back to the retry interval */
            }
            continue;
        }
        wait_for_directory(watch_fd, deadline);
    }
    if (watch_fd >= 0) {
        close(watch_fd);
    }
    return status;
}

MSG_EXPORT int MSG_OpenRemoteSync(const char* localName, const char* remoteName, int timeoutMs,
                                  uint32_t* remoteAddress) {
    int status = msg_check_name(localName);
    if (status == MSG_OK) {
        status = msg_check_name(remoteName);
    }
    if (status == MSG_OK && !remoteAddress) {
        status = MSG_ERR_BAD_ARG;
    }
    struct msg_endpoint* ep = NULL;
    if (status == MSG_OK) {
        status = msg_endpoint_lookup(localName, &ep);
    }
    if (status != MSG_OK) {
        return status;
    }
    int64_t deadline = msg_deadline(timeoutMs);
    char path[kMsgPathBytes];
    int fd = -1;
    struct ucred cred;
    status = msg_socket_path(ep->dir, remoteName, path);
    if (status == MSG_OK) {
        status = connect_when_there(ep->dir, path, deadline, &fd, &cred);
    }
    if (status == MSG_OK) {
        pthread_mutex_lock(&ep->lock);
        if (ep->closed) {
            close(fd);
            status = MSG_ERR_NOT_OPEN;
        } else {
            status = msg_conn_add(ep, fd, &cred, remoteAddress);
            ep->connected_out |= status == MSG_OK;
        }
        pthread_mutex_unlock(&ep->lock);
    }
    msg_endpoint_put(ep);
    return status;
}

/* republish.c - a published endpoint whose socket file was removed or replaced puts it back, so
 * that a service stays reachable; when it cannot, MSG_CheckPublished says why. */
#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

/* What of the directory is watched: our name going, and the directory itself going. */
#define kNameEvents (IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF)

void msg_watch_name(struct msg_endpoint* ep) {
    ep->name_watch_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = kMsgNameToken};
    if (ep->name_watch_fd >= 0 &&
        (inotify_add_watch(ep->name_watch_fd, ep->dir, kNameEvents) < 0 ||
         epoll_ctl(ep->wait_fd, EPOLL_CTL_ADD, ep->name_watch_fd, &event) != 0)) {
        close(ep->name_watch_fd);
        ep->name_watch_fd = -1;
    }
}

static int name_is_ours(const struct msg_endpoint* ep) {
    struct stat st;
    return lstat(ep->path, &st) == 0 && st.st_dev == ep->socket_dev && st.st_ino == ep->socket_ino;
}

/* A new listening socket under the name; the old one stays until the new one is in place, and
 * what waits in its backlog is accepted first, so that no client that got through is lost. */
static int republish(struct msg_endpoint* ep) {
    char dir[kMsgPathBytes];
    struct stat dirSt;
    /* The directory itself may have gone: it is made again where this library makes it. */
    int status = msg_resolve_dir(dir, sizeof(dir));
    if (status == MSG_OK && strcmp(dir, ep->dir) != 0) {
        status = MSG_ERR_NO_DIR;
    }
    if (status == MSG_OK && stat(ep->dir, &dirSt) != 0) {
        status = MSG_ERR_NO_DIR;
    }
    if (status == MSG_OK && !msg_may_hold_names(geteuid(), dirSt.st_uid)) {
        status = MSG_ERR_NOT_ALLOWED;
    }
    if (status != MSG_OK) {
        return status;
    }
    msg_accept_pending(ep);
    const int old_fd = ep->listen_fd;
    status = msg_install_socket(ep, dirSt.st_uid);
    if (status != MSG_OK) {
        if (ep->listen_fd >= 0) {
            close(ep->listen_fd);
        }
        ep->listen_fd = old_fd;
        return status;
    }
    if (!ep->listen_paused) {
        epoll_ctl(ep->wait_fd, EPOLL_CTL_DEL, old_fd, NULL);
    }
    close(old_fd);
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = kMsgListenToken};
    if (!ep->listen_paused && epoll_ctl(ep->wait_fd, EPOLL_CTL_ADD, ep->listen_fd, &event) != 0) {
        return MSG_ERR_SYSTEM;
    }
    if (ep->name_watch_fd >= 0) { /* a directory made again needs a watch of its own */
        inotify_add_watch(ep->name_watch_fd, ep->dir, kNameEvents);
    }
    return MSG_OK;
}

static int check_name(struct msg_endpoint* ep) {
    if (!ep->closed && !__atomic_load_n(&msg_exiting, __ATOMIC_RELAXED) && !name_is_ours(ep)) {
        ep->name_status = republish(ep);
    }
    return ep->name_status;
}

void msg_name_events(struct msg_endpoint* ep) {
    char events[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
    int relevant = 0;
    for (ssize_t n; (n = read(ep->name_watch_fd, events, sizeof(events))) > 0;) {
        for (char* at = events; at < events + n;) {
            const struct inotify_event* event = (const struct inotify_event*)at;
            at += sizeof(*event) + event->len;
            relevant |= !event->len || strcmp(event->name, ep->name) == 0;
        }
    }
    if (relevant) {
        check_name(ep);
    }
}

MSG_EXPORT int MSG_CheckPublished(const char* localName) {
    struct msg_endpoint* ep;
    int status = msg_endpoint_lookup(localName, &ep);
    if (status != MSG_OK) {
        return status;
    }
    pthread_mutex_lock(&ep->lock);
    if (!ep->published) {
        status = MSG_ERR_BAD_ARG;
    } else if (ep->name_watch_fd < 0 || ep->name_status != MSG_OK) {
        status = check_name(ep); /* nothing tells us when it goes: look */
    } else {
        status = ep->name_status;
    }
    pthread_mutex_unlock(&ep->lock);
    msg_endpoint_put(ep);
    return status;
}

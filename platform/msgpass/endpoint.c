/* endpoint.c - opening and closing local endpoints, and the socket files behind them. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"
#include "registry.h"

enum { kBacklog = 128 };

int msg_exiting;
/* Bounds the search for a free temporary name (see bind_listening). */
enum { kTempNameAttempts = 16 };

/* From bind_temporary: the directory's path leaves no room for a temporary name in it. */
enum { kNoRoomForTemp = -1 };

/* Opens the socket file just bound at `path` to change its mode, without following a link and
 * only when it is a socket of ours with no other name: in a directory that others may write to,
 * someone could have put a link to a file of root's in its place between bind and chmod. */
static int open_to_make_public(const char* path) {
    int fd = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode) || st.st_uid != geteuid() ||
                    st.st_nlink != 1)) {
        close(fd);
        errno = EPERM;
        return -1;
    }
    return fd;
}

/* Anyone may connect: services judge their clients by SO_PEERCRED, not by file modes. The mode
 * is changed through the descriptor (by its name in /proc), so the checked file is the one
 * changed. */
static int make_public(const char* path) {
    int fd = open_to_make_public(path);
    if (fd < 0) {
        return -1;
    }
    char byFd[64];
    snprintf(byFd, sizeof(byFd), "/proc/self/fd/%d", fd);
    int status = chmod(byFd, 0666);
    if (status != 0 && errno == ENOENT) { /* no /proc: the file was checked a moment ago */
        status = fchmodat(AT_FDCWD, path, 0666, AT_SYMLINK_NOFOLLOW);
    }
    int saved = errno;
    close(fd);
    errno = saved;
    return status;
}

/* Binds the listening socket at `path`, open to anyone, and listens. On failure nothing is left
 * at `path` by us; errno says why. */
static int bind_and_listen(int fd, const char* path) {
    struct sockaddr_un addr;
    socklen_t length = msg_sockaddr(path, &addr);
    if (bind(fd, (struct sockaddr*)&addr, length) != 0) {
        return -1;
    }
    if (make_public(path) != 0 || listen(fd, kBacklog) != 0) {
        int saved = errno;
        unlink(path);
        errno = saved;
        return -1;
    }
    return 0;
}

/* Binds the listening socket under a fresh temporary name in the directory, into `temp`. The
 * name carries our pid and a sequence number; one that is taken (a process of our pid in another
 * pid namespace, or one that died half-way) is skipped, never removed. */
static int bind_temporary(struct msg_endpoint* ep, char* temp) {
    static unsigned sequence;
    long pid = (long)getpid();
    for (int attempt = 0; attempt < kTempNameAttempts; attempt++) {
        int written = snprintf(temp, kMsgPathBytes, "%s/.tmp-%ld-%u", ep->dir, pid,
                               __atomic_add_fetch(&sequence, 1, __ATOMIC_RELAXED));
        if (written <= 0 || written >= kMsgPathBytes) {
            return kNoRoomForTemp;
        }
        if (bind_and_listen(ep->listen_fd, temp) == 0) {
            return MSG_OK;
        }
        if (errno != EADDRINUSE) {
            return MSG_ERR_SYSTEM;
        }
    }
    return MSG_ERR_SYSTEM;
}

/* Moves `temp` to `path` unless something is there already (EEXIST), without a moment in which
 * neither exists. EINVAL: the file system cannot rename without replacing. */
static int rename_unless_taken(const char* temp, const char* path) {
    return renameat2(AT_FDCWD, temp, AT_FDCWD, path, RENAME_NOREPLACE);
}

/* How often a claim is tried again when someone else keeps putting files under the name. */
enum { kClaimAttempts = 3 };

/* Puts the socket bound at `temp` in place under the endpoint's name. A free name is claimed
 * without replacing anything, so the common case needs no lock. A taken name goes through the
 * lock: a dead socket there is reclaimed, and whatever someone who may not hold names put there
 * is replaced in one step, so that no moment leaves the name to them again. */
static int claim_name(struct msg_endpoint* ep, const char* temp, uid_t dirOwner) {
    if (rename_unless_taken(temp, ep->path) == 0) {
        return MSG_OK;
    }
    int cannot_refuse = errno == EINVAL || errno == ENOSYS;
    if (errno != EEXIST && !cannot_refuse) {
        return MSG_ERR_SYSTEM;
    }
    int lock_fd = msg_lock_dir(ep->dir);
    int status = MSG_ERR_NAME_IN_USE;
    for (int attempt = 0; attempt < kClaimAttempts && status == MSG_ERR_NAME_IN_USE; attempt++) {
        int verdict = msg_examine_name(ep->path, dirOwner);
        if (verdict != kNameFree && verdict != kNameReplace) {
            status = verdict;
            break;
        }
        /* Without RENAME_NOREPLACE every process of this directory comes through the lock, which
         * then keeps a live socket from being replaced. */
        int replace = verdict == kNameReplace || cannot_refuse;
        if ((replace ? rename(temp, ep->path) : rename_unless_taken(temp, ep->path)) == 0) {
            status = MSG_OK;
        } else if (errno != EEXIST) { /* EEXIST: someone took it meanwhile; look again */
            status = MSG_ERR_SYSTEM;
        }
    }
    msg_unlock_dir(lock_fd);
    return status;
}

/* Where the name fits a socket address but a temporary name would not, the socket is bound in
 * place. The directory lock keeps other processes from taking it for stale in the moment before
 * it listens; a client that finds it then is refused and tries again. */
static int bind_in_place(struct msg_endpoint* ep, uid_t dirOwner) {
    int lock_fd = msg_lock_dir(ep->dir);
    int status = MSG_ERR_NAME_IN_USE;
    for (int attempt = 0; attempt < kClaimAttempts && status == MSG_ERR_NAME_IN_USE; attempt++) {
        int verdict = msg_examine_name(ep->path, dirOwner);
        if (verdict == kNameReplace && unlink(ep->path) != 0 && errno != ENOENT) {
            verdict = MSG_ERR_SYSTEM;
        }
        if (verdict != kNameFree && verdict != kNameReplace) {
            status = verdict;
        } else if (bind_and_listen(ep->listen_fd, ep->path) == 0) {
            status = MSG_OK;
        } else if (errno != EADDRINUSE) {
            status = MSG_ERR_SYSTEM;
        }
    }
    msg_unlock_dir(lock_fd);
    return status;
}

/* The socket listens under a temporary name first and is then renamed into place, so a client
 * never finds the name without someone accepting behind it. Dead sockets that others left are
 * swept on the way, since names that carry a pid are never opened again to be reclaimed. */
int msg_install_socket(struct msg_endpoint* ep, uid_t dirOwner) {
    ep->listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (ep->listen_fd < 0) {
        return MSG_ERR_SYSTEM;
    }
    char temp[kMsgPathBytes];
    int status = bind_temporary(ep, temp);
    if (status == kNoRoomForTemp) {
        status = bind_in_place(ep, dirOwner);
    } else if (status == MSG_OK) {
        status = claim_name(ep, temp, dirOwner);
        if (status != MSG_OK) {
            int saved = errno;
            unlink(temp);
            errno = saved;
        }
    }
    struct stat st;
    if (status == MSG_OK && lstat(ep->path, &st) != 0) {
        status = MSG_ERR_SYSTEM;
    }
    if (status != MSG_OK) {
        return status;
    }
    ep->published = 1;
    ep->socket_dev = st.st_dev;
    ep->socket_ino = st.st_ino;
    msg_sweep_dir(ep->dir, ep->name);
    return MSG_OK;
}

/* Removes the socket file only if it is still the one we made. No lock: while our socket
 * listens, nobody else removes it (reclaiming takes only sockets that nobody listens on) or puts
 * another in its place (only names of owners who may not hold names are replaced). */
static void remove_socket(struct msg_endpoint* ep) {
    struct stat st;
    if (ep->published && lstat(ep->path, &st) == 0 && st.st_dev == ep->socket_dev &&
        st.st_ino == ep->socket_ino) {
        unlink(ep->path);
    }
}

static int add_to_wait_set(int wait_fd, int fd, uint64_t token) {
    struct epoll_event event = {.events = EPOLLIN, .data.u64 = token};
    return epoll_ctl(wait_fd, EPOLL_CTL_ADD, fd, &event);
}

static struct msg_endpoint* endpoint_new(const char* name) {
    struct msg_endpoint* ep = calloc(1, sizeof(*ep));
    if (!ep) {
        return NULL;
    }
    strcpy(ep->name, name);
    ep->listen_fd = ep->wait_fd = ep->wake_fd = ep->poll_fd = ep->pending_fd = -1;
    ep->name_watch_fd = -1;
    ep->next_deadline = kMsgForever;
    pthread_mutex_init(&ep->lock, NULL);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&ep->turn, &attr);
    pthread_condattr_destroy(&attr);
    return ep;
}

void msg_endpoint_free(struct msg_endpoint* ep) {
    while (ep->conns) {
        msg_conn_drop(ep, ep->conns);
    }
    while (ep->queue_head) {
        MSG_Msg* next = ep->queue_head->next;
        msg_free(ep->queue_head);
        ep->queue_head = next;
    }
    int fds[] = {ep->listen_fd, ep->wait_fd,    ep->wake_fd,
                 ep->poll_fd,   ep->pending_fd, ep->name_watch_fd};
    for (size_t i = 0; i < sizeof(fds) / sizeof(fds[0]); i++) {
        if (fds[i] >= 0) {
            close(fds[i]);
        }
    }
    free(ep->stage);
    pthread_cond_destroy(&ep->turn);
    pthread_mutex_destroy(&ep->lock);
    free(ep);
}

/* MSG_OpenLocal makes an endpoint that only connects out; MSG_OpenService one that is
 * published under its name. */
enum { kConnectOnly = 0, kPublish = 1 };

int msg_endpoint_ensure_wake(struct msg_endpoint* ep) {
    if (ep->wake_fd < 0) {
        ep->wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    return ep->wake_fd >= 0 ? 0 : -1;
}

void msg_endpoint_wake_poller(struct msg_endpoint* ep) {
    if (ep->polling && ep->wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t ignored = write(ep->wake_fd, &one, sizeof(one));
        (void)ignored;
    }
}

int msg_endpoint_ensure_wait_set(struct msg_endpoint* ep) {
    if (ep->wait_fd >= 0) {
        return 0;
    }
    if (msg_endpoint_ensure_wake(ep) != 0) {
        return -1;
    }
    ep->wait_fd = epoll_create1(EPOLL_CLOEXEC);
    if (ep->wait_fd < 0 || add_to_wait_set(ep->wait_fd, ep->wake_fd, kMsgWakeToken) != 0 ||
        msg_conn_watch_all(ep) != 0) {
        int saved = errno;
        if (ep->wait_fd >= 0) {
            close(ep->wait_fd);
        }
        ep->wait_fd = -1;
        for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
            conn->watched = 0; /* the set they were in is gone */
        }
        errno = saved;
        return -1;
    }
    return 0;
}

/* A client's endpoint costs nothing until it is used: the directory is only looked up, and it
 * waits with poll() on its few connections (receive.c) until someone asks for MSG_GetPollFd.
 * Nothing of it is ever in the directory, so nobody but the remotes it connects to can reach it,
 * whoever runs it. */
static int endpoint_open(struct msg_endpoint* ep, int mode) {
    int status = msg_resolve_dir(ep->dir, sizeof(ep->dir));
    if (status == MSG_OK) {
        status = msg_socket_path(ep->dir, ep->name, ep->path);
    }
    if (status != MSG_OK || mode == kConnectOnly) {
        return status;
    }
    struct stat dirSt;
    if (stat(ep->dir, &dirSt) != 0) {
        return MSG_ERR_NO_DIR;
    }
    if (!msg_may_hold_names(geteuid(), dirSt.st_uid)) {
        return MSG_ERR_NOT_ALLOWED;
    }
    if (msg_endpoint_ensure_wait_set(ep) != 0) {
        return MSG_ERR_SYSTEM;
    }
    ep->owner = geteuid();
    ep->base_fds = msg_count_open_fds();
    status = msg_install_socket(ep, dirSt.st_uid);
    if (status == MSG_OK && add_to_wait_set(ep->wait_fd, ep->listen_fd, kMsgListenToken) != 0) {
        remove_socket(ep);
        status = MSG_ERR_SYSTEM;
    }
    if (status == MSG_OK) {
        msg_watch_name(ep);
    }
    return status;
}

static int open_local(const char* name, int mode) {
    int status = msg_check_name(name);
    if (status != MSG_OK) {
        return status;
    }
    /* Held throughout, so two threads opening one name cannot both succeed. */
    msg_registry_lock();
    if (msg_registry_find_locked(name)) {
        msg_registry_unlock();
        return MSG_ERR_NAME_IN_USE;
    }
    struct msg_endpoint* ep = endpoint_new(name);
    status = ep ? endpoint_open(ep, mode) : MSG_ERR_NO_MEMORY;
    if (status == MSG_OK) {
        msg_registry_insert_locked(ep);
    }
    msg_registry_unlock();
    if (status != MSG_OK && ep) {
        int saved = errno;
        msg_endpoint_free(ep);
        errno = saved;
    }
    return status;
}

MSG_EXPORT int MSG_OpenLocal(const char* name) {
    return open_local(name, kConnectOnly);
}

MSG_EXPORT int MSG_OpenService(const char* name) {
    return open_local(name, kPublish);
}

/* Wakes every thread waiting on the endpoint; they see it closed and return. Callers still
 * inside the library hold references, so the memory goes with the last of them. */
static void endpoint_close(struct msg_endpoint* ep) {
    pthread_mutex_lock(&ep->lock);
    ep->closed = 1;
    while (ep->conns) {
        msg_conn_drop(ep, ep->conns);
    }
    /* Only a thread waiting in the library, or a caller polling MSG_GetPollFd, needs the
     * wake-up. */
    if ((ep->leader || ep->poll_fd >= 0) && ep->wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t ignored = write(ep->wake_fd, &one, sizeof(one));
        (void)ignored;
    }
    pthread_cond_broadcast(&ep->turn);
    pthread_mutex_unlock(&ep->lock);
    remove_socket(ep);
    msg_endpoint_put(ep);
}

MSG_EXPORT int MSG_CloseLocal(const char* name) {
    if (name) {
        int status = msg_check_name(name);
        if (status != MSG_OK) {
            return status;
        }
    }
    int closed = 0;
    for (;;) {
        msg_registry_lock();
        struct msg_endpoint* ep = msg_registry_remove_locked(name);
        msg_registry_unlock();
        if (!ep) {
            break;
        }
        endpoint_close(ep);
        closed++;
        if (name) {
            break;
        }
    }
    return closed ? MSG_OK : MSG_ERR_NOT_OPEN;
}

/* A process that ends through exit() or a return from main takes its names with it, however it
 * left its endpoints: nothing else would ever remove a name that carries its pid. Only the files
 * go; threads still inside the library go on with their descriptors and memory. The registry
 * lock is only tried: a thread that holds it at exit must not hang the exit. */
__attribute__((destructor)) static void remove_names_at_exit(void) {
    __atomic_store_n(&msg_exiting, 1, __ATOMIC_RELAXED); /* a leader must not put them back */
    for (int attempt = 0; attempt < 100; attempt++) {
        if (msg_registry_trylock()) {
            for (struct msg_endpoint* ep = msg_registry_first_locked(); ep; ep = ep->next) {
                remove_socket(ep);
            }
            msg_registry_unlock();
            return;
        }
        usleep(1000);
    }
}

/* holders.c - who holds a name in the endpoint directory: whether a socket file still has a
 * process behind it, whose it is, and sweeping the ones whose process is gone. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

/* Bounds the time one open spends sweeping; what is left goes with later opens. */
enum { kSweepProbes = 64 };

/* The lock file is only used when it belongs to someone who may hold names, and it is readable
 * by its owner alone (root passes anyway): otherwise another user could hold the lock for ever
 * and stop every claim in the directory. Callers may hold names, so they may remove a lock file
 * of anyone else's making. Links are never followed, and a file with more than one name (a hard
 * link someone made to a file elsewhere) is replaced too: its mode is ours to change only when
 * the file is nothing but our lock. */
static int open_lock(const char* path, const struct stat* dirSt) {
    for (int attempt = 0; attempt < 2; attempt++) {
        int fd = open(path, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
        struct stat st;
        if (fd < 0 && errno == ELOOP && unlink(path) == 0) {
            continue; /* a symbolic link, to be replaced by a file of ours */
        }
        if (fd < 0 || fstat(fd, &st) != 0) {
            break;
        }
        if (S_ISREG(st.st_mode) && st.st_nlink == 1 &&
            msg_may_hold_names(st.st_uid, dirSt->st_uid)) {
            if (st.st_uid == geteuid() && (st.st_mode & 077) != 0) {
                fchmod(fd, 0600); /* made open by an earlier version */
            }
            return fd;
        }
        close(fd);
        if (unlink(path) != 0) {
            break;
        }
    }
    return -1;
}

int msg_lock_dir(const char* dir) {
    char path[PATH_MAX]; /* a plain file: not bound by the length of a socket address */
    struct stat dirSt;
    if (snprintf(path, sizeof(path), "%s/.lock", dir) >= (int)sizeof(path) ||
        stat(dir, &dirSt) != 0) {
        return -1;
    }
    int fd = open_lock(path, &dirSt);
    while (fd >= 0 && flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    return fd;
}

void msg_unlock_dir(int lockFd) {
    if (lockFd >= 0) {
        close(lockFd); /* releases the flock */
    }
}

/* A datagram socket cannot connect to a stream socket: the kernel says EPROTOTYPE when a socket
 * is bound to the file and ECONNREFUSED when none is, without queueing anything at a live one.
 * A socket that is bound but not listening yet is being set up, so it counts as alive too. */
int msg_probe_socket(const char* path) {
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return -1;
    }
    struct sockaddr_un addr;
    socklen_t length = msg_sockaddr(path, &addr);
    int connected = connect(probe, (struct sockaddr*)&addr, length);
    int saved = errno;
    close(probe);
    errno = saved;
    if (connected == 0 || saved == EPROTOTYPE || saved == EACCES) {
        return kSocketAlive; /* EACCES: not ours to judge, so not ours to remove */
    }
    if (saved == ECONNREFUSED) {
        return kSocketDead;
    }
    return saved == ENOENT ? kSocketGone : -1;
}

int msg_examine_name(const char* path, uid_t dirOwner) {
    struct stat st;
    if (lstat(path, &st) != 0) {
        return errno == ENOENT ? kNameFree : MSG_ERR_SYSTEM;
    }
    if (!msg_may_hold_names(st.st_uid, dirOwner)) {
        /* A directory cannot be replaced by a socket; anything else can. */
        return S_ISDIR(st.st_mode) ? MSG_ERR_NOT_TRUSTED : kNameReplace;
    }
    if (!S_ISSOCK(st.st_mode)) {
        return MSG_ERR_NAME_IN_USE; /* not ours to delete */
    }
    switch (msg_probe_socket(path)) {
        case kSocketGone:
            return kNameFree;
        case kSocketDead: /* the process that made it has died */
            return unlink(path) == 0 || errno == ENOENT ? kNameFree : MSG_ERR_SYSTEM;
        case kSocketAlive:
            return MSG_ERR_NAME_IN_USE;
        default:
            return MSG_ERR_SYSTEM;
    }
}

/* One entry of the sweep: 1 when it was a socket and was probed. */
static int sweep_entry(int dirFd, const char* dir, const char* name) {
    struct stat st;
    char path[kMsgPathBytes];
    if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(st.st_mode) ||
        msg_socket_path(dir, name, path) != MSG_OK) {
        return 0;
    }
    if (msg_probe_socket(path) == kSocketDead) {
        unlinkat(dirFd, name, 0);
    }
    return 1;
}

/* Only under the lock, so that a name found dead is not claimed again before it is removed:
 * claims of a taken name come through the lock, and free names are claimed without replacing. */
void msg_sweep_dir(const char* dir, const char* keep) {
    int lockFd = msg_lock_dir(dir);
    DIR* entries = lockFd >= 0 ? opendir(dir) : NULL;
    if (entries) {
        int probes = 0;
        for (struct dirent* entry; probes < kSweepProbes && (entry = readdir(entries));) {
            if (strcmp(entry->d_name, keep) != 0 &&
                (entry->d_type == DT_SOCK || entry->d_type == DT_UNKNOWN)) {
                probes += sweep_entry(dirfd(entries), dir, entry->d_name);
            }
        }
        closedir(entries);
    }
    msg_unlock_dir(lockFd);
}

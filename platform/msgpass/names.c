/* names.c - endpoint names, and where their sockets live. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal.h"

int msg_check_name(const char* name) {
    if (!name) {
        return MSG_ERR_BAD_ARG;
    }
    size_t length = strnlen(name, MSG_MAX_NAME_BYTES + 1);
    if (length == 0 || length > MSG_MAX_NAME_BYTES || memchr(name, '/', length)) {
        return MSG_ERR_BAD_NAME;
    }
    /* Names starting with '.' are the directory, its parent and the library's own files in it
     * (the lock file, sockets being set up): never an endpoint. */
    if (name[0] == '.') {
        return MSG_ERR_BAD_NAME;
    }
    return MSG_OK;
}

/* Whether `dir` is a directory (or a link to one) that we may look names up in: the trailing
 * slash makes access() fail for anything else. Writing is not asked for: a process that only
 * connects creates nothing there. One call, since every open looks the directory up again. */
static int usable_dir(const char* dir) {
    char probe[PATH_MAX];
    int written = snprintf(probe, sizeof(probe), "%s/", dir);
    if (written <= 0 || (size_t)written >= sizeof(probe)) {
        errno = ENAMETOOLONG;
        return 0;
    }
    return access(probe, X_OK) == 0;
}

/* Makes `dir` exist with `mode` when it does not; 0 when it is a usable directory. */
static int ensure_dir(const char* dir, mode_t mode) {
    if (usable_dir(dir)) {
        return 0;
    }
    if (errno != ENOENT) {
        return -1;
    }
    if (mkdir(dir, mode) == 0) {
        /* mkdir honours the umask; others must still be able to look names up in it. Changed
         * through a descriptor of the directory we made, never through a link put in its place. */
        int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        struct stat st;
        if (fd >= 0 && fstat(fd, &st) == 0 && st.st_uid == geteuid()) {
            fchmod(fd, mode);
        }
        if (fd >= 0) {
            close(fd);
        }
    } else if (errno != EEXIST) {
        return -1;
    }
    return usable_dir(dir) ? 0 : -1;
}

/* A per-user directory is only trusted when it is really ours and closed to others: in /tmp
 * anyone could have created it first. */
static int ensure_private_dir(const char* dir) {
    if (ensure_dir(dir, 0700) != 0) {
        return -1;
    }
    struct stat st;
    if (lstat(dir, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() ||
        (st.st_mode & 077) != 0) {
        return -1;
    }
    return 0;
}

static int copy_dir(char* dir, size_t dirBytes, const char* text) {
    int written = snprintf(dir, dirBytes, "%s", text);
    return written > 0 && (size_t)written < dirBytes ? MSG_OK : MSG_ERR_NO_DIR;
}

/* The directory named first: $MSGPASS_DIR when set, else the default. */
static const char* first_choice(int* explicitChoice) {
    const char* chosen = getenv(MSG_DIR_ENV);
    *explicitChoice = chosen && *chosen;
    return *explicitChoice ? chosen : MSG_DEFAULT_DIR;
}

int msg_resolve_dir(char* dir, size_t dirBytes) {
    int explicitChoice;
    const char* chosen = first_choice(&explicitChoice);
    if (ensure_dir(chosen, kMsgDirMode) == 0) {
        return copy_dir(dir, dirBytes, chosen);
    }
    if (explicitChoice) {
        return MSG_ERR_NO_DIR; /* never second-guessed */
    }
    char fallback[kMsgPathBytes];
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    int written = runtime && *runtime
                      ? snprintf(fallback, sizeof(fallback), "%s/msgpass", runtime)
                      : snprintf(fallback, sizeof(fallback), "/tmp/msgpass-%u", (unsigned)getuid());
    if (written <= 0 || (size_t)written >= sizeof(fallback) || ensure_private_dir(fallback) != 0) {
        return MSG_ERR_NO_DIR;
    }
    return copy_dir(dir, dirBytes, fallback);
}

int msg_may_hold_names(uid_t uid, uid_t dirOwner) {
    return uid == 0 || uid == dirOwner;
}

int msg_socket_path(const char* dir, const char* name, char* path) {
    int written = snprintf(path, kMsgPathBytes, "%s/%s", dir, name);
    return written > 0 && written < kMsgPathBytes ? MSG_OK : MSG_ERR_NO_DIR;
}

socklen_t msg_sockaddr(const char* path, struct sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    size_t length = strnlen(path, sizeof(addr->sun_path) - 1);
    memcpy(addr->sun_path, path, length);
    return (socklen_t)(offsetof(struct sockaddr_un, sun_path) + length + 1);
}

MSG_EXPORT int MSG_GetDir(const char* localName, char* dir, size_t dirBytes) {
    if (!dir || dirBytes == 0) {
        return MSG_ERR_BAD_ARG;
    }
    char found[PATH_MAX];
    int status;
    if (localName) {
        struct msg_endpoint* ep = NULL;
        status = msg_endpoint_lookup(localName, &ep);
        if (status == MSG_OK) {
            copy_dir(found, sizeof(found), ep->dir);
            msg_endpoint_put(ep);
        }
    } else {
        status = msg_resolve_dir(found, sizeof(found));
        int explicitChoice;
        if (status != MSG_OK && copy_dir(found, sizeof(found), first_choice(&explicitChoice))) {
            found[0] = '\0'; /* a $MSGPASS_DIR longer than any path */
        }
    }
    if (status != MSG_OK && status != MSG_ERR_NO_DIR) {
        return status;
    }
    return copy_dir(dir, dirBytes, found) == MSG_OK || !found[0] ? status : MSG_ERR_BAD_ARG;
}

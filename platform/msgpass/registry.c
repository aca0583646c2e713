/* registry.c - the endpoints open in this process, found by name. */
#include <string.h>
#include <unistd.h>

#include "internal.h"
#include "registry.h"

static pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
static struct msg_endpoint* registry_head;
static char debug_name[MSG_MAX_NAME_BYTES + 1];

void msg_registry_lock(void) {
    pthread_mutex_lock(&registry_lock);
}

void msg_registry_unlock(void) {
    pthread_mutex_unlock(&registry_lock);
}

int msg_registry_trylock(void) {
    return pthread_mutex_trylock(&registry_lock) == 0;
}

struct msg_endpoint* msg_registry_first_locked(void) {
    return registry_head;
}

struct msg_endpoint* msg_registry_find_locked(const char* name) {
    for (struct msg_endpoint* ep = registry_head; ep; ep = ep->next) {
        if (strcmp(ep->name, name) == 0) {
            return ep;
        }
    }
    return NULL;
}

void msg_registry_insert_locked(struct msg_endpoint* ep) {
    ep->refs = 1;
    ep->next = registry_head;
    registry_head = ep;
}

struct msg_endpoint* msg_registry_remove_locked(const char* name) {
    for (struct msg_endpoint** link = &registry_head; *link; link = &(*link)->next) {
        struct msg_endpoint* ep = *link;
        if (!name || strcmp(ep->name, name) == 0) {
            *link = ep->next;
            ep->next = NULL;
            return ep;
        }
    }
    return NULL;
}

struct msg_endpoint* msg_endpoint_get(const char* name) {
    msg_registry_lock();
    struct msg_endpoint* ep = msg_registry_find_locked(name);
    if (ep) {
        __atomic_add_fetch(&ep->refs, 1, __ATOMIC_RELAXED);
    }
    msg_registry_unlock();
    return ep;
}

/* Without the registry's lock: while an endpoint is registered the registry's own reference
 * keeps the count above zero, so only the last put after its removal can free it, and no get
 * can find it then. */
void msg_endpoint_put(struct msg_endpoint* ep) {
    if (__atomic_sub_fetch(&ep->refs, 1, __ATOMIC_ACQ_REL) == 0) {
        msg_endpoint_free(ep);
    }
}

int msg_endpoint_lookup(const char* name, struct msg_endpoint** ep) {
    /* An open endpoint's name was checked when it opened: only a miss says which error. */
    *ep = name ? msg_endpoint_get(name) : NULL;
    if (*ep) {
        return MSG_OK;
    }
    int status = msg_check_name(name);
    return status != MSG_OK ? status : MSG_ERR_NOT_OPEN;
}

MSG_EXPORT int MSG_DebugSetName(const char* name) {
    int status = msg_check_name(name);
    if (status != MSG_OK) {
        return status;
    }
    msg_registry_lock();
    strcpy(debug_name, name);
    msg_registry_unlock();
    return MSG_OK;
}

static void close_quietly(int fd) {
    if (fd >= 0) {
        close(fd);
    }
}

/* In a child made by fork() the parent's endpoints are copies whose other threads are gone:
 * their locks may be held for ever. Forget them, closing only our copies of the descriptors
 * (the parent's sockets live on), and leave the memory, which nothing may safely touch. */
static void forget_endpoints_after_fork(void) {
    pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
    registry_lock = fresh;
    for (struct msg_endpoint* ep = registry_head; ep; ep = ep->next) {
        for (struct msg_conn* conn = ep->conns; conn; conn = conn->next) {
            close_quietly(conn->fd);
        }
        close_quietly(ep->listen_fd);
        close_quietly(ep->wait_fd);
        close_quietly(ep->wake_fd);
        close_quietly(ep->poll_fd);
        close_quietly(ep->pending_fd);
    }
    registry_head = NULL;
    msg_memory_forget();
}

__attribute__((constructor)) static void install_fork_handler(void) {
    pthread_atfork(NULL, NULL, forget_endpoints_after_fork);
}

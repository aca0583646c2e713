/*
 * internal.h - shared declarations of the library's translation units. Not installed.
 *
 * Locking: the registry lock (list of open endpoints) comes first. A connection's write lock
 * (its send queue; held by whoever writes to it, which may mean waiting for the peer) is taken
 * without the endpoint's lock, so that receiving goes on; its holder takes the endpoint's lock
 * (connections, received messages, state) on the way out to update what the leader watches.
 * The leader, holding the endpoint's lock, only ever tries a write lock and never waits for it.
 */
#ifndef MSGPASS_INTERNAL_H
#define MSGPASS_INTERNAL_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include "msgpass.h"

#define MSG_EXPORT __attribute__((visibility("default")))

/* ---- Messages and their wire header (message.c) ---- */

enum { kMsgHeaderBytes = 16 };
/* 'M', 'P', version 1, 0: bumped if the header ever changes. */
#define kMsgMagic 0x0001504du

struct MsgBuf {
    struct MsgBuf* next; /* link in an endpoint's receive queue or a connection's send queue */
    uint32_t id;
    uint32_t bytes;
    int flags;    /* of MSG_AllocMsg */
    int received; /* sender below is valid */
    MSG_Sender sender;
    uint32_t capacity; /* payload bytes allocated: `bytes`, or fewer while a frame arrives */
    size_t mapped;     /* bytes mapped for it, or 0 when it came from malloc */
    size_t charged;    /* what it holds of the process's memory bound (memory.c), or 0 */
    /* Header then payload, contiguous so that a send is one write. 16-aligned payload. */
    _Alignas(16) unsigned char frame[];
};

MSG_Msg* msg_new(uint32_t id, uint32_t bytes);
/* A message of `bytes` whose payload has room for `capacity` (<= bytes) so far. */
MSG_Msg* msg_new_room(uint32_t id, uint32_t bytes, uint32_t capacity);
/* Room for `capacity` payload bytes; NULL, `msg` untouched, when there is no memory. */
MSG_Msg* msg_grow(MSG_Msg* msg, uint32_t capacity);
/* Memory a message with room for `capacity` payload bytes takes. */
size_t msg_footprint(uint32_t capacity);
/* Frees a message and gives back what it was charged. */
void msg_free(MSG_Msg* msg);
unsigned char* msg_payload(MSG_Msg* msg);
void msg_encode_header(MSG_Msg* msg);
/* 0 and the id and length when the header is one of ours, -1 otherwise. */
int msg_decode_header(const unsigned char* header, uint32_t* id, uint32_t* bytes);

/* ---- The process's memory bound, MSG_MEMORY_BYTES (memory.c) ---- */

struct msg_endpoint;
struct msg_conn;

/* In a child made by fork(): the parent's endpoints, and what they held, are not ours. */
void msg_memory_forget(void);
/* Gives back `bytes` charged before. */
void msg_memory_release(size_t bytes);
/* Endpoint's lock held: charges `bytes` for `conn`, dropping the connections of the endpoint
 * that hold the most until they fit. -1, nothing charged, when `conn` itself holds the most: the
 * caller drops it. */
int msg_memory_reserve(struct msg_endpoint* ep, struct msg_conn* conn, size_t bytes);

/* ---- Clock and time-outs (clock.c) ---- */

#define kMsgForever INT64_MAX

int64_t msg_now_ms(void);
/* Absolute monotonic deadline for a caller's time-out: kMsgForever for a negative one, and for
 * one too large to add to the clock. */
int64_t msg_deadline(int timeoutMs);
/* Milliseconds left until `deadline`, as poll() takes them: -1 for forever, never negative. */
int msg_remaining_ms(int64_t deadline);
/* The deadline as a CLOCK_MONOTONIC timespec, for condition variables. */
struct timespec msg_deadline_timespec(int64_t deadline);

/* ---- Names and the endpoint directory (names.c) ---- */

enum { kMsgPathBytes = sizeof(((struct sockaddr_un*)0)->sun_path) };

/* Mode of the endpoint directories we create: open for looking names up, closed for making
 * them, so that only their owner (and root) can take a name. */
#define kMsgDirMode 0755

int msg_check_name(const char* name);
/* Finds (and creates when needed) the endpoint directory into `dir`. */
int msg_resolve_dir(char* dir, size_t dirBytes);
/* Whether a process or file of `uid` may hold names in a directory owned by `dirOwner`: root
 * and the directory's owner may, nobody else. */
int msg_may_hold_names(uid_t uid, uid_t dirOwner);
/* "<dir>/<name>" into `path` (kMsgPathBytes); MSG_ERR_NO_DIR when it does not fit. */
int msg_socket_path(const char* dir, const char* name, char* path);
/* Fills a socket address for `path`; returns its length. */
socklen_t msg_sockaddr(const char* path, struct sockaddr_un* addr);

/* ---- Who holds a name in the directory (holders.c) ---- */

/* Locks the directory against other processes that claim or sweep names in it; -1 when it
 * could not be locked (the caller then goes on unlocked). */
int msg_lock_dir(const char* dir);
void msg_unlock_dir(int lockFd);

/* What msg_probe_socket finds at a path. */
enum { kSocketGone = 0, kSocketDead = 1, kSocketAlive = 2 };
/* Whether a socket file still has its socket behind it; -1 and errno when that cannot be told.
 * Nothing reaches the process behind a live one. */
int msg_probe_socket(const char* path);

/* Verdicts of msg_examine_name besides the MSG_ERR_* ones. */
enum { kNameFree = -1, kNameReplace = -2 };
/* Under the directory lock, by a process that may hold names there: kNameFree when `path` is
 * free (a dead socket of a trusted owner there has been removed), kNameReplace when what is
 * there belongs to someone who may not hold names and is to be replaced, MSG_ERR_NAME_IN_USE for
 * a live socket or another file of a trusted owner, MSG_ERR_NOT_TRUSTED for an untrusted entry
 * that cannot be replaced (a directory). */
int msg_examine_name(const char* path, uid_t dirOwner);

/* Removes the dead sockets of the directory but `keep` (ours), at most a bounded number of them
 * per call, under the directory lock. By a process that may hold names there. */
void msg_sweep_dir(const char* dir, const char* keep);

/* ---- Connections (conn.c) ---- */

struct msg_endpoint;

struct msg_conn {
    struct msg_conn* next;
    uint32_t address;
    int fd;
    /* Under the endpoint's lock. */
    int refs; /* the endpoint's table plus senders in flight */
    int dropped;
    int paused;       /* not read until the receive queue drains */
    int want_output;  /* the send queue waits for room in the socket */
    uint32_t watched; /* epoll events asked for in the endpoint's wait set; 0: not in it */
    MSG_Sender peer;
    pthread_mutex_t write_lock;
    /* Send queue, under the write lock: frames not yet taken by the kernel, oldest first. */
    MSG_Msg* out_head;
    MSG_Msg* out_tail;
    size_t out_head_sent; /* bytes of out_head already written */
    size_t out_held;      /* memory the queue holds, against MSG_SEND_QUEUE_BYTES */
    /* Reassembly of the frame being read; touched only by the receiving leader. */
    unsigned char header[kMsgHeaderBytes];
    uint32_t header_fill;
    MSG_Msg* partial;
    uint32_t partial_fill;
    /* Limits (limits.c): whether its peer is held to them, and by when it must have sent a
     * whole message (kMsgForever while it owes none). */
    int limited;
    int64_t deadline;
    /* What of this connection's input waits in the endpoint's queue. */
    size_t queued_bytes;
    uint32_t queued_count;
};

/* The following take the endpoint's lock held. */
/* Adds the connected socket `fd` (taken whatever the result). `peer` holds the kernel's
 * credentials of the other end when the caller has read them already, else NULL. */
int msg_conn_add(struct msg_endpoint* ep, int fd, const struct ucred* peer, uint32_t* address);
struct msg_conn* msg_conn_find(struct msg_endpoint* ep, uint32_t address);
void msg_conn_drop(struct msg_endpoint* ep, struct msg_conn* conn);
void msg_conn_unref(struct msg_conn* conn);
void msg_conn_pause(struct msg_endpoint* ep, struct msg_conn* conn);
void msg_conn_resume(struct msg_endpoint* ep, struct msg_conn* conn);
/* Frees the messages of `conn` that wait in the endpoint's queue (receive.c). */
void msg_purge_input(struct msg_endpoint* ep, struct msg_conn* conn);
/* Accepts what waits on the listening socket (receive.c). */
void msg_accept_pending(struct msg_endpoint* ep);
/* Accepts again after running out of descriptors (a no-op unless accepting was paused). */
void msg_listen_resume(struct msg_endpoint* ep);
/* Puts every connection in a wait set just made; 0, or -1 when epoll refused. */
int msg_conn_watch_all(struct msg_endpoint* ep);
/* Asks the leader to report room in the socket, or stops asking; 0, or -1 when epoll refused. */
int msg_conn_want_output(struct msg_endpoint* ep, struct msg_conn* conn, int want);

/* ---- Limits of one user's connections (limits.c); endpoint's lock held ---- */

/* Descriptors open in this process now. */
int msg_count_open_fds(void);
/* Whether connections from `uid` are held to the limits: all but root's and our own user's. */
int msg_peer_is_limited(const struct msg_endpoint* ep, uid_t uid);
/* Whether a new connection from `uid`, whose socket is `fd`, may be served. */
int msg_admit(const struct msg_endpoint* ep, uid_t uid, int fd);
/* Starts (running) or ends the time a limited connection has to complete a message. */
void msg_conn_set_deadline(struct msg_endpoint* ep, struct msg_conn* conn, int running);
/* `timeoutMs` shortened to the next deadline. */
int msg_deadline_wait(const struct msg_endpoint* ep, int timeoutMs);
/* Drops the connections whose deadline has passed. */
void msg_drop_idle(struct msg_endpoint* ep);

/* ---- Send queues (sendqueue.c); the connection's write lock held ---- */

/* Queues `msg`, whose header is encoded, whatever the queue holds (a send that will wait). */
void msg_queue_append(struct msg_conn* conn, MSG_Msg* msg);
/* Queues `msg` when the queue's bound allows, else MSG_ERR_QUEUE_FULL and `msg` is not taken. */
int msg_queue_admit(struct msg_conn* conn, MSG_Msg* msg);
/* Writes what the socket takes now; MSG_OK also when frames are left. */
int msg_queue_flush(struct msg_conn* conn);
/* Writes the whole queue, waiting for the peer (MSG_ERR_TIMEOUT after MSG_SEND_STALL_MS). */
int msg_queue_drain(struct msg_conn* conn);
/* Charges what a send that does not wait left in the queue, endpoint's lock held too; -1 when
 * the connection must go to keep the memory bound. */
int msg_queue_charge(struct msg_endpoint* ep, struct msg_conn* conn);
/* Frees what is left; the last reference to the connection is going. */
void msg_queue_discard(struct msg_conn* conn);
/* The leader, endpoint's lock held: the socket has room; MSG_OK or why it must be dropped. */
int msg_conn_write_ready(struct msg_endpoint* ep, struct msg_conn* conn);

/* ---- Endpoints (endpoint.c, registry.c) ---- */

/* The leader's read buffer; larger payloads are read straight into their message. */
enum { kMsgStageBytes = 64 * 1024 };

/* epoll tokens that are not connection addresses (addresses are never 0). */
#define kMsgWakeToken 0u
#define kMsgListenToken (1ull << 32)
#define kMsgNameToken (2ull << 32)
#define kMsgForeignToken (3ull << 32) /* | the caller's descriptor (MSG_WatchFd) */

struct msg_endpoint {
    struct msg_endpoint* next; /* registry link */
    int refs; /* registry plus callers in flight; atomic (taken under the registry lock) */
    char name[MSG_MAX_NAME_BYTES + 1];
    char dir[kMsgPathBytes];
    char path[kMsgPathBytes];
    int published;    /* the name is in the directory; else the endpoint only connects out */
    dev_t socket_dev; /* identity of our socket file, so that we only ever remove our own */
    ino_t socket_ino;
    int listen_fd;
    int wait_fd;    /* epoll set: listen socket, wake event, every unpaused connection; or -1 */
    int wake_fd;    /* eventfd that interrupts the leader (msg_endpoint_ensure_wake); or -1,
                     * also while a single-threaded process polls (receive.c, lead()) */
    int poll_fd;    /* epoll set handed out by MSG_GetPollFd (wait_fd + pending_fd), or -1 */
    int pending_fd; /* eventfd readable while the queue is not empty, or -1 */
    int pending_signalled; /* what pending_fd says now (it lags the queue under the lock) */
    int name_watch_fd;     /* inotify on the directory, to notice our name going; or -1 */
    int name_status;       /* MSG_OK, or why the name, once gone, could not be put back */

    pthread_mutex_t lock;
    pthread_cond_t turn; /* signalled when the leader leaves or messages are queued */
    int closed;
    int leader;              /* a thread is waiting in epoll for the endpoint */
    int polling;             /* ... with poll() (receive.c), on what was there when it began */
    unsigned poll_waits;     /* waits made with poll(), up to kMsgPollWaits (receive.c) */
    int foreign_ready;       /* a receive ends: a descriptor of MSG_WatchFd is readable, or */
                             /* with one watched, a connection closed or the name changed */
    int foreign_count;       /* descriptors watched (MSG_WatchFd) */
    int connected_out;       /* MSG_OpenRemoteSync has succeeded once */
    int listen_paused;       /* out of descriptors: stop accepting until a connection goes */
    int64_t listen_retry_at; /* or until then: the descriptors may not have been ours */
    uint32_t last_address;
    uid_t owner;           /* our effective uid at open: its connections are not limited */
    int base_fds;          /* descriptors the process had open when the endpoint opened */
    int64_t next_deadline; /* earliest deadline of a connection, or kMsgForever */
    struct msg_conn* conns;
    /* Addresses of connections gone since MSG_TakeClosed last took them, oldest first. */
    uint32_t gone[MSG_MAX_CLOSED_NOTED];
    int gone_count;
    MSG_Msg* queue_head;
    MSG_Msg* queue_tail;
    unsigned char* stage; /* read buffer of the leader, made on the first read */
};

/* Registered endpoint `name` with a reference taken, or NULL. */
struct msg_endpoint* msg_endpoint_get(const char* name);
void msg_endpoint_put(struct msg_endpoint* ep);
void msg_endpoint_free(struct msg_endpoint* ep);

/* The wake-up event, made once: written when the endpoint closes, and, while a leader waits with
 * poll(), when what it should wait for changes. Endpoint's lock held; 0, or -1 with errno. */
int msg_endpoint_ensure_wake(struct msg_endpoint* ep);
/* Endpoint's lock held: interrupts a leader that waits with poll(), whose descriptors and events
 * were fixed when it began (the epoll set follows changes by itself). Nothing to do when the
 * leader polls without a wake event: its process has no other thread that could call this. */
void msg_endpoint_wake_poller(struct msg_endpoint* ep);

/* Makes the epoll set of an endpoint that has none yet (with the wake-up event in it): published
 * endpoints make it when they open, those that only connect out when MSG_GetPollFd asks for it
 * or they hold more connections than a poll() wait takes. Endpoint's lock held (or the endpoint
 * not yet registered); 0, or -1 with errno. */
int msg_endpoint_ensure_wait_set(struct msg_endpoint* ep);

/* Binds a new listening socket into ep->listen_fd and puts it in place under the endpoint's
 * name (endpoint.c). By a process that may hold names in a directory owned by `dirOwner`. */
int msg_install_socket(struct msg_endpoint* ep, uid_t dirOwner);

/* ---- A published name that goes (republish.c) ---- */

/* Set (atomically) when the process exits and its names are being removed. */
extern int msg_exiting;

/* Starts watching the directory of a published endpoint for its name going; without a watch the
 * name is checked on MSG_CheckPublished only. */
void msg_watch_name(struct msg_endpoint* ep);
/* The leader, endpoint's lock held: the directory changed; puts the name back when it went. */
void msg_name_events(struct msg_endpoint* ep);

/* Common prologue: checks the name and finds the endpoint. */
int msg_endpoint_lookup(const char* name, struct msg_endpoint** ep);

#endif /* MSGPASS_INTERNAL_H */

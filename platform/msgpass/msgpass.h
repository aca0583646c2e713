/*
 * msgpass.h - named endpoints and id-tagged messages between processes of one host.
 *
 * A process opens a local endpoint under a name; other processes connect to it by that name
 * and exchange messages with it. A message is a 32-bit id plus a payload of bytes; message
 * boundaries and ids are kept end to end. Each connection is known to both of its ends by a
 * 32-bit address, which is what MSG_SendMsg takes.
 *
 * Endpoint directory: $MSGPASS_DIR when set (created with mode 0755 if missing), else
 * MSG_DEFAULT_DIR when it exists or can be created (mode 0755, by root), else a private per-user
 * directory: $XDG_RUNTIME_DIR/msgpass or /tmp/msgpass-<uid> (mode 0700, which must belong to the
 * user). The directory is looked up when an endpoint is opened; MSG_OpenRemoteSync looks for the
 * remote in the directory of the local endpoint. Looking names up needs only search access to it.
 * The socket path (directory, '/', name) must fit in a Unix socket address (107 bytes), else
 * MSG_ERR_NO_DIR.
 *
 * Two kinds of endpoint: MSG_OpenService publishes one under its name, MSG_OpenLocal makes one
 * that only connects out. A published endpoint is a Unix-domain socket under the name in the
 * directory, connectable by every user (mode 0666), since a service decides whom to serve from the
 * kernel's credentials of each sender (MSG_GetSender). An endpoint that only connects out,
 * whoever opens it (root too), has nothing in the directory and accepts nothing: nobody can
 * connect to it, so every message it receives comes over a connection it opened itself and
 * checked (below), a client needs no write access to the directory and leaves nothing in it, and
 * opening it costs no system call beyond looking the directory up.
 *
 * Who may hold a name: root and the owner of the directory, nobody else. The directories made
 * here (mode 0755) let nobody else create names; in one that others may write to (mode 1777, say),
 * a file created under a name by anyone else does not count: a process allowed to hold the name
 * replaces it when it opens the name, and clients never talk to it. The directory's owner is
 * trusted with every name in it, so $MSGPASS_DIR must name a directory whose owner may serve.
 * MSG_OpenService refuses (MSG_ERR_NOT_ALLOWED) a process that may not hold names there. Nothing
 * in the directory is followed as a link: the lock file and a socket being made public are
 * opened without following links and used only when they are ours alone (one name, our owner);
 * anything else there is replaced or left alone, never written through.
 *
 * What a client checks: after connecting, and before anything is sent, that the kernel's
 * credentials of the process behind the socket (SO_PEERCRED) are those of the owner of the
 * socket file, and that this owner may hold names in the directory. Otherwise the connection is
 * closed at once (the remote receives not a byte) and MSG_OpenRemoteSync waits on for the
 * rightful holder, answering MSG_ERR_NOT_TRUSTED if none appeared in time.
 *
 * What is left on disk: a published endpoint's socket file goes when the endpoint is closed, and
 * when the process ends through exit() or a return from main, closed or not. Besides sockets the
 * directory holds the lock file ".lock" (mode 0600; one made by anybody else is replaced), through
 * which the processes that hold names serialise reclaiming and sweeping; it is made by the first
 * service that needs it and only services use it.
 * A process killed before it could remove its files leaves them; they are swept: whenever a
 * process publishes an endpoint it removes the sockets in the directory that no live process is
 * bound to (a bounded number of them per open), and a name opened again is reclaimed at once.
 *
 * Wire: each message travels over a stream socket as a 16-byte header (magic and version, id,
 * payload length, a reserved zero word) followed by the payload. A peer that sends a header this
 * library does not understand, an oversized length or a truncated frame is disconnected; the
 * endpoint's other connections go on.
 *
 * Time-outs are in milliseconds on the monotonic clock; a negative one waits forever. Connecting
 * and receiving wait as long as the caller's time-out allows (unless the function's rules below
 * end the wait sooner), a send as long as the peer takes bytes at least every MSG_SEND_STALL_MS;
 * no environment setting shortens these waits.
 *
 * Results: every int status is MSG_OK (0) on success or one of the positive MSG_ERR_* codes
 * below (after MSG_ERR_SYSTEM errno says which call failed how); MSG_StatusText gives the text
 * that follows each code. Functions that return a handle or pointer return NULL on failure. No
 * function writes to standard output or standard error, and no function aborts on bad arguments.
 *
 * Ownership: a handle from MSG_AllocMsg, MSG_RecvMsg or MSG_RecvAny belongs to the caller
 * until it is given to MSG_ReleaseMsg, or to MSG_SendMsg: from that call on it belongs to the
 * library whatever the status, and the caller must not touch it again.
 *
 * Processes: an endpoint belongs to the process that opened it. A child made by fork() starts
 * with no endpoint open; the parent's stay the parent's, and the child's exit leaves their files.
 *
 * Threads: every function may be called from several threads of one process at once; a service
 * may receive on one thread and reply from another. The library starts no threads of its own,
 * installs no signal handlers and never raises SIGPIPE.
 */
#ifndef MSGPASS_H
#define MSGPASS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque message handle. */
typedef struct MsgBuf MSG_Msg;

/* Status codes. Each failure has its own number so that a caller can print it usefully. */
enum {
    MSG_OK = 0,
    MSG_ERR_BAD_ARG = 300,  /* null pointer, null handle or otherwise unusable argument */
    MSG_ERR_BAD_NAME = 301, /* endpoint name empty, too long, containing '/' or starting with '.' */
    MSG_ERR_NOT_OPEN = 302, /* no local endpoint of that name is open in this process */
    MSG_ERR_NAME_IN_USE = 303, /* a live endpoint of that name exists already */
    MSG_ERR_TIMEOUT = 304,     /* timed out waiting for the remote to appear or answer */
    MSG_ERR_NO_ROUTE = 305,    /* the address names no open connection of this endpoint */
    MSG_ERR_PEER_GONE = 306,   /* the connection was closed by the other end */
    MSG_ERR_TOO_BIG = 307,     /* payload larger than the largest a message can carry */
    MSG_ERR_SYSTEM = 308,      /* an operating-system call failed */
    MSG_ERR_NO_MEMORY = 309,   /* out of memory */
    MSG_ERR_NO_DIR = 310,      /* the endpoint directory cannot be found or created */
    MSG_ERR_QUEUE_FULL = 311,  /* the peer left too much unread in its send queue and was dropped */
    MSG_ERR_NOT_TRUSTED = 312, /* the name is held by a user who may not hold names there */
    MSG_ERR_NOT_ALLOWED = 313  /* this process may not hold names in the endpoint directory */
};

/* The text given for `status` after its code above ("success" for MSG_OK, "unknown status" for
 * any other number), so that a program can say what went wrong in words of its own making:
 * "ConfigSrvc in /run/msgpass: timed out waiting for the remote to appear or answer". A static
 * string: never NULL, never to be freed. */
const char* MSG_StatusText(int status);

/* Longest endpoint name, in bytes, without the terminating NUL. */
#define MSG_MAX_NAME_BYTES 64
/* Largest payload a message can carry: 16 MiB. */
#define MSG_MAX_PAYLOAD_BYTES (16u * 1024u * 1024u)
/* Endpoint directory used when MSGPASS_DIR is not set. */
#define MSG_DEFAULT_DIR "/run/msgpass"
/* Environment variable naming the endpoint directory (see above). */
#define MSG_DIR_ENV "MSGPASS_DIR"
/* How long a send may make no progress because the peer does not read, before the connection is
 * dropped and MSG_SendMsg returns MSG_ERR_TIMEOUT. */
#define MSG_SEND_STALL_MS 5000

/* Flag of MSG_AllocMsg: MSG_SendMsg of this message never waits for the peer. What the peer's
 * socket does not take at once stays in the connection's send queue and goes out, in order and
 * never interleaved with other messages, as the peer reads: whenever a thread of this process
 * receives on the endpoint (MSG_RecvMsg, MSG_RecvAny; the descriptor of MSG_GetPollFd turns
 * readable when there is such work), and before every later send on that connection. A send
 * with flags 0 on a connection first waits until the messages queued before it are written.
 * Meant for services: one client that does not read its answers holds up no other client. */
#define MSG_SEND_NOWAIT 0x1
/* Most memory the send queue of one connection may hold (frames plus bookkeeping): 4 MiB, or
 * a single message when that is larger. A MSG_SEND_NOWAIT send that would go beyond it drops
 * the connection (its peer is not reading) and returns MSG_ERR_QUEUE_FULL. */
#define MSG_SEND_QUEUE_BYTES (4u * 1024u * 1024u)

/* Stores in *bytes how much of what was sent with MSG_SEND_NOWAIT on connection `remoteAddress`
 * of `localName` still waits in its send queue (frames plus bookkeeping, as counted against
 * MSG_SEND_QUEUE_BYTES), not yet taken by the peer's socket. A service paces what it sends a slow
 * reader by it, rather than letting the queue reach its bound and the connection be dropped; the
 * descriptor of MSG_GetPollFd turns readable as the queue drains. MSG_ERR_NO_ROUTE for an address
 * that names no open connection, MSG_ERR_BAD_ARG for a null `bytes`. */
int MSG_GetQueuedBytes(const char* localName, uint32_t remoteAddress, size_t* bytes);

/* Most memory the library holds for the peers of this process, over all its endpoints: frames
 * being received (room for a payload is taken as its bytes arrive, not when its header announces
 * it), messages received and not yet taken by MSG_RecvMsg or MSG_RecvAny, and messages of
 * MSG_SEND_NOWAIT waiting in send queues. When a peer's need would go beyond it, the connections
 * of that endpoint that hold the most are dropped first, with what they held, until it fits, and
 * when the needy one holds the most it is dropped itself. Large buffers are given back to the
 * system when freed. Messages the caller holds (allocated, or received and taken) do not count. */
#define MSG_MEMORY_BYTES (64u * 1024u * 1024u)

/* Limits of a published endpoint on the connections of "other users": every user but root and
 * the endpoint's own (the effective uid that opened it), so that one of them cannot shut out the
 * rest. Nothing here limits root and the endpoint's own user.
 *
 * At most MSG_MAX_CONNS_PER_USER connections of one other user at once; beyond that, and when
 * fewer than MSG_RESERVED_DESCRIPTORS descriptors would be left below the process's limit
 * (RLIMIT_NOFILE; counted from the descriptors open when the endpoint was opened, plus its
 * connections), a new connection of another user is closed at once, before it is read: the
 * reserve is for root's and the own user's clients, who are always accepted while descriptors
 * remain. Such a connection must also deliver a whole message within MSG_IDLE_CONNECTION_MS of
 * being accepted, and finish every later message within that time of its first byte; otherwise
 * it is dropped. Between messages it may stay silent as long as it likes. */
#define MSG_MAX_CONNS_PER_USER 64
#define MSG_RESERVED_DESCRIPTORS 32
#define MSG_IDLE_CONNECTION_MS 5000

/* Attaches a name to this process for the library's own diagnostics. MSG_ERR_BAD_ARG for null,
 * MSG_ERR_BAD_NAME for a name that would not be a valid endpoint name. */
int MSG_DebugSetName(const char* name);

/* Creates and registers the local endpoint `name`, one that only connects out
 * (MSG_OpenRemoteSync), whoever calls it: nothing is created in the endpoint directory and nobody
 * can connect to it. The name must be free in this process only (MSG_ERR_NAME_IN_USE otherwise);
 * MSG_ERR_NO_DIR when there is no endpoint directory to look remotes up in. */
int MSG_OpenLocal(const char* name);

/* Creates, registers and publishes the local endpoint `name`, as a service's must be, so that
 * other processes can connect to it: a stale socket left by a process that died is reclaimed,
 * whatever someone not allowed to hold names put there is replaced, and a live endpoint of that
 * name (in this process or another allowed to hold names), or a file of theirs that is not a
 * socket, gives MSG_ERR_NAME_IN_USE; MSG_ERR_NOT_TRUSTED when an unallowed user's directory sits
 * under the name; MSG_ERR_NOT_ALLOWED, and nothing is opened, when this process may not hold
 * names in the endpoint directory. A published endpoint can also connect out. */
int MSG_OpenService(const char* name);

/* Copies the endpoint directory of local endpoint `localName`, or for a null name the one that
 * MSG_OpenLocal would use now, into `dir` (`dirBytes` with the NUL), for messages that say where
 * a name was looked for. With a null name and no usable directory, MSG_ERR_NO_DIR and `dir` holds
 * the one tried first ($MSGPASS_DIR, else MSG_DEFAULT_DIR). MSG_ERR_NOT_OPEN for a name not open
 * here; MSG_ERR_BAD_ARG for a null `dir`, or one too small for the path. */
int MSG_GetDir(const char* localName, char* dir, size_t dirBytes);

/* Connects local endpoint `localName` to the endpoint `remoteName`, waiting up to `timeoutMs`
 * milliseconds (negative: wait forever) for it to appear and accept, without busy-waiting, and
 * checks that the process behind it holds the name rightfully (see above) before anything is sent.
 * On success stores the new connection's address (never 0) in *remoteAddress. MSG_ERR_TIMEOUT
 * when the remote did not appear in time; MSG_ERR_NOT_TRUSTED when, at the end of the wait, the
 * name was held by someone not allowed to hold it; MSG_ERR_NOT_OPEN when `localName` is not open
 * here. */
int MSG_OpenRemoteSync(const char* localName, const char* remoteName, int timeoutMs,
                       uint32_t* remoteAddress);

/* Closes the local endpoint `name` and all its connections; a null name closes every local
 * endpoint of this process. Messages still in a connection's send queue (MSG_SEND_NOWAIT) are
 * dropped. MSG_ERR_NOT_OPEN (302) when there is none to close. */
int MSG_CloseLocal(const char* name);

/* Allocates a message with id `msgId` whose payload holds exactly `payloadBytes` bytes
 * (uninitialised). `flags` is 0 or MSG_SEND_NOWAIT. NULL on failure, for any other flag bit, or
 * when the payload is larger than MSG_MAX_PAYLOAD_BYTES. */
MSG_Msg* MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes);

/* Writable payload of a message; NULL for a null handle. */
void* MSG_GetPayloadMutable(MSG_Msg* msg);

/* Sends `msg` from `localName` over the connection `remoteAddress`. The handle belongs to the
 * library from this call on, whatever the status. MSG_ERR_NO_ROUTE for an address that names no
 * open connection; MSG_ERR_PEER_GONE when the other end has closed it. Several threads may send
 * on one connection at once; their messages never interleave.
 *
 * A message allocated with flags 0 has been written when the call returns. When the peer takes
 * no bytes for MSG_SEND_STALL_MS the connection is dropped and the result is MSG_ERR_TIMEOUT: a
 * client that does not read its replies cannot hold a service forever.
 *
 * A message allocated with MSG_SEND_NOWAIT is written or queued at once (see there); MSG_OK
 * means it is on its way. It waits only for another thread's send on the same connection that
 * is in progress. When the peer goes away before the queue is written, what is left of it is
 * dropped with the connection, and the next send gets MSG_ERR_NO_ROUTE. */
int MSG_SendMsg(const char* localName, uint32_t remoteAddress, MSG_Msg* msg);

/* Receives the first message with id `msgId` that arrives at `localName` within `timeoutMs`
 * milliseconds (negative: wait forever; 0: only what is already there). Messages of other ids
 * that arrive meanwhile are kept, in arrival order, for later receives (MSG_RecvMsg or
 * MSG_RecvAny). At an endpoint of MSG_OpenLocal every message comes from a remote that this
 * endpoint connected to and checked; a published endpoint also receives from whoever connected to
 * it, so a caller that needs to know which connection answered asks MSG_GetSender. NULL on
 * time-out, on failure, or at once when the endpoint has connected out (MSG_OpenRemoteSync) and
 * every one of its connections has since been closed: the peers it was talking to are gone and
 * nothing more can come. An endpoint that never connected out waits its time-out (a published one
 * for clients to connect and send).
 *
 * Memory stays bounded: when many unclaimed messages from one connection are queued, reading
 * from that connection pauses (its sender then waits) until some are received. */
MSG_Msg* MSG_RecvMsg(const char* localName, uint32_t msgId, int timeoutMs);

/* Read-only payload of a message; NULL for a null handle. */
const void* MSG_GetPayload(const MSG_Msg* msg);

/* Payload length in bytes; -1 for a null handle. */
int MSG_GetPayloadBytes(const MSG_Msg* msg);

/* Returns a message to the library. MSG_ERR_BAD_ARG for a null handle. */
int MSG_ReleaseMsg(MSG_Msg* msg);

/* ---- For services: serving many clients on one endpoint. ---- */

/* Who sent a received message. The credentials are the kernel's (SO_PEERCRED) for the process
 * that opened the connection, never anything the peer claims. */
typedef struct MSG_Sender {
    uint32_t address; /* the connection: answer with MSG_SendMsg(localName, address, ...) */
    pid_t pid;
    uid_t uid;
    gid_t gid;
} MSG_Sender;

/* Receives the next message of any id at `localName` within `timeoutMs` milliseconds (negative:
 * wait forever; 0: only what is already there). Incoming connections are accepted on the way.
 * NULL on time-out or failure. */
MSG_Msg* MSG_RecvAny(const char* localName, int timeoutMs);

/* Id of a message; 0 for a null handle. */
uint32_t MSG_GetMsgId(const MSG_Msg* msg);

/* The sender of a received message. MSG_ERR_BAD_ARG for a null argument or a message that was
 * not received. */
int MSG_GetSender(const MSG_Msg* msg, MSG_Sender* sender);

/* A descriptor that becomes readable when MSG_RecvAny on `localName` may have something to
 * return, or when a peer has room for messages queued with MSG_SEND_NOWAIT, for use in a
 * caller's poll loop: when it is readable, call MSG_RecvAny (a zero time-out will do) until it
 * returns NULL, which also writes what the peers can take. -1 when the endpoint is not open.
 * The descriptor stays owned by the library and is closed with the endpoint. */
int MSG_GetPollFd(const char* localName);

/* Makes the waits of receives on `localName` also watch `fd`, a descriptor of the caller's (an
 * eventfd, a pipe, a signalfd): when a receive finds it readable, that receive returns NULL at
 * once (a message already queued waits for the next receive), and so does a zero time-out
 * receive. While any descriptor is watched, a receive also ends with NULL when one of the
 * endpoint's connections closes (MSG_TakeClosed tells which) and when its published name changes
 * in the directory (MSG_CheckPublished tells how). A service can then wait for its requests, its
 * own events and its clients leaving in one blocking MSG_RecvAny, where a poll loop around
 * MSG_GetPollFd costs a wait and a look more per request.
 * The caller reads what makes `fd` readable (it stays readable, and ends receives at once, until
 * then); the library never reads, writes or closes it, and closing it ends the watch.
 * MSG_ERR_BAD_ARG for a negative `fd` or one watched already, MSG_ERR_NOT_OPEN, MSG_ERR_SYSTEM
 * when the wait cannot take it (errno). */
int MSG_WatchFd(const char* localName, int fd);

/* Ends the watch of MSG_WatchFd. MSG_ERR_BAD_ARG for a descriptor not watched. */
int MSG_UnwatchFd(const char* localName, int fd);

/* The oldest message of any id that the endpoint has already read from its peers, or NULL at
 * once: no look at the sockets, no wait, no system call. For a service that took one message
 * with a blocking MSG_RecvAny and serves what that wait brought in before it waits again. */
MSG_Msg* MSG_RecvQueued(const char* localName);

/* Closes connection `remoteAddress` of `localName` from this end, as the library does with a peer
 * that breaks the rules: what waits in its send queue is dropped, the peer sees the connection
 * end, and the address is noted for MSG_TakeClosed. For a service that must stop serving one
 * client (one that fell too far behind, say). MSG_ERR_NO_ROUTE for an address that names no
 * open connection. */
int MSG_CloseConnection(const char* localName, uint32_t remoteAddress);

/* Whether the published endpoint `localName` can still be reached under its name. When its
 * socket file is removed or replaced by anyone (a cleaning script, the directory removed and made
 * again), the endpoint notices while it receives (the descriptor of MSG_GetPollFd turns readable)
 * and puts a new socket in place under the name, keeping its connections and taking the clients
 * that were waiting to be accepted; where the directory cannot be watched, this call looks. MSG_OK
 * while the name leads to this endpoint; otherwise why it could not be put back (each call tries
 * again): MSG_ERR_NAME_IN_USE when another live endpoint holds the name now, MSG_ERR_NO_DIR,
 * MSG_ERR_NOT_ALLOWED, MSG_ERR_SYSTEM. A service that gets anything but MSG_OK is unreachable for
 * new clients and had best end, so that its supervisor starts it again. MSG_ERR_NOT_OPEN for a
 * name not open here, MSG_ERR_BAD_ARG for an endpoint of MSG_OpenLocal. Costs no system call while
 * the directory is watched and the name is in place. */
int MSG_CheckPublished(const char* localName);

/* Most addresses of closed connections an endpoint keeps for MSG_TakeClosed. */
#define MSG_MAX_CLOSED_NOTED 256

/* Moves up to `max` addresses of connections of `localName` that are gone since the last call
 * (closed by the peer, dropped by the library, or failed) into `addresses`, oldest first, and
 * stores how many in *taken. MSG_ERR_NOT_OPEN when the endpoint is not open here,
 * MSG_ERR_BAD_ARG for a null pointer or a negative `max`. Connections are found gone while the
 * endpoint receives (MSG_RecvAny, MSG_RecvMsg) or sends. A service calls it after receiving to
 * forget what it kept for a connection. Between two calls at most MSG_MAX_CLOSED_NOTED addresses
 * are kept; beyond that the oldest are forgotten. Addresses are not reused before 2^32 further
 * connections. */
int MSG_TakeClosed(const char* localName, uint32_t* addresses, int max, int* taken);

#ifdef __cplusplus
}
#endif

#endif /* MSGPASS_H */

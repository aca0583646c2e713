/*
 * msgpass.h - named endpoints and id-tagged messages between processes of one host.
 *
 * A process opens a local endpoint under a name; other processes connect to it by that name
 * and exchange messages with it. A message is a 32-bit id plus a payload of bytes; message
 * boundaries and ids are kept end to end. Each connection is known to both of its ends by a
 * 32-bit address, which is what MSG_SendMsg takes.
 *
 * Endpoints live as Unix-domain sockets in the endpoint directory: $MSGPASS_DIR when set,
 * else MSG_DEFAULT_DIR, else (when that is not writable) a per-user directory.
 *
 * Results: every int status is MSG_OK (0) on success or one of the positive MSG_ERR_* codes
 * below. Functions that return a handle or pointer return NULL on failure. No function writes
 * to standard output or standard error, and no function aborts on bad arguments.
 *
 * Ownership: a handle from MSG_AllocMsg, MSG_RecvMsg or MSG_RecvAny belongs to the caller
 * until it is given to MSG_ReleaseMsg, or to MSG_SendMsg: from that call on it belongs to the
 * library whatever the status, and the caller must not touch it again.
 *
 * Threads: every function may be called from several threads of one process at once.
 */
#ifndef MSGPASS_H
#define MSGPASS_H

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
    MSG_ERR_BAD_ARG = 300,      /* null pointer, null handle or otherwise unusable argument */
    MSG_ERR_BAD_NAME = 301,     /* endpoint name empty, too long or containing '/' */
    MSG_ERR_NOT_OPEN = 302,     /* no local endpoint of that name is open in this process */
    MSG_ERR_NAME_IN_USE = 303,  /* a live endpoint of that name exists already */
    MSG_ERR_TIMEOUT = 304,      /* the remote did not appear or answer within the time-out */
    MSG_ERR_NO_ROUTE = 305,     /* the address names no open connection of this endpoint */
    MSG_ERR_PEER_GONE = 306,    /* the connection was closed by the other end */
    MSG_ERR_TOO_BIG = 307,      /* payload larger than MSG_MAX_PAYLOAD_BYTES */
    MSG_ERR_SYSTEM = 308,       /* an operating-system call failed (see errno) */
    MSG_ERR_NO_MEMORY = 309,    /* out of memory */
    MSG_ERR_NO_DIR = 310        /* the endpoint directory cannot be found or created */
};

/* Longest endpoint name, in bytes, without the terminating NUL. */
#define MSG_MAX_NAME_BYTES 64
/* Largest payload a message can carry: 16 MiB. */
#define MSG_MAX_PAYLOAD_BYTES (16u * 1024u * 1024u)
/* Endpoint directory used when MSGPASS_DIR is not set. */
#define MSG_DEFAULT_DIR "/run/msgpass"

/* Attaches a name to this process for the library's own diagnostics. */
int MSG_DebugSetName(const char *name);

/* Creates and registers the local endpoint `name`, so that other processes can connect to it.
 * A stale socket left by a process that died is reclaimed; a live one gives MSG_ERR_NAME_IN_USE. */
int MSG_OpenLocal(const char *name);

/* Connects local endpoint `localName` to the endpoint `remoteName`, waiting up to `timeoutMs`
 * milliseconds for it to appear and accept (without busy-waiting). On success stores the
 * connection's address in *remoteAddress. */
int MSG_OpenRemoteSync(const char *localName, const char *remoteName, int timeoutMs,
                       uint32_t *remoteAddress);

/* Closes the local endpoint `name` and all its connections; a null name closes every local
 * endpoint of this process. MSG_ERR_NOT_OPEN (302) when there is none to close. */
int MSG_CloseLocal(const char *name);

/* Allocates a message with id `msgId` whose payload holds exactly `payloadBytes` bytes
 * (uninitialised). `flags` is reserved and must be 0. NULL on failure or when the payload is
 * larger than MSG_MAX_PAYLOAD_BYTES. */
MSG_Msg *MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes);

/* Writable payload of a message; NULL for a null handle. */
void *MSG_GetPayloadMutable(MSG_Msg *msg);

/* Sends `msg` from `localName` over the connection `remoteAddress`. The handle belongs to the
 * library from this call on, whatever the status. A message is sent whole or not at all. */
int MSG_SendMsg(const char *localName, uint32_t remoteAddress, MSG_Msg *msg);

/* Receives the first message with id `msgId` that arrives at `localName` within `timeoutMs`
 * milliseconds (negative: wait forever). Messages of other ids that arrive meanwhile are kept,
 * in arrival order, for later receives. NULL on time-out, on failure, or at once when every
 * connection the endpoint could hear from has been closed by its other end. */
MSG_Msg *MSG_RecvMsg(const char *localName, uint32_t msgId, int timeoutMs);

/* Read-only payload of a message; NULL for a null handle. */
const void *MSG_GetPayload(const MSG_Msg *msg);

/* Payload length in bytes; -1 for a null handle. */
int MSG_GetPayloadBytes(const MSG_Msg *msg);

/* Returns a message to the library. */
int MSG_ReleaseMsg(MSG_Msg *msg);

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
MSG_Msg *MSG_RecvAny(const char *localName, int timeoutMs);

/* Id of a message; 0 for a null handle. */
uint32_t MSG_GetMsgId(const MSG_Msg *msg);

/* The sender of a received message. MSG_ERR_BAD_ARG for a null argument or a message that was
 * not received. */
int MSG_GetSender(const MSG_Msg *msg, MSG_Sender *sender);

/* A descriptor that becomes readable when MSG_RecvAny on `localName` may have something to
 * return, for use in a caller's poll loop; -1 when the endpoint is not open. The descriptor
 * stays owned by the library. */
int MSG_GetPollFd(const char *localName);

#ifdef __cplusplus
}
#endif

#endif /* MSGPASS_H */

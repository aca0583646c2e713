/*
 * A scriptable stand-in for libmsgpass, for tests only.
 *
 * Built under the same soname as the real library so that a test can put it in front of the
 * real one with LD_LIBRARY_PATH. It talks to no one: every call is appended, with its arguments
 * and result, to the file named by FAKE_MSGPASS_LOG, and its results come from the environment:
 *
 *   FAKE_MSGPASS_FAIL   comma-separated "Operation=status" items, e.g.
 *                       "MSG_OpenLocal=-3,MSG_SendMsg=7"; for the operations that return a
 *                       handle any status makes them return NULL.
 *   FAKE_MSGPASS_REPLY  payload of the message MSG_RecvMsg returns, in hex (default: empty).
 *
 * Handles are numbered in allocation order and logged as "msg<N>"; a handle given to
 * MSG_SendMsg is freed by the library, as the real one does.
 */
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "msgpass.h"

struct MsgBuf {
    unsigned number;
    uint32_t id;
    uint32_t bytes;
    unsigned char* payload;
};

static const uint32_t kRemoteAddress = 42;
static unsigned lastHandleNumber = 0;

static void logCall(const char* format, ...) {
    const char* path = getenv("FAKE_MSGPASS_LOG");
    if (path == NULL) {
        return;
    }
    char line[4096];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (length < 0) {
        return;
    }
    if (length > (int)sizeof line - 2) {
        length = (int)sizeof line - 2;
    }
    line[length++] = '\n';
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd >= 0) {
        ssize_t ignored = write(fd, line, (size_t)length);
        (void)ignored;
        close(fd);
    }
}

/* The scripted status of `operation`, or 0; *scripted tells whether there was one. */
static int scriptedStatus(const char* operation, int* scripted) {
    *scripted = 0;
    const char* script = getenv("FAKE_MSGPASS_FAIL");
    size_t nameLength = strlen(operation);
    while (script != NULL && *script != '\0') {
        if (strncmp(script, operation, nameLength) == 0 && script[nameLength] == '=') {
            *scripted = 1;
            return atoi(script + nameLength + 1);
        }
        script = strchr(script, ',');
        if (script != NULL) {
            ++script;
        }
    }
    return 0;
}

static int statusOf(const char* operation) {
    int scripted;
    return scriptedStatus(operation, &scripted);
}

static int failsOf(const char* operation) {
    int scripted;
    scriptedStatus(operation, &scripted);
    return scripted;
}

static MSG_Msg* newMsg(uint32_t id, uint32_t bytes) {
    MSG_Msg* msg = calloc(1, sizeof *msg);
    if (msg == NULL) {
        return NULL;
    }
    msg->payload = malloc(bytes > 0 ? bytes : 1);
    if (msg->payload == NULL) {
        free(msg);
        return NULL;
    }
    msg->number = ++lastHandleNumber;
    msg->id = id;
    msg->bytes = bytes;
    return msg;
}

static void freeMsg(MSG_Msg* msg) {
    if (msg != NULL) {
        free(msg->payload);
        free(msg);
    }
}

static int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

static MSG_Msg* scriptedReply(uint32_t id) {
    const char* hex = getenv("FAKE_MSGPASS_REPLY");
    size_t digits = hex != NULL ? strlen(hex) : 0;
    MSG_Msg* msg = newMsg(id, (uint32_t)(digits / 2));
    for (uint32_t i = 0; msg != NULL && i < msg->bytes; ++i) {
        msg->payload[i] = (unsigned char)(hexDigit(hex[2 * i]) * 16 + hexDigit(hex[2 * i + 1]));
    }
    return msg;
}

static void hexOf(const MSG_Msg* msg, char* out, size_t outBytes) {
    size_t used = 0;
    for (uint32_t i = 0; i < msg->bytes && used + 3 <= outBytes; ++i) {
        used += (size_t)snprintf(out + used, outBytes - used, "%02x", msg->payload[i]);
    }
    out[used] = '\0';
}

static const char* nameOrNull(const char* name) {
    return name != NULL ? name : "(null)";
}

int MSG_DebugSetName(const char* name) {
    int status = statusOf("MSG_DebugSetName");
    logCall("MSG_DebugSetName %s -> %d", nameOrNull(name), status);
    return status;
}

int MSG_OpenLocal(const char* name) {
    int status = statusOf("MSG_OpenLocal");
    logCall("MSG_OpenLocal %s -> %d", nameOrNull(name), status);
    return status;
}

int MSG_OpenRemoteSync(const char* localName, const char* remoteName, int timeoutMs,
                       uint32_t* remoteAddress) {
    int status = statusOf("MSG_OpenRemoteSync");
    if (status == 0 && remoteAddress != NULL) {
        *remoteAddress = kRemoteAddress;
    }
    logCall("MSG_OpenRemoteSync %s %s %d -> %d", nameOrNull(localName), nameOrNull(remoteName),
            timeoutMs, status);
    return status;
}

int MSG_CloseLocal(const char* name) {
    int status = statusOf("MSG_CloseLocal");
    logCall("MSG_CloseLocal %s -> %d", nameOrNull(name), status);
    return status;
}

MSG_Msg* MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes) {
    MSG_Msg* msg = failsOf("MSG_AllocMsg") ? NULL : newMsg(msgId, payloadBytes);
    if (msg != NULL) {
        logCall("MSG_AllocMsg %u %d %u -> msg%u", msgId, flags, payloadBytes, msg->number);
    } else {
        logCall("MSG_AllocMsg %u %d %u -> NULL", msgId, flags, payloadBytes);
    }
    return msg;
}

void* MSG_GetPayloadMutable(MSG_Msg* msg) {
    logCall("MSG_GetPayloadMutable msg%u", msg != NULL ? msg->number : 0);
    return msg != NULL ? msg->payload : NULL;
}

int MSG_SendMsg(const char* localName, uint32_t remoteAddress, MSG_Msg* msg) {
    int status = statusOf("MSG_SendMsg");
    char hex[2048];
    hex[0] = '\0';
    if (msg != NULL) {
        hexOf(msg, hex, sizeof hex);
    }
    logCall("MSG_SendMsg %s %u msg%u payload=%s -> %d", nameOrNull(localName), remoteAddress,
            msg != NULL ? msg->number : 0, hex, status);
    freeMsg(msg);
    return status;
}

MSG_Msg* MSG_RecvMsg(const char* localName, uint32_t msgId, int timeoutMs) {
    MSG_Msg* msg = failsOf("MSG_RecvMsg") ? NULL : scriptedReply(msgId);
    if (msg != NULL) {
        logCall("MSG_RecvMsg %s %u %d -> msg%u", nameOrNull(localName), msgId, timeoutMs,
                msg->number);
    } else {
        logCall("MSG_RecvMsg %s %u %d -> NULL", nameOrNull(localName), msgId, timeoutMs);
    }
    return msg;
}

const void* MSG_GetPayload(const MSG_Msg* msg) {
    logCall("MSG_GetPayload msg%u", msg != NULL ? msg->number : 0);
    return msg != NULL ? msg->payload : NULL;
}

int MSG_GetPayloadBytes(const MSG_Msg* msg) {
    int bytes = msg != NULL ? (int)msg->bytes : -1;
    logCall("MSG_GetPayloadBytes msg%u -> %d", msg != NULL ? msg->number : 0, bytes);
    return bytes;
}

int MSG_ReleaseMsg(MSG_Msg* msg) {
    logCall("MSG_ReleaseMsg msg%u", msg != NULL ? msg->number : 0);
    freeMsg(msg);
    return msg != NULL ? MSG_OK : MSG_ERR_BAD_ARG;
}

/* Service-side operations: present so that the library can stand in for the real one; the
 * tool must never call them, which the log would show. */
MSG_Msg* MSG_RecvAny(const char* localName, int timeoutMs) {
    logCall("MSG_RecvAny %s %d -> NULL", nameOrNull(localName), timeoutMs);
    return NULL;
}

uint32_t MSG_GetMsgId(const MSG_Msg* msg) {
    logCall("MSG_GetMsgId msg%u", msg != NULL ? msg->number : 0);
    return msg != NULL ? msg->id : 0;
}

int MSG_GetSender(const MSG_Msg* msg, MSG_Sender* sender) {
    (void)sender;
    logCall("MSG_GetSender msg%u -> %d", msg != NULL ? msg->number : 0, MSG_ERR_BAD_ARG);
    return MSG_ERR_BAD_ARG;
}

int MSG_GetPollFd(const char* localName) {
    logCall("MSG_GetPollFd %s -> -1", nameOrNull(localName));
    return -1;
}

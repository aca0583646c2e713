/*
 * A scriptable libmsgpass for tests: the client operations only, talking to no one.
 *
 * Built under the real library's name and soname, so that LD_LIBRARY_PATH puts it in front of
 * the real one. Each call is appended to the file named by FAKE_MSGPASS_LOG as one line: the
 * operation without its "MSG_" prefix, the arguments and the result. Results come from the
 * environment:
 *
 *   FAKE_MSGPASS_FAIL   "Operation=status" items, e.g. "MSG_OpenLocal=-3,MSG_SendMsg=7"; an
 *                       operation that returns a handle returns NULL when it is named.
 *   FAKE_MSGPASS_REPLY  the payload, in hex, of the message MSG_RecvMsg returns (default: none).
 *
 * Handles are numbered in allocation order and logged as "msg<N>" (NULL as "msg0"). MSG_SendMsg
 * frees the handle it is given, whatever it answers, as the real library does.
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "msgpass.h"

struct MsgBuf {
    unsigned number;
    uint32_t bytes;
    unsigned char payload[];
};

static unsigned handlesMade = 0;

static void logCall(const char* format, ...) {
    const char* path = getenv("FAKE_MSGPASS_LOG");
    FILE* log = path != NULL ? fopen(path, "a") : NULL;
    if (log == NULL) {
        return;
    }
    va_list args;
    va_start(args, format);
    vfprintf(log, format, args);
    va_end(args);
    fputc('\n', log);
    fclose(log);
}

/* Whether FAKE_MSGPASS_FAIL names `operation`; *status gets its status, else 0. */
static int scripted(const char* operation, int* status) {
    char item[64];
    snprintf(item, sizeof item, "%s=", operation);
    const char* script = getenv("FAKE_MSGPASS_FAIL");
    const char* at = script != NULL ? strstr(script, item) : NULL;
    *status = at != NULL ? atoi(at + strlen(item)) : 0;
    return at != NULL;
}

static int statusOf(const char* operation) {
    int status;
    scripted(operation, &status);
    return status;
}

static MSG_Msg* newMsg(uint32_t bytes) {
    MSG_Msg* msg = malloc(sizeof *msg + bytes);
    if (msg != NULL) {
        msg->number = ++handlesMade;
        msg->bytes = bytes;
    }
    return msg;
}

static unsigned numberOf(const MSG_Msg* msg) {
    return msg != NULL ? msg->number : 0;
}

int MSG_DebugSetName(const char* name) {
    int status = statusOf("MSG_DebugSetName");
    logCall("DebugSetName %s -> %d", name, status);
    return status;
}

int MSG_OpenLocal(const char* name) {
    int status = statusOf("MSG_OpenLocal");
    logCall("OpenLocal %s -> %d", name, status);
    return status;
}

int MSG_OpenRemoteSync(const char* localName, const char* remoteName, int timeoutMs,
                       uint32_t* remoteAddress) {
    int status = statusOf("MSG_OpenRemoteSync");
    *remoteAddress = status == 0 ? 42 : 0;
    logCall("OpenRemoteSync %s %s %d -> %d", localName, remoteName, timeoutMs, status);
    return status;
}

int MSG_CloseLocal(const char* name) {
    int status = statusOf("MSG_CloseLocal");
    logCall("CloseLocal %s -> %d", name != NULL ? name : "(null)", status);
    return status;
}

MSG_Msg* MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes) {
    int ignored;
    MSG_Msg* msg = scripted("MSG_AllocMsg", &ignored) ? NULL : newMsg(payloadBytes);
    logCall("AllocMsg %u %d %u -> msg%u", msgId, flags, payloadBytes, numberOf(msg));
    return msg;
}

void* MSG_GetPayloadMutable(MSG_Msg* msg) {
    logCall("GetPayloadMutable msg%u", numberOf(msg));
    return msg->payload;
}

int MSG_SendMsg(const char* localName, uint32_t remoteAddress, MSG_Msg* msg) {
    int status = statusOf("MSG_SendMsg");
    char hex[4096] = "";
    for (uint32_t i = 0; i < msg->bytes && 2 * i + 2 < sizeof hex; ++i) {
        snprintf(hex + 2 * i, 3, "%02x", msg->payload[i]);
    }
    logCall("SendMsg %s %u msg%u %s -> %d", localName, remoteAddress, msg->number, hex, status);
    free(msg);
    return status;
}

MSG_Msg* MSG_RecvMsg(const char* localName, uint32_t msgId, int timeoutMs) {
    int ignored;
    const char* hex = getenv("FAKE_MSGPASS_REPLY");
    MSG_Msg* msg = NULL;
    if (!scripted("MSG_RecvMsg", &ignored)) {
        msg = newMsg(hex != NULL ? (uint32_t)strlen(hex) / 2 : 0);
    }
    for (uint32_t i = 0; msg != NULL && i < msg->bytes; ++i) {
        sscanf(hex + 2 * i, "%2hhx", &msg->payload[i]);
    }
    logCall("RecvMsg %s %u %d -> msg%u", localName, msgId, timeoutMs, numberOf(msg));
    return msg;
}

const void* MSG_GetPayload(const MSG_Msg* msg) {
    logCall("GetPayload msg%u", numberOf(msg));
    return msg->payload;
}

int MSG_GetPayloadBytes(const MSG_Msg* msg) {
    logCall("GetPayloadBytes msg%u -> %u", numberOf(msg), msg->bytes);
    return (int)msg->bytes;
}

int MSG_ReleaseMsg(MSG_Msg* msg) {
    logCall("ReleaseMsg msg%u", numberOf(msg));
    free(msg);
    return MSG_OK;
}

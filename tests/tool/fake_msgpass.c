/*
 * A scriptable libmsgpass with the client operations only, for tests. LD_LIBRARY_PATH puts it in
 * front of the real one. It talks to no one: each call is appended to the file $FAKE_MSGPASS_LOG
 * as one line (operation without "MSG_", arguments, result), and results come from
 * $FAKE_MSGPASS_FAIL, items like "MSG_OpenLocal=-3,MSG_SendMsg=7" (an operation that returns a
 * handle returns NULL when named), and $FAKE_MSGPASS_REPLY, the payload in hex that MSG_RecvMsg
 * returns. Handles are logged as "msg<N>" in allocation order, NULL as "msg0"; MSG_SendMsg frees
 * the one it is given, whatever it answers, as the real library does.
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
    if (log != NULL) {
        va_list args;
        va_start(args, format);
        vfprintf(log, format, args);
        va_end(args);
        fputc('\n', log);
        fclose(log);
    }
}

/* The status FAKE_MSGPASS_FAIL gives `operation` ("-3" of "MSG_OpenLocal=-3"), or NULL. */
static const char* scripted(const char* operation) {
    char item[64];
    snprintf(item, sizeof item, "%s=", operation);
    const char* script = getenv("FAKE_MSGPASS_FAIL");
    const char* at = script != NULL ? strstr(script, item) : NULL;
    return at != NULL ? at + strlen(item) : NULL;
}

static int statusOf(const char* operation) {
    const char* status = scripted(operation);
    return status != NULL ? atoi(status) : 0;
}

/* A new handle with a payload of `bytes` bytes, or NULL when `operation` is scripted to fail. */
static MSG_Msg* newMsg(const char* operation, uint32_t bytes) {
    MSG_Msg* msg = scripted(operation) != NULL ? NULL : malloc(sizeof *msg + bytes);
    if (msg != NULL) {
        msg->number = ++handlesMade;
        msg->bytes = bytes;
    }
    return msg;
}

/* The operations that take an endpoint name and answer a status. */
#define NAME_OPERATION(operation)                                                \
    int MSG_##operation(const char* name) {                                      \
        int status = statusOf("MSG_" #operation);                                \
        logCall(#operation " %s -> %d", name != NULL ? name : "(null)", status); \
        return status;                                                           \
    }
NAME_OPERATION(DebugSetName)
NAME_OPERATION(OpenLocal)
NAME_OPERATION(CloseLocal)

int MSG_OpenRemoteSync(const char* localName, const char* remoteName, int timeoutMs,
                       uint32_t* remoteAddress) {
    int status = statusOf("MSG_OpenRemoteSync");
    *remoteAddress = 42;
    logCall("OpenRemoteSync %s %s %d -> %d", localName, remoteName, timeoutMs, status);
    return status;
}

MSG_Msg* MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes) {
    MSG_Msg* msg = newMsg("MSG_AllocMsg", payloadBytes);
    logCall("AllocMsg %u %d %u -> msg%u", msgId, flags, payloadBytes, msg ? msg->number : 0);
    return msg;
}

void* MSG_GetPayloadMutable(MSG_Msg* msg) {
    logCall("GetPayloadMutable msg%u", msg->number);
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
    const char* hex = getenv("FAKE_MSGPASS_REPLY");
    MSG_Msg* msg = newMsg("MSG_RecvMsg", hex != NULL ? (uint32_t)strlen(hex) / 2 : 0);
    for (uint32_t i = 0; msg != NULL && i < msg->bytes; ++i) {
        sscanf(hex + 2 * i, "%2hhx", &msg->payload[i]);
    }
    logCall("RecvMsg %s %u %d -> msg%u", localName, msgId, timeoutMs, msg ? msg->number : 0);
    return msg;
}

const void* MSG_GetPayload(const MSG_Msg* msg) {
    logCall("GetPayload msg%u", msg->number);
    return msg->payload;
}

int MSG_GetPayloadBytes(const MSG_Msg* msg) {
    logCall("GetPayloadBytes msg%u -> %u", msg->number, msg->bytes);
    return (int)msg->bytes;
}

int MSG_ReleaseMsg(MSG_Msg* msg) {
    logCall("ReleaseMsg msg%u", msg->number);
    free(msg);
    return MSG_OK;
}

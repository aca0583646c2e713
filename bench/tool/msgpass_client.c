/*
 * msgpass_client: setvane's transaction without the tool. Opens "setvane-<pid>", connects to
 * ConfigSrvc, sends a fixed read request, waits for the reply and closes, through libmsgpass's
 * eleven client operations and nothing else. Its time is the share of a setvane run that
 * libmsgpass itself takes.
 *
 * Usage: msgpass_client
 */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "Common/protobuf/v3/config_protocol.h"
#include "msgpass.h"

/* ReadReq: name "setvane-12345", role kUser, node (x, 0). */
static const char kRequest[] =
    "\x52\x0dsetvane-12345\xa0\x01\x0a\xf2\x01\x07\x52\x05\x52\x01x\xa0\x01\x00";

int main(void) {
    char name[64];
    snprintf(name, sizeof name, "setvane-%d", (int)getpid());
    MSG_DebugSetName(name);
    uint32_t remote = 0;
    if (MSG_OpenLocal(name) != MSG_OK ||
        MSG_OpenRemoteSync(name, CONFIG_SERVICE_ENDPOINT, 5000, &remote) != MSG_OK) {
        fprintf(stderr, "msgpass_client: cannot connect\n");
        return 1;
    }
    MSG_Msg* request = MSG_AllocMsg(kReadReqMsgId, 0, sizeof kRequest - 1);
    if (request == NULL) {
        return 1;
    }
    memcpy(MSG_GetPayloadMutable(request), kRequest, sizeof kRequest - 1);
    if (MSG_SendMsg(name, remote, request) != MSG_OK) {
        fprintf(stderr, "msgpass_client: send failed\n");
        return 1;
    }
    MSG_Msg* reply = MSG_RecvMsg(name, kReadRspMsgId, 10000);
    if (reply == NULL) {
        fprintf(stderr, "msgpass_client: no reply\n");
        return 1;
    }
    const int ok = MSG_GetPayload(reply) != NULL && MSG_GetPayloadBytes(reply) > 0;
    MSG_ReleaseMsg(reply);
    MSG_CloseLocal(NULL);
    return ok ? 0 : 1;
}

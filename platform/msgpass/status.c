/* status.c - the text of every status code, as msgpass.h documents it. */
#include "internal.h"

static const char* const kTexts[] = {
    [MSG_ERR_BAD_ARG - MSG_ERR_BAD_ARG] =
        "null pointer, null handle or otherwise unusable argument",
    [MSG_ERR_BAD_NAME - MSG_ERR_BAD_ARG] =
        "endpoint name empty, too long, containing '/' or starting with '.'",
    [MSG_ERR_NOT_OPEN - MSG_ERR_BAD_ARG] = "no local endpoint of that name is open in this process",
    [MSG_ERR_NAME_IN_USE - MSG_ERR_BAD_ARG] = "a live endpoint of that name exists already",
    [MSG_ERR_TIMEOUT - MSG_ERR_BAD_ARG] = "timed out waiting for the remote to appear or answer",
    [MSG_ERR_NO_ROUTE - MSG_ERR_BAD_ARG] = "the address names no open connection of this endpoint",
    [MSG_ERR_PEER_GONE - MSG_ERR_BAD_ARG] = "the connection was closed by the other end",
    [MSG_ERR_TOO_BIG - MSG_ERR_BAD_ARG] = "payload larger than the largest a message can carry",
    [MSG_ERR_SYSTEM - MSG_ERR_BAD_ARG] = "an operating-system call failed",
    [MSG_ERR_NO_MEMORY - MSG_ERR_BAD_ARG] = "out of memory",
    [MSG_ERR_NO_DIR - MSG_ERR_BAD_ARG] = "the endpoint directory cannot be found or created",
    [MSG_ERR_QUEUE_FULL - MSG_ERR_BAD_ARG] =
        "the peer left too much unread in its send queue and was dropped",
    [MSG_ERR_NOT_TRUSTED - MSG_ERR_BAD_ARG] =
        "the name is held by a user who may not hold names there",
    [MSG_ERR_NOT_ALLOWED - MSG_ERR_BAD_ARG] =
        "this process may not hold names in the endpoint directory",
};

MSG_EXPORT const char* MSG_StatusText(int status) {
    if (status == MSG_OK) {
        return "success";
    }
    int index = status - MSG_ERR_BAD_ARG;
    if (index < 0 || index >= (int)(sizeof(kTexts) / sizeof(kTexts[0])) || !kTexts[index]) {
        return "unknown status";
    }
    return kTexts[index];
}

/* message.c - message handles and the wire header that frames them. */
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "internal.h"

/* Large buffers are mapped of their own, so that their memory goes back to the system when they
 * are freed, whatever the allocator would keep. */
enum { kMapBytes = 128 * 1024 };

size_t msg_footprint(uint32_t capacity) {
    return sizeof(MSG_Msg) + kMsgHeaderBytes + (size_t)capacity;
}

static MSG_Msg* allocate(size_t total, size_t* mapped) {
    *mapped = 0;
    if (total < kMapBytes) {
        return malloc(total);
    }
    void* memory = mmap(NULL, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return NULL;
    }
    *mapped = total;
    return memory;
}

MSG_Msg* msg_new_room(uint32_t id, uint32_t bytes, uint32_t capacity) {
    size_t mapped;
    MSG_Msg* msg = allocate(msg_footprint(capacity), &mapped);
    if (!msg) {
        return NULL;
    }
    memset(msg, 0, sizeof(*msg));
    msg->id = id;
    msg->bytes = bytes;
    msg->capacity = capacity;
    msg->mapped = mapped;
    return msg;
}

MSG_Msg* msg_new(uint32_t id, uint32_t bytes) {
    return msg_new_room(id, bytes, bytes);
}

MSG_Msg* msg_grow(MSG_Msg* msg, uint32_t capacity) {
    const size_t total = msg_footprint(capacity);
    MSG_Msg* grown;
    if (msg->mapped) {
        grown = mremap(msg, msg->mapped, total, MREMAP_MAYMOVE);
        if (grown == MAP_FAILED) {
            return NULL;
        }
        grown->mapped = total;
    } else if (total >= kMapBytes) {
        size_t mapped;
        grown = allocate(total, &mapped);
        if (!grown) {
            return NULL;
        }
        memcpy(grown, msg, msg_footprint(msg->capacity));
        grown->mapped = mapped;
        free(msg);
    } else if (!(grown = realloc(msg, total))) {
        return NULL;
    }
    grown->capacity = capacity;
    return grown;
}

void msg_free(MSG_Msg* msg) {
    if (msg->charged) {
        msg_memory_release(msg->charged);
    }
    if (msg->mapped) {
        munmap(msg, msg->mapped);
    } else {
        free(msg);
    }
}

unsigned char* msg_payload(MSG_Msg* msg) {
    return msg->frame + kMsgHeaderBytes;
}

/* Little-endian on the wire whatever the host, so the format is one thing to document. */
static void put_u32(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)v;
    p[1] = (unsigned char)(v >> 8);
    p[2] = (unsigned char)(v >> 16);
    p[3] = (unsigned char)(v >> 24);
}

static uint32_t get_u32(const unsigned char* p) {
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

void msg_encode_header(MSG_Msg* msg) {
    put_u32(msg->frame, kMsgMagic);
    put_u32(msg->frame + 4, msg->id);
    put_u32(msg->frame + 8, msg->bytes);
    put_u32(msg->frame + 12, 0);
}

int msg_decode_header(const unsigned char* header, uint32_t* id, uint32_t* bytes) {
    if (get_u32(header) != kMsgMagic || get_u32(header + 12) != 0) {
        return -1;
    }
    *id = get_u32(header + 4);
    *bytes = get_u32(header + 8);
    return *bytes <= MSG_MAX_PAYLOAD_BYTES ? 0 : -1;
}

MSG_EXPORT MSG_Msg* MSG_AllocMsg(uint32_t msgId, int flags, uint32_t payloadBytes) {
    if ((flags & ~MSG_SEND_NOWAIT) != 0 || payloadBytes > MSG_MAX_PAYLOAD_BYTES) {
        return NULL;
    }
    MSG_Msg* msg = msg_new(msgId, payloadBytes);
    if (msg) {
        msg->flags = flags;
    }
    return msg;
}

MSG_EXPORT void* MSG_GetPayloadMutable(MSG_Msg* msg) {
    return msg ? msg_payload(msg) : NULL;
}

MSG_EXPORT const void* MSG_GetPayload(const MSG_Msg* msg) {
    return msg ? msg->frame + kMsgHeaderBytes : NULL;
}

MSG_EXPORT int MSG_GetPayloadBytes(const MSG_Msg* msg) {
    return msg ? (int)msg->bytes : -1;
}

MSG_EXPORT uint32_t MSG_GetMsgId(const MSG_Msg* msg) {
    return msg ? msg->id : 0;
}

MSG_EXPORT int MSG_GetSender(const MSG_Msg* msg, MSG_Sender* sender) {
    if (!msg || !sender || !msg->received) {
        return MSG_ERR_BAD_ARG;
    }
    *sender = msg->sender;
    return MSG_OK;
}

MSG_EXPORT int MSG_ReleaseMsg(MSG_Msg* msg) {
    if (!msg) {
        return MSG_ERR_BAD_ARG;
    }
    msg_free(msg);
    return MSG_OK;
}

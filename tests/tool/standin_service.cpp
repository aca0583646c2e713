// A scripted stand-in for ConfigSrvc, built on libmsgpass's service calls.
//
// Opens the endpoint "ConfigSrvc" (in $MSGPASS_DIR), prints "ready" on standard output, then
// answers every request with the bytes and message id it was told, optionally after a delay,
// or not at all. Each request received is appended to the record file as one line:
//   id=<decimal> pid=<sender pid> payload=<hex>
// It runs until it has served --serve requests (0, the default: until it is killed).
//
// Usage: standin_service [--reply-id N] [--reply-hex HEX] [--delay-ms N] [--silent]
//                        [--record FILE] [--serve N]
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgpass.h"

namespace {

const char kServiceName[] = "ConfigSrvc";

struct Script {
    uint32_t replyId = 0;
    std::string reply;  // raw bytes
    long delayMs = 0;
    bool silent = false;
    const char* recordPath = nullptr;
    long serve = 0;
};

bool decodeHex(const char* hex, std::string& bytes) {
    const size_t digits = std::strlen(hex);
    if (digits % 2 != 0) {
        return false;
    }
    for (size_t i = 0; i < digits; i += 2) {
        char pair[3] = {hex[i], hex[i + 1], '\0'};
        char* end = nullptr;
        const long value = std::strtol(pair, &end, 16);
        if (*end != '\0') {
            return false;
        }
        bytes.push_back(static_cast<char>(value));
    }
    return true;
}

bool parseArgs(int argc, char** argv, Script& script) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--silent") {
            script.silent = true;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const char* argument = argv[++i];
        if (option == "--reply-id") {
            script.replyId = static_cast<uint32_t>(std::strtoul(argument, nullptr, 0));
        } else if (option == "--reply-hex") {
            if (!decodeHex(argument, script.reply)) {
                return false;
            }
        } else if (option == "--delay-ms") {
            script.delayMs = std::atol(argument);
        } else if (option == "--record") {
            script.recordPath = argument;
        } else if (option == "--serve") {
            script.serve = std::atol(argument);
        } else {
            return false;
        }
    }
    return true;
}

void record(const Script& script, const MSG_Msg* request, const MSG_Sender& sender) {
    if (script.recordPath == nullptr) {
        return;
    }
    FILE* file = std::fopen(script.recordPath, "a");
    if (file == nullptr) {
        return;
    }
    std::fprintf(file, "id=%u pid=%d payload=", MSG_GetMsgId(request),
                 static_cast<int>(sender.pid));
    const unsigned char* payload = static_cast<const unsigned char*>(MSG_GetPayload(request));
    for (int i = 0; i < MSG_GetPayloadBytes(request); ++i) {
        std::fprintf(file, "%02x", payload[i]);
    }
    std::fputc('\n', file);
    std::fclose(file);
}

void sleepMs(long ms) {
    struct timespec pause = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&pause, nullptr);
}

void answer(const Script& script, const MSG_Sender& sender) {
    MSG_Msg* reply = MSG_AllocMsg(script.replyId, 0, static_cast<uint32_t>(script.reply.size()));
    if (reply == nullptr) {
        std::fprintf(stderr, "standin_service: MSG_AllocMsg failed\n");
        return;
    }
    if (!script.reply.empty()) {
        std::memcpy(MSG_GetPayloadMutable(reply), script.reply.data(), script.reply.size());
    }
    const int status = MSG_SendMsg(kServiceName, sender.address, reply);
    if (status != MSG_OK) {
        std::fprintf(stderr, "standin_service: MSG_SendMsg failed %d\n", status);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Script script;
    if (!parseArgs(argc, argv, script)) {
        std::fprintf(stderr, "standin_service: bad arguments\n");
        return 2;
    }
    const int status = MSG_OpenLocal(kServiceName);
    if (status != MSG_OK) {
        std::fprintf(stderr, "standin_service: MSG_OpenLocal failed %d\n", status);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);

    for (long served = 0; script.serve == 0 || served < script.serve;) {
        MSG_Msg* request = MSG_RecvAny(kServiceName, -1);
        if (request == nullptr) {
            sleepMs(1);  // a capped wait ran out, or a failure: keep listening without spinning
            continue;
        }
        MSG_Sender sender = {};
        MSG_GetSender(request, &sender);
        record(script, request, sender);
        MSG_ReleaseMsg(request);
        if (script.delayMs > 0) {
            sleepMs(script.delayMs);
        }
        if (!script.silent) {
            answer(script, sender);
        }
        ++served;
    }
    MSG_CloseLocal(kServiceName);
    return 0;
}

// A scripted stand-in for the configuration service over libmsgpass, used by the tool's tests and
// its benchmark.
//
// Opens the service's endpoint (in $MSGPASS_DIR), prints "ready", then answers every request
// with the payload HEX under the id of that request's response, until it is killed. With
// --record, each request is appended to FILE as the line "<decimal id> <payload in hex>".
//
// Usage: standin_service --reply-hex HEX [--record FILE]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Common/protobuf/v3/ConfigProtocol.h"
#include "msgpass.h"

namespace {

const char* const kServiceName = ConfigProtocol::kServiceEndpoint;

void record(const char* path, const MSG_Msg* request) {
    FILE* file = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (file != nullptr) {
        std::fprintf(file, "%u ", MSG_GetMsgId(request));
        const unsigned char* payload = static_cast<const unsigned char*>(MSG_GetPayload(request));
        for (int i = 0; i < MSG_GetPayloadBytes(request); ++i) {
            std::fprintf(file, "%02x", payload[i]);
        }
        std::fputc('\n', file);
        std::fclose(file);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string reply;
    const char* recordPath = nullptr;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--reply-hex") == 0) {
            for (const char* hex = argv[i + 1]; hex[0] != '\0' && hex[1] != '\0'; hex += 2) {
                const char pair[3] = {hex[0], hex[1], '\0'};
                reply.push_back(static_cast<char>(std::strtol(pair, nullptr, 16)));
            }
        } else if (std::strcmp(argv[i], "--record") == 0) {
            recordPath = argv[i + 1];
        }
    }
    if (MSG_OpenService(kServiceName) != MSG_OK) {
        std::fprintf(stderr, "standin_service: cannot open %s\n", kServiceName);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        MSG_Msg* request = MSG_RecvAny(kServiceName, -1);
        if (request == nullptr) {
            usleep(1000);  // a failure: keep listening, without spinning
            continue;
        }
        MSG_Sender sender = {};
        MSG_GetSender(request, &sender);
        record(recordPath, request);
        const uint32_t replyId = ConfigProtocol::responseIdOf(MSG_GetMsgId(request));
        MSG_ReleaseMsg(request);
        // Allocation and sending fail only with the library; the client's time-out tells.
        MSG_Msg* answer = MSG_AllocMsg(replyId, 0, static_cast<uint32_t>(reply.size()));
        if (answer != nullptr && !reply.empty()) {
            std::memcpy(MSG_GetPayloadMutable(answer), reply.data(), reply.size());
        }
        MSG_SendMsg(kServiceName, sender.address, answer);
    }
}

// Sends arbitrary bytes, as a peer would, to an endpoint of our libmsgpass and lets it read
// them. Whatever a peer sends (garbage, truncated or oversized frames), the endpoint must hand
// out only whole messages within the payload limit and drop the peer, never crash or grow.
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "FuzzTarget.h"
#include "msgpass.h"

namespace {

const char kEndpoint[] = "fuzz-frames";

// The endpoint, opened once in a private directory; returns its socket path.
const std::string& endpointPath() {
    static const std::string* path = [] {
        char dir[] = "/tmp/fuzz-msgpass-XXXXXX";
        FUZZ_CHECK(mkdtemp(dir) != nullptr);
        setenv("MSGPASS_DIR", dir, 1);
        FUZZ_CHECK(MSG_OpenService(kEndpoint) == MSG_OK);
        return new std::string(std::string(dir) + "/" + kEndpoint);
    }();
    return *path;
}

int connectRaw(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FUZZ_CHECK(fd >= 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    FUZZ_CHECK(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    return fd;
}

void sendAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return;  // the endpoint dropped us: that is an allowed answer to garbage
        }
        data += sent;
        size -= static_cast<size_t>(sent);
    }
}

// Takes what the endpoint has to hand out until it has nothing more for a short while.
void drain() {
    while (MSG_Msg* msg = MSG_RecvAny(kEndpoint, 1)) {
        const int bytes = MSG_GetPayloadBytes(msg);
        FUZZ_CHECK(bytes >= 0 && static_cast<uint32_t>(bytes) <= MSG_MAX_PAYLOAD_BYTES);
        FUZZ_CHECK(bytes == 0 || MSG_GetPayload(msg) != nullptr);
        MSG_Sender sender;
        FUZZ_CHECK(MSG_GetSender(msg, &sender) == MSG_OK);
        FUZZ_CHECK(sender.pid == getpid());
        MSG_ReleaseMsg(msg);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = connectRaw(endpointPath());
    sendAll(fd, data, size);
    close(fd);
    drain();
    return 0;
}

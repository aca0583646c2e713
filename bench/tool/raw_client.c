/*
 * raw_client: the floor for a one-shot IPC client. Connects to a Unix stream socket, sends one
 * request framed as a 4-byte length and the bytes of a typical read request, waits for the
 * framed reply and exits. No library beyond libc.
 *
 * Usage: raw_client SOCKET_PATH
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/* The size of `setvane x`'s request, give or take a byte. */
static const char kRequest[] =
    "\x52\x0dsetvane-12345\xa0\x01\x0a\xf2\x01\x07\x52\x05\x52\x01x\xa0\x01\x00";

static int readFully(int fd, void* buffer, size_t bytes) {
    char* at = buffer;
    while (bytes > 0) {
        ssize_t n = read(fd, at, bytes);
        if (n <= 0) {
            return -1;
        }
        at += n;
        bytes -= (size_t)n;
    }
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: raw_client SOCKET_PATH\n");
        return 2;
    }
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (strlen(argv[1]) >= sizeof address.sun_path) {
        fprintf(stderr, "raw_client: socket path too long\n");
        return 2;
    }
    strcpy(address.sun_path, argv[1]);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof address) != 0) {
        perror("raw_client: connect");
        return 1;
    }
    char frame[4 + sizeof kRequest - 1];
    uint32_t length = sizeof kRequest - 1;
    memcpy(frame, &length, 4);
    memcpy(frame + 4, kRequest, length);
    if (write(fd, frame, sizeof frame) != (ssize_t)sizeof frame) {
        perror("raw_client: write");
        return 1;
    }
    char reply[256];
    if (readFully(fd, &length, 4) != 0 || length > sizeof reply ||
        readFully(fd, reply, length) != 0) {
        fprintf(stderr, "raw_client: no reply\n");
        return 1;
    }
    close(fd);
    return 0;
}

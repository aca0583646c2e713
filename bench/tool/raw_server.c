/*
 * raw_server: the other end of raw_client. Listens on a Unix stream socket and answers every
 * framed request (4-byte length, bytes) with a small framed reply, one connection at a time,
 * until killed.
 *
 * Usage: raw_server SOCKET_PATH
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const char kReply[] = "\x50\x00\xa2\x01\x02on";

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

static void serve(int client) {
    uint32_t length;
    char request[4096];
    if (readFully(client, &length, 4) != 0 || length > sizeof request ||
        readFully(client, request, length) != 0) {
        return;
    }
    char frame[4 + sizeof kReply - 1];
    length = sizeof kReply - 1;
    memcpy(frame, &length, 4);
    memcpy(frame + 4, kReply, length);
    if (write(client, frame, sizeof frame) != (ssize_t)sizeof frame) {
        perror("raw_server: write");
    }
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: raw_server SOCKET_PATH\n");
        return 2;
    }
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (strlen(argv[1]) >= sizeof address.sun_path) {
        fprintf(stderr, "raw_server: socket path too long\n");
        return 2;
    }
    strcpy(address.sun_path, argv[1]);
    unlink(argv[1]);
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 || bind(listener, (struct sockaddr*)&address, sizeof address) != 0 ||
        listen(listener, 64) != 0) {
        perror("raw_server: listen");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        int client = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (client < 0) {
            continue;
        }
        serve(client);
        close(client);
    }
}

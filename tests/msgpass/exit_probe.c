/* Opens the endpoints named after its first argument, then ends as that argument says:
 *   exit    exit(0) with the endpoints open
 *   return  returns from main with the endpoints open
 *   thread  exit(0) while another thread waits in MSG_RecvAny
 *   fork    a child made by fork() calls exit(0); then exits 0 when the first endpoint's file is
 *           still in $MSGPASS_DIR, 4 when the child's exit took it
 *   wait    waits to be killed
 * Exit status 2 for a bad command line, 3 when an endpoint could not be opened. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "msgpass.h"

static void* receive_forever(void* name) {
    MSG_ReleaseMsg(MSG_RecvAny((const char*)name, -1));
    return NULL;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    for (int i = 2; i < argc; i++) {
        if (MSG_OpenService(argv[i]) != MSG_OK) {
            return 3;
        }
    }
    const char* how = argv[1];
    if (strcmp(how, "exit") == 0) {
        exit(0);
    }
    if (strcmp(how, "return") == 0) {
        return 0;
    }
    if (strcmp(how, "thread") == 0) {
        pthread_t thread;
        pthread_create(&thread, NULL, receive_forever, argv[2]);
        usleep(50 * 1000);
        exit(0);
    }
    if (strcmp(how, "fork") == 0) {
        pid_t child = fork();
        if (child == 0) {
            exit(0);
        }
        char path[4096];
        snprintf(path, sizeof(path), "%s/%s", getenv(MSG_DIR_ENV), argv[2]);
        waitpid(child, NULL, 0);
        return access(path, F_OK) == 0 ? 0 : 4;
    }
    if (strcmp(how, "wait") == 0) {
        for (;;) {
            pause();
        }
    }
    return 2;
}

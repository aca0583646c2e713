/*
 * peak_rss: runs a command a number of times and prints the largest peak resident set size of
 * the command's own process, as the kernel accounts it (ru_maxrss from wait4), in KiB.
 *
 * The command's standard output is discarded.
 *
 * Usage: peak_rss RUNS program [args...]
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 3 || atoi(argv[1]) < 1) {
        fprintf(stderr, "usage: peak_rss RUNS program [args...]\n");
        return 2;
    }
    const int runs = atoi(argv[1]);
    long largest = 0;
    for (int i = 0; i < runs; ++i) {
        pid_t child = fork();
        if (child < 0) {
            perror("peak_rss: fork");
            return 1;
        }
        if (child == 0) {
            /* Only the figure goes to standard output. */
            int devNull = open("/dev/null", O_WRONLY);
            if (devNull >= 0) {
                dup2(devNull, 1);
            }
            execv(argv[2], argv + 2);
            perror("peak_rss: execv");
            _exit(127);
        }
        int status = 0;
        struct rusage usage;
        if (wait4(child, &status, 0, &usage) < 0) {
            perror("peak_rss: wait4");
            return 1;
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            fprintf(stderr, "peak_rss: %s did not succeed (wait status %d)\n", argv[2], status);
            return 1;
        }
        if (usage.ru_maxrss > largest) {
            largest = usage.ru_maxrss;
        }
    }
    printf("%ld\n", largest);
    return 0;
}

/* logmsg sink: the log device, and standard output while the device is away;
 * or standard error, for programs that chose it. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "logmsg.h"
#include "logmsg_private.h"

/* 0: never opened, and never written to. Negative: the last open failed and is
 * retried with the next record. */
static int device_fd = 0;
/* 1 while records are also printed on standard output. */
static unsigned char print_fallback = 0;
static int use_device = 1;
/* 1 after logmsg_init_stderr: records go to standard error and nowhere else. */
static int to_stderr = 0;

/* Where records go; set by logmsg_init, reopened from here after a failure. */
static const char* device_path = LOGMSG_DEVICE_PATH;

void logmsg_open_device(const char* path) {
    to_stderr = 0;
    device_path = path;
    device_fd = open(device_path, O_WRONLY);
    if (device_fd < 0) {
        print_fallback = 1;
    }
}

/* Labels indexed by the header's level character minus 2. Headers hold ASCII
 * digits, so records of this library always fall outside the table and read
 * "DEBUG "; readers of the fallback output rely on exactly these labels. */
static const char* const kLevelLabels[] = {"CRIT  ", "ERROR ", "WARN  ", "DEBUG ", "INFO  "};
static const char kOtherLabel[] = "DEBUG ";

static void print_on_stdout(const char* record) {
    if (record[0] == '<' && record[1] != '\0' && record[2] == '>') {
        unsigned char index = (unsigned char)(record[1] - 2);
        const char* label = index < sizeof kLevelLabels / sizeof kLevelLabels[0]
                                ? kLevelLabels[index]
                                : kOtherLabel;
        fprintf(stdout, "%s %s", label, record + 3);
    } else {
        fputs(record, stdout);
    }
}

static void write_to_device(const char* record, int length) {
    if (device_fd >= 1 && length > 0) {
        ssize_t ignored = write(device_fd, record, (size_t)length);
        (void)ignored;  // a lost record must not disturb the program that logs
    }
}

void logmsg_use_stderr(void) {
    to_stderr = 1;
}

/* Writes the whole of `line`, resuming after interrupted or partial writes. */
static void write_all(int fd, const char* line, size_t length) {
    while (length > 0) {
        ssize_t written = write(fd, line, length);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;  // a lost record must not disturb the program that logs
        }
        line += written;
        length -= (size_t)written;
    }
}

/* One record as lines on standard error, in one write so that records of
 * several threads or processes sharing the file never interleave. Every line
 * starts with the record's priority prefix: a reader such as the journal takes
 * each line on its own and would otherwise give continuation lines its default
 * priority. */
static void write_to_stderr(const char* record, int length) {
    size_t size = length > 0 ? strnlen(record, (size_t)length) : 0;
    while (size > 0 && record[size - 1] == '\n') {
        size--;  // the line gets its own newline below, and no empty line
    }
    const int headed = size >= 3 && record[0] == '<' && record[2] == '>';
    /* Each byte grows to at most "\n<d>", plus the final newline. */
    char line[4 * LOGMSG_LINE_SIZE + 1];
    size_t used = 0;
    for (size_t i = 0; i < size && i < LOGMSG_LINE_SIZE; i++) {
        line[used++] = record[i];
        if (record[i] == '\n' && headed) {
            memcpy(line + used, record, 3);
            used += 3;
        }
    }
    line[used++] = '\n';
    write_all(STDERR_FILENO, line, used);
}

void logmsg_sink(const char* record, int length) {
    if (to_stderr != 0) {
        write_to_stderr(record, length);
        return;
    }
    if (use_device != 0) {
        if (device_fd < 0) {
            device_fd = open(device_path, O_WRONLY);
            if (device_fd < 0) {
                print_fallback = 1;
                print_on_stdout(record);
                return;
            }
            print_fallback = 0;
        }
        write_to_device(record, length);
    }
    if (print_fallback == 1) {
        print_on_stdout(record);
    }
}

int logmsg_set_use_device(int value) {
    use_device = value;
    return 0;
}

int logmsg_get_use_device(void) {
    return use_device;
}

/* logmsg core: initialisation, record assembly and the logging entries. */
#include "logmsg.h"

#include <assert.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "logmsg_private.h"

enum { kDebugLevel = LOGMSG_LEVEL_DEBUG, kRawLevel = LOGMSG_LEVEL_RAW };

static char app_name[LOGMSG_APP_NAME_SIZE];
/* Kept apart from the name: when no name can be found, logmsg_init still
 * initialises and records go out with an empty name. */
static int initialised = 0;

/* Each thread's partial line ("pCurLine"), created by logmsg_init. No destructor:
 * the buffers live as long as the process. */
static pthread_key_t line_key;

static int setting_a = 0;
static int setting_b = 8;

static void complain_not_initialised(void) {
    char program[LOGMSG_APP_NAME_SIZE];
    logmsg_app_name_from_proc(program, sizeof program);
    fprintf(stderr,
            "%s: %s: You should call logmsg_init() before any logging functions "
            "(including printf())\n",
            program, "va_logmsg");
}

void logmsg_init(int unused, const char* name) {
    logmsg_init_with_device(unused, name, LOGMSG_DEVICE_PATH);
}

/* What every initialisation does before choosing where records go. */
static void init_common(const char* name) {
    if (name != NULL) {
        strlcpy(app_name, name, sizeof app_name);
    }
    if (app_name[0] == '\0') {
        logmsg_app_name_from_proc(app_name, sizeof app_name);
        if (app_name[0] == '\0') {
            fputs("shouldn't happen: could not get app name\n", stderr);
        }
    }
    pthread_key_create(&line_key, NULL);
    initialised = 1;
}

void logmsg_init_with_device(int unused, const char* name, const char* device_path) {
    (void)unused;
    init_common(name);
    logmsg_open_device(device_path);
}

void logmsg_init_stderr(int unused, const char* name) {
    (void)unused;
    init_common(name);
    logmsg_use_stderr();
}

/* Levels outside 0..7 become debug; only the raw level keeps its own value. */
static int normalise_level(int level) {
    if ((unsigned)level >= 8 && level != kRawLevel) {
        return kDebugLevel;
    }
    return level;
}

/* The thread's partial line, created on first use. A thread that cannot have
 * one cannot log partial lines at all, so this aborts with the assertion text
 * the library has always shown for it. The failure is reported directly rather
 * than through assert(), so that its text does not depend on where it sits in
 * this file and the check cannot be compiled out. */
static char* pending_line_or_abort(void) {
    char* pending = pthread_getspecific(line_key);
    if (pending == NULL) {
        char* fresh = malloc(LOGMSG_LINE_SIZE);
        if (fresh != NULL) {
            fresh[0] = '\0';
            if (pthread_setspecific(line_key, fresh) != 0) {
                free(fresh);
            }
        }
        pending = pthread_getspecific(line_key);
    }
    if (pending == NULL) {
        __assert_fail("pCurLine", "logmsg.c", 881,
                      "int va_logmsg(va_list, int, const char *, const char *)");
    }
    return pending;
}

/* Picks the buffer this call writes into: the thread's partial line, or
 * `local` for a line that starts and ends in this call. NULL means that the
 * call is a lone newline with nothing pending, which is dropped. */
static char* choose_line(const char* format, int completes_line, char* local) {
    if (!completes_line) {
        return pending_line_or_abort();
    }
    char* pending = pthread_getspecific(line_key);
    if (pending != NULL && pending[0] != '\0') {
        return pending;
    }
    if (strcmp(format, "\n") == 0) {
        return NULL;
    }
    local[0] = '\0';
    return local;
}

static void append_header(char* line, int level, const char* module) {
    size_t used = (size_t)snprintf(line, LOGMSG_LINE_SIZE, "<%c>", '0' + level % 10);
    used += (size_t)snprintf(line + used, LOGMSG_LINE_SIZE - used, "%s: ", app_name);
    if (module != NULL && used < LOGMSG_LINE_SIZE) {
        snprintf(line + used, LOGMSG_LINE_SIZE - used, "%s: ", module);
    }
}

/* Appends the formatted text and returns the length the line would have
 * without the cut, capped at the buffer size. */
static size_t append_text(char* line, const char* format, va_list args) {
    size_t used = strlen(line);
    int added = vsnprintf(line + used, LOGMSG_LINE_SIZE - used, format, args);
    if (added < 0) {
        line[used] = '\0';  // a failed conversion contributes nothing
        added = 0;
    }
    size_t total = used + (size_t)added;
    return total < LOGMSG_LINE_SIZE ? total : LOGMSG_LINE_SIZE;
}

/* The device takes records without their line ending. */
static size_t without_line_ending(const char* line, size_t length) {
    if (length > 0 && line[length - 1] == '\n') {
        length--;
        if (length > 0 && line[length - 1] == '\r') {
            length--;
        }
    }
    return length;
}

static int emit_line(const char* line, size_t total) {
    if (line[0] == '\0' || !logmsg_filters_pass(line)) {
        return (int)total;
    }
    size_t length = without_line_ending(line, total);
    logmsg_sink(line, (int)length);
    return (int)length;
}

int va_logmsg(va_list args, int level, const char* module, const char* format) {
    if (!initialised) {
        complain_not_initialised();
        return 0;
    }
    if (format == NULL) {
        return 0;
    }
    level = normalise_level(level);
    /* Only the caller's own format decides where lines end, so text from
     * arguments can never split a record. */
    int completes_line = strchr(format, '\n') != NULL;
    char local[LOGMSG_LINE_SIZE];
    char* line = choose_line(format, completes_line, local);
    if (line == NULL) {
        return 0;
    }
    if (line[0] == '\0' && level != kRawLevel) {
        append_header(line, level, module);
    }
    size_t total = append_text(line, format, args);
    if (!completes_line) {
        return (int)total;
    }
    int result = emit_line(line, total);
    char* pending = pthread_getspecific(line_key);
    if (pending != NULL) {
        pending[0] = '\0';
    }
    return result;
}

int logmsg(int level, const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = va_logmsg(args, level, module, format);
    va_end(args);
    return result;
}

#define LOGMSG_DEFINE_LEVEL_ENTRY(name, level)                 \
    int name(const char* module, const char* format, ...) {    \
        va_list args;                                          \
        va_start(args, format);                                \
        int result = va_logmsg(args, (level), module, format); \
        va_end(args);                                          \
        return result;                                         \
    }

LOGMSG_DEFINE_LEVEL_ENTRY(logmsg_crit, LOGMSG_LEVEL_CRIT)
LOGMSG_DEFINE_LEVEL_ENTRY(logmsg_err, LOGMSG_LEVEL_ERR)
LOGMSG_DEFINE_LEVEL_ENTRY(logmsg_warn, LOGMSG_LEVEL_WARN)
LOGMSG_DEFINE_LEVEL_ENTRY(logmsg_info, LOGMSG_LEVEL_INFO)
LOGMSG_DEFINE_LEVEL_ENTRY(logmsg_debug, LOGMSG_LEVEL_DEBUG)

int logmsg_print(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = va_logmsg(args, kDebugLevel, NULL, format);
    va_end(args);
    return result;
}

/* Replaces the C library's printf for the whole process, shared libraries
 * included: their output becomes debug records instead of reaching stdout. */
int printf(const char* restrict format, ...) {
    va_list args;
    va_start(args, format);
    int result = va_logmsg(args, kDebugLevel, NULL, format);
    va_end(args);
    return result;
}

int logmsg_raw(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = va_logmsg(args, kRawLevel, NULL, format);
    va_end(args);
    return result;
}

char* logmsg_get_app_name(void) {
    return app_name;
}

int logmsg_set_setting_a(int value) {
    setting_a = value;
    return 0;
}

int logmsg_get_setting_a(void) {
    return setting_a;
}

int logmsg_set_setting_b(int value) {
    setting_b = value;
    return 0;
}

int logmsg_get_setting_b(void) {
    return setting_b;
}

void logmsg_noop(void) {}

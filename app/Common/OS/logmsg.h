/*
 * logmsg: a small process-wide logging library.
 *
 * Messages become records of the form
 *
 *     "<" level-digit ">" app-name ": " [module ": "] text
 *
 * which is the priority prefix the kernel log device understands. Records are
 * written to the log device "/dev/vesklog"; while the device cannot be opened
 * they are printed on standard output with a text label instead, and the open
 * is retried for every record. A program that runs where there is no log
 * device (a service on a host) chooses standard error instead, through
 * logmsg_init_stderr.
 *
 * Lines may be built by several calls: a call whose *format string* holds no
 * newline only appends to the calling thread's partial line, and the first later
 * call whose format holds a newline completes and emits it. Newlines that arrive
 * through arguments do not complete a line. Partial lines are kept per thread,
 * so lines of different threads never mix.
 *
 * The library defines and exports its own printf: every printf call in the
 * process, including calls made from shared libraries, becomes a debug-level
 * record and nothing is written to standard output by printf itself. Programs
 * linking the library are compiled with -fno-builtin-printf so that the compiler
 * does not turn their printf calls into puts or putchar.
 *
 * All state is global and never released. Nothing here takes a lock:
 * logmsg_init and filter changes are expected to happen before other threads
 * log. No function reports failures to its caller; see each one for what
 * happens instead.
 *
 * Usable from C and C++.
 */
#ifndef APP_COMMON_OS_LOGMSG_H_
#define APP_COMMON_OS_LOGMSG_H_

#include <stdarg.h>
#include <stddef.h>
#include <string.h> /* a C library that declares strlcpy keeps its declaration */

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define LOGMSG_PRINTF_LIKE(format_index, first_arg) \
    __attribute__((format(printf, format_index, first_arg)))
#else
#define LOGMSG_PRINTF_LIKE(format_index, first_arg)
#endif

/* Levels follow the system-log priority numbering. Any level that is 8 or more
 * when taken as unsigned (so also every negative level) is logged as debug,
 * except LOGMSG_LEVEL_RAW, which produces a record without a header. */
enum {
    LOGMSG_LEVEL_CRIT = 2,
    LOGMSG_LEVEL_ERR = 3,
    LOGMSG_LEVEL_WARN = 4,
    LOGMSG_LEVEL_NOTICE = 5,
    LOGMSG_LEVEL_INFO = 6,
    LOGMSG_LEVEL_DEBUG = 7,
    LOGMSG_LEVEL_RAW = 101,
};

/* Size of the application-name buffer, terminator included. */
enum { LOGMSG_APP_NAME_SIZE = 40 };

/* Size of a line buffer, terminator included: longer records are cut. */
enum { LOGMSG_LINE_SIZE = 2048 };

/* Number of slots in each filter table, and the size of a slot. */
enum { LOGMSG_MAX_FILTERS = 10, LOGMSG_FILTER_SIZE = 370 };

/*
 * Initialises the library; must be called before any logging. `unused` is
 * ignored (callers pass 0). `app_name` (may be NULL) becomes the identity in
 * every header, cut to 39 characters; when it is NULL or empty and no name was
 * set before, the program's base name from /proc is used, and if even that
 * fails a warning goes to standard error and headers carry an empty name
 * ("<3>: text").
 * Opens the log device; on failure records are printed on standard output
 * until a later reopen succeeds. Every call creates a new partial-line key,
 * abandoning partial lines of earlier calls.
 */
void logmsg_init(int unused, const char* app_name);

/* The kernel log device that logmsg_init opens. */
#define LOGMSG_DEVICE_PATH "/dev/vesklog"

/*
 * logmsg_init with the log device at `device_path` instead, for a program that
 * logs somewhere else (and for tests, which need no file under /dev). The
 * string is kept, not copied: it must stay valid for the life of the process.
 */
void logmsg_init_with_device(int unused, const char* app_name, const char* device_path);

/*
 * logmsg_init for a program whose records go to its standard error instead of
 * the log device: a service run by a supervisor that keeps what it writes there
 * (the system journal, syslog, a log file). Each record is written at once, in
 * one write(2) with nothing buffered, as a line "<d>app: [module: ]text\n" that
 * keeps its header: "<d>" is the priority prefix that the journal and syslog
 * read, so each record keeps its real level. A record whose text holds
 * newlines gets the prefix again after each of them, so that every line keeps
 * the priority. Raw records are written as they are, with a newline. The log
 * device is never opened, the device switch is not consulted, and nothing is
 * printed on standard output. A failed write is not retried and not reported.
 */
void logmsg_init_stderr(int unused, const char* app_name);

/*
 * The core of every logging call. Before logmsg_init it only prints a complaint
 * on standard error and returns 0; a NULL format returns 0.
 *
 * Returns, for a call that completes a line and whose record passes the
 * filters, the length handed to the sink (the record without a trailing "\n"
 * or "\r\n"); otherwise the length of the assembled text so far (header
 * included), capped at LOGMSG_LINE_SIZE. A lone "\n" with nothing pending is
 * dropped and returns 0.
 *
 * A record cut at LOGMSG_LINE_SIZE loses its trailing newline and reaches the
 * sink with length LOGMSG_LINE_SIZE, its last byte being the terminator.
 *
 * Aborts with the assertion "pCurLine" if the calling thread's partial-line
 * buffer cannot be allocated.
 */
int va_logmsg(va_list args, int level, const char* module, const char* format);

/* Generic entry: as va_logmsg. `module` may be NULL. */
int logmsg(int level, const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(3, 4);

/* Level wrappers: as va_logmsg at the named level. `module` may be NULL. */
int logmsg_crit(const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(2, 3);
int logmsg_err(const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(2, 3);
int logmsg_warn(const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(2, 3);
int logmsg_info(const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(2, 3);
int logmsg_debug(const char* module, const char* format, ...) LOGMSG_PRINTF_LIKE(2, 3);

/* Debug level, no module: what the exported printf does too. */
int logmsg_print(const char* format, ...) LOGMSG_PRINTF_LIKE(1, 2);

/* A record without a header (LOGMSG_LEVEL_RAW), no module. */
int logmsg_raw(const char* format, ...) LOGMSG_PRINTF_LIKE(1, 2);

/*
 * Writes `length` bytes of the NUL-terminated `record` to the log device (when
 * the device switch is on), and prints the record on standard output while the
 * device is unavailable. After logmsg_init_stderr it writes the record to
 * standard error instead, as described there (up to `length` bytes or the
 * terminator, whichever comes first), and does nothing else. The printed copy runs to the
 * terminator, so it keeps the newline the device copy lost. A headed record "<d>..." is printed
 * behind a label chosen by the code of d minus 2: 0 "CRIT  ", 1 "ERROR ", 2 "WARN  ", 3 "DEBUG ", 4
 * "INFO  ", anything else "DEBUG ". Since headers hold an ASCII digit, records made by this library
 * are always labelled "DEBUG "; the table is part of the output format and is kept as it is.
 */
void logmsg_sink(const char* record, int length);

/* The application-name buffer (LOGMSG_APP_NAME_SIZE bytes); empty before
 * logmsg_init. */
char* logmsg_get_app_name(void);

/*
 * Fills `buffer` (`size` bytes, zeroed first) with the base name of the
 * program, read from /proc/<pid>/cmdline; left empty when that cannot be read.
 * A program path longer than size - 1 bytes is cut before its last "/" is
 * looked for. Returns `buffer`.
 */
char* logmsg_app_name_from_proc(char* buffer, int size);

/*
 * Opens /proc/<process>/cmdline for reading, `process` being taken exactly as
 * given (a decimal process id, or "self"). The file holds the process's words,
 * each ended by a NUL byte. Opened without blocking and closed on exec, so that
 * an odd file in its place cannot hold the caller up. Returns the descriptor,
 * which the caller closes, or -1. Every reader of a command line in this
 * project starts here.
 */
int logmsg_open_cmdline(const char* process);

/* Device switch, on (1) by default: when 0, nothing is written to the device. */
int logmsg_set_use_device(int use_device);
int logmsg_get_use_device(void);

/* Two stored integers (defaults 0 and 8) kept for callers that configure them;
 * nothing in the library reads them. The setters return 0. */
int logmsg_set_setting_a(int value);
int logmsg_get_setting_a(void);
int logmsg_set_setting_b(int value);
int logmsg_get_setting_b(void);

/* Does nothing. */
void logmsg_noop(void);

/*
 * Show and cull filters. Each completed, non-empty record (header included,
 * before its trailing newline is removed) is output only if, while the show
 * count is 1 or more, some set show filter occurs in it, and, while the cull
 * count is 1 or more, no set cull filter occurs in it. Matching is a
 * case-sensitive substring test; removal compares without regard to case.
 *
 * The counts are raised by every add and lowered by every single removal; they
 * are not recomputed from the slots. Adding "" therefore raises the count while
 * setting no slot (every record is then suppressed by a show table), and
 * removing "" frees nothing but lowers the count when some slot is free.
 *
 * Messages go to standard output. The tables are independent of logmsg_init.
 */

/* Takes the first free slot: returns 0, or prints
 * "\"<filter>\" show filter not added, table full" and returns -1. Filters are
 * cut to LOGMSG_FILTER_SIZE - 1 characters. A NULL filter is refused (-1). */
int logmsg_add_show_filter(const char* filter);
int logmsg_add_cull_filter(const char* filter);

/* "*" empties the table and sets the count to 0. Otherwise empties the first
 * slot equal to `filter` ignoring case, or prints
 * "\"<filter>\" show filter not found". A NULL filter changes nothing.
 * Always returns 0. */
int logmsg_remove_show_filter(const char* filter);
int logmsg_remove_cull_filter(const char* filter);

/* Prints "show filters:" and one line `  "<filter>"` per set slot. Returns 0. */
int logmsg_list_show_filters(void);
int logmsg_list_cull_filters(void);

/* The filter in slot `index`; "" for a free slot or an index outside 0..9. */
const char* logmsg_get_show_filter(int index);
const char* logmsg_get_cull_filter(int index);

/* LOGMSG_MAX_FILTERS. */
int logmsg_max_filters(void);

/*
 * Bounded copy, exported for the whole process: copies at most size - 1 bytes
 * of `src`, always terminates `dst` when size is nonzero, and returns the length
 * of `src` (a result >= size means the copy was cut).
 */
#if !defined(__GLIBC__) || __GLIBC__ < 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ < 38)
size_t strlcpy(char* dst, const char* src, size_t size);
#endif

#ifdef __cplusplus
}
#endif

#endif /* APP_COMMON_OS_LOGMSG_H_ */

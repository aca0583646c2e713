/* logmsg show and cull filters: two small tables of substrings that decide
 * which completed records are output. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "logmsg.h"
#include "logmsg_private.h"

/* Messages are formatted here before printing; longer ones are cut. */
enum { kMessageSize = 770 };

typedef struct FilterTable {
    const char* kind;  // "show" or "cull", as the messages name the table
    char slots[LOGMSG_MAX_FILTERS][LOGMSG_FILTER_SIZE];  // "" marks a free slot
    /* Raised by every add and lowered by every single removal, never recomputed
     * from the slots: the table filters while this is 1 or more. */
    int count;
} FilterTable;

static FilterTable show_filters = {"show", {{0}}, 0};
static FilterTable cull_filters = {"cull", {{0}}, 0};

/* Filter output goes to the real standard output, never through the exported
 * printf, which would turn it into log records. */
__attribute__((format(printf, 1, 2))) static void print_message(const char* format, ...) {
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    fputs(message, stdout);
}

static int add_filter(FilterTable* table, const char* filter) {
    if (filter == NULL) {
        return -1;
    }
    for (int i = 0; i < LOGMSG_MAX_FILTERS; i++) {
        if (table->slots[i][0] == '\0') {
            strlcpy(table->slots[i], filter, LOGMSG_FILTER_SIZE);
            table->count++;
            return 0;
        }
    }
    print_message("\"%s\" %s filter not added, table full\n", filter, table->kind);
    return -1;
}

static int remove_filter(FilterTable* table, const char* filter) {
    if (filter == NULL) {
        return 0;
    }
    if (strcasecmp(filter, "*") == 0) {
        memset(table->slots, 0, sizeof table->slots);
        table->count = 0;
        return 0;
    }
    // Free slots take part too: removing "" frees nothing but lowers the count.
    for (int i = 0; i < LOGMSG_MAX_FILTERS; i++) {
        if (strcasecmp(table->slots[i], filter) == 0) {
            table->slots[i][0] = '\0';
            table->count--;
            return 0;
        }
    }
    print_message("\"%s\" %s filter not found\n", filter, table->kind);
    return 0;
}

static int list_filters(const FilterTable* table) {
    print_message("%s filters:\n", table->kind);
    for (int i = 0; i < LOGMSG_MAX_FILTERS; i++) {
        if (table->slots[i][0] != '\0') {
            print_message("  \"%s\"\n", table->slots[i]);
        }
    }
    return 0;
}

static const char* get_filter(const FilterTable* table, int index) {
    if ((unsigned)index >= LOGMSG_MAX_FILTERS) {
        return "";
    }
    return table->slots[index];
}

/* Whether some set filter of the table occurs in the record (case-sensitive). */
static int any_filter_occurs(const FilterTable* table, const char* record) {
    for (int i = 0; i < LOGMSG_MAX_FILTERS; i++) {
        if (table->slots[i][0] != '\0' && strstr(record, table->slots[i]) != NULL) {
            return 1;
        }
    }
    return 0;
}

int logmsg_filters_pass(const char* record) {
    if (show_filters.count >= 1 && !any_filter_occurs(&show_filters, record)) {
        return 0;
    }
    if (cull_filters.count >= 1 && any_filter_occurs(&cull_filters, record)) {
        return 0;
    }
    return 1;
}

int logmsg_add_show_filter(const char* filter) {
    return add_filter(&show_filters, filter);
}
int logmsg_add_cull_filter(const char* filter) {
    return add_filter(&cull_filters, filter);
}
int logmsg_remove_show_filter(const char* filter) {
    return remove_filter(&show_filters, filter);
}
int logmsg_remove_cull_filter(const char* filter) {
    return remove_filter(&cull_filters, filter);
}
int logmsg_list_show_filters(void) {
    return list_filters(&show_filters);
}
int logmsg_list_cull_filters(void) {
    return list_filters(&cull_filters);
}
const char* logmsg_get_show_filter(int index) {
    return get_filter(&show_filters, index);
}
const char* logmsg_get_cull_filter(int index) {
    return get_filter(&cull_filters, index);
}
int logmsg_max_filters(void) {
    return LOGMSG_MAX_FILTERS;
}

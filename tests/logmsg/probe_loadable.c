/* A library loaded at run time that prints and copies as the platform's
 * libraries do: both calls must resolve to the program's logging library. */
#include <stdio.h>

#include "logmsg.h"

void probe_shared_say(int n) {
    char word[8];
    strlcpy(word, "shared-library", sizeof word);
    printf("%s %d\n", word, n);
}

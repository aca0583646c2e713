/* A shared library that prints, as the platform's libraries do: its printf must
 * reach the program's logging library. */
#include <stdio.h>

void probe_shared_say(int n) {
    printf("shared %d\n", n);
}

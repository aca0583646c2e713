/* Waits, doing nothing, until a signal ends it. Tests start it under the command lines they
 * need: its arguments are never looked at. */
#include <unistd.h>

int main(void) {
    for (;;) {
        pause();
    }
}

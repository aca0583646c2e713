/* Idles until killed, under whatever command line a test starts it with (say, a log daemon's). */
#include <unistd.h>

int main(void) {
    for (;;) {
        pause();
    }
}

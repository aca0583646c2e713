/* Says "ready", then idles until killed, under whatever command line a test gave it (say, a log
 * daemon's). */
#include <unistd.h>

int main(void) {
    if (write(1, "ready\n", 6) == 6) {
        for (;;) {
            pause();
        }
    }
    return 1;
}

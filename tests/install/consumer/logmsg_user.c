/* Links logmsg from an installed tree: one warning record on standard error. */
#include "logmsg.h"

int main(void) {
    logmsg_init_stderr(0, "consumer");
    logmsg_warn("check", "installed logmsg works\n");
    return 0;
}

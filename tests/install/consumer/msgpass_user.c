/* Links libmsgpass from an installed tree: prints the text of one status. */
#include <stdio.h>

#include "msgpass.h"

int main(void) {
    printf("%s\n", MSG_StatusText(MSG_ERR_NO_DIR));
    return 0;
}

#include "util.h"

#include <ctype.h>

int32_t stricmp(const char *a, const char *b) {
    const unsigned char *pa = (const unsigned char *)a;
    const unsigned char *pb = (const unsigned char *)b;
    for (;; pa++, pb++) {
        /* a running out first is -1 whatever b's next byte is. */
        if (*pa == '\0') return *pb ? -1 : 0;
        const int ca = toupper(*pa), cb = toupper(*pb);
        if (ca != cb) return ca - cb;
    }
}

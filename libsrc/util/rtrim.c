#include "util.h"

#include <ctype.h>
#include <string.h>

char *rtrim(char *s) {
    if (s == NULL || *s == '\0') return NULL;
    char *p = s + strlen(s) - 1;
    while (isspace((unsigned char)*p)) {
        if (p == s) {
            *p = '\0';
            return NULL;
        }
        p--;
    }
    p[1] = '\0';
    return p;
}

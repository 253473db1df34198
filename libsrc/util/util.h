/*
 * Small string helpers shared by the configuration library and its users.
 */
#ifndef TWK_UTIL_H
#define TWK_UTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Removes trailing white space (isspace of the current locale) in place.
 * Returns a pointer to the last remaining character, or NULL when the string
 * is NULL, empty, or held only white space (it is then left empty).
 */
char *rtrim(char *s);

/*
 * Compares two strings byte by byte after toupper. Returns 0 when they are
 * equal ignoring case, -1 when a is a proper prefix of b, otherwise the
 * difference of the first two upper-cased bytes that differ. Neither argument
 * may be NULL.
 */
int32_t stricmp(const char *a, const char *b);

#ifdef __cplusplus
}
#endif

#endif

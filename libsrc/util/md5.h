/*
 * MD5 message digest (RFC 1321).
 *
 * The configuration library uses it to fingerprint a file's content, so that
 * a file whose modification time changed but whose bytes did not is not
 * parsed again, and to fingerprint what a commit wrote.
 */
#ifndef TWK_MD5_H
#define TWK_MD5_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TWK_MD5Context {
    uint32_t state[4];        /* chaining words A, B, C, D */
    uint32_t count[2];        /* message length in bits: low word, high word */
    unsigned char buffer[64]; /* input not yet forming a whole block */
} TWK_MD5Context;

void TWK_MD5Init(TWK_MD5Context *ctx);
void TWK_MD5Update(TWK_MD5Context *ctx, const void *bytes, uint32_t length);
void TWK_MD5Final(unsigned char digest[16], TWK_MD5Context *ctx);

#ifdef __cplusplus
}
#endif

#endif

/*
 * MD5 message digest (RFC 1321).
 *
 * The configuration library uses it to fingerprint a file's content, so that
 * a file whose modification time changed but whose bytes did not is not
 * parsed again, and to fingerprint what a commit wrote.
 *
 * Contract:
 *   - A digest is made by TWK_MD5Init, any number of TWK_MD5Update calls
 *     (the message is their bytes in order; how it is cut into calls does not
 *     matter) and one TWK_MD5Final. The result is RFC 1321's MD5 of the
 *     message, for messages of any length: the bit count is kept in 64 bits.
 *   - One call takes at most 4 GiB - 1 bytes (length is 32 bits wide); larger
 *     inputs are fed in pieces.
 *   - TWK_MD5Final wipes the context (it may hold parts of the message); it
 *     must be initialised again before another use.
 *   - A context is used by one thread at a time; distinct contexts are
 *     independent. Nothing allocates, nothing fails, nothing is printed.
 *   - MD5 is a fingerprint against accidental change, not a defence against
 *     a deliberate collision.
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

/* Starts a new message. */
void TWK_MD5Init(TWK_MD5Context *ctx);
/* Appends length bytes (bytes may be NULL when length is 0). */
void TWK_MD5Update(TWK_MD5Context *ctx, const void *bytes, uint32_t length);
/* Stores the 16-byte digest of the message and wipes the context. */
void TWK_MD5Final(unsigned char digest[16], TWK_MD5Context *ctx);

#ifdef __cplusplus
}
#endif

#endif

/*
 * MD5 as RFC 1321 defines it. The block function works straight from the
 * caller's buffer whenever a whole block is available, so large inputs are
 * never copied; only a partial block is kept in the context.
 */
#include "md5.h"

#include <string.h>

/* Round functions in forms that keep the newest chaining word (x) late in
 * each expression, so that as little as possible waits on it. */
#define F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define H(x, y, z) ((x) ^ (y) ^ (z))
#define I(x, y, z) ((y) ^ ((x) | ~(z)))

#define ROTL(x, n) (((x) << (n)) | ((x) >> (32 - (n))))

/* Message word and constant are added before the round function: they do not
 * depend on the previous step, so the dependency chain per step is only the
 * round function, one add, the rotation and the final add. */
#define STEP(f, a, b, c, d, x, t, s)                                                               \
    do {                                                                                           \
        (a) += (x) + (uint32_t)(t);                                                                \
        (a) += f((b), (c), (d));                                                                   \
        (a) = ROTL((a), (s)) + (b);                                                                \
    } while (0)

/* G(b, c, d) = (b & d) | (c & ~d): the two terms share no bits, so it is also
 * their sum, and the term without b can be added while b is still being
 * computed. */
#define STEP_G(a, b, c, d, x, t, s)                                                                \
    do {                                                                                           \
        (a) += (x) + (uint32_t)(t);                                                                \
        (a) += (c) & ~(d);                                                                         \
        (a) += (b) & (d);                                                                          \
        (a) = ROTL((a), (s)) + (b);                                                                \
    } while (0)

static inline uint32_t load_le32(const unsigned char *p) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
#else
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
#endif
}

static void store_le32(unsigned char *p, uint32_t v) {
    p[0] = (unsigned char)v;
    p[1] = (unsigned char)(v >> 8);
    p[2] = (unsigned char)(v >> 16);
    p[3] = (unsigned char)(v >> 24);
}

/* Runs the compression function over nblocks consecutive 64-byte blocks. */
static void md5_blocks(uint32_t state[4], const unsigned char *p, size_t nblocks) {
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    while (nblocks--) {
        const uint32_t x0 = load_le32(p), x1 = load_le32(p + 4), x2 = load_le32(p + 8),
                       x3 = load_le32(p + 12), x4 = load_le32(p + 16), x5 = load_le32(p + 20),
                       x6 = load_le32(p + 24), x7 = load_le32(p + 28), x8 = load_le32(p + 32),
                       x9 = load_le32(p + 36), x10 = load_le32(p + 40), x11 = load_le32(p + 44),
                       x12 = load_le32(p + 48), x13 = load_le32(p + 52), x14 = load_le32(p + 56),
                       x15 = load_le32(p + 60);
        const uint32_t aa = a, bb = b, cc = c, dd = d;

        STEP(F, a, b, c, d, x0, 0xd76aa478, 7);
        STEP(F, d, a, b, c, x1, 0xe8c7b756, 12);
        STEP(F, c, d, a, b, x2, 0x242070db, 17);
        STEP(F, b, c, d, a, x3, 0xc1bdceee, 22);
        STEP(F, a, b, c, d, x4, 0xf57c0faf, 7);
        STEP(F, d, a, b, c, x5, 0x4787c62a, 12);
        STEP(F, c, d, a, b, x6, 0xa8304613, 17);
        STEP(F, b, c, d, a, x7, 0xfd469501, 22);
        STEP(F, a, b, c, d, x8, 0x698098d8, 7);
        STEP(F, d, a, b, c, x9, 0x8b44f7af, 12);
        STEP(F, c, d, a, b, x10, 0xffff5bb1, 17);
        STEP(F, b, c, d, a, x11, 0x895cd7be, 22);
        STEP(F, a, b, c, d, x12, 0x6b901122, 7);
        STEP(F, d, a, b, c, x13, 0xfd987193, 12);
        STEP(F, c, d, a, b, x14, 0xa679438e, 17);
        STEP(F, b, c, d, a, x15, 0x49b40821, 22);

        STEP_G(a, b, c, d, x1, 0xf61e2562, 5);
        STEP_G(d, a, b, c, x6, 0xc040b340, 9);
        STEP_G(c, d, a, b, x11, 0x265e5a51, 14);
        STEP_G(b, c, d, a, x0, 0xe9b6c7aa, 20);
        STEP_G(a, b, c, d, x5, 0xd62f105d, 5);
        STEP_G(d, a, b, c, x10, 0x02441453, 9);
        STEP_G(c, d, a, b, x15, 0xd8a1e681, 14);
        STEP_G(b, c, d, a, x4, 0xe7d3fbc8, 20);
        STEP_G(a, b, c, d, x9, 0x21e1cde6, 5);
        STEP_G(d, a, b, c, x14, 0xc33707d6, 9);
        STEP_G(c, d, a, b, x3, 0xf4d50d87, 14);
        STEP_G(b, c, d, a, x8, 0x455a14ed, 20);
        STEP_G(a, b, c, d, x13, 0xa9e3e905, 5);
        STEP_G(d, a, b, c, x2, 0xfcefa3f8, 9);
        STEP_G(c, d, a, b, x7, 0x676f02d9, 14);
        STEP_G(b, c, d, a, x12, 0x8d2a4c8a, 20);

        STEP(H, a, b, c, d, x5, 0xfffa3942, 4);
        STEP(H, d, a, b, c, x8, 0x8771f681, 11);
        STEP(H, c, d, a, b, x11, 0x6d9d6122, 16);
        STEP(H, b, c, d, a, x14, 0xfde5380c, 23);
        STEP(H, a, b, c, d, x1, 0xa4beea44, 4);
        STEP(H, d, a, b, c, x4, 0x4bdecfa9, 11);
        STEP(H, c, d, a, b, x7, 0xf6bb4b60, 16);
        STEP(H, b, c, d, a, x10, 0xbebfbc70, 23);
        STEP(H, a, b, c, d, x13, 0x289b7ec6, 4);
        STEP(H, d, a, b, c, x0, 0xeaa127fa, 11);
        STEP(H, c, d, a, b, x3, 0xd4ef3085, 16);
        STEP(H, b, c, d, a, x6, 0x04881d05, 23);
        STEP(H, a, b, c, d, x9, 0xd9d4d039, 4);
        STEP(H, d, a, b, c, x12, 0xe6db99e5, 11);
        STEP(H, c, d, a, b, x15, 0x1fa27cf8, 16);
        STEP(H, b, c, d, a, x2, 0xc4ac5665, 23);

        STEP(I, a, b, c, d, x0, 0xf4292244, 6);
        STEP(I, d, a, b, c, x7, 0x432aff97, 10);
        STEP(I, c, d, a, b, x14, 0xab9423a7, 15);
        STEP(I, b, c, d, a, x5, 0xfc93a039, 21);
        STEP(I, a, b, c, d, x12, 0x655b59c3, 6);
        STEP(I, d, a, b, c, x3, 0x8f0ccc92, 10);
        STEP(I, c, d, a, b, x10, 0xffeff47d, 15);
        STEP(I, b, c, d, a, x1, 0x85845dd1, 21);
        STEP(I, a, b, c, d, x8, 0x6fa87e4f, 6);
        STEP(I, d, a, b, c, x15, 0xfe2ce6e0, 10);
        STEP(I, c, d, a, b, x6, 0xa3014314, 15);
        STEP(I, b, c, d, a, x13, 0x4e0811a1, 21);
        STEP(I, a, b, c, d, x4, 0xf7537e82, 6);
        STEP(I, d, a, b, c, x11, 0xbd3af235, 10);
        STEP(I, c, d, a, b, x2, 0x2ad7d2bb, 15);
        STEP(I, b, c, d, a, x9, 0xeb86d391, 21);

        a += aa;
        b += bb;
        c += cc;
        d += dd;
        p += 64;
    }

    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

void TWK_MD5Init(TWK_MD5Context *ctx) {
    ctx->count[0] = ctx->count[1] = 0;
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xefcdab89;
    ctx->state[2] = 0x98badcfe;
    ctx->state[3] = 0x10325476;
}

void TWK_MD5Update(TWK_MD5Context *ctx, const void *bytes, uint32_t length) {
    const unsigned char *in = (const unsigned char *)bytes;
    uint32_t used = (ctx->count[0] >> 3) & 0x3F;

    /* The bit count is 64 bits wide, kept as two words. */
    const uint32_t bits_lo = length << 3;
    ctx->count[0] += bits_lo;
    if (ctx->count[0] < bits_lo) ctx->count[1]++;
    ctx->count[1] += length >> 29;

    if (length == 0) return;

    if (used) {
        uint32_t room = 64 - used;
        if (length < room) {
            memcpy(ctx->buffer + used, in, length);
            return;
        }
        memcpy(ctx->buffer + used, in, room);
        md5_blocks(ctx->state, ctx->buffer, 1);
        in += room;
        length -= room;
    }

    if (length >= 64) {
        md5_blocks(ctx->state, in, length / 64);
        in += length & ~(uint32_t)0x3F;
        length &= 0x3F;
    }

    if (length) memcpy(ctx->buffer, in, length);
}

void TWK_MD5Final(unsigned char digest[16], TWK_MD5Context *ctx) {
    static const unsigned char padding[64] = {0x80};
    unsigned char bits[8];
    store_le32(bits, ctx->count[0]);
    store_le32(bits + 4, ctx->count[1]);

    /* Pad to 56 bytes mod 64, then append the length before padding. */
    const uint32_t used = (ctx->count[0] >> 3) & 0x3F;
    const uint32_t padlen = (used < 56) ? (56 - used) : (120 - used);
    TWK_MD5Update(ctx, padding, padlen);
    TWK_MD5Update(ctx, bits, 8);

    for (int i = 0; i < 4; i++) store_le32(digest + (size_t)i * 4, ctx->state[i]);

    /* The context may hold parts of the message; leave nothing behind. */
    memset(ctx, 0, sizeof(*ctx));
}

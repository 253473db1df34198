/*
 * Loads arbitrary bytes as a configuration file, applies a sequence of edits
 * the input chooses (set, delete key, delete section, store, merge, commit,
 * refresh, find), commits and reloads. Checks that the digest kept by a commit
 * is the MD5 of the bytes on disk and that the written file loads back.
 *
 * Input: two bytes give the length of the file's text, then the text, then
 * the edits. The texts together stay under 2 KiB so that no piece a commit
 * formats can reach the 4095-byte limit (which ends the process by design).
 */
#define _POSIX_C_SOURCE 200809L

#include "md5.h"
#include "ncfg.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define TEXT_MAX 2048

static char path[64], srcPath[64];

static void check(int cond) {
    if (!cond) abort();
}

static int write_file(const char *p, const uint8_t *data, size_t size) {
    FILE *f = fopen(p, "wb");
    if (!f) return -1;
    size_t n = size ? fwrite(data, 1, size, f) : 0;
    fclose(f);
    return n == size ? 0 : -1;
}

struct input {
    const uint8_t *p;
    size_t left;
};

static unsigned take(struct input *in) {
    if (in->left == 0) return 0;
    in->left--;
    return *in->p++;
}

/* A short string: one of a few names that collide on purpose (case, empty),
 * or up to 32 bytes of the input. */
static const char *take_string(struct input *in, char *buf) {
    static const char *names[] = {"a", "A", "b", "s", "k", "K", "", "x y", ";c", " lead"};
    const unsigned c = take(in);
    if (c < 200) return names[c % 10];
    if (c < 220) return NULL;
    size_t n = take(in) % 33;
    if (n > in->left) n = in->left;
    memcpy(buf, in->p, n);
    buf[n] = '\0';
    in->p += n;
    in->left -= n;
    return buf;
}

static void file_md5(const char *p, unsigned char digest[16]) {
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    FILE *f = fopen(p, "rb");
    check(f != NULL);
    unsigned char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) TWK_MD5Update(&ctx, buf, (uint32_t)n);
    fclose(f);
    TWK_MD5Final(digest, &ctx);
}

int LLVMFuzzerInitialize(int *argc, char ***argv) {
    (void)argc;
    (void)argv;
    snprintf(path, sizeof path, "/tmp/cfg-edit-fuzz-%ld.ini", (long)getpid());
    snprintf(srcPath, sizeof srcPath, "/tmp/cfg-edit-fuzz-src-%ld.ini", (long)getpid());
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    struct input in = {data, size};
    size_t textLen = (take(&in) << 8 | take(&in)) % (TEXT_MAX / 2);
    if (textLen > in.left) textLen = in.left;
    if (write_file(path, in.p, textLen) != 0) return 0;
    in.p += textLen;
    in.left -= textLen;
    /* The merge source: the same text cut in half, for overlapping sections. */
    if (write_file(srcPath, data + 2, textLen / 2) != 0) return 0;

    TWK_CfgHandle *h = NULL, *src = NULL;
    if (TWK_Cfg_init(&h, path) != 0) return 0;
    check(TWK_Cfg_init(&src, srcPath) == 0);

    char b1[40], b2[40], b3[40], b4[40];
    for (int ops = 0; in.left > 0 && ops < 64; ops++) {
        const unsigned op = take(&in) % 9;
        const char *s = take_string(&in, b1);
        const char *id = take_string(&in, b2);
        const char *value = take_string(&in, b3);
        switch (op) {
        case 0:
        case 1:
            if (s && id && value) check(TWK_Cfg_write(h, s, id, value) == 0);
            break;
        case 2:
            if (s) check(TWK_Cfg_write(h, s, id, NULL) == 0);
            break;
        case 3:
            if (s) check(TWK_Cfg_write(h, s, NULL, NULL) == 0);
            break;
        case 4:
            check(TWK_Cfg_storeentry(h, s, id, value, take_string(&in, b4), 1) == 0);
            break;
        case 5:
            check(cfg_merge(h, src) == 0);
            break;
        case 6:
            check(TWK_Cfg_commit(h) == 0);
            break;
        case 7:
            check(TWK_Cfg_refresh(h) >= 0);
            break;
        default:
            if (s) TWK_Cfg_find(h, s, id);
            break;
        }
    }

    h->dirty = 1;
    check(TWK_Cfg_commit(h) == 0);
    check(h->dirty == 0);
    unsigned char onDisk[16];
    file_md5(path, onDisk);
    check(memcmp(onDisk, h->digest, 16) == 0);
    check(TWK_Cfg_refresh(h) == 0);

    TWK_CfgHandle *again = NULL;
    check(TWK_Cfg_init(&again, path) == 0);
    TWK_Cfg_done(again);
    TWK_Cfg_done(src);
    TWK_Cfg_done(h);
    return 0;
}

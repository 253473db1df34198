/*
 * Loads arbitrary bytes as a configuration file, applies a sequence of edits
 * the input chooses (set, delete key, delete section, store, merge, commit,
 * refresh, find), commits and reloads. Checks that the digest kept by a commit
 * is the MD5 of the bytes on disk, that the written file loads back, and that
 * what it loads is stable: committed again and reloaded, it gives the same
 * entries. The files live in a scratch directory of their own, which holds
 * nothing else after a commit (no temporary file is left behind).
 *
 * Input: two bytes give the length of the file's text, then the text, then
 * the edits. The texts together stay under 2 KiB so that no piece a commit
 * formats can reach the 4095-byte limit (which ends the process by design).
 */
#define _POSIX_C_SOURCE 200809L

#include "md5.h"
#include "ncfg.h"

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define TEXT_MAX 2048

static char scratch[256], path[300], srcPath[300];

/* Removes the scratch directory when the fuzzer ends. */
static void remove_scratch(void) {
    unlink(path);
    unlink(srcPath);
    rmdir(scratch);
}

/* A failed check names itself, so a crash report says which one failed. */
static void fail(int line, const char *what) {
    fprintf(stderr, "cfg_edit_fuzzer.c:%d: check failed: %s\n", line, what);
    abort();
}
#define check(cond) ((cond) ? (void)0 : fail(__LINE__, #cond))

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

static int same_string(const char *a, const char *b) {
    return a == b || (a && b && strcmp(a, b) == 0);
}

static int same_entries(const TWK_CfgHandle *a, const TWK_CfgHandle *b) {
    if (a->numEntries != b->numEntries) return 0;
    for (uint32_t i = 0; i < a->numEntries; i++) {
        const TWK_CfgEntry *x = &a->entries[i], *y = &b->entries[i];
        if (!same_string(x->section, y->section) || !same_string(x->id, y->id) ||
            !same_string(x->value, y->value) || !same_string(x->comment, y->comment))
            return 0;
    }
    return 1;
}

/* Whether h holds an entry the layout cannot carry back as itself:
 *   - a key with an empty id (from a line "=value"). The layout writes it as
 *     " = value", indented (or padded to the section's key column), which
 *     reads back as a continuation line;
 *   - a continuation whose value is empty (a line of blanks and other white
 *     space before a comment, "  \v ;c": the value is trimmed to nothing).
 *     The layout writes it as "  \t;c", which reads back as a comment line.
 * A file holding either is no fixed point. */
static int has_uncarried_entry(const TWK_CfgHandle *h) {
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (e->id && e->id[0] == '\0' && e->value) return 1;
        if (!e->section && !e->id && e->value && e->value[0] == '\0') return 1;
    }
    return 0;
}

/* Entries of the scratch directory other than "." and "..". */
static int files_in_scratch(void) {
    DIR *d = opendir(scratch);
    check(d != NULL);
    int n = 0;
    const struct dirent *e;
    while ((e = readdir(d)) != NULL)
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) n++;
    closedir(d);
    return n;
}

int LLVMFuzzerInitialize(int *argc, char ***argv) {
    (void)argc;
    (void)argv;
    /* Every commit flushes its file to the disk: on a memory file system that
     * costs nothing, so the scratch directory goes there when there is one. */
    const char *base = getenv("TMPDIR");
    if (base == NULL || *base == '\0') base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    snprintf(scratch, sizeof scratch, "%s/cfg-edit-fuzz.XXXXXX", base);
    check(mkdtemp(scratch) != NULL);
    snprintf(path, sizeof path, "%s/edit.ini", scratch);
    snprintf(srcPath, sizeof srcPath, "%s/src.ini", scratch);
    atexit(remove_scratch);
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

    check(files_in_scratch() == 2);

    /* What the written file loads is a fixed point of the layout: committed
     * again and reloaded, it gives the same entries. */
    TWK_CfgHandle *again = NULL, *back = NULL;
    check(TWK_Cfg_init(&again, path) == 0);
    const int carried = !has_uncarried_entry(again);
    again->dirty = 1;
    check(TWK_Cfg_commit(again) == 0);
    check(again->dirty == 0);
    file_md5(path, onDisk);
    check(memcmp(onDisk, again->digest, 16) == 0);
    check(TWK_Cfg_init(&back, path) == 0);
    check(!carried || same_entries(again, back));
    check(files_in_scratch() == 2);
    TWK_Cfg_done(back);
    TWK_Cfg_done(again);
    TWK_Cfg_done(src);
    TWK_Cfg_done(h);
    return 0;
}

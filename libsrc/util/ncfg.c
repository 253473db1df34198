/*
 * Loading and lookup of configuration files.
 *
 * The whole file is read into one buffer and parsed in place: the parser
 * writes NUL bytes into the buffer to end strings, and entries point into it,
 * so a load allocates the buffer and the entries array and nothing else.
 */
#define _POSIX_C_SOURCE 200809L

#include "ncfg_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Byte classes of the file format. NUL counts as a line end so that a file
 * holding NUL bytes cannot stall the parser (see ncfg.h). */
enum { C_EOL = 1, C_BLANK = 2 };

static const unsigned char byte_class[256] = {
    [0x00] = C_EOL,   ['\n'] = C_EOL,   ['\r'] = C_EOL,  [0x1A] = C_EOL,
    ['\f'] = C_BLANK, ['\t'] = C_BLANK, [' '] = C_BLANK,
};

#define IS_EOL(c) (byte_class[(unsigned char)(c)] & C_EOL)
#define IS_BLANK(c) (byte_class[(unsigned char)(c)] & C_BLANK)

/* ---- entries and handle bookkeeping ---- */

void cfg_free_entry(TWK_CfgEntry *e) {
    if (e->flags & TWK_CFGE_OWNSECTION) free(e->section);
    if (e->flags & TWK_CFGE_OWNID) free(e->id);
    if (e->flags & TWK_CFGE_OWNVALUE) free(e->value);
    if (e->flags & TWK_CFGE_OWNCOMMENT) free(e->comment);
    memset(e, 0, sizeof(*e));
}

void cfg_clear(TWK_CfgHandle *h) {
    free(h->text);
    for (uint32_t i = 0; i < h->numEntries; i++) {
        /* Parser entries own nothing; skip the call for them. */
        if (h->entries[i].flags) cfg_free_entry(&h->entries[i]);
    }
    free(h->entries);

    char *fileName = h->fileName;
    /* The mutex is the last field: zero everything before it. */
    memset(h, 0, offsetof(TWK_CfgHandle, mutex));
    h->fileName = fileName;
}

int cfg_reserve(TWK_CfgHandle *h, uint32_t more) {
    if (more <= h->maxEntries - h->numEntries) return 0;

    uint64_t want;
    if (more == 1)
        want = h->maxEntries == 0 ? 103 : (uint64_t)h->maxEntries + h->maxEntries / 2 + 1;
    else
        want = h->maxEntries == 0 ? (uint64_t)more + 102
                                  : (uint64_t)h->maxEntries + h->maxEntries / 2 + more;
    if (want < (uint64_t)h->numEntries + more) want = (uint64_t)h->numEntries + more;
    if (want > UINT32_MAX || want > SIZE_MAX / sizeof(TWK_CfgEntry)) return -1;

    TWK_CfgEntry *grown = realloc(h->entries, (size_t)want * sizeof(TWK_CfgEntry));
    if (grown == NULL) return -1;
    h->entries = grown;
    h->maxEntries = (uint32_t)want;
    return 0;
}

/* ---- parser ---- */

/* Scans a value from v to the line's end, tracking quotes, and cuts off a
 * comment: a ';' outside quotes whose preceding byte is a blank or the NUL
 * that replaced the '='. Returns the comment or NULL. */
static char *scan_value(char *v, const char *lend) {
    char quote = 0;
    for (char *c = v; c < lend; c++) {
        const char ch = *c;
        if (quote) {
            if (ch == quote) quote = 0;
        } else if (ch == '"' || ch == '\'') {
            quote = ch;
        } else if (ch == ';' && (c[-1] == '\0' || IS_BLANK(c[-1]))) {
            *c = '\0';
            rtrim(v);
            return c + 1;
        }
    }
    return NULL;
}

/* Parses h->text (h->size bytes and a NUL) into entries. -1 when the entries
 * array cannot grow. */
static int cfg_parse(TWK_CfgHandle *h) {
    char *p = h->text;
    char *const end = h->text + h->size;

    while (p < end) {
        while (p < end && IS_EOL(*p)) p++;
        if (p >= end) break;

        char *line = p;
        char *lend = p;
        while (lend < end && !IS_EOL(*lend)) lend++;
        if (lend < end) {
            /* A terminated line loses its trailing blanks; the last line of a
             * file without a final line end keeps them. */
            *lend = '\0';
            p = lend + 1;
            while (lend > line && IS_BLANK(lend[-1])) lend--;
            *lend = '\0';
        } else {
            p = end;
        }
        if (lend == line) continue;

        char *s = line;
        while (s < lend && IS_BLANK(*s)) s++;
        const int indented = s > line;

        char *section = NULL, *id = NULL, *value = NULL, *comment = NULL;
        if (*s == ';') {
            comment = s + 1;
        } else if (*s == '[') {
            char *name = s + 1;
            while (name < lend && IS_BLANK(*name)) name++;
            char *close = memchr(name, ']', (size_t)(lend - name));
            if (close == NULL) continue;
            *close = '\0';
            if (rtrim(name) == NULL) continue;
            char *after = close + 1;
            while (after < lend && IS_BLANK(*after)) after++;
            if (after < lend && *after == ';') comment = after + 1;
            section = name;
        } else if (indented) {
            value = s;
            comment = scan_value(s, lend);
        } else {
            char *eq = memchr(s, '=', (size_t)(lend - s));
            if (eq == NULL) continue;
            *eq = '\0';
            rtrim(s);
            id = s;
            char *v = eq + 1;
            while (v < lend && IS_BLANK(*v)) v++;
            value = v;
            if (v < lend) comment = scan_value(v, lend);
        }

        if (h->numEntries == h->maxEntries && cfg_reserve(h, 1) != 0) return -1;
        TWK_CfgEntry *e = &h->entries[h->numEntries++];
        e->section = section;
        e->id = id;
        e->value = value;
        e->comment = comment;
        e->flags = 0;
    }
    return 0;
}

/* ---- loading ---- */

/* Reads exactly size bytes of an open regular file. Normally one read; more
 * only where the kernel caps a single read (files over 2 GiB). */
static int read_exactly(int fd, char *buf, size_t size) {
    size_t got = 0;
    while (got < size) {
        ssize_t n = read(fd, buf + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        got += (size_t)n;
    }
    return 0;
}

int32_t _cfg_refresh(TWK_CfgHandle *h) {
    if (h == NULL) return -1;
    struct stat st;
    if (stat(h->fileName, &st) != 0) return -1;

    if (h->dirty) cfg_clear(h);

    if (h->text != NULL && st.st_size == h->size && st.st_mtime == h->mtime) return 0;

    /* Only regular files are read: a FIFO or device could block or never end.
     * O_NONBLOCK keeps the open itself from waiting on a FIFO swapped in
     * after the stat; fstat then checks what was actually opened. */
    if (!S_ISREG(st.st_mode)) return -1;
    int fd = open(h->fileName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
        (uint64_t)st.st_size >= SIZE_MAX) {
        close(fd);
        return -1;
    }

    const size_t size = (size_t)st.st_size;
    char *buf = malloc(size + 1);
    if (buf == NULL || read_exactly(fd, buf, size) != 0) {
        free(buf);
        close(fd);
        return -1;
    }
    buf[size] = '\0';
    close(fd);

    /* The digest length is 32 bits wide: past 4 GiB only size mod 2^32 bytes
     * are digested. */
    unsigned char digest[16];
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, buf, (uint32_t)size);
    TWK_MD5Final(digest, &ctx);
    if (memcmp(digest, h->digest, sizeof(digest)) == 0) {
        /* Same bytes: keep the entries. size and mtime stay as they were, so
         * a touched file is read and digested again next time. */
        free(buf);
        return 0;
    }

    cfg_clear(h);
    memcpy(h->digest, digest, sizeof(digest));
    h->text = buf;
    h->size = (int64_t)size;
    h->mtime = st.st_mtime;

    if (size > 0 && cfg_parse(h) != 0) {
        cfg_clear(h);
        return -1;
    }
    h->flags = TWK_CFG_LOADED;
    return 1;
}

int32_t TWK_Cfg_refresh(TWK_CfgHandle *h) {
    if (h == NULL) return -1;
    pthread_mutex_lock(&h->mutex);
    int32_t r = _cfg_refresh(h);
    pthread_mutex_unlock(&h->mutex);
    return r;
}

int32_t TWK_Cfg_init2(TWK_CfgHandle **handle, const char *path, int create) {
    *handle = NULL;
    if (path == NULL) return -1;
    TWK_CfgHandle *h = calloc(1, sizeof(*h));
    if (h == NULL) return -1;
    pthread_mutex_init(&h->mutex, NULL);
    h->fileName = strdup(path);
    if (h->fileName == NULL) {
        TWK_Cfg_done(h);
        return -1;
    }
    if (create && access(path, F_OK) != 0) {
        /* Create it empty; whether that worked shows in the load below. The
         * open must not block on anything that appears in the meantime. */
        int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                      0666);
        if (fd >= 0) close(fd);
    }
    if (_cfg_refresh(h) < 0) {
        TWK_Cfg_done(h);
        return -1;
    }
    *handle = h;
    return 0;
}

int32_t TWK_Cfg_init(TWK_CfgHandle **handle, const char *path) {
    return TWK_Cfg_init2(handle, path, 0);
}

int32_t TWK_Cfg_done(TWK_CfgHandle *h) {
    if (h == NULL) return 0;
    cfg_clear(h);
    free(h->fileName);
    h->fileName = NULL;
    pthread_mutex_destroy(&h->mutex);
    free(h);
    return 0;
}

/* ---- lookup and iteration ---- */

int32_t cfg_step(TWK_CfgHandle *h) {
    if (h->flags & TWK_CFG_ATEND) return -1;
    h->flags &= (uint16_t)~TWK_CFG_TYPEMASK;
    h->id = NULL;
    h->value = NULL;
    while (h->cursor < h->numEntries) {
        const TWK_CfgEntry *e = &h->entries[h->cursor++];
        if (e->section) {
            h->section = e->section;
            h->flags |= TWK_CFG_SECTION;
            return 0;
        }
        if (e->value) {
            h->value = e->value;
            if (e->id) {
                h->id = e->id;
                h->flags |= TWK_CFG_KEY;
            } else {
                h->flags |= TWK_CFG_CONTINUATION;
            }
            return 0;
        }
    }
    h->flags |= TWK_CFG_ATEND;
    return -1;
}

int64_t cfg_find_section(const TWK_CfgHandle *h, const char *name) {
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const char *s = h->entries[i].section;
        if (s && stricmp(s, name) == 0) return i;
    }
    return -1;
}

/* The loaded test is made under the lock: a refresh in another thread may be
 * rebuilding the handle at the same moment. */
#define LOCK_LOADED_OR_FAIL(h)                                                                     \
    do {                                                                                           \
        if ((h) == NULL) return -1;                                                                \
        pthread_mutex_lock(&(h)->mutex);                                                           \
        if (!((h)->flags & TWK_CFG_LOADED)) {                                                      \
            pthread_mutex_unlock(&(h)->mutex);                                                     \
            return -1;                                                                             \
        }                                                                                          \
    } while (0)

int32_t TWK_Cfg_rewind(TWK_CfgHandle *h) {
    LOCK_LOADED_OR_FAIL(h);
    h->flags = TWK_CFG_LOADED;
    h->cursor = 0;
    pthread_mutex_unlock(&h->mutex);
    return 0;
}

int32_t TWK_Cfg_nextentry(TWK_CfgHandle *h) {
    LOCK_LOADED_OR_FAIL(h);
    int32_t r = cfg_step(h);
    pthread_mutex_unlock(&h->mutex);
    return r;
}

static int32_t find_locked(TWK_CfgHandle *h, const char *section, const char *key) {
    h->flags = TWK_CFG_LOADED;
    h->cursor = 0;
    for (;;) {
        if (cfg_step(h) != 0) return -1;
        if ((h->flags & TWK_CFG_TYPEMASK) == TWK_CFG_SECTION && stricmp(h->section, section) == 0)
            break;
    }
    if (key == NULL) return 0;
    for (;;) {
        if (cfg_step(h) != 0) return -1;
        const int type = h->flags & TWK_CFG_TYPEMASK;
        if (type == TWK_CFG_SECTION) return -1;
        if (type == TWK_CFG_KEY && stricmp(h->id, key) == 0) return 0;
    }
}

int32_t TWK_Cfg_find(TWK_CfgHandle *h, const char *section, const char *key) {
    if (section == NULL) return -1;
    LOCK_LOADED_OR_FAIL(h);
    int32_t r = find_locked(h, section, key);
    pthread_mutex_unlock(&h->mutex);
    return r;
}

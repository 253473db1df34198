/*
 * Loading and lookup of configuration files.
 *
 * The whole file is read into one buffer and parsed in place: the parser
 * writes NUL bytes into the buffer to end strings, and entries point into it,
 * so a load allocates the buffer and the entries array and nothing else.
 */
#define _GNU_SOURCE /* sched_yield, st_mtim */

#include "ncfg_internal.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <pthread.h>
#include <sched.h>
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

#ifdef __SSE2__
#include <emmintrin.h>
#endif

/* First line-end byte in [p, end), or end. */
static inline char *find_eol(char *p, const char *end) {
#ifdef __SSE2__
    const __m128i lf = _mm_set1_epi8('\n'), cr = _mm_set1_epi8('\r'), eof = _mm_set1_epi8(0x1A),
                  nul = _mm_setzero_si128();
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128((const __m128i *)(const void *)p);
        const __m128i hit =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, lf), _mm_cmpeq_epi8(v, cr)),
                         _mm_or_si128(_mm_cmpeq_epi8(v, eof), _mm_cmpeq_epi8(v, nul)));
        const int mask = _mm_movemask_epi8(hit);
        if (mask) return p + __builtin_ctz((unsigned)mask);
        p += 16;
    }
#endif
    while (p < end && !IS_EOL(*p)) p++;
    return p;
}

/* How many line-end bytes [p, end) holds: one more than that is the most
 * entries the text can give. */
static size_t count_eol(const char *p, const char *end) {
    size_t n = 0;
#ifdef __SSE2__
    const __m128i lf = _mm_set1_epi8('\n'), cr = _mm_set1_epi8('\r'), eof = _mm_set1_epi8(0x1A),
                  nul = _mm_setzero_si128();
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128((const __m128i *)(const void *)p);
        const __m128i hit =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, lf), _mm_cmpeq_epi8(v, cr)),
                         _mm_or_si128(_mm_cmpeq_epi8(v, eof), _mm_cmpeq_epi8(v, nul)));
        n += (size_t)__builtin_popcount((unsigned)_mm_movemask_epi8(hit));
        p += 16;
    }
#endif
    for (; p < end; p++) n += IS_EOL(*p) ? 1 : 0;
    return n;
}

/* First byte in [p, end) that can matter to a value scan: a quote or ';'. */
static inline char *find_value_special(char *p, const char *end) {
#ifdef __SSE2__
    const __m128i dq = _mm_set1_epi8('"'), sq = _mm_set1_epi8('\''), sc = _mm_set1_epi8(';');
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128((const __m128i *)(const void *)p);
        const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, dq), _mm_cmpeq_epi8(v, sq)),
                                         _mm_cmpeq_epi8(v, sc));
        const int mask = _mm_movemask_epi8(hit);
        if (mask) return p + __builtin_ctz((unsigned)mask);
        p += 16;
    }
#endif
    while (p < end && *p != '"' && *p != '\'' && *p != ';') p++;
    return (char *)p;
}

/* rtrim for a string whose end is known: drops isspace characters before
 * end, but not before start, and ends the string there. */
static inline void trim_to(char *start, char *end) {
    while (end > start && isspace((unsigned char)end[-1])) end--;
    *end = '\0';
}

/* ---- entries and handle bookkeeping ---- */

void cfg_free_entry(TWK_CfgEntry *e) {
    if (e->flags & TWK_CFGE_OWNSECTION) free(e->section);
    if (e->flags & TWK_CFGE_OWNID) free(e->id);
    if (e->flags & TWK_CFGE_OWNVALUE) free(e->value);
    if (e->flags & TWK_CFGE_OWNCOMMENT) free(e->comment);
    memset(e, 0, sizeof(*e));
}

void cfg_clear(TWK_CfgHandle *h) {
    cfg_mem_free(h->text);
    for (uint32_t i = 0; i < h->numEntries; i++) {
        /* Parser entries own nothing; skip the call for them. */
        if (h->entries[i].flags) cfg_free_entry(&h->entries[i]);
    }
    cfg_mem_free(h->entries);

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

    TWK_CfgEntry *grown = cfg_mem_realloc(h->entries, (size_t)want * sizeof(TWK_CfgEntry));
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
    char *c = v;
    for (;;) {
        c = find_value_special(c, lend);
        if (c >= lend) return NULL;
        if (*c == ';') {
            if (c[-1] == '\0' || IS_BLANK(c[-1])) {
                *c = '\0';
                trim_to(v, c);
                return c + 1;
            }
            c++;
            continue;
        }
        /* A quoted run: only the same character closes it. */
        const char *close = memchr(c + 1, *c, (size_t)(lend - (c + 1)));
        if (close == NULL) return NULL;
        c = (char *)close + 1;
    }
}

struct digest_job;
static size_t wait_digested(struct digest_job *job, size_t upto);

/* Parses h->text (h->size bytes and a NUL) into entries. -1 when the entries
 * array cannot grow. With a digest job, no line is written into before the
 * job has digested it. */
static int cfg_parse(TWK_CfgHandle *h, struct digest_job *job) {
    char *p = h->text;
    char *const end = h->text + h->size;
    /* Where the parser may write up to, as far as it knows. */
    char *writable = job ? h->text : end + 1;

    while (p < end) {
        while (p < end && IS_EOL(*p)) p++;
        if (p >= end) break;

        char *line = p;
        char *lend = find_eol(p, end);
        /* A line's writes reach no further than its line end; the last
         * line's is the text's own NUL, which is no byte of the file. */
        if (lend >= writable) {
            const size_t upto = (size_t)(lend - h->text) + 1;
            const size_t size = (size_t)h->size;
            writable = h->text + wait_digested(job, upto < size ? upto : size);
        }
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
            trim_to(name, close);
            if (*name == '\0') continue;
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
            trim_to(s, eq);
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

/* A file's bytes are read into one buffer and parsed there. Large files are
 * digested on a helper thread while the parser follows: the helper digests
 * the buffer a chunk at a time and says how far it got, and the parser, which
 * ends strings by writing NUL bytes into the buffer, writes into no line the
 * helper has not digested yet. So the digest is always that of the very bytes
 * the entries came from, whatever happens to the file meanwhile. */

/* Files from this size on are digested on a helper thread: MD5 costs about
 * as much as reading and parsing together, and a thread costs nothing next to
 * either at this size. */
#define PARALLEL_DIGEST_MIN ((size_t)1 << 20)
/* How much the helper digests before it says how far it got. */
#define DIGEST_CHUNK ((size_t)64 << 10)

struct digest_job {
    const char *text;
    size_t size;
    size_t done; /* bytes digested so far; written by the helper (atomic) */
    unsigned char digest[16];
};

static void *digest_worker(void *arg) {
    struct digest_job *job = arg;
    /* The digest length is 32 bits wide: past 4 GiB only size mod 2^32 bytes
     * are digested. */
    const size_t todo = (uint32_t)job->size;
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    for (size_t done = 0; done < todo;) {
        const size_t n = todo - done < DIGEST_CHUNK ? todo - done : DIGEST_CHUNK;
        TWK_MD5Update(&ctx, job->text + done, (uint32_t)n);
        done += n;
        __atomic_store_n(&job->done, done, __ATOMIC_RELEASE);
    }
    TWK_MD5Final(job->digest, &ctx);
    /* Bytes past the digested length may be written from here on. */
    __atomic_store_n(&job->done, job->size, __ATOMIC_RELEASE);
    return NULL;
}

/* Waits until the helper has digested every byte before `upto` (an offset
 * into the text); returns how far it got. */
static size_t wait_digested(struct digest_job *job, size_t upto) {
    for (unsigned spins = 0;; spins++) {
        const size_t done = __atomic_load_n(&job->done, __ATOMIC_ACQUIRE);
        if (done >= upto) return done;
        /* The helper digests a chunk in tens of microseconds; on a machine
         * with one free core it must be let run. */
        if (spins < 256) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else {
            sched_yield();
        }
    }
}

static void digest_bytes(const char *buf, size_t size, unsigned char digest[16]) {
    TWK_MD5Context ctx;
    TWK_MD5Init(&ctx);
    TWK_MD5Update(&ctx, buf, (uint32_t)size);
    TWK_MD5Final(digest, &ctx);
}

/* Reads the whole of an open regular file of `size` bytes into buf, which
 * holds size + 1. 0 when exactly size bytes came and the file then ended;
 * -1 when it could not be read or was shorter or longer than size. */
static int read_exactly(int fd, char *buf, size_t size) {
    /* The most one read(2) gives (Linux's MAX_RW_COUNT); below it, a regular
     * file's short read is its end. */
    const size_t most = 0x7ffff000;
    size_t got = 0;
    /* One byte more than expected is asked for: a file that grew since its
     * size was taken shows it so. */
    while (got <= size) {
        const size_t want = size + 1 - got;
        ssize_t n = read(fd, buf + got, want);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        got += (size_t)n;
        if (n == 0 || ((size_t)n < want && want <= most)) break;
    }
    return got == size ? 0 : -1;
}

/* Whether what fstat says of the file now is what it said when the read
 * began: the same size, and no write since (change time to the nanosecond). */
static int unchanged_since(int fd, const struct stat *before) {
    struct stat now;
    return fstat(fd, &now) == 0 && now.st_size == before->st_size &&
           now.st_mtim.tv_sec == before->st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == before->st_mtim.tv_nsec &&
           now.st_ctim.tv_sec == before->st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == before->st_ctim.tv_nsec;
}

/* Moves a freshly read and parsed file into h, replacing what it held. */
static void install(TWK_CfgHandle *h, TWK_CfgHandle *fresh, const unsigned char digest[16],
                    time_t mtime) {
    cfg_clear(h);
    memcpy(h->digest, digest, 16);
    h->text = fresh->text;
    h->size = fresh->size;
    h->mtime = mtime;
    h->entries = fresh->entries;
    h->numEntries = fresh->numEntries;
    h->maxEntries = fresh->maxEntries;
    h->flags = TWK_CFG_LOADED;
}

/* How many times a file that changes while it is read is read again before
 * the load fails. */
#define READ_ATTEMPTS 3

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

    /* The new content is read into a scratch handle; h keeps its entries
     * until the digest shows that the content really changed. A file that
     * is written while it is read (its size or change time moved) is read
     * again: its entries are those of one content, never a mix. */
    TWK_CfgHandle fresh;
    memset(&fresh, 0, offsetof(TWK_CfgHandle, mutex));
    size_t size = 0;
    int readOk = 0;
    for (int attempt = 0; attempt < READ_ATTEMPTS && !readOk; attempt++) {
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
            (uint64_t)st.st_size >= SIZE_MAX)
            break;
        size = (size_t)st.st_size;
        char *text = cfg_mem_realloc(fresh.text, size + 1);
        if (text == NULL) break;
        fresh.text = text;
        readOk = (attempt == 0 || lseek(fd, 0, SEEK_SET) == 0) &&
                 read_exactly(fd, fresh.text, size) == 0 && unchanged_since(fd, &st);
    }
    close(fd);
    if (!readOk) {
        cfg_clear(&fresh);
        return -1;
    }
    fresh.text[size] = '\0';
    fresh.size = (int64_t)size;

    unsigned char digest[16];
    struct digest_job job = {.text = fresh.text, .size = size};
    pthread_t worker;
    const int parallel =
        size >= PARALLEL_DIGEST_MIN && pthread_create(&worker, NULL, digest_worker, &job) == 0;
    if (!parallel) {
        digest_bytes(fresh.text, size, digest);
        if (memcmp(digest, h->digest, sizeof(digest)) == 0) {
            /* Same bytes: keep the entries. size and mtime stay as they were,
             * so a touched file is read and digested again next time. */
            cfg_clear(&fresh);
            return 0;
        }
    }
    if (parallel) {
        /* The entries array takes its memory at once for as many entries as
         * the text can hold: grown step by step, each step would move what
         * it holds into new pages. Its capacity in entries (maxEntries)
         * still grows by the rule of cfg_reserve, inside this block. */
        const size_t most = count_eol(fresh.text, fresh.text + size) + 1;
        if (most <= UINT32_MAX) fresh.entries = cfg_mem_alloc(most * sizeof(TWK_CfgEntry));
    }
    const int parseOk = size == 0 || cfg_parse(&fresh, parallel ? &job : NULL) == 0;
    if (parallel) {
        pthread_join(worker, NULL);
        memcpy(digest, job.digest, sizeof(digest));
    }

    if (memcmp(digest, h->digest, sizeof(digest)) == 0) {
        cfg_clear(&fresh);
        return 0;
    }
    if (!parseOk) {
        /* New content that cannot be held: the old entries are gone too. */
        cfg_clear(&fresh);
        cfg_clear(h);
        return -1;
    }
    install(h, &fresh, digest, st.st_mtime);
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
        int fd =
            open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
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

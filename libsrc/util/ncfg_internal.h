/*
 * Internals shared by the reading and editing halves of the configuration
 * library. Not installed; callers use ncfg.h.
 */
#ifndef TWK_NCFG_INTERNAL_H
#define TWK_NCFG_INTERNAL_H

#include "ncfg.h"

#include <stddef.h>
#include <stdint.h>

/* Frees one entry's owned strings (by its ownership bits). */
void cfg_free_entry(TWK_CfgEntry *e);

/* Frees the text, every entry and the entries array, then zeroes the handle
 * except fileName and the mutex. The handle is left not loaded. */
void cfg_clear(TWK_CfgHandle *h);

/* Memory for a handle's text and entries (ncfg_mem.c): as malloc, realloc
 * and free, but large blocks are kept for the next load instead of being
 * mapped afresh each time. Only these three may touch such a block. */
void *cfg_mem_alloc(size_t size);
void *cfg_mem_realloc(void *p, size_t size);
void cfg_mem_free(void *p);

/* Makes room for `more` entries beyond numEntries. With more == 1 the array
 * grows as the reader grows it (103 first, then by half plus one); larger
 * requests grow it by half plus the count needed. -1 when it cannot grow. */
int cfg_reserve(TWK_CfgHandle *h, uint32_t more);

/* Steps the cursor as TWK_Cfg_nextentry does, without locking. */
int32_t cfg_step(TWK_CfgHandle *h);

/* Index of the first section header matching name (stricmp), or -1. */
int64_t cfg_find_section(const TWK_CfgHandle *h, const char *name);

/* Zeroes dst, then gives it a fresh copy of each non-NULL string of src with
 * that string's ownership bit (set even when the copy failed). */
void _cfg_copyent(TWK_CfgEntry *dst, const TWK_CfgEntry *src);

/* Takes the handle's lock and returns -1 from the caller unless the handle
 * is loaded. The test is made under the lock: a refresh in another thread
 * may be rebuilding the handle at that moment. */
#define LOCK_LOADED_OR_FAIL(h)                                                                     \
    do {                                                                                           \
        if ((h) == NULL) return -1;                                                                \
        pthread_mutex_lock(&(h)->mutex);                                                           \
        if (!((h)->flags & TWK_CFG_LOADED)) {                                                      \
            pthread_mutex_unlock(&(h)->mutex);                                                     \
            return -1;                                                                             \
        }                                                                                          \
    } while (0)

/* Largest formatted piece a commit writes, without its NUL. */
#define CFG_PIECE_MAX 4095

/* The output of a commit: pieces are formatted straight into buf, which goes
 * to fd with write(2) whenever a piece might not fit. The first error is kept
 * in error and everything after it is dropped. With fd -1 nothing is written
 * and total only counts the bytes. */
typedef struct cfg_out {
    int fd;
    int error;      /* errno of the first failure; 0 while all went well */
    uint64_t total; /* bytes handed on so far (flushed ones) */
    size_t used;    /* bytes waiting in buf */
    char buf[8 * (CFG_PIECE_MAX + 1)];
} cfg_out;

/* Writes what waits in out->buf, all of it (short writes and EINTR are
 * retried), unless an earlier write failed. */
void cfg_out_flush(cfg_out *out);

/* Formats one piece of a commit, appends it to out and feeds the same bytes
 * to md5. A piece longer than CFG_PIECE_MAX ends the process. */
void _cfg_digestprintf(TWK_MD5Context *md5, cfg_out *out, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* Produces the whole text of a file into out; called once per pass over the
 * text, and must produce the same bytes each time. */
typedef void (*cfg_produce_fn)(void *context, cfg_out *out);

/* Replaces the file at path with the text that produce gives, so that the
 * file holds either its old bytes or all of the new ones; only where the file
 * can just be written in place can a failure leave it changed (see
 * TWK_Cfg_commit in ncfg.h for the whole contract). 0 when the text is in
 * the file; -1 with errno set when it is not. */
int cfg_save(const char *path, cfg_produce_fn produce, void *context);

#endif

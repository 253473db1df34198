/*
 * The editing half of the configuration library: changing entries in memory,
 * merging another handle in, and writing the entries back to the file.
 */
#define _POSIX_C_SOURCE 200809L

#include "ncfg_internal.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---- entry helpers ---- */

static int is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\f';
}

/* A comment-only entry written as ";;", "; " or a lone ";": a divider or
 * heading that belongs to what follows it rather than to the lines above. */
static int is_loose_comment(const TWK_CfgEntry *e) {
    if (e->section || e->id || e->value || e->comment == NULL) return 0;
    return e->comment[0] == '\0' || e->comment[0] == ';' || is_blank(e->comment[0]);
}

/* Index of the section header after index i, or numEntries. */
static uint32_t section_end(const TWK_CfgHandle *h, uint32_t i) {
    for (i++; i < h->numEntries; i++)
        if (h->entries[i].section) break;
    return i;
}

/* The first key named id in [from, to), or -1. */
static int64_t find_key(const TWK_CfgHandle *h, uint32_t from, uint32_t to, const char *id) {
    for (uint32_t i = from; i < to; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (e->id && !e->section && stricmp(e->id, id) == 0) return i;
    }
    return -1;
}

/* Frees an entry's owned strings. The cursor's current-entry fields may point
 * at them; those are cleared rather than left dangling. */
static void release_entry(TWK_CfgHandle *h, TWK_CfgEntry *e) {
    if ((e->flags & TWK_CFGE_OWNSECTION) && h->section == e->section) h->section = NULL;
    if ((e->flags & TWK_CFGE_OWNID) && h->id == e->id) h->id = NULL;
    if ((e->flags & TWK_CFGE_OWNVALUE) && h->value == e->value) h->value = NULL;
    cfg_free_entry(e);
}

/* Removes entries [from, to), freeing what they own. */
static void remove_range(TWK_CfgHandle *h, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; i++) release_entry(h, &h->entries[i]);
    memmove(&h->entries[from], &h->entries[to], (h->numEntries - to) * sizeof(TWK_CfgEntry));
    h->numEntries -= to - from;
}

/* Opens a gap of n zeroed entries at index at; room must have been made. */
static void open_gap(TWK_CfgHandle *h, uint32_t at, uint32_t n) {
    memmove(&h->entries[at + n], &h->entries[at], (h->numEntries - at) * sizeof(TWK_CfgEntry));
    memset(&h->entries[at], 0, n * sizeof(TWK_CfgEntry));
    h->numEntries += n;
}

/* Copies s into an owned field; returns whether the copy was made. The bit
 * follows what the field holds. */
static int set_owned(TWK_CfgEntry *e, char **field, uint16_t bit, const char *s) {
    *field = strdup(s);
    if (*field)
        e->flags |= bit;
    else
        e->flags &= (uint16_t)~bit;
    return *field != NULL;
}

static char *copy_or_null(const char *s) {
    return s ? strdup(s) : NULL;
}

void _cfg_copyent(TWK_CfgEntry *dst, const TWK_CfgEntry *src) {
    memset(dst, 0, sizeof(*dst));
    if (src->section) {
        dst->section = copy_or_null(src->section);
        dst->flags |= TWK_CFGE_OWNSECTION;
    }
    if (src->id) {
        dst->id = copy_or_null(src->id);
        dst->flags |= TWK_CFGE_OWNID;
    }
    if (src->value) {
        dst->value = copy_or_null(src->value);
        dst->flags |= TWK_CFGE_OWNVALUE;
    }
    if (src->comment) {
        dst->comment = copy_or_null(src->comment);
        dst->flags |= TWK_CFGE_OWNCOMMENT;
    }
}

/* Whether every string of src made it into its copy dst. */
static int copied_fully(const TWK_CfgEntry *dst, const TWK_CfgEntry *src) {
    return (!src->section || dst->section) && (!src->id || dst->id) &&
           (!src->value || dst->value) && (!src->comment || dst->comment);
}

/* ---- TWK_Cfg_write ---- */

/* Appends a header for a section that is not there, then the key. */
static int32_t append_section_with_key(TWK_CfgHandle *h, const char *section, const char *id,
                                       const char *value) {
    if (cfg_reserve(h, 1) != 0) return -1;
    TWK_CfgEntry header = {0};
    if (!set_owned(&header, &header.section, TWK_CFGE_OWNSECTION, section)) return -1;
    h->entries[h->numEntries++] = header;
    h->dirty = 1;

    if (cfg_reserve(h, 1) != 0) return -1; /* the header stays */
    TWK_CfgEntry *key = &h->entries[h->numEntries++];
    memset(key, 0, sizeof(*key));
    const int ok = set_owned(key, &key->id, TWK_CFGE_OWNID, id) &
                   set_owned(key, &key->value, TWK_CFGE_OWNVALUE, value);
    return ok ? 0 : -1;
}

static int32_t write_locked(TWK_CfgHandle *h, const char *section, const char *id,
                            const char *value) {
    const int64_t found = cfg_find_section(h, section);
    if (found < 0) {
        if (id == NULL || value == NULL) return 0;
        return append_section_with_key(h, section, id, value);
    }
    const uint32_t header = (uint32_t)found;
    const uint32_t end = section_end(h, header);

    if (id == NULL) {
        /* Divider comments at the section's end introduce what follows and
         * stay; those just before its header introduce it and go with it. */
        uint32_t to = end;
        while (to > header + 1 && is_loose_comment(&h->entries[to - 1])) to--;
        uint32_t from = header;
        while (from > 0 && is_loose_comment(&h->entries[from - 1])) from--;
        remove_range(h, from, to);
        h->dirty = 1;
        return 0;
    }

    const int64_t key = find_key(h, header + 1, end, id);
    if (value == NULL) {
        if (key < 0) return 0;
        uint32_t from = (uint32_t)key;
        while (from > header + 1 && is_loose_comment(&h->entries[from - 1])) from--;
        /* Its continuation lines stay and now follow the entry before. */
        remove_range(h, from, (uint32_t)key + 1);
        h->dirty = 1;
        return 0;
    }

    if (key >= 0) {
        TWK_CfgEntry *e = &h->entries[key];
        if (e->flags & TWK_CFGE_OWNVALUE) {
            if (h->value == e->value) h->value = NULL;
            free(e->value);
        }
        e->value = NULL;
        h->dirty = 1;
        return set_owned(e, &e->value, TWK_CFGE_OWNVALUE, value) ? 0 : -1;
    }

    /* A new key goes right before the next header, after any comment lines
     * that end this section. */
    if (cfg_reserve(h, 1) != 0) return -1;
    open_gap(h, end, 1);
    h->dirty = 1;
    TWK_CfgEntry *e = &h->entries[end];
    const int ok = set_owned(e, &e->id, TWK_CFGE_OWNID, id) &
                   set_owned(e, &e->value, TWK_CFGE_OWNVALUE, value);
    return ok ? 0 : -1;
}

int32_t TWK_Cfg_write(TWK_CfgHandle *h, const char *section, const char *id, const char *value) {
    if (section == NULL) return -1;
    LOCK_LOADED_OR_FAIL(h);
    const int32_t r = write_locked(h, section, id, value);
    pthread_mutex_unlock(&h->mutex);
    return r;
}

/* ---- TWK_Cfg_storeentry ---- */

int32_t TWK_Cfg_storeentry(TWK_CfgHandle *h, const char *section, const char *id, const char *value,
                           const char *comment, int copy) {
    LOCK_LOADED_OR_FAIL(h);
    int32_t r = -1;
    if (cfg_reserve(h, 1) == 0) {
        const TWK_CfgEntry given = {(char *)section, (char *)id, (char *)value, (char *)comment, 0};
        TWK_CfgEntry *e = &h->entries[h->numEntries++];
        if (copy) {
            _cfg_copyent(e, &given);
            r = copied_fully(e, &given) ? 0 : -1;
        } else {
            *e = given;
            r = 0;
        }
    }
    pthread_mutex_unlock(&h->mutex);
    return r;
}

/* ---- cfg_merge ---- */

/* Replaces dst[at, at + old) with copies of src[0, n). */
static int splice_copies(TWK_CfgHandle *h, uint32_t at, uint32_t old, const TWK_CfgEntry *src,
                         uint32_t n) {
    /* Room first, so a failed growth leaves the destination untouched. */
    if (n > old && cfg_reserve(h, n - old) != 0) return -1;
    if (old) remove_range(h, at, at + old);
    open_gap(h, at, n);
    for (uint32_t i = 0; i < n; i++) _cfg_copyent(&h->entries[at + i], &src[i]);
    return 0;
}

/* End of the group that starts with the key at i: the entries without id
 * (continuations, comments) that follow it, within [i, limit). */
static uint32_t group_end(const TWK_CfgEntry *entries, uint32_t i, uint32_t limit) {
    for (i++; i < limit; i++)
        if (entries[i].id || entries[i].section) break;
    return i;
}

static int merge_section(TWK_CfgHandle *dst, const TWK_CfgHandle *src, uint32_t header,
                         uint32_t end) {
    const int64_t found = cfg_find_section(dst, src->entries[header].section);
    if (found < 0)
        return splice_copies(dst, dst->numEntries, 0, &src->entries[header], end - header);

    const uint32_t dstHeader = (uint32_t)found;
    for (uint32_t k = header + 1; k < end;) {
        if (src->entries[k].id == NULL) {
            k++; /* lines before the first key are not merged */
            continue;
        }
        const uint32_t g = group_end(src->entries, k, end);
        const uint32_t dstEnd = section_end(dst, dstHeader);
        const int64_t m = find_key(dst, dstHeader + 1, dstEnd, src->entries[k].id);
        int r;
        if (m >= 0) {
            const uint32_t mg = group_end(dst->entries, (uint32_t)m, dstEnd);
            r = splice_copies(dst, (uint32_t)m, mg - (uint32_t)m, &src->entries[k], g - k);
        } else {
            r = splice_copies(dst, dstEnd, 0, &src->entries[k], g - k);
        }
        if (r != 0) return -1;
        k = g;
    }
    return 0;
}

int32_t cfg_merge(TWK_CfgHandle *dst, const TWK_CfgHandle *src) {
    LOCK_LOADED_OR_FAIL(dst);
    int32_t r = 0;
    /* A handle merged into itself would read the array it rewrites; the
     * outcome is known: every group replaced by an equal copy. */
    if (src != NULL && src != dst) {
        uint32_t i = 0;
        while (i < src->numEntries && src->entries[i].section == NULL) i++;
        while (i < src->numEntries && r == 0) {
            const uint32_t end = section_end(src, i);
            r = merge_section(dst, src, i, end);
            i = end;
        }
    }
    dst->dirty = 1;
    pthread_mutex_unlock(&dst->mutex);
    return r;
}

/* ---- TWK_Cfg_commit ---- */

void _cfg_digestprintf(TWK_MD5Context *md5, cfg_out *out, const char *format, ...) {
    /* Formatted in place: make sure a whole piece and its NUL fit. */
    if (sizeof out->buf - out->used < CFG_PIECE_MAX + 1) cfg_out_flush(out);
    char *piece = out->buf + out->used;
    va_list ap;
    va_start(ap, format);
    /* The analyser loses track of va_start through the format attribute. */
    /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized) */
    const int n = vsnprintf(piece, CFG_PIECE_MAX + 1, format, ap);
    va_end(ap);
    if (n < 0) {
        /* A piece that cannot be formatted would be missing from the file:
         * fail the commit rather than write the file without it. */
        if (out->error == 0) out->error = errno ? errno : EINVAL;
        return;
    }
    /* A piece that does not fit is a fatal overflow, never a silent cut. */
    if (n > CFG_PIECE_MAX) abort();
    TWK_MD5Update(md5, piece, (uint32_t)n);
    out->used += (size_t)n;
}

static size_t len_or_zero(const char *s) {
    return s ? strlen(s) : 0;
}

/* The key column of the section whose header is at i: its longest id. */
static size_t key_width(const TWK_CfgHandle *h, uint32_t i) {
    size_t width = 0;
    for (i++; i < h->numEntries && h->entries[i].section == NULL; i++) {
        const size_t n = len_or_zero(h->entries[i].id);
        if (n > width) width = n;
    }
    return width;
}

/* Whether any piece the commit would format is longer than a piece may be.
 * Checked before the file is opened, so such an entry never leaves a
 * truncated file behind. */
static int commit_would_overflow(const TWK_CfgHandle *h) {
    size_t width = 0;
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        /* "\t;%s" after an entry's text, ";%s" on a line of its own */
        const int alone = !e->section && !e->value;
        const size_t comment = e->comment ? (alone ? 1 : 2) + strlen(e->comment) : 0;
        size_t piece = 0;
        if (e->section) {
            width = key_width(h, i);
            piece = 2 + strlen(e->section);
        } else if (e->id && e->value) {
            piece = (width ? width : strlen(e->id)) + 3 + strlen(e->value);
        } else if (e->value) {
            piece = 2 + strlen(e->value);
        }
        if (piece > CFG_PIECE_MAX || comment > CFG_PIECE_MAX) return 1;
    }
    return 0;
}

/* Whether the comment block starting after index i runs straight into a
 * section header. */
static int block_precedes_header(const TWK_CfgHandle *h, uint32_t i) {
    for (i++; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (e->section || e->id || e->value) return e->section != NULL;
    }
    return 0;
}

static void write_entries(const TWK_CfgHandle *h, cfg_out *out, TWK_MD5Context *md5) {
    int sectionWritten = 0;
    int width = 0;
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (e->section) {
            if (sectionWritten) _cfg_digestprintf(md5, out, "\n");
            _cfg_digestprintf(md5, out, "[%s]", e->section);
            if (e->comment) _cfg_digestprintf(md5, out, "\t;%s", e->comment);
            sectionWritten = 1;
            width = (int)key_width(h, i);
        } else if (e->id && e->value) {
            if (width == 0)
                _cfg_digestprintf(md5, out, "%s = %s", e->id, e->value);
            else
                _cfg_digestprintf(md5, out, "%-*.*s = %s", width, width, e->id, e->value);
            if (e->comment) _cfg_digestprintf(md5, out, "\t;%s", e->comment);
        } else if (e->value) {
            _cfg_digestprintf(md5, out, "  %s", e->value);
            if (e->comment) _cfg_digestprintf(md5, out, "\t;%s", e->comment);
        } else if (e->comment) {
            /* The blank line between sections goes before the comment block
             * that introduces the next section, not between block and header. */
            const char c = e->comment[0];
            if (sectionWritten && i + 1 < h->numEntries && (c == ';' || c == '\0' || is_blank(c)) &&
                block_precedes_header(h, i)) {
                _cfg_digestprintf(md5, out, "\n");
                sectionWritten = 0;
            }
            _cfg_digestprintf(md5, out, ";%s", e->comment);
        }
        _cfg_digestprintf(md5, out, "\n");
    }
}

/* One pass over the text of a commit; the digest is that of the bytes the
 * pass produced, so after the pass that wrote the file it is the file's. */
struct commit_text {
    const TWK_CfgHandle *h;
    unsigned char digest[16];
};

static void produce_entries(void *context, cfg_out *out) {
    struct commit_text *text = context;
    TWK_MD5Context md5;
    TWK_MD5Init(&md5);
    write_entries(text->h, out, &md5);
    TWK_MD5Final(text->digest, &md5);
}

int32_t TWK_Cfg_commit(TWK_CfgHandle *h) {
    LOCK_LOADED_OR_FAIL(h);
    if (!h->dirty) {
        pthread_mutex_unlock(&h->mutex);
        return 0;
    }
    if (commit_would_overflow(h)) abort();
    struct commit_text text = {.h = h};
    if (cfg_save(h->fileName, produce_entries, &text) == 0) {
        memcpy(h->digest, text.digest, sizeof h->digest);
        /* size and mtime stay as they were: the next refresh reads the file,
         * finds this digest and keeps the entries. */
        h->dirty = 0;
    }
    /* Otherwise the file is as it was and so is the handle: still dirty,
     * with its edits and the digest of what the file holds, and errno tells
     * why. As with a file that cannot be opened, that is no error of the
     * call; a caller that cares looks at dirty. */
    pthread_mutex_unlock(&h->mutex);
    return 0;
}

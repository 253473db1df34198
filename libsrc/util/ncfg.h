/*
 * Sectioned configuration files of key and value lines.
 *
 * A handle holds one file, read with one read into one buffer and parsed in
 * place into an ordered list of entries, one per meaningful line. It is
 * re-read only when the file's size or modification time changed, and
 * re-parsed only when its MD5 changed.
 *
 * File format accepted by the reader:
 *   - Lines end at LF, CR or 0x1A (Ctrl-Z); runs of them make no empty entries.
 *   - Blanks are form feed, TAB and SPACE. Trailing blanks of a line are
 *     dropped, except on a last line that no line end follows.
 *   - "; text"          a comment line (indented or not).
 *   - "[ name ] ; text" a section header (indented or not); text after "]"
 *                       that is not a comment is ignored; no "]" or an empty
 *                       name drops the line.
 *   - "key = value ; c" a key line; a line without "=" is dropped. A ";"
 *                       starts a comment only outside quotes and after a
 *                       blank (or right after the "=").
 *   - an indented line that is none of the above continues the value above it.
 *
 * NUL bytes inside the file: the reader treats a NUL byte like a line end, so
 * such a file always loads completely; the text on either side of the NUL
 * becomes separate lines. The digest still covers every byte of the file.
 *
 * Every call returns 0 for success and -1 for failure (the refresh calls also
 * 1 for "reloaded"). The library never prints. Strings handed out belong to
 * the handle and stay valid until the next refresh, edit or TWK_Cfg_done.
 *
 * Threads: each call takes the handle's mutex for its own duration, so calls
 * on a shared handle never corrupt it. But a lookup answers through the
 * handle's current-entry fields (section, id, value, flags), which the
 * caller reads after the call has returned and let go of the mutex: threads
 * that share a handle must guard each lookup together with their reads of
 * those fields, and of the strings they point to, with a lock of their own
 * (the mutex is not recursive, so it cannot be that lock). Another thread's
 * refresh or edit in between may free what the fields point to.
 *
 * The digest covers at most the first 4 GiB: MD5 is fed the file's size
 * modulo 2^32 bytes at load. So for a file of 4 GiB or more, a change that
 * leaves that part and the size alone (but not the modification time) is
 * taken for "same bytes", and the entries are not parsed again.
 */
#ifndef TWK_NCFG_H
#define TWK_NCFG_H

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "md5.h"
#include "util.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ownership bits of TWK_CfgEntry.flags: the string was allocated for this
 * entry alone and is freed with it. A clear bit means the string points into
 * the handle's text buffer. */
#define TWK_CFGE_OWNSECTION 0x8000
#define TWK_CFGE_OWNID 0x4000
#define TWK_CFGE_OWNVALUE 0x2000
#define TWK_CFGE_OWNCOMMENT 0x1000

/* TWK_CfgHandle.flags */
#define TWK_CFG_LOADED 0x8000 /* the handle holds a parsed file */
#define TWK_CFG_ATEND 0x4000  /* the cursor ran past the last entry */
#define TWK_CFG_TYPEMASK 0x000F
#define TWK_CFG_SECTION 1
#define TWK_CFG_KEY 2
#define TWK_CFG_CONTINUATION 3

/* One parsed line. Section header: section (+comment). Key: id and value
 * (+comment). Continuation: value without id (+comment). Comment line:
 * comment only. */
typedef struct TWK_CfgEntry {
    char *section;
    char *id;
    char *value;
    char *comment;
    uint16_t flags;
} TWK_CfgEntry;

/* One open configuration file. */
typedef struct TWK_CfgHandle {
    char *fileName;           /* owned copy of the path given at open */
    int dirty;                /* entries differ from what was loaded or committed */
    char *text;               /* the file's bytes plus a NUL, parsed in place */
    int64_t size;             /* file size at the last full load */
    time_t mtime;             /* modification time (seconds) at the last full load */
    unsigned char digest[16]; /* MD5 of the content last loaded (its first size
                               * mod 2^32 bytes) or committed */
    uint32_t numEntries;
    uint32_t maxEntries;
    TWK_CfgEntry *entries;
    uint32_t cursor;       /* index of the next entry the cursor visits */
    char *section;         /* last section header the cursor visited */
    char *id;              /* key of the current entry, or NULL */
    char *value;           /* value of the current entry, or NULL */
    char *comment;         /* reserved; always NULL */
    uint16_t flags;        /* TWK_CFG_LOADED, TWK_CFG_ATEND, entry type */
    pthread_mutex_t mutex; /* held by every call for its duration (see "Threads") */
} TWK_CfgHandle;

/* Opens and loads the file at path. On failure stores NULL and returns -1
 * (a missing or unreadable file, or one that is not a regular file). */
int32_t TWK_Cfg_init(TWK_CfgHandle **handle, const char *path);

/* As TWK_Cfg_init; with create nonzero a missing file is first created empty. */
int32_t TWK_Cfg_init2(TWK_CfgHandle **handle, const char *path, int create);

/* Releases the handle and everything it owns. Accepts NULL. Returns 0. */
int32_t TWK_Cfg_done(TWK_CfgHandle *handle);

/* Re-reads the file if it changed: -1 error, 0 unchanged, 1 reloaded.
 * A dirty handle drops its unsaved edits first. _cfg_refresh takes no lock. */
int32_t _cfg_refresh(TWK_CfgHandle *handle);
int32_t TWK_Cfg_refresh(TWK_CfgHandle *handle);

/* Moves the cursor before the first entry. */
int32_t TWK_Cfg_rewind(TWK_CfgHandle *handle);

/* Steps to the next section header, key or continuation line and sets the
 * current-entry fields; -1 past the end. */
int32_t TWK_Cfg_nextentry(TWK_CfgHandle *handle);

/* Finds the first section named section (ignoring case) and, when key is not
 * NULL, the first key of that name in it. 0 found, -1 not found. */
int32_t TWK_Cfg_find(TWK_CfgHandle *handle, const char *section, const char *key);

/* ---- editing ----
 *
 * Edits change the entries in memory and set `dirty`; TWK_Cfg_commit writes
 * them back. A section is a header entry and the entries after it up to the
 * next header. The cursor is not moved by edits: rewind or find again after
 * one. A refresh of a dirty handle drops the edits. */

/* Sets a key (section, id and value given), deletes a key (value NULL) or a
 * whole section (id NULL). A missing section is appended with the key; a
 * missing key is added at the end of its section. Deleting what is not there
 * succeeds. -1: NULL handle or section, not loaded, or out of memory. What
 * was done before running out of memory stays, and `dirty` is set: a key
 * whose old value was already freed is left without a value; for a missing
 * section, the appended header stays when the key cannot be added; a new key
 * whose copies failed is left partly filled (its ownership bits say what it
 * holds, so TWK_Cfg_done frees exactly that). */
int32_t TWK_Cfg_write(TWK_CfgHandle *handle, const char *section, const char *id,
                      const char *value);

/* Appends one raw entry at the end. With copy 0 the strings are stored as
 * given and must outlive their use by the handle; otherwise each non-NULL one
 * is copied. Does not set `dirty`. -1: NULL handle, not loaded, or out of
 * memory. */
int32_t TWK_Cfg_storeentry(TWK_CfgHandle *handle, const char *section, const char *id,
                           const char *value, const char *comment, int copy);

/* Merges the sections of source into destination: unknown sections are
 * appended; in known ones each key of the source, with the lines without key
 * that follow it, replaces the destination's key of that name or is added at
 * the section's end. Only the destination is locked; the source must not
 * change meanwhile. -1: destination NULL or not loaded, or out of memory
 * (then the destination holds what was merged so far). */
int32_t cfg_merge(TWK_CfgHandle *destination, const TWK_CfgHandle *source);

/* Writes a dirty handle's entries to its file, in the library's own layout
 * (one blank line between sections, keys aligned per section), and keeps the
 * MD5 of the bytes written, so the next refresh keeps the entries. A handle
 * that is not dirty touches nothing.
 *
 * A commit never loses the file. The text goes into a new file in the same
 * directory (that of the final target when the path is a symbolic link; the
 * link stays a link and its target is updated), created exclusively with the
 * file's permission bits and, where the process may set them, its owner and
 * group. It is flushed to the disk and renamed over the file; the directory
 * is flushed after. A reader opens either the old file or the new one, never
 * a part of one, and a crash leaves one or the other. When anything fails
 * (creating, writing, flushing, closing or renaming: a full disk, a file-size
 * limit, an I/O error) the new file is removed, the file keeps its bytes,
 * and the handle keeps its entries, `dirty` and digest, so a later commit
 * writes the same edits. Only a regular file that the process may write is
 * written, or a missing one created; a read-only file, or a directory, FIFO
 * or device in its place, is a failure.
 *
 * What that costs: each commit gives the file a new inode. A hard link to
 * the file keeps the old text and is no longer the same file; programs that
 * hold it open or watch its inode keep seeing the old one. Extended
 * attributes and ACLs are not carried over. Where the owner cannot be set (an
 * ordinary user committing another user's writable file) the file becomes
 * the committer's, keeping the group if the committer belongs to it. The
 * disk needs room for both texts while a commit runs, and a commit waits for
 * the disk.
 *
 * Written in place: where no file can be created in that directory (the
 * process may write the file but not its directory, or the directory is
 * read-only), or the file cannot be replaced because it is a mount point (a
 * file bind-mounted into a container), the commit writes the file itself.
 * It formats the whole text once before opening the file, reserves the room
 * for it where the file system can (a full disk then fails with the file
 * untouched), overwrites the file from its start, cuts it to the new length
 * and flushes it. A write that fails after that (an I/O error, a file-size
 * limit, a disk that fills where no room could be reserved) can leave the
 * file holding the first part of the new text followed by what remains of
 * the old one; the handle then stays dirty, and the next commit that
 * succeeds writes the whole text. Readers may see the file half written.
 *
 * A failure is reported as a file that cannot be opened is: the call returns
 * 0 and `dirty` stays set; errno then tells why. An entry too long to format
 * (a piece over 4095 bytes) ends the process before anything is written.
 * -1: NULL handle or not loaded. */
int32_t TWK_Cfg_commit(TWK_CfgHandle *handle);

#ifdef __cplusplus
}
#endif

#endif

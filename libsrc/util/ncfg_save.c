/*
 * Saving a configuration file without ever losing it.
 *
 * The new text goes to a fresh file beside the old one, which is flushed to
 * the disk and renamed over the old one: rename is atomic, so a reader or a
 * crash finds the old file or the new one, and a write that fails (a full
 * disk, a file-size limit, an I/O error) leaves the old file untouched. Only
 * where no file can be made in that directory does the text go into the file
 * itself, and then only after it was formatted once without error and room
 * for it was reserved where the file system allows.
 */
#define _GNU_SOURCE /* fallocate */

#include "ncfg_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* Links followed before giving up, as the kernel's own limit for a path. */
#define MAX_LINKS 40

/* How much of the file's name the temporary name keeps: with the dot before
 * it and the dot and 16 digits after it, it stays within NAME_MAX (255). */
#define TEMP_BASE_MAX 200

/* ---- output ---- */

void cfg_out_flush(cfg_out *out) {
    if (out->fd >= 0 && out->error == 0) {
        const char *p = out->buf;
        size_t left = out->used;
        while (left > 0) {
            const ssize_t n = write(out->fd, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                /* A write that moves nothing would never finish either. */
                out->error = n < 0 ? errno : EIO;
                break;
            }
            /* A short write (a file-size limit, a disk filling up) is
             * continued; the next write then reports why it stopped. */
            p += n;
            left -= (size_t)n;
        }
    }
    out->total += out->used;
    out->used = 0;
}

/* One whole pass of produce into fd (or only counted, with fd -1); the
 * errno of the first failure, or 0. */
static int produce_into(int fd, cfg_produce_fn produce, void *context, cfg_out *out,
                        uint64_t *total) {
    out->fd = fd;
    out->error = 0;
    out->total = 0;
    out->used = 0;
    produce(context, out);
    cfg_out_flush(out);
    if (total) *total = out->total;
    return out->error;
}

/* ---- paths ---- */

/* Length of the directory part of path including its last '/', 0 if none. */
static size_t dir_prefix_len(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? (size_t)(slash - path) + 1 : 0;
}

/* The target of the symbolic link at path, read whole; NULL with errno. */
static char *read_link(const char *path, size_t hint) {
    size_t cap = hint + 1 > 64 ? hint + 1 : 64;
    for (;;) {
        char *buf = malloc(cap);
        if (buf == NULL) return NULL;
        const ssize_t n = readlink(path, buf, cap);
        if (n < 0) {
            free(buf);
            return NULL;
        }
        if ((size_t)n < cap) {
            buf[n] = '\0';
            return buf;
        }
        /* The link grew since it was looked at, or its size is not told. */
        free(buf);
        if (cap > SIZE_MAX / 2) {
            errno = ENAMETOOLONG;
            return NULL;
        }
        cap *= 2;
    }
}

/* The path of the file that writing to path would reach: a chain of
 * symbolic links is followed to its end, each relative link from the
 * directory that holds it. The end may not exist (a dangling link, or a file
 * removed meanwhile): writing there creates it. Links among the directories
 * are left to the kernel, which resolves them the same way each time. A new
 * string; NULL with errno (ELOOP for a cycle, ENOMEM). */
static char *follow_links(const char *path) {
    const size_t len = strlen(path);
    char *cur = malloc(len + 1);
    if (cur == NULL) return NULL;
    memcpy(cur, path, len + 1);
    for (int hops = 0;; hops++) {
        struct stat st;
        if (lstat(cur, &st) != 0 || !S_ISLNK(st.st_mode)) return cur;
        if (hops == MAX_LINKS) {
            free(cur);
            errno = ELOOP;
            return NULL;
        }
        char *link = read_link(cur, (size_t)st.st_size);
        if (link == NULL) {
            const int e = errno;
            free(cur);
            errno = e;
            return NULL;
        }
        if (link[0] == '/') {
            free(cur);
            cur = link;
            continue;
        }
        const size_t dir = dir_prefix_len(cur), linkLen = strlen(link);
        char *next = malloc(dir + linkLen + 1);
        if (next == NULL) {
            free(link);
            free(cur);
            errno = ENOMEM;
            return NULL;
        }
        memcpy(next, cur, dir);
        memcpy(next + dir, link, linkLen + 1);
        free(link);
        free(cur);
        cur = next;
    }
}

/* Flushes the directory that holds path, so that a rename in it outlives a
 * crash. Best effort: the new file is complete either way, and some file
 * systems cannot flush a directory. */
static void sync_dir_of(const char *path) {
    /* "a/b/name" gives "a/b", "/name" gives "/", "name" gives ".". */
    const size_t dir = dir_prefix_len(path);
    const size_t len = dir > 1 ? dir - 1 : 1;
    char *name = malloc(len + 1);
    if (name == NULL) return;
    memcpy(name, dir == 0 ? "." : path, len);
    name[len] = '\0';
    const int fd = open(name, O_RDONLY | O_DIRECTORY | O_NOCTTY | O_CLOEXEC);
    free(name);
    if (fd < 0) return;
    (void)fsync(fd);
    (void)close(fd);
}

/* ---- the temporary file ---- */

/* A number unlikely to repeat between processes and calls: the pid, the
 * clock and a counter, mixed (splitmix64's finaliser). Exclusive creation
 * makes a repeat harmless; this only keeps retries rare. */
static uint64_t temp_suffix(void) {
    static atomic_ulong counter;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    uint64_t x = ((uint64_t)getpid() << 40) ^ ((uint64_t)ts.tv_sec << 30) ^ (uint64_t)ts.tv_nsec ^
                 ((uint64_t)atomic_fetch_add(&counter, 1) * 0x9E3779B97F4A7C15ull);
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 31;
    return x;
}

/* Creates a new file beside target, named after it but hidden
 * (".name.0123456789abcdef"), so nothing that lists or globs the directory
 * takes it for the file. Exclusive (never an existing file or a link planted
 * there), not inherited by programs this process starts. Returns the
 * descriptor and the name in *tmpOut; -1 with errno. */
static int create_temp(const char *target, mode_t mode, char **tmpOut) {
    const size_t dir = dir_prefix_len(target);
    const char *base = target + dir;
    size_t baseLen = strlen(base);
    if (baseLen > TEMP_BASE_MAX) baseLen = TEMP_BASE_MAX;
    const size_t cap = dir + 1 + baseLen + 1 + 16 + 1;
    char *tmp = malloc(cap);
    if (tmp == NULL) return -1;
    for (int attempt = 0; attempt < 100; attempt++) {
        (void)snprintf(tmp, cap, "%.*s.%.*s.%016llx", (int)dir, target, (int)baseLen, base,
                       (unsigned long long)temp_suffix());
        const int fd =
            open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, mode);
        if (fd >= 0) {
            *tmpOut = tmp;
            return fd;
        }
        if (errno != EEXIST) break;
    }
    const int e = errno;
    free(tmp);
    errno = e;
    return -1;
}

/* Gives the new file the old one's owner, group and permission bits. The
 * owner and group only where this process may set them: an ordinary user
 * cannot give a file away (EPERM), but may still hand it to one of its own
 * groups; ids that this user namespace does not map are refused with EINVAL.
 * The bits always, after the owner (a change of owner clears set-id bits).
 * The errno of a failure that must stop the commit, or 0. */
static int keep_owner_and_mode(int fd, const struct stat *old) {
    struct stat now;
    if (fstat(fd, &now) != 0) return errno;
    if (now.st_uid != old->st_uid || now.st_gid != old->st_gid) {
        if (fchown(fd, old->st_uid, old->st_gid) != 0) {
            if (errno != EPERM && errno != EINVAL) return errno;
            if (now.st_gid != old->st_gid && fchown(fd, (uid_t)-1, old->st_gid) != 0 &&
                errno != EPERM && errno != EINVAL)
                return errno;
        }
    }
    if (fchmod(fd, old->st_mode & 07777) != 0) return errno;
    return 0;
}

/* fsync, where a file system that cannot flush (EINVAL) is no failure. */
static int flush_to_disk(int fd) {
    return fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
}

enum { SAVED = 0, FAILED = -1, WRITE_IN_PLACE = 1 };

/* Whether a failure to create the temporary file means that this process
 * may not create files in the directory at all (rather than that the disk is
 * full or the path wrong), so that only writing the file itself is left. */
static int no_file_can_be_made(int e) {
    return e == EACCES || e == EPERM || e == EROFS;
}

/* The new text into a temporary file, renamed over target. old is the
 * target's status, NULL when it does not exist. SAVED; FAILED with errno,
 * target untouched; WRITE_IN_PLACE when target can only be rewritten. */
static int replace_file(const char *target, const struct stat *old, cfg_produce_fn produce,
                        void *context) {
    char *tmp = NULL;
    /* A new file starts private and gets the old one's bits once written; a
     * file that did not exist gets what creating it would give (0666 less the
     * umask, applied by open). */
    const int fd = create_temp(target, old ? 0600 : 0666, &tmp);
    if (fd < 0) return no_file_can_be_made(errno) ? WRITE_IN_PLACE : FAILED;

    cfg_out out;
    int err = produce_into(fd, produce, context, &out, NULL);
    if (err == 0 && old) err = keep_owner_and_mode(fd, old);
    if (err == 0) err = flush_to_disk(fd);
    /* Some file systems report a failed write only at close. */
    if (close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && rename(tmp, target) != 0) err = errno;
    if (err != 0) {
        (void)unlink(tmp);
        free(tmp);
        /* A file that is a mount point (one bind-mounted into a container)
         * cannot be replaced, only rewritten. */
        if (err == EBUSY) return WRITE_IN_PLACE;
        errno = err;
        return FAILED;
    }
    free(tmp);
    sync_dir_of(target);
    return SAVED;
}

/* Reserves the blocks for len bytes from the start of fd without changing
 * its size, so that a full disk shows before anything is overwritten. Only
 * a lack of room counts; a file system without the call is written as is.
 * The errno of a lack of room, or 0. */
static int reserve_room(int fd, uint64_t len) {
#ifdef FALLOC_FL_KEEP_SIZE
    if (len > 0 && fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, (off_t)len) != 0 &&
        (errno == ENOSPC || errno == EDQUOT || errno == EFBIG))
        return errno;
#else
    (void)fd;
    (void)len;
#endif
    return 0;
}

/* The new text written into target itself, for where no file can be made
 * beside it. The text is formatted once before the file is opened, which
 * checks every piece and measures it; room for it is reserved; then the file
 * is overwritten from its start and cut to the new length (overwriting in
 * place needs no room beyond the reservation, where truncating first would
 * give the old blocks up before the new text is safe). A write that fails
 * after that leaves the start of the new text followed by what remains of
 * the old (see ncfg.h). 0, or -1 with errno. */
static int write_in_place(const char *target, cfg_produce_fn produce, void *context) {
    cfg_out out;
    uint64_t len = 0;
    int err = produce_into(-1, produce, context, &out, &len);
    if (err == 0 && len > (uint64_t)INT64_MAX) err = EFBIG;
    if (err != 0) {
        errno = err;
        return -1;
    }
    const int fd = open(target, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0)
        err = errno;
    else if (!S_ISREG(st.st_mode))
        err = EINVAL; /* swapped for something else since it was looked at */
    if (err == 0) err = reserve_room(fd, len);
    if (err == 0) err = produce_into(fd, produce, context, &out, NULL);
    if (err == 0 && ftruncate(fd, (off_t)len) != 0) err = errno;
    if (err == 0) err = flush_to_disk(fd);
    if (close(fd) != 0 && err == 0) err = errno;
    if (err != 0) {
        errno = err;
        return -1;
    }
    return 0;
}

int cfg_save(const char *path, cfg_produce_fn produce, void *context) {
    char *target = follow_links(path);
    if (target == NULL) return -1;
    struct stat st;
    const struct stat *old = NULL;
    if (stat(target, &st) == 0) {
        /* Only a regular file is replaced: a directory, FIFO or device in its
         * place is not the configuration file, whatever writing to it would
         * do. */
        if (!S_ISREG(st.st_mode)) {
            free(target);
            errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
            return -1;
        }
        /* The directory lets this process replace the file, but only the
         * file's own permissions let it change the file: one it could not
         * open for writing is left alone, as before there was a rename. */
        if (faccessat(AT_FDCWD, target, W_OK, AT_EACCESS) != 0) {
            const int e = errno;
            free(target);
            errno = e;
            return -1;
        }
        old = &st;
    } else if (errno != ENOENT) {
        const int e = errno;
        free(target);
        errno = e;
        return -1;
    }
    int r = replace_file(target, old, produce, context);
    if (r == WRITE_IN_PLACE) r = write_in_place(target, produce, context);
    const int e = errno;
    free(target);
    errno = e;
    return r == SAVED ? 0 : -1;
}

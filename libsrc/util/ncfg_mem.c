/*
 * Memory for a file's text and its entries.
 *
 * A large file's text and entries take about twice its size. From malloc,
 * blocks that large are mapped afresh at each load and unmapped when the
 * handle is done (glibc maps whatever is over its threshold), so each load
 * pays a page fault and the zeroing of a new page for every 4 KiB, at every
 * load: on virtual machines, where a fault costs several microseconds, more
 * than the parse itself. So the blocks from CFG_MEM_LARGE up are mapped here,
 * and the last ones let go of are kept for the next load. Their pages are
 * marked MADV_FREE: the kernel takes them back whenever it needs memory
 * (what it took reads as zeros and faults in afresh, like new memory), and
 * until it does, a load writes into them without a fault. Smaller blocks come
 * from malloc, which keeps them itself.
 *
 * Every block starts with a header, CFG_MEM_HEADER bytes before the pointer
 * handed out, that tells which kind it is and how much it can hold.
 */
#define _GNU_SOURCE /* MADV_FREE */

#include "ncfg_internal.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* Blocks from this size on are mapped and kept. */
#define CFG_MEM_LARGE ((size_t)1 << 20)
/* Kept blocks larger than this are given back at once: a program that loaded
 * one huge file keeps no more than this much per block. */
#define CFG_MEM_KEEP_MAX ((size_t)256 << 20)
/* How many blocks are kept: one load's text and its entries. */
#define CFG_MEM_KEPT 2

typedef struct cfg_mem_header {
    size_t capacity; /* bytes usable from the pointer handed out */
    size_t mapped;   /* length of the mapping it is part of; 0: from malloc */
} cfg_mem_header;

/* The header sits right before the pointer. A mapped block's pointer is
 * CFG_MEM_MAPPED_LEAD bytes into its mapping, so that it is aligned to a
 * cache line; a malloc'd one keeps malloc's 16-byte alignment. */
#define CFG_MEM_HEADER ((size_t)16)
#define CFG_MEM_MAPPED_LEAD ((size_t)64)

static pthread_mutex_t kept_lock = PTHREAD_MUTEX_INITIALIZER;
static struct {
    char *base;
    size_t mapped;
} kept[CFG_MEM_KEPT];

static cfg_mem_header *header_of(void *p) {
    return (cfg_mem_header *)(void *)((char *)p - CFG_MEM_HEADER);
}

static void *hand_out(char *base, size_t mapped) {
    char *p = base + CFG_MEM_MAPPED_LEAD;
    cfg_mem_header *head = header_of(p);
    head->capacity = mapped - CFG_MEM_MAPPED_LEAD;
    head->mapped = mapped;
    return p;
}

static size_t page_round(size_t n) {
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    return (n + page - 1) & ~(page - 1);
}

/* A kept block that holds size bytes, the smallest such, or a new mapping. */
static void *alloc_mapped(size_t size) {
    if (size > SIZE_MAX - CFG_MEM_MAPPED_LEAD - (size_t)(1 << 21)) return NULL;
    const size_t want = size + CFG_MEM_MAPPED_LEAD;
    pthread_mutex_lock(&kept_lock);
    int best = -1;
    for (int i = 0; i < CFG_MEM_KEPT; i++) {
        if (kept[i].base == NULL || kept[i].mapped < want) continue;
        if (best < 0 || kept[i].mapped < kept[best].mapped) best = i;
    }
    char *base = NULL;
    size_t mapped = 0;
    if (best >= 0) {
        base = kept[best].base;
        mapped = kept[best].mapped;
        kept[best].base = NULL;
    }
    pthread_mutex_unlock(&kept_lock);
    if (base != NULL) return hand_out(base, mapped);

    mapped = page_round(want);
    base = mmap(NULL, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (base == MAP_FAILED) return NULL;
#ifdef MADV_HUGEPAGE
    /* Where the system gives huge pages on request, a block this size faults
     * in 2 MiB at a time. */
    madvise(base, mapped, MADV_HUGEPAGE);
#endif
    return hand_out(base, mapped);
}

void *cfg_mem_alloc(size_t size) {
    if (size >= CFG_MEM_LARGE) return alloc_mapped(size);
    char *base = malloc(size + CFG_MEM_HEADER);
    if (base == NULL) return NULL;
    cfg_mem_header *head = (cfg_mem_header *)(void *)base;
    head->capacity = size;
    head->mapped = 0;
    return base + CFG_MEM_HEADER;
}

void *cfg_mem_realloc(void *p, size_t size) {
    if (p == NULL) return cfg_mem_alloc(size);
    cfg_mem_header *head = header_of(p);
    if (size <= head->capacity) return p;
    if (head->mapped == 0 && size < CFG_MEM_LARGE) {
        char *base = realloc(head, size + CFG_MEM_HEADER);
        if (base == NULL) return NULL;
        head = (cfg_mem_header *)(void *)base;
        head->capacity = size;
        return base + CFG_MEM_HEADER;
    }
    /* A larger mapped block, the bytes copied. Not mremap: tools that
     * follow memory (ThreadSanitizer) do not see pages move with it. A load
     * seldom gets here: it sizes its blocks before it fills them. */
    void *grown = alloc_mapped(size);
    if (grown == NULL) return NULL;
    memcpy(grown, p, head->capacity);
    cfg_mem_free(p);
    return grown;
}

void cfg_mem_free(void *p) {
    if (p == NULL) return;
    cfg_mem_header *head = header_of(p);
    if (head->mapped == 0) {
        free(head);
        return;
    }
    char *base = (char *)p - CFG_MEM_MAPPED_LEAD;
    size_t mapped = head->mapped;
    if (mapped > CFG_MEM_KEEP_MAX) {
        munmap(base, mapped);
        return;
    }
#ifdef MADV_FREE
    /* The kernel may take the pages back from now on; the header is written
     * again when the block is handed out. */
    madvise(base, mapped, MADV_FREE);
#endif
    /* Kept in a free place, else in place of the smallest kept block if this
     * one is larger; whichever is left over is unmapped. */
    pthread_mutex_lock(&kept_lock);
    int slot = -1;
    for (int i = 0; i < CFG_MEM_KEPT; i++) {
        if (kept[i].base == NULL) {
            slot = i;
            break;
        }
        if (slot < 0 || kept[i].mapped < kept[slot].mapped) slot = i;
    }
    if (kept[slot].base == NULL || kept[slot].mapped < mapped) {
        char *const evicted = kept[slot].base;
        const size_t evictedLength = kept[slot].mapped;
        kept[slot].base = base;
        kept[slot].mapped = mapped;
        base = evicted;
        mapped = evictedLength;
    }
    pthread_mutex_unlock(&kept_lock);
    if (base != NULL) munmap(base, mapped);
}

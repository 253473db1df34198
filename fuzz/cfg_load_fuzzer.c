/*
 * Loads arbitrary bytes as a configuration file, walks every entry and looks
 * up every section and key found, checking the handle's invariants on the way.
 */
#define _POSIX_C_SOURCE 200809L

#include "ncfg.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char path[64];

static int write_file(const uint8_t *data, size_t size) {
    FILE *f = fopen(path, "wb");
    if (!f) return -1;
    size_t n = size ? fwrite(data, 1, size, f) : 0;
    fclose(f);
    return n == size ? 0 : -1;
}

static void check(int cond) {
    if (!cond) abort();
}

/* Every string the parser hands out points into the handle's text. */
static int in_text(const TWK_CfgHandle *h, const char *s) {
    return s == NULL || (s >= h->text && s <= h->text + h->size);
}

int LLVMFuzzerInitialize(int *argc, char ***argv) {
    (void)argc;
    (void)argv;
    snprintf(path, sizeof path, "/tmp/cfg-fuzz-%ld.ini", (long)getpid());
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (write_file(data, size) != 0) return 0;

    TWK_CfgHandle *h = NULL;
    check(TWK_Cfg_init(&h, path) == 0);
    check(h->flags == TWK_CFG_LOADED);
    check(h->size == (int64_t)size);
    check(h->numEntries <= h->maxEntries);

    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        check(e->flags == 0);
        check(in_text(h, e->section) && in_text(h, e->id) && in_text(h, e->value) &&
              in_text(h, e->comment));
        check(e->section || e->value || e->comment);
        if (e->section) check(e->id == NULL && e->value == NULL && *e->section != '\0');
        if (e->id) check(e->value != NULL);
    }

    uint32_t visited = 0;
    check(TWK_Cfg_rewind(h) == 0);
    while (TWK_Cfg_nextentry(h) == 0) {
        const int type = h->flags & TWK_CFG_TYPEMASK;
        check(type >= TWK_CFG_SECTION && type <= TWK_CFG_CONTINUATION);
        visited++;
    }
    check(h->flags & TWK_CFG_ATEND);
    check(visited <= h->numEntries);

    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (e->section) check(TWK_Cfg_find(h, e->section, NULL) == 0);
    }
    /* Every key of the first section of each name is found by find. */
    for (uint32_t i = 0; i < h->numEntries; i++) {
        const TWK_CfgEntry *e = &h->entries[i];
        if (!e->section) continue;
        char *name = e->section;
        if (TWK_Cfg_find(h, name, NULL) != 0 || h->cursor != i + 1) continue;
        for (uint32_t j = i + 1; j < h->numEntries && !h->entries[j].section; j++) {
            const TWK_CfgEntry *k = &h->entries[j];
            if (k->id && k->value) check(TWK_Cfg_find(h, name, k->id) == 0);
        }
    }
    TWK_Cfg_find(h, "database", "lockfile");
    TWK_Cfg_find(h, "", "");

    check(TWK_Cfg_refresh(h) >= 0);
    TWK_Cfg_done(h);
    return 0;
}

/*
 * Internals shared by the reading and editing halves of the configuration
 * library. Not installed; callers use ncfg.h.
 */
#ifndef TWK_NCFG_INTERNAL_H
#define TWK_NCFG_INTERNAL_H

#include "ncfg.h"

/* Frees one entry's owned strings (by its ownership bits). */
void cfg_free_entry(TWK_CfgEntry *e);

/* Frees the text, every entry and the entries array, then zeroes the handle
 * except fileName and the mutex. The handle is left not loaded. */
void cfg_clear(TWK_CfgHandle *h);

/* Makes room for `more` entries beyond numEntries. With more == 1 the array
 * grows as the reader grows it (103 first, then by half plus one); larger
 * requests grow it by half plus the count needed. -1 when it cannot grow. */
int cfg_reserve(TWK_CfgHandle *h, uint32_t more);

/* Steps the cursor as TWK_Cfg_nextentry does, without locking. */
int32_t cfg_step(TWK_CfgHandle *h);

/* Index of the first section header matching name (stricmp), or -1. */
int64_t cfg_find_section(const TWK_CfgHandle *h, const char *name);

#endif

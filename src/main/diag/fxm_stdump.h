// The status dump, the library's one view of itself for people, and the task that writes it now and then.
#ifndef FXM_STDUMP_H
#define FXM_STDUMP_H

#include <cstdint>

// Writes the dump. Host threads and the stats task; two dumps at once mix by sections.
void _fxm_status_dump(uint32_t verbose);

void *_fxm_stats_task(void *); // thread entry

#endif

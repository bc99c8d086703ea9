// The status dump, a report of the whole library for people, and the task that writes it at intervals.
#ifndef FXM_STDUMP_H
#define FXM_STDUMP_H

#include <cstdint>

// Writes the dump. Runs on host threads and on the stats task; the lines of two dumps at once mix by sections.
void _fxm_status_dump(uint32_t verbose);

void *_fxm_stats_task(void *); // thread entry

#endif

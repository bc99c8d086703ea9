// The write locks: one for each card id ever seen, so that two host threads do not hold write-type conversations with
// one card at once. A lock outlives its card and a stop of the library.
#ifndef FXM_WREG_H
#define FXM_WREG_H

#include <cstdint>

int _fxm_reg_init(); // 0 or EPROTO; on a later start in the same process it keeps everything
void _fxm_reg_fini();

int _fxm_create_reg_lock_node(uint64_t id); // 0, EEXIST, ENOMEM, EPROTO; receive threads, under fx_lock

int FXM_WREG_LOCK(uint64_t id);   // 0 or ENOENT; without a time limit, with no lock held
int FXM_WREG_UNLOCK(uint64_t id); // 0 or ENOENT

#endif

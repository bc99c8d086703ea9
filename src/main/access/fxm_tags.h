// The tag table: ties the Completion that a card sends to the Register Read that it answers. A slot of the table is the
// whole state of a read in flight; nothing is allocated for a request.
//
// The order of a request: _fxm_get_tag; _fxm_send_regread, which arms the slot with _fxm_set_comp_recv_wait just before
// the frame leaves; _fxm_sigwait_comp; _fxm_get_readreg; for a retry again from the send with the same tag;
// _fxm_release_tag on every path.
#ifndef FXM_TAGS_H
#define FXM_TAGS_H

#include <cstdint>

int _fxm_cmp_init(); // 0 or EPROTO
int _fxm_cmp_fini(); // 0; wakes whoever waits

// Both keep a tag aside after a request that may still be answered: it is handed out again when its rest is over, or
// when all other tags are in use or rest too. 0, or -1 when all are in use.
int _fxm_get_tag(uint32_t *tag);
void _fxm_release_tag(uint32_t tag);
void _fxm_set_comp_recv_wait(uint32_t tag, uint64_t mac, uint32_t port); // arms: the answer must come from there
int _fxm_sigwait_comp(uint32_t tag, uint32_t timeout); // 0, ETIMEDOUT, EPROTO; a stop ends it early with ETIMEDOUT
int _fxm_get_readreg(uint32_t tag, uint32_t *data);    // 0, ENOENT no Completion yet, EPROTO

// A Completion has come: receive threads.
void _fxm_recv_comp(uint32_t tag, uint32_t port, uint64_t mac, uint32_t data);

#endif

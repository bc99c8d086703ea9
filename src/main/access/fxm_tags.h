// The tag table: ties the Completion that a card sends to the Register Read that it answers. A slot of the table is the
// whole state of a read in flight; a request allocates nothing.
//
// A request makes these calls: _fxm_get_tag; _fxm_send_regread, which arms the slot with _fxm_set_comp_recv_wait just
// before the frame leaves; _fxm_sigwait_comp; _fxm_get_readreg. A retry begins with the send and keeps the tag. Every
// path ends with _fxm_release_tag.
#ifndef FXM_TAGS_H
#define FXM_TAGS_H

#include <cstdint>

[[nodiscard]] int _fxm_cmp_init(); // 0 or EPROTO
int _fxm_cmp_fini();               // 0; wakes all waiting requests

// `waiting` is how long the request waits for answers at most, ms, all resends included. After a request that may still
// be answered its tag rests for that time, at least one second, while any other tag is free. 0, or -1 when all tags are
// in use.
[[nodiscard]] int _fxm_get_tag(uint32_t *tag, uint64_t waiting);
void _fxm_release_tag(uint32_t tag);

// Arms the slot: the answer must come from `mac` through `port`.
void _fxm_set_comp_recv_wait(uint32_t tag, uint64_t mac, uint32_t port);

// Waits for the Completion, `timeout` ms at most. 0, ETIMEDOUT, EPROTO; a stop gives ETIMEDOUT early.
[[nodiscard]] int _fxm_sigwait_comp(uint32_t tag, uint32_t timeout);

// 0 and the value, ENOENT without a Completion, EPROTO.
[[nodiscard]] int _fxm_get_readreg(uint32_t tag, uint32_t *data);

// Accepts a Completion. Runs on the receive threads.
void _fxm_recv_comp(uint32_t tag, uint32_t port, uint64_t mac, uint32_t data);

#endif

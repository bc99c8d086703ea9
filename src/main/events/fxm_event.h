// The event queue. A thread that notices a change queues an event with the card's id; the event task takes the events in
// order and calls the host. No host code runs on a receive thread or under a registry lock.
#ifndef FXM_EVENT_H
#define FXM_EVENT_H

#include <cstdint>

[[nodiscard]] int _fxm_event_cb_init(); // 0 or EPROTO
int _fxm_event_cb_fini();               // 0; no worker is left

[[nodiscard]] int _fxm_add_event(int32_t type, uint64_t id); // 0 or ENOMEM; any thread, also under fx_lock

// Queues an event. A failure is logged at WARN under the name of the caller, and the event is lost.
void _fxm_raise_event(const char *func, int32_t type, uint64_t id);

void *_fxm_event_task(void *); // thread entry

#endif

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

// Events of many cards, collected without a lock and queued together when the batch ends, in their order: one holding of
// the queue's lock and one signal. One thread uses it.
struct fxm_evt_chunk_t;
struct fxm_event_batch_t {
    fxm_event_batch_t() = default;
    ~fxm_event_batch_t();
    fxm_event_batch_t(const fxm_event_batch_t &) = delete;
    fxm_event_batch_t &operator=(const fxm_event_batch_t &) = delete;
    fxm_evt_chunk_t *first = nullptr;
    fxm_evt_chunk_t *last = nullptr;
};

// As _fxm_raise_event.
void _fxm_raise_batched(fxm_event_batch_t *batch, const char *func, int32_t type, uint64_t id);

void *_fxm_event_task(void *); // thread entry

#endif

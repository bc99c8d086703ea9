// The lock on the card that keeps other managers out of its EEPROM. A card has one of two kinds: a bit lock, or an ID
// lock with an arbiter. It runs on host threads that hold the card's write lock, so on one card one thread of the
// library at a time takes and releases it. Only fxm_unlock_eeprom releases it without the write lock.
#ifndef FXM_EEPROM_LOCK_H
#define FXM_EEPROM_LOCK_H

#include <cstdint>

#include "access/fxm_register.h"

// One kind of lock: its operations, and their names for messages. `retry` bounds each register access; the tries for
// the lock have their own configuration.
struct fxm_eeprom_lock_t {
    // Takes the lock. Of the flags, only FXM_FLAG_FORCELOCK matters. 0, EBUSY, ETIMEDOUT, ENOLINK, ENOSYS, EPROTO.
    int (*take)(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t flags);
    const char *take_name;
    // Releases the library's lock. 0, ETIMEDOUT, ENOLINK, ENOSYS, EPROTO.
    int (*give)(const fxm_card_data_t *card, const fxm_retry_t &retry);
    const char *give_name;
    // Releases a lock that was left behind: of all holders, this library among them, for the ID lock; of the other
    // holder only for the bit lock. Results as for `give`.
    int (*clear)(const fxm_card_data_t *card, const fxm_retry_t &retry);
    const char *clear_name;
};

// Asks the card which kind of lock it has. Results of _fxm_read_register; *lock is written on 0 only.
[[nodiscard]] int _fxm_get_locktype(const fxm_card_data_t *card, const fxm_eeprom_lock_t **lock,
                                    const fxm_retry_t &retry);

#endif

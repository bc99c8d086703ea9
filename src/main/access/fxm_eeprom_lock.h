// The lock on the card that keeps other managers out of its EEPROM: a bit lock, or an ID lock with an arbiter, as the
// card says. Threads of the host, which hold the card's write lock, so one thread of the library at a time plays it on
// a card.
#ifndef FXM_EEPROM_LOCK_H
#define FXM_EEPROM_LOCK_H

#include <cstdint>

#include "access/fxm_register.h"

// This library's bit in both kinds of lock.
constexpr uint32_t FXM_EEPROM_OWN_LOCK_BIT = 4;

// Of the register that says which kind of lock a card has.
constexpr uint32_t FXM_LOCKTYPE_ID = 1;

// The register's value; results of _fxm_read_register.
int _fxm_get_locktype(const fxm_card_data_t *card, uint32_t *locktype, uint32_t timeout, uint32_t retries);

// timeout and retries go to each register access; the tries for the lock have their own configuration. Of the flags
// FXM_FLAG_FORCELOCK matters. 0, EBUSY, ETIMEDOUT, ENOLINK, ENOSYS, EPROTO.
int _fxm_lock_eeprom(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t flags);
int _fxm_lock_eeprom_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t flags);

int _fxm_unlock_eeprom(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries);      // own bit
int _fxm_unlock_eeprom_impl(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries); // the other holder's bits
int _fxm_unlock_eeprom_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t mask);

// ENOSYS and EPROTO end whatever is under way, at every level; all other failures of a register access may pass.
inline bool _fxm_fatal(int err) { return err == ENOSYS || err == EPROTO; }

#endif

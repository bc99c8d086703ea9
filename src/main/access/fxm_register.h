// Register operations: reliable read, verified write, masked modify, range dump, and the live check. The EEPROM
// operations are built on them. They run on host threads.
#ifndef FXM_REGISTER_H
#define FXM_REGISTER_H

#include <cerrno>
#include <cstdint>

#include "fxm.h"

// How an operation retries its register accesses.
struct fxm_retry_t {
    uint32_t timeout; // wait for one answer, ms
    uint32_t retries; // further attempts after the first
};

// Addresses of registers and of EEPROM words are multiples of 4.
inline bool _fxm_aligned(uint32_t addr) { return (addr & 3) == 0; }

// `card` is the operation's copy of the card's data, never a table node, so all attempts of an operation use one
// channel. Only the live check writes to it, and only to fcd_state. Of the flags, only FXM_FLAG_VERIFY matters.
// Results: 0, ENOLINK, ETIMEDOUT, EPROTO, ENOSYS. *data is written on 0 only.
[[nodiscard]] int _fxm_read_register(const fxm_card_data_t *card, uint32_t addr, uint32_t *data,
                                     const fxm_retry_t &retry);
[[nodiscard]] int _fxm_write_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data,
                                      const fxm_retry_t &retry, uint32_t flags);
[[nodiscard]] int _fxm_modify_register(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t mask,
                                       const fxm_retry_t &retry, uint32_t flags);

// Whether a result ends the whole operation: the library is stopping, or a system service has failed. Any other failure
// may pass, and the EEPROM operations try again.
inline bool _fxm_fatal(int err) { return err == ENOSYS || err == EPROTO; }

// Makes sure that `card` has a channel to use: 0, ENOLINK, EPROTO, ENOSYS.
[[nodiscard]] int _fxm_livecheck(fxm_card_data_t *card);

#endif

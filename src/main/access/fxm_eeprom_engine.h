// The transfer engine: moves one word of a card's EEPROM in either direction, through the engine behind the card's
// registers. It runs on host threads that hold the card's write lock and the lock on the card.
#ifndef FXM_EEPROM_ENGINE_H
#define FXM_EEPROM_ENGINE_H

#include <cstdint>

#include "access/fxm_register.h"
#include "fxm.h"

// retry bounds each register access, and its count also bounds the attempts to move the word. Of the flags, only
// FXM_FLAG_VERIFY matters. 0, ETIMEDOUT, ENOSYS, EPROTO. *data is written on 0 only.
[[nodiscard]] int _fxm_read_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t *data,
                                   const fxm_retry_t &retry);
[[nodiscard]] int _fxm_write_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t data, const fxm_retry_t &retry,
                                    uint32_t flags);

#endif

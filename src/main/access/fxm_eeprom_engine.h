// The transfer engine: moves one word of a card's EEPROM, either way, through the engine behind the card's registers.
// Threads of the host, which hold the card's write lock and the lock on the card.
#ifndef FXM_EEPROM_ENGINE_H
#define FXM_EEPROM_ENGINE_H

#include <cstdint>

#include "fxm.h"

// retries bounds each register access and the attempts for the word. 0, ETIMEDOUT, ENOSYS, EPROTO.
int _fxm_read_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, uint32_t timeout, uint32_t retries);
int _fxm_write_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t timeout, uint32_t retries,
                      uint32_t flags);

#endif

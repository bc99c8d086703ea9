// The five frames to a card, one function each. Each function picks the first connected channel of the caller's copy of
// the card, builds the frame on its stack and hands it to the port. It does not wait or retry and takes no lock but the
// port's and the counters'. Any thread may call it. Results: 0; ENOLINK: no channel is connected; EPROTO: the capture
// library refused the frame.
#ifndef FXM_SEND_H
#define FXM_SEND_H

#include <cstdint>

#include "fxm.h"

[[nodiscard]] int _fxm_send_reset(const fxm_card_data_t *card, uint8_t status);
[[nodiscard]] int _fxm_send_mms(const fxm_card_data_t *card, uint32_t page, const void *data); // 128 bytes of data
[[nodiscard]] int _fxm_send_vlanset(const fxm_card_data_t *card, uint16_t vlanid);
[[nodiscard]] int _fxm_send_regwrite(const fxm_card_data_t *card, uint32_t addr, uint32_t data);
// Arms the tag's slot before the frame leaves, so that no answer can come too early. The Completion must come through
// the port and from the address that the frame goes to. When the send fails the slot stays armed until its release.
[[nodiscard]] int _fxm_send_regread(const fxm_card_data_t *card, uint32_t addr, uint32_t tag);

#endif

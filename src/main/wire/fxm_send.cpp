// Building and sending of the frames to a card. Runs on the threads of the host.
#include "wire/fxm_send.h"

#include <cerrno>
#include <cstring>

#include "access/fxm_tags.h"
#include "core/fxm_config.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_port.h"

// The first channel with state 1 in the order P0M0, P0M1, P1M0, P1M1; false when there is none.
static bool _select_send_channel(const fxm_card_data_t *card, uint32_t *port, uint32_t *mac_index)
{
    for (*port = 0; *port < FXM_PORT_NUM; ++*port) {
        for (*mac_index = 0; *mac_index < 2; ++*mac_index) {
            if (card->fcd_state[*port][*mac_index] == 1)
                return true;
        }
    }
    return false;
}

static uint16_t _tci(const fxm_card_data_t *card)
{
    return static_cast<uint16_t>(FXM_TCI_PRIORITY | (card->fcd_vlan_id & FXM_VLAN_MASK));
}

static void _set_frame_macs(const fxm_card_data_t *card, uint32_t port, uint32_t mac_index, uint8_t *frame)
{
    memcpy(frame + ETH_DST.at, card->fcd_macaddr, sizeof(card->fcd_macaddr));
    if (mac_index == 1)
        frame[ETH_DST.at + 5] |= 1;
    put_mac48(frame, ETH_SRC, fxm_ports[port].pt_mac);
}

static void _set_frame_header(const fxm_card_data_t *card, uint32_t port, uint32_t mac_index, uint8_t *frame)
{
    _set_frame_macs(card, port, mac_index, frame);
    put_be16(frame, ETH_TAG_TPID, FXM_TPID);
    put_be16(frame, ETH_TAG_TCI, _tci(card));
    put_be16(frame, ETH_TAG_TYPE, g_config.ether_type);
}

static void _set_frame_header_change(const fxm_card_data_t *card, uint32_t port, uint32_t mac_index, uint8_t *frame)
{
    _set_frame_macs(card, port, mac_index, frame);
    put_be16(frame, ETH_CHANGE_TYPE, g_config.ether_type);
    put_be16(frame, ETH_CHANGE_TPID, FXM_TPID);
    put_be16(frame, ETH_CHANGE_TCI, _tci(card));
}

// Fills the header and the bytes that all five frames have.
static void _set_frame(const fxm_card_data_t *card, uint8_t subtype, uint32_t port, uint32_t mac_index, uint8_t *frame)
{
    put_u8(frame, FRAME_SUBTYPE, subtype);
    put_u8(frame, OUT_FF0, 0xFF);
    put_u8(frame, OUT_FF1, 0xFF);
    if (card->fcd_vlan_mode == FXM_VLAN_MODE_NORMAL)
        _set_frame_header(card, port, mac_index, frame);
    else
        _set_frame_header_change(card, port, mac_index, frame);
}

// A Reset goes through the card's channel, on its VLAN and in its layout, but to the broadcast address.
static void _set_reset_frame(const fxm_card_data_t *card, uint8_t status, uint32_t port, uint32_t mac_index,
                             uint8_t *frame)
{
    _set_frame(card, FXM_SUBTYPE_RESET, port, mac_index, frame);
    put_u8(frame, RESET_STATUS, status);
    put_mac48(frame, ETH_DST, g_config.broadcast_mac);
}

static const char *const SEND_PORT_ERROR = "Send port error.";

// The steps of every sender: pick the channel, zero the frame, let `fill` write it, send it, count it.
template <uint32_t Length = FXM_LEN_OUT, typename Fill>
static int _build_and_send(const char *func, const char *no_channel, fxm_stats_frame_t kind,
                           const fxm_card_data_t *card, Fill fill)
{
    uint32_t port = 0;
    uint32_t mac_index = 0;
    if (!_select_send_channel(card, &port, &mac_index)) {
        fxm_log_error("%s: %s", func, no_channel);
        return ENOLINK;
    }
    uint8_t frame[Length] = {};
    fill(port, mac_index, frame);
    const int err = _fxm_send(port, frame, Length);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_send(). err=%d", func, err);
        return err;
    }
    _fxm_stats_frame(port, kind, FXM_STATS_T_TOTAL);
    return 0;
}

int _fxm_send_reset(const fxm_card_data_t *card, uint8_t status)
{
    return _build_and_send(__func__, SEND_PORT_ERROR, FXM_STATS_T_RESET, card,
                           [=](uint32_t port, uint32_t mac_index, uint8_t *frame) {
                               _set_reset_frame(card, status, port, mac_index, frame);
                           });
}

int _fxm_send_mms(const fxm_card_data_t *card, uint32_t page, const void *data)
{
    return _build_and_send<FXM_LEN_OUT_MMS>(__func__, SEND_PORT_ERROR, FXM_STATS_T_MMS, card,
                                            [=](uint32_t port, uint32_t mac_index, uint8_t *frame) {
                                                _set_frame(card, FXM_SUBTYPE_MMS, port, mac_index, frame);
                                                put_be32(frame, MMS_PAGE, page);
                                                memcpy(frame + MMS_DATA.at, data, FXM_MMS_PAGE_SIZE);
                                            });
}

int _fxm_send_vlanset(const fxm_card_data_t *card, uint16_t vlanid)
{
    return _build_and_send(__func__, SEND_PORT_ERROR, FXM_STATS_T_VLANSET, card,
                           [=](uint32_t port, uint32_t mac_index, uint8_t *frame) {
                               _set_frame(card, FXM_SUBTYPE_VLANSET, port, mac_index, frame);
                               put_be16(frame, VLANSET_VLAN, vlanid);
                           });
}

int _fxm_send_regwrite(const fxm_card_data_t *card, uint32_t addr, uint32_t data)
{
    return _build_and_send(__func__, SEND_PORT_ERROR, FXM_STATS_T_REGW, card,
                           [=](uint32_t port, uint32_t mac_index, uint8_t *frame) {
                               _set_frame(card, FXM_SUBTYPE_REGW, port, mac_index, frame);
                               put_be32(frame, REGW_ADDR, _fxm_encode_address(addr));
                               put_le32(frame, REGW_DATA, data);
                           });
}

int _fxm_send_regread(const fxm_card_data_t *card, uint32_t addr, uint32_t tag)
{
    return _build_and_send(__func__, "Sendable port don't exist.", FXM_STATS_T_REGR, card,
                           [=](uint32_t port, uint32_t mac_index, uint8_t *frame) {
                               _set_frame(card, FXM_SUBTYPE_REGR, port, mac_index, frame);
                               put_u8(frame, REGR_TAG, static_cast<uint8_t>(tag));
                               put_be32(frame, REGR_ADDR, _fxm_encode_address(addr));
                               _fxm_set_comp_recv_wait(tag, mac48(frame, ETH_DST), port);
                           });
}

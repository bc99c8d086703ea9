// Building and sending of the frames to a card. Runs on the threads of the host.
#include "wire/fxm_send.h"

#include <cerrno>
#include <cstring>

#include "core/fxm_config.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "wire/fxm_frame.h"
#include "wire/fxm_port.h"

struct channel_t {
    uint32_t port;
    uint32_t mac_index;
};

// The first channel with state 1 in the order P0M0, P0M1, P1M0, P1M1; false when there is none.
static bool _select_send_channel(const fxm_card_data_t *card, channel_t *channel)
{
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        for (uint32_t mac_index = 0; mac_index < 2; ++mac_index) {
            if (card->fcd_state[port][mac_index] == 1) {
                *channel = {port, mac_index};
                return true;
            }
        }
    }
    return false;
}

static uint16_t _tci(const fxm_card_data_t *card)
{
    return static_cast<uint16_t>(FXM_TCI_PRIORITY | (card->fcd_vlan_id & FXM_VLAN_MASK));
}

static void _set_frame_macs(const fxm_card_data_t *card, const channel_t &channel, uint8_t *frame)
{
    memcpy(frame + ETH_DST.at, card->fcd_macaddr, sizeof(card->fcd_macaddr));
    if (channel.mac_index == 1)
        frame[ETH_DST.at + 5] |= 1;
    put_mac48(frame, ETH_SRC, fxm_ports[channel.port].pt_mac);
}

static void _set_frame_header(const fxm_card_data_t *card, const channel_t &channel, uint8_t *frame)
{
    _set_frame_macs(card, channel, frame);
    put_be16(frame, ETH_TAG_TPID, FXM_TPID);
    put_be16(frame, ETH_TAG_TCI, _tci(card));
    put_be16(frame, ETH_TAG_TYPE, g_config.ether_type);
}

static void _set_frame_header_change(const fxm_card_data_t *card, const channel_t &channel, uint8_t *frame)
{
    _set_frame_macs(card, channel, frame);
    put_be16(frame, ETH_CHANGE_TYPE, g_config.ether_type);
    put_be16(frame, ETH_CHANGE_TPID, FXM_TPID);
    put_be16(frame, ETH_CHANGE_TCI, _tci(card));
}

// What tells one sender from another, beside its body.
struct sender_t {
    const char *func;
    uint8_t subtype;
    fxm_stats_frame_t kind;
    const char *no_channel;
};

static const char *const SEND_PORT_ERROR = "Send port error.";

// The steps of every sender: channel, zeroed frame, header, body, port, counters. `fill` writes the body, may
// overwrite the header, and gives back what is to be done once the frame has left.
template <uint32_t Length = FXM_LEN_OUT, typename Fill>
static int _build_and_send(const sender_t &sender, const fxm_card_data_t *card, Fill fill)
{
    channel_t channel{};
    if (!_select_send_channel(card, &channel)) {
        fxm_log_error("%s: %s", sender.func, sender.no_channel);
        return ENOLINK;
    }
    uint8_t frame[Length] = {};
    put_u8(frame, FRAME_SUBTYPE, sender.subtype);
    put_u8(frame, OUT_FF0, 0xFF);
    put_u8(frame, OUT_FF1, 0xFF);
    if (card->fcd_vlan_mode == FXM_VLAN_MODE_NORMAL)
        _set_frame_header(card, channel, frame);
    else
        _set_frame_header_change(card, channel, frame);
    const auto on_sent = fill(frame, channel);

    const int err = _fxm_send(channel.port, frame, Length);
    if (err != 0) {
        fxm_log_error("%s: Failed to _fxm_send(). err=%d", sender.func, err);
        return err;
    }
    on_sent();
    _fxm_stats_frame(channel.port, sender.kind, FXM_STATS_T_TOTAL);
    return 0;
}

static void _nothing() {}

int _fxm_send_reset(const fxm_card_data_t *card, uint8_t status)
{
    const sender_t sender = {__func__, FXM_SUBTYPE_RESET, FXM_STATS_T_RESET, SEND_PORT_ERROR};
    return _build_and_send(sender, card, [=](uint8_t *frame, const channel_t &) {
        put_u8(frame, RESET_STATUS, status);
        // The card's channel, VLAN and layout, but everybody's address.
        put_mac48(frame, ETH_DST, g_config.broadcast_mac);
        return _nothing;
    });
}

int _fxm_send_mms(const fxm_card_data_t *card, uint32_t page, const void *data)
{
    const sender_t sender = {__func__, FXM_SUBTYPE_MMS, FXM_STATS_T_MMS, SEND_PORT_ERROR};
    return _build_and_send<FXM_LEN_OUT_MMS>(sender, card, [=](uint8_t *frame, const channel_t &) {
        put_be32(frame, MMS_PAGE, page);
        memcpy(frame + MMS_DATA.at, data, FXM_MMS_PAGE_SIZE);
        return _nothing;
    });
}

int _fxm_send_vlanset(const fxm_card_data_t *card, uint16_t vlanid)
{
    const sender_t sender = {__func__, FXM_SUBTYPE_VLANSET, FXM_STATS_T_VLANSET, SEND_PORT_ERROR};
    return _build_and_send(sender, card, [=](uint8_t *frame, const channel_t &) {
        put_be16(frame, VLANSET_VLAN, vlanid);
        return _nothing;
    });
}

int _fxm_send_regwrite(const fxm_card_data_t *card, uint32_t addr, uint32_t data)
{
    const sender_t sender = {__func__, FXM_SUBTYPE_REGW, FXM_STATS_T_REGW, SEND_PORT_ERROR};
    return _build_and_send(sender, card, [=](uint8_t *frame, const channel_t &) {
        put_be32(frame, REGW_ADDR, _fxm_encode_address(addr));
        put_le32(frame, REGW_DATA, data);
        return _nothing;
    });
}

int _fxm_send_regread(const fxm_card_data_t *card, uint32_t addr, uint32_t tag, uint64_t *mac, uint32_t *port)
{
    const sender_t sender = {__func__, FXM_SUBTYPE_REGR, FXM_STATS_T_REGR, "Sendable port don't exist."};
    return _build_and_send(sender, card, [=](uint8_t *frame, const channel_t &channel) {
        put_u8(frame, REGR_TAG, static_cast<uint8_t>(tag));
        put_be32(frame, REGR_ADDR, _fxm_encode_address(addr));
        return [=] {
            *mac = mac48(frame, ETH_DST);
            *port = channel.port;
        };
    });
}

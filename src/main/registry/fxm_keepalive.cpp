// Keepalive and connection state: a card that disappears sends no frame about it, so silence decides. The pass runs on
// the thread that called fxm_init_manager, the disconnection of a port on the link watcher. fx_lock serialises the two.
// Events are only queued here.
#include "registry/fxm_keepalive.h"

#include <algorithm>
#include <cstdint>

#include "core/fxm_config.h"
#include "events/fxm_event.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

// A card raises one pair of events, however many of its channels went down.
template <typename Class>
static void _report_disconnect(const char *func, const fxm_card_data_t &card, fxm_event_batch_t *events)
{
    _fxm_raise_batched(events, func, FXM_EVT_UPDATEDEVINFO, card.fcd_id);
    _fxm_raise_batched(events, func, FXM_EVT_CHANNELSTATECHANGE, card.fcd_id);
    fxm_log_info("%s: %s id=0x%.12llx state change to disconnect. %s", func, Class::word, _ull(card.fcd_id),
                 fxm_channels_text_t(card).text);
}

static bool _expire_channels(fxm_card_data_t *card, uint64_t now)
{
    bool changed = false;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        for (uint32_t mac = 0; mac < 2; ++mac) {
            if (card->fcd_state[port][mac] != 0 &&
                card->fcd_recvtime[port][mac] + g_config.devinfo_expire_time <= now) {
                card->fcd_state[port][mac] = 0;
                changed = true;
            }
        }
    }
    return changed;
}

// Whether the card's channels have changed, so that the events are due.
static bool _update_keepalive_state(fxm_card_data_t *card, uint32_t *ignore_state, uint32_t *check_count, uint64_t now)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    switch (*ignore_state) {
    case FXM_WATCH:
        if (!_expire_channels(card, now))
            return false;
        break;
    case FXM_IGNORE:
        return false;
    case FXM_WATCH_RESTART:
        // It lasts as many passes as a silent channel takes to expire. The stored times do not count, because nobody
        // watched the card while they grew old.
        *check_count += 1;
        if (*check_count < g_config.devinfo_expire_time / g_config.devinfo_check_interval + 1)
            return false;
        *ignore_state = FXM_WATCH;
        for (auto &states : card->fcd_state)
            states[0] = states[1] = 0;
        break;
    default:
        fxm_log_warn("%s: Unknown ignore_state. state=%d", __func__, static_cast<int>(*ignore_state));
        return false;
    }
    card->fcd_updatetime = now;
    return true;
}

template <typename Class>
static void _check_class(const char *func, uint64_t now, fxm_event_batch_t *events) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    // Most passes find nothing: then they have read the seats, and no node.
    const uint64_t limit = now - std::min(now, uint64_t{g_config.devinfo_expire_time});
    if (!_fxm_roster_any_heard_by(&Class::roster(), limit))
        return;
    const auto wanted = [=](const fxm_seat_t &seat) { return seat.watch.oldest <= limit; };
    _fxm_each_card<Class>(wanted, [=](typename Class::node_t *node, fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        if (_update_keepalive_state(&card, &Class::ignore_state(node), &Class::check_count(node), now))
            _report_disconnect<Class>(func, card, events);
        _fxm_update_seat<Class>(seat);
        return true;
    });
}

void _devinfo_keepalive_check()
{
    const uint64_t now = _fxm_get_time_ms();
    fxm_event_batch_t events;
    _check_class<fxsv_class>(__func__, now, &events);
    _check_class<fxio_class>(__func__, now, &events);
}

template <typename Class>
static void _disconnect_class(const char *func, uint32_t port, uint64_t now, fxm_event_batch_t *events)
    FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const auto wanted = [=](const fxm_seat_t &seat) { return (seat.watch.ports >> port & 1) != 0; };
    _fxm_each_card<Class>(wanted, [=](typename Class::node_t *node, fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        uint32_t *states = card.fcd_state[port];
        fxm_assert(Class::ignore_state(node) != FXM_IGNORE && (states[0] != 0 || states[1] != 0));
        states[0] = states[1] = 0;
        card.fcd_updatetime = now;
        _report_disconnect<Class>(func, card, events);
        _fxm_update_seat<Class>(seat);
        return true;
    });
}

void _fxm_all_disconnect(uint32_t port)
{
    fxm_assert(port < FXM_PORT_NUM);
    const uint64_t now = _fxm_get_time_ms();
    fxm_event_batch_t events;
    _disconnect_class<fxsv_class>(__func__, port, now, &events);
    _disconnect_class<fxio_class>(__func__, port, now, &events);
}

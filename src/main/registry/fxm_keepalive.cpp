// Keepalive and connection state: no frame says that a card has gone. The pass runs on the caller's thread of
// fxm_init_manager, the disconnection of a port on the link watcher; fx_lock keeps them apart. Events are only queued.
#include "registry/fxm_keepalive.h"

#include <cstdint>

#include "core/fxm_config.h"
#include "events/fxm_event.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

// One pair of events for a card, however many of its channels have gone.
template <typename Class> static void _report_disconnect(const char *func, const fxm_card_data_t &card)
{
    _fxm_raise_event(func, FXM_EVT_UPDATEDEVINFO, card.fcd_id);
    _fxm_raise_event(func, FXM_EVT_CHANNELSTATECHANGE, card.fcd_id);
    fxm_log_info("%s: %s id=0x%.12llx state change to disconnect. " FXM_CHANNELS_FORMAT, func, Class::word,
                 _ull(card.fcd_id), FXM_CHANNELS_ARGS(card));
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

// 1 when the card's channels have changed and the events are due, else 0.
static int _update_keepalive_state(fxm_card_data_t *card, uint32_t *ignore_state, uint32_t *check_count, uint64_t now)
{
    switch (*ignore_state) {
    case FXM_WATCH:
        if (!_expire_channels(card, now))
            return 0;
        break;
    case FXM_IGNORE:
        return 0;
    case FXM_WATCH_RESTART:
        // As many passes as a silent channel would take to expire. The old times say nothing: the card was not watched.
        *check_count += 1;
        if (*check_count < g_config.devinfo_expire_time / g_config.devinfo_check_interval + 1)
            return 0;
        *ignore_state = FXM_WATCH;
        for (auto &states : card->fcd_state)
            states[0] = states[1] = 0;
        break;
    default:
        fxm_log_warn("%s: Unknown ignore_state. state=%d", __func__, static_cast<int>(*ignore_state));
        return 0;
    }
    card->fcd_updatetime = now;
    return 1;
}

template <typename Class> static void _check_class(const char *func, uint64_t now)
{
    _fxm_each_node<Class>([=](typename Class::node_t *node) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        if (_update_keepalive_state(&card, &Class::ignore_state(node), &Class::check_count(node), now) == 1)
            _report_disconnect<Class>(func, card);
        return true;
    });
}

void _devinfo_keepalive_check()
{
    const uint64_t now = _fxm_get_time_ms();
    _check_class<fxsv_class>(__func__, now);
    _check_class<fxio_class>(__func__, now);
}

template <typename Class> static void _disconnect_class(const char *func, int port, uint64_t now)
{
    _fxm_each_node<Class>([=](typename Class::node_t *node) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        uint32_t *states = card.fcd_state[port];
        if (Class::ignore_state(node) == FXM_IGNORE || (states[0] == 0 && states[1] == 0))
            return true;
        states[0] = states[1] = 0;
        card.fcd_updatetime = now;
        _report_disconnect<Class>(func, card);
        return true;
    });
}

void _fxm_all_disconnect(int port)
{
    const uint64_t now = _fxm_get_time_ms();
    _disconnect_class<fxsv_class>(__func__, port, now);
    _disconnect_class<fxio_class>(__func__, port, now);
}

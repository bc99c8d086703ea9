// Both kinds of EEPROM lock. The library keeps no record of a lock: the card's registers hold it, and the caller knows
// what it took.
#include "access/fxm_eeprom_lock.h"

#include <cerrno>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "fxm_log4cxxif.h"

// Addresses, the same for every generation of card.
constexpr uint32_t FXM_REG_EEPROM_LOCK = 0x50F0;     // bit lock: a bit for each holder
constexpr uint32_t FXM_REG_ID_LOCK_OWNER = 0x5200;   // write: requests the lock; read: the bit of the holder
constexpr uint32_t FXM_REG_ID_LOCK_RELEASE = 0x5204; // write: removes these holders
constexpr uint32_t FXM_REG_ID_LOCK_PENDING = 0x5208; // read: the registered holders, granted or not
constexpr uint32_t FXM_REG_LOCKTYPE = 0x520C;

constexpr uint32_t FXM_LOCKTYPE_ID = 1;         // in FXM_REG_LOCKTYPE: the card has the ID lock
constexpr uint32_t FXM_EEPROM_OWN_LOCK_BIT = 4; // this library's bit in both kinds of lock
constexpr uint32_t FXM_ALL_HOLDERS = 0xFFFF;

// ------------------------------------------------------------------------------------------------- what both share

// The pause behind a failed try: none behind a failed access, which has waited already. 0, or ENOSYS after a stop.
static int _pause(int err) { return _fxm_sleep(err == EBUSY ? g_config.eeprom_retry_interval : 0); }

// What force can do when a pass ended with a failed access instead of EBUSY.
enum force_t { FXM_FORCE_ANY, FXM_FORCE_SEEN_HOLDER };

// Takes a lock in passes of tries, with force behind each pass but the last. `attempt` is one try: 0, EBUSY while
// somebody else holds the lock, or the failure of an access. `report` logs the failure of an attempt that ends it all.
// `force` removes the other holder.
template <typename Attempt, typename Report, typename Force>
static int _take(const char *func, uint32_t flags, force_t force_kind, Attempt attempt, Report report, Force force)
{
    for (uint32_t forced = 0;; ++forced) {
        if (_fxm_stopping())
            return ENOSYS;
        int err = 0;
        for (uint32_t tries = 0; tries <= g_config.eeprom_retry_count; ++tries) {
            err = attempt();
            if (err == 0)
                return 0;
            if (_fxm_fatal(err))
                break;
            if (_pause(err) != 0)
                return ENOSYS;
        }
        const bool may_force = force_kind == FXM_FORCE_ANY || err == EBUSY;
        if (_fxm_fatal(err) || !may_force || (flags & FXM_FLAG_FORCELOCK) == 0) {
            report(err);
            return err;
        }
        if (forced >= g_config.force_lock_try_count) {
            fxm_log_warn("%s: EEPROM access forcelock mode retry timedout.", func);
            return ETIMEDOUT;
        }
        err = force();
        if (err != 0)
            return err;
    }
}

// ---------------------------------------------------------------------------------------------------------- bit lock

static int _clear_bits(const fxm_card_data_t *card, uint32_t bits, const fxm_retry_t &retry)
{
    return _fxm_modify_register(card, FXM_REG_EEPROM_LOCK, 0, bits, retry, FXM_FLAG_VERIFY);
}

static int _fxm_unlock_eeprom(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    return _clear_bits(card, FXM_EEPROM_OWN_LOCK_BIT, retry);
}

static int _fxm_unlock_eeprom_impl(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    return _clear_bits(card, g_config.eeprom_lock_other_bit, retry);
}

// Clears the own bit after a lost watch. The result of the try is the loss, whatever happens here.
static void _back_off(const char *func, const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    const int err = _fxm_unlock_eeprom(card, retry);
    if (err != 0)
        fxm_log_trace("%s: Failed to _fxm_unlock_eeprom(). err=%d", func, err);
}

// Watches whether the bit has really won: if another holder wrote at the same moment, the register changes, in any of
// its bits.
static int _watch_lock(const char *func, const fxm_card_data_t *card, uint32_t wanted, const fxm_retry_t &retry)
{
    for (uint32_t looks = 0; looks < g_config.eeprom_verify_count; ++looks) {
        if (_fxm_sleep(g_config.eeprom_verify_interval) != 0)
            return ENOSYS;
        uint32_t value = 0;
        const int err = _fxm_read_register(card, FXM_REG_EEPROM_LOCK, &value, retry);
        if (_fxm_fatal(err))
            return err;
        if (err == 0 && value == wanted)
            continue;
        if (err != 0 || (value & FXM_EEPROM_OWN_LOCK_BIT) != 0)
            _back_off(func, card, retry);
        return err != 0 ? err : EBUSY;
    }
    return 0;
}

// One try.
static int _fxm_lock_eeprom_impl(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    uint32_t before = 0;
    int err = _fxm_read_register(card, FXM_REG_EEPROM_LOCK, &before, retry);
    if (err != 0)
        return err;
    if ((before & g_config.eeprom_lock_other_bit) != 0)
        return EBUSY; // the other holder counts even if the own bit is set too
    if ((before & FXM_EEPROM_OWN_LOCK_BIT) != 0)
        return 0; // held already, perhaps since an earlier call
    const uint32_t wanted = before | FXM_EEPROM_OWN_LOCK_BIT;
    err = _fxm_write_register(card, FXM_REG_EEPROM_LOCK, wanted, retry, FXM_FLAG_VERIFY);
    return err != 0 ? err : _watch_lock(__func__, card, wanted, retry);
}

static int _fxm_lock_eeprom(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t flags)
{
    const char *func = __func__;
    const auto attempt = [&] { return _fxm_lock_eeprom_impl(card, retry); };
    const auto report = [=](int err) { fxm_log_trace("%s: Failed to _fxm_lock_eeprom_impl(). err=%d", func, err); };
    const auto force = [&] {
        const int err = _fxm_unlock_eeprom_impl(card, retry);
        if (err != 0)
            fxm_log_trace("%s: Failed to _fxm_modify_register(). ret=%d", func, err);
        return err;
    };
    return _take(func, flags, FXM_FORCE_ANY, attempt, report, force);
}

// ----------------------------------------------------------------------------------------------------------- ID lock

// Writes `value` to `reg` until the pending register satisfies `done`: the card has accepted the request or release.
template <typename Done>
static int _write_until_pending(const fxm_card_data_t *card, uint32_t reg, uint32_t value, const fxm_retry_t &retry,
                                Done done)
{
    if (_fxm_stopping())
        return ENOSYS;
    if (value == 0)
        return 0; // there is no holder to remove
    for (uint32_t tries = 0; tries <= g_config.eeprom_retry_count; ++tries) {
        int err = _fxm_write_register(card, reg, value, retry, 0);
        uint32_t pending = 0;
        if (err == 0)
            err = _fxm_read_register(card, FXM_REG_ID_LOCK_PENDING, &pending, retry);
        if (_fxm_fatal(err))
            return err;
        if (err == 0 && done(pending))
            return 0;
        if (_pause(err == 0 ? EBUSY : err) != 0)
            return ENOSYS;
    }
    return ETIMEDOUT;
}

static int _fxm_lock_request_id(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    return _write_until_pending(card, FXM_REG_ID_LOCK_OWNER, FXM_EEPROM_OWN_LOCK_BIT, retry,
                                [](uint32_t pending) { return (pending & FXM_EEPROM_OWN_LOCK_BIT) != 0; });
}

static int _fxm_unlock_eeprom_id(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t mask)
{
    return _write_until_pending(card, FXM_REG_ID_LOCK_RELEASE, mask, retry,
                                [=](uint32_t pending) { return (pending & mask) == 0; });
}

// Waits until the lock is granted: the owner register shows the own bit and no other.
static int _fxm_lock_check_id(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t flags)
{
    const char *func = __func__;
    uint32_t owner = 0;
    const auto attempt = [&] {
        const int err = _fxm_read_register(card, FXM_REG_ID_LOCK_OWNER, &owner, retry);
        return err == 0 && owner != FXM_EEPROM_OWN_LOCK_BIT ? EBUSY : err;
    };
    const auto report = [=](int err) {
        if (err == EBUSY)
            fxm_log_trace("%s: Other have acquired the lock.", func);
        else if (!_fxm_fatal(err))
            fxm_log_trace("%s: Failed to _fxm_read_register(). err=%d", func, err);
    };
    // Removes the holder that the last try saw. The library's own request remains.
    const auto force = [&] { return _fxm_unlock_eeprom_id(card, retry, owner); };
    return _take(func, flags, FXM_FORCE_SEEN_HOLDER, attempt, report, force);
}

static int _fxm_lock_eeprom_id(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t flags)
{
    int err = _fxm_lock_request_id(card, retry);
    if (err != 0)
        return err;
    err = _fxm_lock_check_id(card, retry, flags);
    if (err == 0)
        return 0;
    const int undone = _fxm_unlock_eeprom_id(card, retry, FXM_EEPROM_OWN_LOCK_BIT);
    if (undone != 0)
        fxm_log_trace("%s: Failed to _fxm_unlock_eeprom_id(). err=%d", __func__, undone);
    return err;
}

static int _release_own_id(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    return _fxm_unlock_eeprom_id(card, retry, FXM_EEPROM_OWN_LOCK_BIT);
}

static int _release_all_ids(const fxm_card_data_t *card, const fxm_retry_t &retry)
{
    return _fxm_unlock_eeprom_id(card, retry, FXM_ALL_HOLDERS);
}

// ------------------------------------------------------------------------------------------------------- the two kinds

static const fxm_eeprom_lock_t bit_lock = {
    .take = _fxm_lock_eeprom,
    .take_name = "_fxm_lock_eeprom",
    .give = _fxm_unlock_eeprom,
    .give_name = "_fxm_unlock_eeprom",
    .clear = _fxm_unlock_eeprom_impl,
    .clear_name = "_fxm_unlock_eeprom_impl",
};
static const fxm_eeprom_lock_t id_lock = {
    .take = _fxm_lock_eeprom_id,
    .take_name = "_fxm_lock_eeprom_id",
    .give = _release_own_id,
    .give_name = "_fxm_unlock_eeprom_id",
    .clear = _release_all_ids,
    .clear_name = "_fxm_unlock_eeprom_id",
};

int _fxm_get_locktype(const fxm_card_data_t *card, const fxm_eeprom_lock_t **lock, const fxm_retry_t &retry)
{
    uint32_t locktype = 0;
    const int err = _fxm_read_register(card, FXM_REG_LOCKTYPE, &locktype, retry);
    if (err == 0)
        *lock = (locktype & FXM_LOCKTYPE_ID) != 0 ? &id_lock : &bit_lock;
    return err;
}

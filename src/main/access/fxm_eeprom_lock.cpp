// Both kinds of EEPROM lock. The library keeps no record of a lock: it lives in the card's registers and in the
// caller's knowledge of what it took.
#include "access/fxm_eeprom_lock.h"

#include <cerrno>

#include "core/fxm_config.h"

// Addresses, the same for every generation of card.
constexpr uint32_t FXM_REG_EEPROM_LOCK = 0x50F0;     // bit lock: a bit for each holder
constexpr uint32_t FXM_REG_ID_LOCK_OWNER = 0x5200;   // written: a request; read: the bit of the holder
constexpr uint32_t FXM_REG_ID_LOCK_RELEASE = 0x5204; // written: these holders are out
constexpr uint32_t FXM_REG_ID_LOCK_PENDING = 0x5208; // read: the holders that are registered, granted or not
constexpr uint32_t FXM_REG_LOCKTYPE = 0x520C;

int _fxm_get_locktype(const fxm_card_data_t *card, uint32_t *locktype, uint32_t timeout, uint32_t retries)
{
    return _fxm_read_register(card, FXM_REG_LOCKTYPE, locktype, timeout, retries);
}

// ---------------------------------------------------------------------------------------------------------- bit lock

int _fxm_unlock_eeprom(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries)
{
    return _fxm_modify_register(card, FXM_REG_EEPROM_LOCK, 0, FXM_EEPROM_OWN_LOCK_BIT, timeout, retries,
                                FXM_FLAG_VERIFY);
}

int _fxm_unlock_eeprom_impl(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries)
{
    return _fxm_modify_register(card, FXM_REG_EEPROM_LOCK, 0, g_config.eeprom_lock_other_bit, timeout, retries,
                                FXM_FLAG_VERIFY);
}

// Takes the own bit back after a lost watch; the loss stays the result.
static void _back_off(const char *func, const fxm_card_data_t *card, uint32_t timeout, uint32_t retries)
{
    const int err = _fxm_unlock_eeprom(card, timeout, retries);
    if (err != 0)
        fxm_log_trace("%s: Failed to _fxm_unlock_eeprom(). err=%d", func, err);
}

// Watches whether the bit has really won: a holder that wrote at the same moment shows as a change of the register, in
// whatever bit.
static int _watch_lock(const char *func, const fxm_card_data_t *card, uint32_t wanted, uint32_t timeout,
                       uint32_t retries)
{
    for (uint32_t looks = 0; looks < g_config.eeprom_verify_count; ++looks) {
        _fxm_sleep(g_config.eeprom_verify_interval);
        if (_fxm_stopping())
            return ENOSYS;
        uint32_t value = 0;
        const int err = _fxm_read_register(card, FXM_REG_EEPROM_LOCK, &value, timeout, retries);
        if (_fxm_fatal(err))
            return err;
        if (err != 0) {
            _back_off(func, card, timeout, retries);
            return err;
        }
        if (value == wanted)
            continue;
        if ((value & FXM_EEPROM_OWN_LOCK_BIT) != 0)
            _back_off(func, card, timeout, retries);
        return EBUSY;
    }
    return 0;
}

// One try.
static int _fxm_lock_eeprom_impl(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries)
{
    uint32_t before = 0;
    int err = _fxm_read_register(card, FXM_REG_EEPROM_LOCK, &before, timeout, retries);
    if (err != 0)
        return err;
    if ((before & g_config.eeprom_lock_other_bit) != 0)
        return EBUSY; // the other holder counts even if the own bit is set too
    if ((before & FXM_EEPROM_OWN_LOCK_BIT) != 0)
        return 0; // held, perhaps left behind by an earlier call
    const uint32_t wanted = before | FXM_EEPROM_OWN_LOCK_BIT;
    err = _fxm_write_register(card, FXM_REG_EEPROM_LOCK, wanted, timeout, retries, FXM_FLAG_VERIFY);
    return err != 0 ? err : _watch_lock(__func__, card, wanted, timeout, retries);
}

int _fxm_lock_eeprom(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t flags)
{
    for (uint32_t forced = 0;; ++forced) {
        int err = 0;
        for (uint32_t tries = 0; tries <= g_config.eeprom_retry_count; ++tries) {
            if (_fxm_stopping())
                return ENOSYS;
            err = _fxm_lock_eeprom_impl(card, timeout, retries);
            if (err == 0)
                return 0;
            if (_fxm_fatal(err))
                break;
            if (err == EBUSY)
                _fxm_sleep(g_config.eeprom_retry_interval);
        }
        if (!_fxm_fatal(err) && _fxm_stopping())
            return ENOSYS; // the stop has cut the last pause short
        if (_fxm_fatal(err) || (flags & FXM_FLAG_FORCELOCK) == 0) {
            fxm_log_trace("%s: Failed to _fxm_lock_eeprom_impl(). err=%d", __func__, err);
            return err;
        }
        if (forced >= g_config.force_lock_try_count) {
            fxm_log_warn("%s: EEPROM access forcelock mode retry timedout.", __func__);
            return ETIMEDOUT;
        }
        err = _fxm_unlock_eeprom_impl(card, timeout, retries);
        if (err != 0) {
            fxm_log_trace("%s: Failed to _fxm_modify_register(). ret=%d", __func__, err);
            return err;
        }
    }
}

// ----------------------------------------------------------------------------------------------------------- ID lock

// Writes `value` to `reg` until the pending register satisfies `done`: the card has taken the request, or the release.
// No pause after a failed access.
template <typename Done>
static int _write_until_pending(const fxm_card_data_t *card, uint32_t reg, uint32_t value, uint32_t timeout,
                                uint32_t retries, Done done)
{
    for (uint32_t tries = 0; tries <= g_config.eeprom_retry_count; ++tries) {
        if (_fxm_stopping())
            return ENOSYS;
        if (value == 0)
            return 0; // nobody to be taken out
        int err = _fxm_write_register(card, reg, value, timeout, retries, 0);
        uint32_t pending = 0;
        if (err == 0)
            err = _fxm_read_register(card, FXM_REG_ID_LOCK_PENDING, &pending, timeout, retries);
        if (_fxm_fatal(err))
            return err;
        if (err != 0)
            continue;
        if (done(pending))
            return 0;
        _fxm_sleep(g_config.eeprom_retry_interval);
    }
    return _fxm_stopping() ? ENOSYS : ETIMEDOUT;
}

static int _fxm_lock_request_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries)
{
    return _write_until_pending(card, FXM_REG_ID_LOCK_OWNER, FXM_EEPROM_OWN_LOCK_BIT, timeout, retries,
                                [](uint32_t pending) { return (pending & FXM_EEPROM_OWN_LOCK_BIT) != 0; });
}

int _fxm_unlock_eeprom_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t mask)
{
    return _write_until_pending(card, FXM_REG_ID_LOCK_RELEASE, mask, timeout, retries,
                                [=](uint32_t pending) { return (pending & mask) == 0; });
}

// Waits until the lock is granted: the owner register shows the own bit and no other.
static int _fxm_lock_check_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t flags)
{
    for (uint32_t forced = 0;; ++forced) {
        int err = 0;
        uint32_t owner = 0;
        for (uint32_t tries = 0; tries <= g_config.eeprom_retry_count; ++tries) {
            if (_fxm_stopping())
                return ENOSYS;
            err = _fxm_read_register(card, FXM_REG_ID_LOCK_OWNER, &owner, timeout, retries);
            if (_fxm_fatal(err))
                return err;
            if (err != 0)
                continue;
            if (owner == FXM_EEPROM_OWN_LOCK_BIT)
                return 0;
            _fxm_sleep(g_config.eeprom_retry_interval);
        }
        if (_fxm_stopping())
            return ENOSYS;
        if (err != 0) {
            fxm_log_trace("%s: Failed to _fxm_read_register(). err=%d", __func__, err);
            return err;
        }
        if ((flags & FXM_FLAG_FORCELOCK) == 0) {
            fxm_log_trace("%s: Other have acquired the lock.", __func__);
            return EBUSY;
        }
        if (forced >= g_config.force_lock_try_count) {
            fxm_log_warn("%s: EEPROM access forcelock mode retry timedout.", __func__);
            return ETIMEDOUT;
        }
        // The holder of the last look goes; the own request still stands.
        err = _fxm_unlock_eeprom_id(card, timeout, retries, owner);
        if (err != 0)
            return err;
    }
}

int _fxm_lock_eeprom_id(const fxm_card_data_t *card, uint32_t timeout, uint32_t retries, uint32_t flags)
{
    int err = _fxm_lock_request_id(card, timeout, retries);
    if (err != 0)
        return err;
    err = _fxm_lock_check_id(card, timeout, retries, flags);
    if (err == 0)
        return 0;
    const int undone = _fxm_unlock_eeprom_id(card, timeout, retries, FXM_EEPROM_OWN_LOCK_BIT);
    if (undone != 0)
        fxm_log_trace("%s: Failed to _fxm_unlock_eeprom_id(). err=%d", __func__, undone);
    return err;
}

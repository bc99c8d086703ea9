// The exported EEPROM operations: argument checks, the order of lock, transfer and release, and the clean-up on every
// path. Threads of the host, under the card's write lock but for fxm_unlock_eeprom.
#include <cerrno>
#include <cstdint>

#include "access/fxm_eeprom_engine.h"
#include "access/fxm_eeprom_lock.h"
#include "access/fxm_register.h"
#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_tables.h"

constexpr uint32_t FXM_EEPROM_LAST = FXM_EEPROM_SIZE - 4;
constexpr uint32_t FXM_ALL_HOLDERS = 0xFFFF;

// --------------------------------------------------------------------------------------------- lock around a transfer

static int _get_locktype(const char *func, const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t *locktype)
{
    const int err = _fxm_get_locktype(card, locktype, retry.timeout, retry.retries);
    if (err != 0)
        fxm_log_error("%s: Failed to _fxm_get_locktype(). err=%d", func, err);
    return err;
}

static int _lock(const char *func, const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t flags,
                 uint32_t locktype)
{
    int err = 0;
    if ((locktype & FXM_LOCKTYPE_ID) != 0) {
        err = _fxm_lock_eeprom_id(card, retry.timeout, retry.retries, flags);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_lock_eeprom_id(). err=%d", func, err);
    } else {
        err = _fxm_lock_eeprom(card, retry.timeout, retry.retries, flags);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_lock_eeprom(). err=%d", func, err);
    }
    return err;
}

static int _unlock(const char *func, const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t locktype)
{
    int err = 0;
    if ((locktype & FXM_LOCKTYPE_ID) != 0) {
        err = _fxm_unlock_eeprom_id(card, retry.timeout, retry.retries, FXM_EEPROM_OWN_LOCK_BIT);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_unlock_eeprom_id(). err=%d", func, err);
    } else {
        err = _fxm_unlock_eeprom(card, retry.timeout, retry.retries);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_unlock_eeprom(). err=%d", func, err);
    }
    return err;
}

// Moves one word under the lock on the card. A failed release does not change the result: the word has been moved.
template <typename Transfer>
static int _transfer_word(const char *func, const char *transfer_name, const fxm_card_data_t *card,
                          const fxm_retry_t &retry, uint32_t flags, Transfer transfer)
{
    uint32_t locktype = 0;
    int err = _get_locktype(func, card, retry, &locktype);
    if (err == 0)
        err = _lock(func, card, retry, flags, locktype);
    if (err != 0)
        return err;
    err = transfer();
    if (err != 0)
        fxm_log_error("%s: Failed to %s(). err=%d", func, transfer_name, err);
    _unlock(func, card, retry, locktype);
    return err;
}

// The lock is taken and given back for each word, so that others get at the EEPROM between two words.
static int _fxm_dump_eeprom(const fxm_card_data_t *card, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer,
                            uint64_t *size, uint32_t timeout, uint32_t retries, uint32_t flags)
{
    const fxm_retry_t retry = {timeout, retries};
    uint32_t locktype = 0;
    int err = _get_locktype(__func__, card, retry, &locktype);
    if (err != 0)
        return err;
    uint64_t read = 0;
    for (uint32_t addr = startaddr; addr < endaddr; addr += static_cast<uint32_t>(sizeof(uint32_t))) {
        err = _lock(__func__, card, retry, flags, locktype);
        if (err != 0)
            break;
        uint32_t word = 0;
        err = _fxm_read_eeprom(card, addr, &word, timeout, retries);
        // A lock left standing would stop the next word, so a failed release ends the dump.
        const int unlock_err = _unlock(__func__, card, retry, locktype);
        if (unlock_err != 0)
            err = unlock_err;
        if (err != 0)
            break;
        *buffer++ = word;
        read += sizeof(word);
    }
    *size = read;
    return err;
}

// -------------------------------------------------------------------------------------------------- exported functions

static bool _word_address(uint32_t addr) { return addr <= FXM_EEPROM_LAST && _aligned(addr); }

int fxm_read_eeprom(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    const char *func = __func__;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, %s, flags=0x%.8X", func, _ull(id), addr,
                 fxm_retry_text_t(retry_param).text, flags);
    const bool valid = _word_address(addr) && data != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _transfer_word(func, "_fxm_read_eeprom", card, retry, flags,
                              [=] { return _fxm_read_eeprom(card, addr, data, retry.timeout, retry.retries); });
    };
    const int result = _fxm_card_api(call, func, id, valid, retry_param, flags, FXM_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_READ_EEPROM, result);
}

int fxm_write_eeprom(uint64_t id, uint32_t addr, uint32_t data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    const char *func = __func__;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, data=0x%.8X, %s, flags=0x%.8X", func, _ull(id), addr, data,
                 fxm_retry_text_t(retry_param).text, flags);
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _transfer_word(func, "_fxm_write_eeprom", card, retry, flags,
                              [=] { return _fxm_write_eeprom(card, addr, data, retry.timeout, retry.retries, flags); });
    };
    const int result = _fxm_card_api(call, func, id, _word_address(addr), retry_param, flags, FXM_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_WRITE_EEPROM, result);
}

int fxm_dump_eeprom(uint64_t id, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer, uint64_t *size,
                    const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    const char *func = __func__;
    fxm_log_info("%s: (IN). id=0x%.12llx, startaddr=0x%.8X, endaddr=0x%.8X, %s, flags=0x%.8X", func, _ull(id),
                 startaddr, endaddr, fxm_retry_text_t(retry_param).text, flags);
    const bool within = _word_address(startaddr) && endaddr <= FXM_EEPROM_SIZE && _aligned(endaddr);
    const bool valid = _fxm_take_size(size, startaddr, endaddr) && within && buffer != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        const int err = _fxm_dump_eeprom(card, startaddr, endaddr, buffer, size, retry.timeout, retry.retries, flags);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_dump_eeprom(). err=%d", func, err);
        return err;
    };
    const int result = _fxm_card_api(call, func, id, valid, retry_param, flags, FXM_WRITE_LOCK, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_DUMP_EEPROM, result);
}

// What has been left standing: with the ID lock all holders go, with the bit lock the other holder's bits, and the own
// bit stays as it is.
static int _unlock_card(const char *func, uint64_t id)
{
    const fxm_retry_t retry = _fxm_retry_of(nullptr);
    fxm_card_data_t card;
    uint32_t ignore_state = 0;
    int err = _fxm_copy_card(id, &card, &ignore_state);
    if (err != 0)
        return err;
    if (ignore_state == FXM_IGNORE)
        return ENOLINK;
    uint32_t locktype = 0;
    err = _get_locktype(func, &card, retry, &locktype);
    if (err != 0)
        return err;
    if ((locktype & FXM_LOCKTYPE_ID) != 0) {
        err = _fxm_unlock_eeprom_id(&card, retry.timeout, retry.retries, FXM_ALL_HOLDERS);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_unlock_eeprom_id(). err=%d", func, err);
    } else {
        err = _fxm_unlock_eeprom_impl(&card, retry.timeout, retry.retries);
        if (err != 0)
            fxm_log_error("%s: Failed to _fxm_unlock_eeprom_impl(). err=%d", func, err);
    }
    return err;
}

int fxm_unlock_eeprom(uint64_t id)
{
    fxm_call_t call;
    fxm_log_info("%s: (IN) id=0x%.12llx", __func__, _ull(id));
    const int result = _fxm_errno_to_result(call.running ? _unlock_card(__func__, id) : ENOSYS);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", __func__, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_UNLOCK_EEPROM, result);
}

// The exported EEPROM operations: argument checks, the order of lock, transfer and release, and the clean-up on every
// path. They run on host threads, under the card's write lock except for fxm_unlock_eeprom.
#include <cerrno>
#include <cstdint>

#include "access/fxm_eeprom_engine.h"
#include "access/fxm_eeprom_lock.h"
#include "access/fxm_operation.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "fxm_log4cxxif.h"

constexpr uint32_t FXM_EEPROM_LAST = FXM_EEPROM_SIZE - 4;

// --------------------------------------------------------------------------------------------- lock around a transfer

// These three log a failure under `func`.

static int _get_locktype(const char *func, const fxm_card_data_t *card, const fxm_eeprom_lock_t **lock,
                         const fxm_retry_t &retry)
{
    return _fxm_check_step(func, "_fxm_get_locktype", _fxm_get_locktype(card, lock, retry));
}

static int _lock(const char *func, const fxm_eeprom_lock_t *lock, const fxm_card_data_t *card, const fxm_retry_t &retry,
                 uint32_t flags)
{
    return _fxm_check_step(func, lock->take_name, lock->take(card, retry, flags));
}

static int _unlock(const char *func, const fxm_eeprom_lock_t *lock, const fxm_card_data_t *card,
                   const fxm_retry_t &retry)
{
    return _fxm_check_step(func, lock->give_name, lock->give(card, retry));
}

// Moves one word under the lock on the card. A failed release does not change the result: the word has been moved.
template <typename Transfer>
static int _transfer_word(const char *func, const char *transfer_name, const fxm_card_data_t *card,
                          const fxm_retry_t &retry, uint32_t flags, Transfer transfer)
{
    const fxm_eeprom_lock_t *lock = nullptr;
    int err = _get_locktype(func, card, &lock, retry);
    if (err == 0)
        err = _lock(func, lock, card, retry, flags);
    if (err != 0)
        return err;
    err = _fxm_check_step(func, transfer_name, transfer());
    (void)_unlock(func, lock, card, retry);
    return err;
}

// Takes and releases the lock for each word, so that others can use the EEPROM between two words. *size becomes the
// number of bytes read, unless the card does not say which lock it has.
static int _fxm_dump_eeprom(const fxm_card_data_t *card, uint32_t startaddr, uint32_t endaddr, uint32_t *buffer,
                            uint64_t *size, const fxm_retry_t &retry, uint32_t flags)
{
    const fxm_eeprom_lock_t *lock = nullptr;
    int err = _get_locktype(__func__, card, &lock, retry);
    if (err != 0)
        return err;
    uint64_t read = 0;
    for (uint32_t addr = startaddr; addr < endaddr; addr += static_cast<uint32_t>(sizeof(uint32_t))) {
        err = _lock(__func__, lock, card, retry, flags);
        if (err != 0)
            break;
        uint32_t word = 0;
        err = _fxm_read_eeprom(card, addr, &word, retry);
        // A lock that stays on the card would stop the next word, so a failed release ends the dump.
        const int unlock_err = _unlock(__func__, lock, card, retry);
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

static bool _word_address(uint32_t addr) { return addr <= FXM_EEPROM_LAST && _fxm_aligned(addr); }

int fxm_read_eeprom(uint64_t id, uint32_t addr, uint32_t *data, const fxm_retry_param_t *retry_param, uint32_t flags)
{
    fxm_call_t call;
    const char *func = __func__;
    fxm_log_info("%s: (IN). id=0x%.12llx, addr=0x%.8X, %s, flags=0x%.8X", func, _ull(id), addr,
                 fxm_retry_text_t(retry_param).text, flags);
    const bool valid = _word_address(addr) && data != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _transfer_word(func, "_fxm_read_eeprom", card, retry, flags,
                              [=] { return _fxm_read_eeprom(card, addr, data, retry); });
    };
    const int result = _fxm_card_api(call, {func, id, flags, FXM_WRITE_LOCK}, valid, retry_param, work);
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
                              [=] { return _fxm_write_eeprom(card, addr, data, retry, flags); });
    };
    const int result = _fxm_card_api(call, {func, id, flags, FXM_WRITE_LOCK}, _word_address(addr), retry_param, work);
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
    const bool within = _word_address(startaddr) && endaddr <= FXM_EEPROM_SIZE && _fxm_aligned(endaddr);
    const bool valid = _fxm_take_size(size, startaddr, endaddr) && within && buffer != nullptr;
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        return _fxm_check_step(func, "_fxm_dump_eeprom",
                               _fxm_dump_eeprom(card, startaddr, endaddr, buffer, size, retry, flags));
    };
    const int result = _fxm_card_api(call, {func, id, flags, FXM_WRITE_LOCK}, valid, retry_param, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_DUMP_EEPROM, result);
}

// Releases a lock that was left behind on the card. It takes no write lock, so it may run beside a transfer.
int fxm_unlock_eeprom(uint64_t id)
{
    fxm_call_t call;
    const char *func = __func__;
    fxm_log_info("%s: (IN) id=0x%.12llx", func, _ull(id));
    const auto work = [=](const fxm_card_data_t *card, const fxm_retry_t &retry) {
        const fxm_eeprom_lock_t *lock = nullptr;
        const int err = _get_locktype(func, card, &lock, retry);
        return err != 0 ? err : _fxm_check_step(func, lock->clear_name, lock->clear(card, retry));
    };
    const int result = _fxm_card_api(call, {func, id, 0, FXM_NO_WRITE_LOCK}, true, nullptr, work);
    fxm_log_info("%s: (OUT) ret=%d, id=0x%.12llx", func, result, _ull(id));
    return _fxm_stats_api(FXM_ROW_UNLOCK_EEPROM, result);
}

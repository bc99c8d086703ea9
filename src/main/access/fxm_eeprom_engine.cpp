// One word in or out of a card's EEPROM: a ladder of retries over register accesses, any of which can fail or find the
// engine busy.
#include "access/fxm_eeprom_engine.h"

#include <cerrno>

#include "access/fxm_eeprom_lock.h"
#include "access/fxm_register.h"
#include "core/fxm_config.h"

// The engine's registers, with their addresses by generation of card.
enum engine_reg_t {
    FXM_REG_EEPROM_CTL,   // command when written, status when read
    FXM_REG_EEPROM_ADDR,  // address of the word
    FXM_REG_EEPROM_RDATA, // the word, after a read
    FXM_REG_EEPROM_WDATA, // the word, before a write
};
static const uint32_t engine_10g[] = {0x5010, 0x5014, 0x5018, 0x501C};
static const uint32_t engine_40g[] = {0x40, 0x44, 0x48, 0x4C};

static uint32_t _address(const fxm_card_data_t *card, engine_reg_t reg)
{
    return (card->fcd_type == 0 ? engine_10g : engine_40g)[reg];
}

constexpr uint32_t FXM_EEPROM_CMD_READ = 0x80000001;
constexpr uint32_t FXM_EEPROM_CMD_WRITE = 0x80000003;
constexpr uint32_t FXM_EEPROM_CMD_CLEAR = 0; // clears command and status of the last access

constexpr uint32_t FXM_EEPROM_OCCUPIED = 1u << 0;
constexpr uint32_t FXM_EEPROM_FINISHED = 1u << 28;
constexpr uint32_t FXM_EEPROM_REFUSED = 1u << 29; // with FINISHED
constexpr uint32_t FXM_EEPROM_READY = 1u << 30;

static bool _is_ready(uint32_t status)
{
    return (status & (FXM_EEPROM_READY | FXM_EEPROM_OCCUPIED)) == FXM_EEPROM_READY;
}

// Two values live in this file only: EAGAIN, an access that did not come to an end and may be tried again, and EACCES,
// one that the engine refused.
static int _again_unless_fatal(int err) { return err == 0 || _fxm_fatal(err) ? err : EAGAIN; }

static int _read_status(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t *status)
{
    return _fxm_read_register(card, _address(card, FXM_REG_EEPROM_CTL), status, retry.timeout, retry.retries);
}

static int _write_ctl(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t command)
{
    // Shows status when read, so it is not read back.
    return _fxm_write_register(card, _address(card, FXM_REG_EEPROM_CTL), command, retry.timeout, retry.retries, 0);
}

// One access: address, command, wait for the end. 0, EAGAIN, EACCES, ENOSYS, EPROTO.
static int _check_access_impl(const fxm_card_data_t *card, uint32_t address_value, uint32_t command,
                              const fxm_retry_t &retry)
{
    int err = _fxm_write_register(card, _address(card, FXM_REG_EEPROM_ADDR), address_value, retry.timeout,
                                  retry.retries, FXM_FLAG_VERIFY);
    if (err == 0)
        err = _write_ctl(card, retry, command);
    for (uint32_t count = 0; err == 0;) {
        if (_fxm_stopping())
            return ENOSYS;
        _fxm_sleep(g_config.eeprom_check_interval);
        uint32_t status = 0;
        err = _read_status(card, retry, &status);
        if (err != 0)
            break;
        if ((status & FXM_EEPROM_FINISHED) != 0 && (status & FXM_EEPROM_REFUSED) != 0)
            return EACCES;
        if ((status & FXM_EEPROM_FINISHED) != 0 && (status & FXM_EEPROM_OCCUPIED) == 0) {
            fxm_log_debug("%s: EEPROM access complete. count:%d", __func__, static_cast<int>(count));
            return 0;
        }
        if (++count > g_config.eeprom_check_retry_count)
            return EAGAIN;
    }
    return _again_unless_fatal(err);
}

static int _check_access(const fxm_card_data_t *card, uint32_t addr, uint32_t command, const fxm_retry_t &retry)
{
    // Which form of address an EEPROM takes shows only when it refuses the other; nothing is remembered about a card.
    if (g_config.eeprom_type == 0 && card->fcd_type == 0) {
        const uint32_t split = (addr & 0xF00) << 8 | (addr & 0xFF);
        const int err = _check_access_impl(card, split, command, retry);
        if (err != EACCES)
            return err;
    }
    return _check_access_impl(card, addr, command, retry);
}

// ------------------------------------------------------------------------------------------------------ read a word

// What an attempt has come to before the engine is cleared.
struct attempt_t {
    bool got = false;
    bool refused = false;
    uint32_t word = 0;
};

// Up to the clearing of the engine: 0 whatever passed, or a fatal value.
static int _read_attempt(const char *func, const fxm_card_data_t *card, uint32_t addr, const fxm_retry_t &retry,
                         attempt_t *attempt)
{
    uint32_t status = 0;
    int err = _read_status(card, retry, &status);
    if (err != 0) {
        fxm_log_trace("%s: Failed to _fxm_read_register() of access check. err=%d", func, err);
        return _fxm_fatal(err) ? err : 0;
    }
    if (!_is_ready(status))
        return 0;
    err = _check_access(card, addr, FXM_EEPROM_CMD_READ, retry);
    if (err == 0) {
        err = _fxm_read_register(card, _address(card, FXM_REG_EEPROM_RDATA), &attempt->word, retry.timeout,
                                 retry.retries);
        attempt->got = err == 0;
        if (err != 0)
            fxm_log_trace("%s: Failed to _fxm_read_register() of getting EEPROM data. err=%d", func, err);
    } else if (err == EACCES) {
        fxm_log_info("%s: Failed to _check_access(). err=%d", func, err);
        attempt->refused = true;
    } else if (_fxm_fatal(err)) {
        fxm_log_trace("%s: Failed to _check_access(). err=%d", func, err);
    }
    return _fxm_fatal(err) ? err : 0;
}

// Clears the engine and reads its status. A failure is logged.
static int _clear_engine(const char *func, const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t *status)
{
    int err = _write_ctl(card, retry, FXM_EEPROM_CMD_CLEAR);
    if (err != 0) {
        fxm_log_trace("%s: Failed to _fxm_write_register(). err=%d", func, err);
        return err;
    }
    err = _read_status(card, retry, status);
    if (err != 0)
        fxm_log_trace("%s: Failed to _fxm_read_register(). err=%d", func, err);
    return err;
}

int _fxm_read_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, uint32_t timeout, uint32_t retries)
{
    const fxm_retry_t retry = {timeout, retries};
    for (uint32_t count = 0;;) {
        if (_fxm_stopping())
            return ENOSYS;
        attempt_t attempt;
        int err = _read_attempt(__func__, card, addr, retry, &attempt);
        if (err != 0)
            return err;
        uint32_t status = 0;
        err = _clear_engine(__func__, card, retry, &status);
        if (_fxm_fatal(err))
            return err;
        // Word and refusal both count only once the engine is ready again.
        if (err == 0 && _is_ready(status)) {
            if (attempt.got) {
                *data = attempt.word;
                return 0;
            }
            if (attempt.refused)
                return EPROTO;
        }
        _fxm_sleep(g_config.eeprom_rw_interval);
        if (++count > retries)
            return _fxm_stopping() ? ENOSYS : ETIMEDOUT;
    }
}

// ------------------------------------------------------------------------------------------------------ write a word

// One attempt: 0, EAGAIN, ENOSYS, EPROTO.
static int _fxm_write_eeprom_impl(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t timeout,
                                  uint32_t retries)
{
    const fxm_retry_t retry = {timeout, retries};
    int result = EAGAIN;
    uint32_t status = 0;
    int err = _read_status(card, retry, &status);
    if (err != 0) {
        fxm_log_trace("%s: Failed to _fxm_read_register() of access check. err=%d", __func__, err);
        if (_fxm_fatal(err))
            return err;
    } else if (_is_ready(status)) {
        err = _fxm_write_register(card, _address(card, FXM_REG_EEPROM_WDATA), data, timeout, retries, FXM_FLAG_VERIFY);
        if (err != 0) {
            fxm_log_trace("%s: Failed to _fxm_write_register() of setting data. err=%d", __func__, err);
            if (_fxm_fatal(err))
                return err;
        } else {
            err = _check_access(card, addr, FXM_EEPROM_CMD_WRITE, retry);
            if (err == 0) {
                result = 0;
            } else if (err == EACCES) {
                fxm_log_info("%s: Failed to _check_access(). err=%d", __func__, err);
                result = EPROTO;
            } else if (_fxm_fatal(err)) {
                fxm_log_trace("%s: Failed to _check_access(). err=%d", __func__, err);
                return err;
            }
        }
    }
    err = _clear_engine(__func__, card, retry, &status);
    // A word that counts as written, or a refusal, stands whatever the clearing found.
    return result == EAGAIN && _fxm_fatal(err) ? err : result;
}

int _fxm_write_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t data, uint32_t timeout, uint32_t retries,
                      uint32_t flags)
{
    for (uint32_t count = 0;;) {
        if (_fxm_stopping())
            return ENOSYS;
        int err = _fxm_write_eeprom_impl(card, addr, data, timeout, retries);
        if (err == 0) {
            if ((flags & FXM_FLAG_VERIFY) == 0)
                return 0;
            uint32_t word = 0;
            err = _fxm_read_eeprom(card, addr, &word, timeout, retries);
            if (err == 0 && word == data)
                return 0;
        }
        if (_fxm_fatal(err))
            return err;
        _fxm_sleep(g_config.eeprom_rw_interval);
        if (++count > retries)
            return _fxm_stopping() ? ENOSYS : ETIMEDOUT;
    }
}

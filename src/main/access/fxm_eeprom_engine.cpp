// Moves one word into or out of a card's EEPROM, with retries at three levels: register access, poll of the engine, and
// attempt. Any register access can fail or find the engine busy.
#include "access/fxm_eeprom_engine.h"

#include <cerrno>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "fxm_log4cxxif.h"

// The engine's registers. Their addresses depend on the generation of the card.
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

// Two values never leave this file: EAGAIN, an access that has not finished and may be tried again, and EACCES, an
// access that the engine refused.
static int _again_unless_fatal(int err) { return err == 0 || _fxm_fatal(err) ? err : EAGAIN; }

static int _read_status(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t *status)
{
    return _fxm_read_register(card, _address(card, FXM_REG_EEPROM_CTL), status, retry);
}

static int _write_ctl(const fxm_card_data_t *card, const fxm_retry_t &retry, uint32_t command)
{
    // This register shows the status when read, so the command is not read back.
    return _fxm_write_register(card, _address(card, FXM_REG_EEPROM_CTL), command, retry, 0);
}

// One access: writes the address and the command, and waits for the end. 0, EAGAIN, EACCES, ENOSYS, EPROTO.
static int _check_access_impl(const fxm_card_data_t *card, uint32_t address_value, uint32_t command,
                              const fxm_retry_t &retry)
{
    int err = _fxm_write_register(card, _address(card, FXM_REG_EEPROM_ADDR), address_value, retry, FXM_FLAG_VERIFY);
    if (err == 0)
        err = _write_ctl(card, retry, command);
    for (uint32_t count = 0; err == 0;) {
        if (_fxm_stopping())
            return ENOSYS;
        // After a stop during this pause, the read ends the access.
        (void)_fxm_sleep(g_config.eeprom_check_interval);
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
    // An EEPROM takes one of two forms of address, and refuses the other. Nothing is remembered about a card, so each
    // access starts with the split form.
    if (g_config.eeprom_type == 0 && card->fcd_type == 0) {
        const uint32_t split = (addr & 0xF00) << 8 | (addr & 0xFF);
        const int err = _check_access_impl(card, split, command, retry);
        if (err != EACCES)
            return err;
    }
    return _check_access_impl(card, addr, command, retry);
}

// ------------------------------------------------------------------------------------------------------- one attempt

enum direction_t { FXM_EEPROM_READ, FXM_EEPROM_WRITE };

// The part of an attempt before the engine is cleared: 0 when the word was moved, else EAGAIN, EACCES, ENOSYS, EPROTO.
static int _move_word(const char *func, direction_t direction, const fxm_card_data_t *card, uint32_t addr,
                      uint32_t *word, const fxm_retry_t &retry)
{
    uint32_t status = 0;
    int err = _read_status(card, retry, &status);
    if (err != 0) {
        fxm_log_trace("%s: Failed to _fxm_read_register() of access check. err=%d", func, err);
        return _again_unless_fatal(err);
    }
    if (!_is_ready(status))
        return EAGAIN;
    if (direction == FXM_EEPROM_WRITE) {
        err = _fxm_write_register(card, _address(card, FXM_REG_EEPROM_WDATA), *word, retry, FXM_FLAG_VERIFY);
        if (err != 0) {
            fxm_log_trace("%s: Failed to _fxm_write_register() of setting data. err=%d", func, err);
            return _again_unless_fatal(err);
        }
    }
    err = _check_access(card, addr, direction == FXM_EEPROM_WRITE ? FXM_EEPROM_CMD_WRITE : FXM_EEPROM_CMD_READ, retry);
    if (err == EACCES)
        fxm_log_info("%s: Failed to _check_access(). err=%d", func, err);
    else if (_fxm_fatal(err))
        fxm_log_trace("%s: Failed to _check_access(). err=%d", func, err);
    if (err != 0 || direction == FXM_EEPROM_WRITE)
        return err;
    err = _fxm_read_register(card, _address(card, FXM_REG_EEPROM_RDATA), word, retry);
    if (err != 0)
        fxm_log_trace("%s: Failed to _fxm_read_register() of getting EEPROM data. err=%d", func, err);
    return _again_unless_fatal(err);
}

// Clears the engine and reads its status. Logs a failure.
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

// One attempt: 0, EAGAIN, ENOSYS, EPROTO. It ends with the clearing of the engine, unless it has failed fatally before.
static int _attempt(const char *func, direction_t direction, const fxm_card_data_t *card, uint32_t addr, uint32_t *word,
                    const fxm_retry_t &retry)
{
    const int moved = _move_word(func, direction, card, addr, word, retry);
    if (_fxm_fatal(moved))
        return moved;
    uint32_t status = 0;
    const int cleared = _clear_engine(func, card, retry, &status);
    // A write, done or refused, counts whatever the clearing found. A read counts only once the engine is ready again.
    const bool counts = direction == FXM_EEPROM_WRITE || (cleared == 0 && _is_ready(status));
    if (counts && moved == 0)
        return 0;
    if (counts && moved == EACCES)
        return EPROTO;
    return _fxm_fatal(cleared) ? cleared : EAGAIN;
}

// ------------------------------------------------------------------------------------------------------- one word

// Repeats the attempt until it succeeds, fails fatally, or has used up its retries.
template <typename Attempt> static int _repeat(const fxm_retry_t &retry, Attempt attempt)
{
    if (_fxm_stopping())
        return ENOSYS;
    for (uint32_t repeated = 0;; ++repeated) {
        const int err = attempt();
        if (err == 0 || _fxm_fatal(err))
            return err;
        if (_fxm_sleep(g_config.eeprom_rw_interval) != 0)
            return ENOSYS;
        if (repeated >= retry.retries)
            return ETIMEDOUT;
    }
}

int _fxm_read_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t *data, const fxm_retry_t &retry)
{
    const char *func = __func__;
    fxm_assert(addr < FXM_EEPROM_SIZE && _fxm_aligned(addr));
    uint32_t word = 0;
    const int err = _repeat(retry, [&] { return _attempt(func, FXM_EEPROM_READ, card, addr, &word, retry); });
    if (err == 0)
        *data = word;
    return err;
}

static int _fxm_write_eeprom_impl(const fxm_card_data_t *card, uint32_t addr, uint32_t data, const fxm_retry_t &retry)
{
    return _attempt(__func__, FXM_EEPROM_WRITE, card, addr, &data, retry);
}

int _fxm_write_eeprom(const fxm_card_data_t *card, uint32_t addr, uint32_t data, const fxm_retry_t &retry,
                      uint32_t flags)
{
    fxm_assert(addr < FXM_EEPROM_SIZE && _fxm_aligned(addr));
    return _repeat(retry, [&] {
        int err = _fxm_write_eeprom_impl(card, addr, data, retry);
        if (err != 0 || (flags & FXM_FLAG_VERIFY) == 0)
            return err;
        uint32_t word = 0;
        err = _fxm_read_eeprom(card, addr, &word, retry);
        return err == 0 && word != data ? EAGAIN : err;
    });
}

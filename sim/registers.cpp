// The registers of a card, and the EEPROM engine behind some of them.
#include "registers.h"

#include "holder.h"
#include "lock.h"

struct engine_registers_t {
    u32 control, address, read_data, write_data;
};

static constexpr engine_registers_t _engine_1g{0x5010, 0x5014, 0x5018, 0x501c};
static constexpr engine_registers_t _engine_40g{0x40, 0x44, 0x48, 0x4c};

static const engine_registers_t &_engine(const card_t &card) { return card.is_40g ? _engine_40g : _engine_1g; }

// The engine of the EEPROM.

static constexpr u32 COMMAND_START = 0x80000000;
static constexpr u32 COMMAND_STORES = 0x00000002;
static constexpr u32 COMMAND_READ_WORD = 0x80000001;
static constexpr u32 COMMAND_WRITE_WORD = 0x80000003;

static constexpr u32 STATUS_OCCUPIED = 0x00000001;
static constexpr u32 STATUS_FINISHED = 0x10000000;
static constexpr u32 STATUS_REFUSED = 0x20000000; // with the one above
static constexpr u32 STATUS_READY = 0x40000000;

u32 eeprom_get(const card_t &card, u32 address)
{
    return card.eeprom.words.empty() ? 0 : card.eeprom.words[address / 4];
}

void eeprom_set(card_t &card, u32 address, u32 word)
{
    card.eeprom.words.resize(EEPROM_SIZE / 4);
    card.eeprom.words[address / 4] = word;
}

// The byte address of a word, from the form that the engine received. False if the card does not accept that form.
static bool _decode_address(const eeprom_t &eeprom, u32 given, u32 &address)
{
    const bool split =
        eeprom.forms == SPLIT_FORM || (eeprom.forms == BOTH_FORMS && given > EEPROM_SIZE - 4); // not a plain address
    address = given;
    if (split) {
        if (given & ~0x000f00ffU)
            return false;
        address = (given >> 8 & 0xf00) | (given & 0xff);
    }
    return address < EEPROM_SIZE && address % 4 == 0;
}

static u32 _engine_status(const eeprom_t &eeprom)
{
    u32 status = STATUS_READY;
    if (eeprom.state == eeprom_t::RUNNING)
        status = STATUS_OCCUPIED;
    else if (eeprom.state == eeprom_t::FINISHED)
        status = STATUS_FINISHED;
    else if (eeprom.state == eeprom_t::REFUSED)
        status = STATUS_FINISHED | STATUS_REFUSED;
    if (eeprom.kind == ENGINE_BUSY)
        status |= STATUS_OCCUPIED;
    if (eeprom.kind == ENGINE_STUCK)
        status &= ~STATUS_READY;
    return status;
}

// Only status reads advance an access, so that a test decides how long it takes, and no clock.
static void _engine_look(card_t &card)
{
    eeprom_t &eeprom = card.eeprom;
    if (eeprom.state != eeprom_t::RUNNING || eeprom.kind == ENGINE_HANG)
        return;
    if (eeprom.looks_left > 0) {
        eeprom.looks_left--;
        return;
    }
    u32 address = 0;
    if (eeprom.kind == ENGINE_REFUSE || !_decode_address(eeprom, eeprom.address, address)) {
        eeprom.state = eeprom_t::REFUSED;
        return;
    }
    if (eeprom.command & COMMAND_STORES)
        eeprom_set(card, address, eeprom.word);
    else
        card.registers[_engine(card).read_data] = eeprom_get(card, address);
    eeprom.state = eeprom_t::FINISHED;
}

// A write to the control register. Without the start bit it clears the last command and its status, even of an access
// that is still running, which then never finishes. A start is ignored while an access runs.
static void _engine_command(card_t &card, u32 command)
{
    eeprom_t &eeprom = card.eeprom;
    if (!(command & COMMAND_START)) {
        eeprom.state = eeprom_t::IDLE;
        return;
    }
    if (command != COMMAND_READ_WORD && command != COMMAND_WRITE_WORD)
        return;
    if (eeprom.kind == ENGINE_STUCK || eeprom.state == eeprom_t::RUNNING)
        return;
    eeprom.state = eeprom_t::RUNNING;
    eeprom.looks_left = eeprom.looks;
    eeprom.command = command;
    eeprom.address = card_register(card, _engine(card).address);
    eeprom.word = card_register(card, _engine(card).write_data);
}

u32 register_peek(const card_t &card, u32 address)
{
    if (address == _engine(card).control)
        return _engine_status(card.eeprom);
    if (address == REG_LOCK_TYPE)
        return (card_register(card, address) & ~1U) | card.lock;
    return arbiter_has_register(card, address) ? arbiter_peek(card, address) : card_register(card, address);
}

void register_poke(card_t &card, u32 address, u32 value)
{
    if (address == _engine(card).control)
        _engine_command(card, value);
    else if (arbiter_has_register(card, address))
        arbiter_poke(card, address, value);
    else
        card.registers[address] = value;
    if (address == REG_LOCK_TYPE)
        card.lock = value & 1 ? ID_LOCK : BIT_LOCK;
}

u32 register_read(card_t &card, u32 address)
{
    if (address == _engine(card).control)
        _engine_look(card);
    if (card.lock == BIT_LOCK && address == REG_LOCK_BITS)
        holder_sees_read(card);
    return register_peek(card, address);
}

void register_write(card_t &card, u32 address, u32 value)
{
    if (address == REG_LOCK_TYPE)
        return; // read-only on the wire
    if (address == _engine(card).control && (value & COMMAND_START) && !lock_is_managers_alone(card))
        card.counts.foul++;
    const bool managers_before = lock_has(card, LOCK_MANAGER);
    const bool others_before = lock_has(card, LOCK_OTHER);
    register_poke(card, address, value);
    if (lock_has_register(card, address))
        holder_sees_write(card, managers_before, others_before);
}

// Carries out and answers commands to cards.
#include "receive.h"

#include <cstring>

#include "announce.h"
#include "faults.h"
#include "frames.h"
#include "registers.h"
#include "text.h"
#include "timers.h"
#include "wire.h"

static bool _hears(const card_t &card, unsigned port, const command_t &command)
{
    return !card.deaf && card.on_port[port] && card.vlan == command.vlan && card.layout == command.layout;
}

static void _record(card_t &card, char what, u32 address, u32 value)
{
    if (!card.watching)
        return;
    card.watched += std::string(" ") + what + text_of_hex(address, 1) + "=" + text_of_hex(value, 8);
}

static void _read(card_t &card, unsigned port, const command_t &command)
{
    u8 frame[FRAME_ROOM];
    u64 from = command.to;
    u8 tag = command.tag;

    card.counts.reads++;
    const fault_t *fault = fault_next(card, ACCESS_READ, command.address);
    if (fault && fault->kind == FAULT_DROP)
        return;
    u32 value = register_read(card, command.address);
    if (fault && fault->kind == FAULT_VALUE)
        value = fault->value;
    if (fault && fault->kind == FAULT_OTHER_MAC)
        from ^= MAC_SECOND;
    if (fault && fault->kind == FAULT_OTHER_PORT)
        port ^= 1;
    if (fault && fault->kind == FAULT_OTHER_TAG)
        tag++;
    _record(card, 'r', command.address, value);

    const size_t size = frame_completion(frame, card, from, command.from, tag, value);
    if (fault && fault->kind == FAULT_LATE) {
        timer_set(card, fault->ms, [port, late = std::vector<u8>(frame, frame + size)](card_t &) {
            wire_send(port, late.data(), late.size());
        });
        return;
    }
    wire_send(port, frame, size);
    if (fault && fault->kind == FAULT_TWICE)
        wire_send(port, frame, size);
}

static void _write(card_t &card, const command_t &command)
{
    card.counts.writes++;
    if (fault_next(card, ACCESS_WRITE, command.address))
        return;
    register_write(card, command.address, command.value);
    _record(card, 'w', command.address, command.value);
}

static void _set_vlan(card_t &card, const command_t &command)
{
    card.counts.vlansets++;
    if (fault_next(card, ACCESS_VLAN, 0))
        return;
    card.vlan = command.new_vlan;
    announce_now(card, ALL_CHANNELS & ~card.silent, false);
}

static void _write_page(card_t &card, const command_t &command)
{
    card.counts.pages++;
    if (card_is_multi_root(card))
        std::memcpy(card.pages[command.page].data(), command.data, PAGE_SIZE);
}

// A Reset is addressed to a group and reaches all cards of its VLAN.
static void _reset(unsigned port, const command_t &command)
{
    if (!(command.to & MAC_GROUP))
        return;
    for (auto &[id, card] : cards)
        if (_hears(card, port, command)) {
            card.counts.resets++;
            card.reset_status = command.status;
        }
}

void receive_frame(unsigned port, const u8 *frame, size_t size)
{
    command_t command;
    if (!frame_command(frame, size, command))
        return;
    if (command.kind == COMMAND_RESET) {
        _reset(port, command);
        return;
    }
    card_t *card = card_of_mac(command.to);
    if (!card || !_hears(*card, port, command))
        return;
    switch (command.kind) {
    case COMMAND_READ:
        _read(*card, port, command);
        break;
    case COMMAND_WRITE:
        _write(*card, command);
        break;
    case COMMAND_VLAN:
        _set_vlan(*card, command);
        break;
    case COMMAND_PAGE:
        _write_page(*card, command);
        break;
    case COMMAND_RESET:
        break;
    }
}

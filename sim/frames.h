// Frames from the cards' point of view: builds what cards send and reads what they receive. Each layout is defined
// once, in frames.cpp. The EtherType is the only state.
#ifndef SIM_FRAMES_H
#define SIM_FRAMES_H

#include "card.h"

extern u16 frame_ether_type;

// Space for the longest frame that a card sends.
constexpr size_t FRAME_ROOM = 512;

// Both build a complete frame in FRAME_ROOM bytes and return its length, which is at least the Ethernet minimum.
size_t frame_announcement(u8 *frame, const card_t &card, unsigned mac, bool notify);
size_t frame_completion(u8 *frame, const card_t &card, u64 from, u64 to, u8 tag, u32 value);

enum command_kind_t : u8 { COMMAND_RESET, COMMAND_VLAN, COMMAND_WRITE, COMMAND_READ, COMMAND_PAGE };

// A frame to a card. Fields that its kind does not have are 0.
struct command_t {
    command_kind_t kind = COMMAND_RESET;
    layout_t layout = NORMAL;
    u64 to = 0;
    u64 from = 0;
    u16 vlan = 0;
    u8 tag = 0;
    u8 status = 0;
    u16 new_vlan = 0;
    u32 address = 0;
    u32 value = 0;
    u32 page = 0;
    const u8 *data = nullptr; // PAGE_SIZE bytes, in the frame
};

// Parses a frame from the wire. False if it is not a command to a card.
bool frame_command(const u8 *frame, size_t size, command_t &command);

#endif

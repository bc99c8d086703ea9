// Frames written by hand: hexadecimal text, the announcements of cards and their answers. The layouts are not taken
// from the library, so that a wrong one there cannot hide.
#ifndef HARNESS_FRAMES_H
#define HARNESS_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using frame_t = std::vector<uint8_t>;

// From hexadecimal digits; blanks between bytes do not count. Adjacent literals make a frame that explains itself:
//     hex("ff ff ff ff ff ff"  // 0 destination
//         "02 00 00 00 10 00") // 6 source
frame_t hex(std::string_view digits);
std::string to_hex(const frame_t &frame); // 16 bytes a line, each line with its offset

using pieces_t = std::map<size_t, std::string>; // hexadecimal digits by offset

// The first `length` bytes of the frame, or all of them, with these pieces in it.
frame_t changed(frame_t frame, const pieces_t &pieces, size_t length = 0);

frame_t from(uint64_t mac, frame_t frame);     // with `mac` as its source
frame_t on_vlan(uint16_t vlan, frame_t frame); // on that VLAN, in the tagged layout
frame_t in_change_layout(frame_t frame);       // a tagged frame with bytes 12 to 17 in the order of the other layout
frame_t completion(frame_t request, uint32_t value); // what the card answers to a Register Read

// Announcements to start from: the frame of a card that has nothing to tell, in the tagged layout, priority 4, VLAN 100,
// EtherType 0x88B6. A test changes the bytes that matter to it. Offsets: 18 subtype, 20 flow id, 21 ver, 22 flags,
// 23 host, 24 link status, 25..27 status bytes (27 is the interrupt vector), and then
//   FXSV  28 up port (20 bytes), 48 + 28 * i down port i: status (2), MAC of the FXIO card (6), registers (20)
//   FXIO  28 sub-state (2), 30 MAC of the FXSV card (6), 36 device, 38 vendor, 41 class code, 44 resource number
frame_t fxsv_1g_frame();  // 272 bytes, from FXSV_1G
frame_t fxsv_40g_frame(); // 496 bytes, from FXSV_40G, ver 1
frame_t fxio_frame();     // 44 bytes, 1G/10G, from FXIO
frame_t fxio_mr_frame();  // 46 bytes, multi-root, resource number 0x0102, from FXIO_MR

constexpr uint64_t FXSV_1G = 0x020000001000;
constexpr uint64_t FXSV_40G = 0x020000004000;
constexpr uint64_t FXIO = 0x020000002000;
constexpr uint64_t FXIO_MR = 0x020000002100;

#endif

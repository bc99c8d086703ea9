#include "frames.h"

#include <algorithm>
#include <cstdio>

#include "wait.h"

frame_t hex(std::string_view digits)
{
    frame_t frame;
    std::string compact;
    std::copy_if(digits.begin(), digits.end(), std::back_inserter(compact), [](char c) { return c != ' '; });
    for (size_t i = 0; i + 1 < compact.size(); i += 2)
        frame.push_back(static_cast<uint8_t>(std::stoul(compact.substr(i, 2), nullptr, 16)));
    if (compact.size() % 2 != 0)
        harness_failed("half a byte in: " + std::string(digits));
    return frame;
}

std::string to_hex(const frame_t &frame)
{
    std::string text;
    for (size_t i = 0; i < frame.size(); ++i) {
        char byte[32];
        if (i % 16 == 0)
            snprintf(byte, sizeof(byte), "%s%4zu:  %02x", i == 0 ? "" : "\n", i, frame[i]);
        else
            snprintf(byte, sizeof(byte), " %02x", frame[i]);
        text += byte;
    }
    return text;
}

frame_t changed(frame_t frame, const pieces_t &pieces, size_t length)
{
    if (length != 0)
        frame.resize(length);
    for (const auto &[offset, digits] : pieces) {
        const frame_t piece = hex(digits);
        std::copy(piece.begin(), piece.end(), frame.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    return frame;
}

frame_t from(uint64_t mac, frame_t frame)
{
    for (size_t i = 0; i < 6; ++i)
        frame[6 + i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
    return frame;
}

frame_t on_vlan(uint16_t vlan, frame_t frame)
{
    frame[14] = static_cast<uint8_t>(0x80 | vlan >> 8);
    frame[15] = static_cast<uint8_t>(vlan);
    return frame;
}

frame_t in_change_layout(frame_t frame)
{
    std::rotate(frame.begin() + 12, frame.begin() + 16, frame.begin() + 18); // 12 EtherType, 14 TPID, 16 TCI
    return frame;
}

frame_t completion(frame_t request, uint32_t value)
{
    std::rotate(request.begin(), request.begin() + 6, request.begin() + 12); // back to where it came from
    request[18] = 0x20;                                                      // Completion; layout, VLAN and tag stay
    for (size_t i = 0; i < 4; ++i)
        request[24 + i] = static_cast<uint8_t>(value >> 8 * i);
    return request;
}

// ------------------------------------------------------------------------------------------------------ announcements

// Bytes 0 to 27; what follows them is zero up to `size`.
static frame_t announcement(std::string_view source, std::string_view subtype_to_host, size_t size)
{
    frame_t frame = hex("ff ff ff ff ff ff" +          //  0 destination
                        std::string(source) +          //  6
                        "81 00 80 64"                  // 12 TPID; TCI: priority 4, VLAN 100
                        "88 b6" +                      // 16 EtherType
                        std::string(subtype_to_host)); // 18 subtype; not read; flow id; ver; flags; host
    frame.resize(size);                                // 24 link status; three status bytes; body
    return frame;
}

frame_t fxsv_1g_frame() { return announcement("02 00 00 00 10 00", "10 00 00 00 00 00", 272); }

frame_t fxsv_40g_frame() { return announcement("02 00 00 00 40 00", "18 00 00 01 00 00", 496); }

frame_t fxio_frame()
{
    // 36 device 0x1572, vendor 0x8086, 41 class code 0x020000, all with their least significant byte first
    return changed(announcement("02 00 00 00 20 00", "10 00 00 00 00 01", 44), {{36, "72 15 86 80 00 00 00 02"}});
}

frame_t fxio_mr_frame()
{
    // 26 version 1: multi-root; 44 resource number
    return changed(from(FXIO_MR, fxio_frame()), {{26, "01"}, {44, "01 02"}}, 46);
}

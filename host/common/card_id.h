// Card ids as people and documents write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fxm
{

// "02:00:00:00:10:00".
std::string format_id(uint64_t id);
void append_id(std::string *out, uint64_t id); // the same at the end of a text

// Accepts 02:00:00:00:10:00, 02-00-00-00-10-00, 0200.0000.1000, 020000001000 and 0x020000001000.
std::optional<uint64_t> parse_id(std::string_view text);

// A whole 32-bit number: decimal, hexadecimal with 0x, or octal with 0.
std::optional<uint32_t> parse_u32(std::string_view text);

} // namespace fxm

#include "common/card_id.h"

#include <charconv>

namespace fxm
{

void append_id(std::string *out, uint64_t id)
{
    constexpr char digits[] = "0123456789abcdef";
    char text[17];
    for (size_t byte = 0; byte < 6; ++byte) {
        const uint64_t value = id >> (40 - 8 * byte) & 0xff;
        text[byte * 3] = digits[value >> 4];
        text[byte * 3 + 1] = digits[value & 0xf];
        if (byte != 5)
            text[byte * 3 + 2] = ':';
    }
    out->append(text, sizeof(text));
}

std::string format_id(uint64_t id)
{
    std::string text;
    append_id(&text, id);
    return text;
}

// The number of digits between two separators, or 0 for a text without separators.
static size_t group_size(std::string_view text)
{
    const size_t first = text.find_first_of(":-.");
    return first == std::string_view::npos ? 0 : first;
}

std::optional<uint64_t> parse_id(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.remove_prefix(2);
    const size_t group = group_size(text);
    const char separator = group == 0 ? '\0' : text[group];
    if (group != 0 && (group != (separator == '.' ? 4 : 2) || text.back() == separator))
        return std::nullopt;
    std::string digits;
    for (size_t i = 0; i < text.size(); ++i) {
        if (group != 0 && i % (group + 1) == group) {
            if (text[i] != separator)
                return std::nullopt;
        } else {
            digits += text[i];
        }
    }
    uint64_t id = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id, 16);
    if (digits.size() != 12 || error != std::errc{} || end != digits.data() + digits.size())
        return std::nullopt;
    return id;
}

std::optional<uint32_t> parse_u32(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.size() > 1 && text.starts_with("0")) {
        base = 8;
        text.remove_prefix(1);
    }
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

} // namespace fxm

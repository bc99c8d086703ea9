// Parses and prints single words.
#include "text.h"

#include <algorithm>
#include <charconv>

std::vector<std::string_view> text_words(std::string_view line)
{
    static constexpr std::string_view blanks = " \t\r\v\f";
    std::vector<std::string_view> words;
    size_t end = 0;
    for (size_t begin = line.find_first_not_of(blanks); begin != line.npos;
         begin = line.find_first_not_of(blanks, end)) {
        end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
    }
    return words;
}

static bool _parse(std::string_view digits, int base, u64 max, u64 &number)
{
    u64 value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (error != std::errc() || end != digits.data() + digits.size() || value > max)
        return false;
    number = value;
    return true;
}

static bool _strip_0x(std::string_view &word)
{
    if (!word.starts_with("0x") && !word.starts_with("0X"))
        return false;
    word.remove_prefix(2);
    return true;
}

bool text_number(std::string_view word, u64 max, u64 &number)
{
    const int base = _strip_0x(word) ? 16 : 10;
    return _parse(word, base, max, number);
}

bool text_hex(std::string_view word, size_t digits, u64 &number)
{
    _strip_0x(word);
    return word.size() <= digits && _parse(word, 16, MAC_LAST, number);
}

bool text_mac(std::string_view word, u64 &mac)
{
    static constexpr size_t bytes = 6;
    std::string digits;
    if (word.size() == bytes * 3 - 1) {
        for (size_t i = 0; i < word.size(); i++) {
            if (i % 3 != 2)
                digits += word[i];
            else if (word[i] != ':')
                return false;
        }
    } else {
        _strip_0x(word);
        digits = word;
    }
    return digits.size() == bytes * 2 && _parse(digits, 16, MAC_LAST, mac);
}

bool text_bool(std::string_view word, bool &value)
{
    value = word == "yes" || word == "1";
    return value || word == "no" || word == "0";
}

std::string text_of_hex(u64 number, unsigned digits)
{
    std::string text;
    for (; number != 0 || text.size() < digits; number >>= 4)
        text.insert(text.begin(), "0123456789abcdef"[number & 0xf]);
    return text;
}

std::string text_of_mac(u64 mac)
{
    std::string text = text_of_hex(mac, 12);
    for (int colon = 10; colon > 0; colon -= 2)
        text.insert(text.begin() + colon, ':');
    return text;
}

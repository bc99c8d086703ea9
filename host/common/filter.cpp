#include "common/filter.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string>

#include "common/card_id.h"
#include "common/error.h"

namespace fxm
{

enum key : int { KEY_STATE, KEY_CLASS, KEY_GEN, KEY_VLAN, KEY_ID, KEY_PARTNER, KEY_VENDOR, KEY_DEVICE, KEY_INT };

static constexpr filter_key keys[] = {
    {"state", "well, degraded, error, lost, unmonitored, silent"},
    {"class", "fxsv, fxio"},
    {"gen", "1g, 40g"},
    {"vlan", "numbers from 0 to 4095 and ranges such as 100-199"},
    {"id", "card ids, or the beginning of one such as 02:00:00:*"},
    {"partner", "card ids, or the beginning of one such as 02:00:00:*"},
    {"vendor", "hexadecimal PCI ids such as 8086"},
    {"device", "hexadecimal PCI ids such as 1572"},
    {"int", "a mask of interrupt bits such as 0x04"},
};

std::span<const filter_key> filter_keys() { return keys; }

static int find_key(std::string_view name)
{
    for (size_t i = 0; i < std::size(keys); ++i) {
        if (name == keys[i].name)
            return static_cast<int>(i);
    }
    return -1;
}

bool filter::is_key(std::string_view key) { return find_key(key) >= 0; }

// Tables show FXSV and 40G in capitals, and what a table shows must be good for a filter.
static bool same_word(std::string_view one, std::string_view other)
{
    const auto small = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [small](char a, char b) { return small(a) == small(b); });
}

// The place of the word in the list.
template <typename Words> static std::optional<uint64_t> place_of(std::string_view text, const Words &words)
{
    for (size_t i = 0; i < std::size(words); ++i) {
        if (same_word(text, words[i]))
            return i;
    }
    return std::nullopt;
}

static std::optional<uint64_t> parse_hex(std::string_view text, size_t most_digits)
{
    if (text.starts_with("0x"))
        text.remove_prefix(2);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.empty() || text.size() > most_digits || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// An id, or all ids that begin so.
static std::optional<std::pair<uint64_t, uint64_t>> parse_ids(std::string_view text)
{
    if (!text.ends_with('*')) {
        const auto id = parse_id(text);
        return id ? std::optional(std::pair(*id, *id)) : std::nullopt;
    }
    text.remove_suffix(1);
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.remove_prefix(2);
    std::string digits;
    for (const char c : text) {
        if (c != ':' && c != '-' && c != '.')
            digits += c;
    }
    if (digits.empty())
        return std::pair<uint64_t, uint64_t>(0, UINT64_MAX);
    const auto value = parse_hex(digits, 12);
    if (!value)
        return std::nullopt;
    const auto shift = 4 * (12 - digits.size());
    return std::pair(*value << shift, (*value + 1) << shift);
}

static std::optional<std::pair<uint64_t, uint64_t>> parse_vlans(std::string_view text)
{
    const size_t dash = text.find('-');
    const auto first = parse_u32(text.substr(0, dash));
    const auto last = dash == std::string_view::npos ? first : parse_u32(text.substr(dash + 1));
    if (!first || !last || *first > *last || *last > 4095)
        return std::nullopt;
    return std::pair<uint64_t, uint64_t>(*first, *last);
}

static std::optional<std::pair<uint64_t, uint64_t>> parse_value(int key, std::string_view text)
{
    const auto one = [](std::optional<uint64_t> value) -> std::optional<std::pair<uint64_t, uint64_t>> {
        return value ? std::optional(std::pair(*value, *value)) : std::nullopt;
    };
    switch (key) {
    case KEY_STATE:
        return one(place_of(text, health_words));
    case KEY_CLASS:
        return one(place_of(text, class_words));
    case KEY_GEN:
        if (same_word(text, "1/10g") || same_word(text, "10g"))
            text = "1g";
        return one(place_of(text, std::array<std::string_view, 2>{"1g", "40g"}));
    case KEY_VLAN:
        return parse_vlans(text);
    case KEY_ID:
    case KEY_PARTNER: {
        auto ids = parse_ids(text);
        // A beginning covers everything up to the next one.
        if (ids && ids->first != ids->second && ids->second != UINT64_MAX)
            ids->second -= 1;
        return ids;
    }
    case KEY_VENDOR:
    case KEY_DEVICE:
        return one(parse_hex(text, 4));
    default: {
        const auto mask = parse_u32(text);
        return mask && *mask <= 0xff ? one(*mask) : std::nullopt;
    }
    }
}

void filter::add(std::string_view key, std::string_view value, bool negated)
{
    const int number = find_key(key);
    if (number < 0) {
        std::string known;
        for (const filter_key &info : keys)
            known += (known.empty() ? "" : ", ") + std::string(info.name);
        throw api_error("FXM_API_EINVAL", fmt::format("a filter has no key \"{}\"", key), "keys: " + known);
    }
    test made{number, negated, {}};
    for (std::string_view rest = value;;) {
        const std::string_view word = rest.substr(0, rest.find(','));
        const auto range = parse_value(number, word);
        if (!range)
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is no value of {}", word, key),
                            fmt::format("{}: {}", key, keys[number].values));
        made.ranges.push_back({range->first, range->second});
        if (word.size() == rest.size())
            break;
        rest.remove_prefix(word.size() + 1);
    }
    tests_.push_back(std::move(made));
}

filter filter::parse(std::string_view text)
{
    filter made;
    while (!text.empty()) {
        const size_t begin = text.find_first_not_of(' ');
        if (begin == std::string_view::npos)
            break;
        text.remove_prefix(begin);
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(word.size());
        const size_t equals = word.find('=');
        if (equals == std::string_view::npos || equals == 0)
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is no word of a filter", word),
                            "write KEY=VALUE or KEY!=VALUE, such as state=lost vlan=100");
        const bool negated = word[equals - 1] == '!';
        made.add(word.substr(0, equals - (negated ? 1 : 0)), word.substr(equals + 1), negated);
    }
    return made;
}

bool filter::matches(const facts &card) const
{
    if (tests_.empty())
        return true;
    if (card.id == 0)
        return false;
    for (const test &wanted : tests_) {
        const auto in = [&wanted](uint64_t value) {
            return std::any_of(wanted.ranges.begin(), wanted.ranges.end(),
                               [value](const range &r) { return value >= r.first && value <= r.last; });
        };
        bool good = false;
        switch (wanted.key) {
        case KEY_STATE:
            good = in(static_cast<uint64_t>(card.state));
            break;
        case KEY_CLASS:
            good = in(static_cast<uint64_t>(card.kind));
            break;
        case KEY_GEN:
            good = in(card.is_40g ? 1 : 0);
            break;
        case KEY_VLAN:
            good = in(card.vlan);
            break;
        case KEY_ID:
            good = in(card.id) || (card.is_40g && in(card.id | 1)); // a 40G card has the odd address too
            break;
        case KEY_PARTNER:
            good = std::any_of(card.partners.begin(), card.partners.begin() + card.partner_count, in);
            break;
        case KEY_VENDOR:
            good = card.kind == card_class::fxio && in(card.vendor);
            break;
        case KEY_DEVICE:
            good = card.kind == card_class::fxio && in(card.device);
            break;
        default:
            good = std::any_of(wanted.ranges.begin(), wanted.ranges.end(),
                               [&card](const range &r) { return (card.int_vector & r.first) != 0; });
        }
        if (good == wanted.negated)
            return false;
    }
    return true;
}

} // namespace fxm

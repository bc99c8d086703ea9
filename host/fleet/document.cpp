#include "fleet/document.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "common/card_id.h"

namespace fxm::fleet
{

namespace json = boost::json;

std::optional<json::object> object_of(std::string_view text, json::storage_ptr memory)
{
    boost::system::error_code error;
    json::value parsed = json::parse({text.data(), text.size()}, error, std::move(memory), {.max_depth = 8});
    if (error || !parsed.is_object())
        return std::nullopt;
    return std::move(parsed.as_object());
}

static std::string_view text_of(const json::value &value)
{
    const json::string *text = value.if_string();
    return text != nullptr ? std::string_view(text->data(), text->size()) : std::string_view();
}

std::string_view text_of(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    return value != nullptr ? text_of(*value) : std::string_view();
}

uint64_t number_of(const json::value *value)
{
    if (value != nullptr && value->is_uint64())
        return value->get_uint64();
    return value != nullptr && value->is_int64() && value->get_int64() > 0 ? static_cast<uint64_t>(value->get_int64())
                                                                           : 0;
}
uint64_t number_of(const json::object &from, std::string_view name) { return number_of(from.if_contains(name)); }

template <typename Enum, size_t N>
static Enum place_of(std::string_view text, const std::array<const char *, N> &words, Enum unknown)
{
    const auto found = std::find(words.begin(), words.end(), text);
    return found != words.end() ? static_cast<Enum>(found - words.begin()) : unknown;
}

static uint16_t hex_of(const json::value &value)
{
    const json::string *text = value.if_string();
    return text != nullptr ? static_cast<uint16_t>(std::strtoul(text->c_str(), nullptr, 16)) : 0;
}

void set_fact(facts *of, std::string_view name, const json::value &value)
{
    const auto word = [&value] { return text_of(value); };
    if (name == "class") {
        of->kind = place_of(word(), class_words, card_class::fxsv);
    } else if (name == "generation") {
        of->is_40g = word() == "40G";
    } else if (name == "vlan") {
        of->vlan = static_cast<uint16_t>(number_of(&value));
    } else if (name == "health") {
        // A word of a newer site is no reason to call a card well.
        of->state = place_of(word(), health_words, health::lost);
        if (of->state == health::silent)
            of->state = health::lost;
    } else if (name == "int_vector") {
        of->int_vector = static_cast<uint8_t>(number_of(&value));
    } else if (name == "vendor") {
        of->vendor = hex_of(value);
    } else if (name == "device") {
        of->device = hex_of(value);
    } else if (name == "partners" && value.is_array()) {
        of->partner_count = 0;
        for (const json::value &partner : value.get_array()) {
            const auto id = parse_id(text_of(partner));
            if (id && of->partner_count < of->partners.size())
                of->partners[of->partner_count++] = *id;
        }
    }
}

bool has_control(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; });
}

} // namespace fxm::fleet

#include "common/registers.h"

#include <fmt/format.h>

namespace fxm
{

// ------------------------------------------------------------------------------------------------- words and fields

static constexpr register_word yes_no[] = {{0, "no"}, {1, "yes"}};
static constexpr register_word commands[] = {{0, "clear"}, {1, "read"}, {3, "write"}};
static constexpr register_word lock_types[] = {{0, "bit lock"}, {1, "ID lock"}};

// Written, it is a command; read, it shows the state of the last one.
static constexpr register_field control_fields[] = {
    {"occupied", 0, 1, yes_no}, {"command", 0, 2, commands}, {"finished", 28, 1, yes_no},
    {"refused", 29, 1, yes_no}, {"ready", 30, 1, yes_no},    {"start", 31, 1, yes_no},
};
static constexpr register_field bit_lock_fields[] = {{"own", 2, 1, yes_no}, {"other", 3, 1, yes_no}};
static constexpr register_field holder_fields[] = {{"own", 2, 1, yes_no}, {"others", 3, 13, {}}};
static constexpr register_field lock_type_fields[] = {{"type", 0, 1, lock_types}};

// ---------------------------------------------------------------------------------------------------------- the table

static constexpr register_info table[] = {
    {0x0000, generation::any, "probe", "what the check for a live channel reads", {}},
    {0x0040, generation::only_40g, "eeprom.control", "EEPROM engine: command and status", control_fields},
    {0x0044, generation::only_40g, "eeprom.address", "EEPROM engine: address of the word", {}},
    {0x0048, generation::only_40g, "eeprom.read", "EEPROM engine: the word that was read", {}},
    {0x004c, generation::only_40g, "eeprom.write", "EEPROM engine: the word to write", {}},
    {0x5010, generation::only_1g, "eeprom.control", "EEPROM engine: command and status", control_fields},
    {0x5014, generation::only_1g, "eeprom.address", "EEPROM engine: address of the word", {}},
    {0x5018, generation::only_1g, "eeprom.read", "EEPROM engine: the word that was read", {}},
    {0x501c, generation::only_1g, "eeprom.write", "EEPROM engine: the word to write", {}},
    {0x50f0, generation::any, "eeprom.lock", "bit lock of the EEPROM: a bit for each holder", bit_lock_fields},
    {0x5200, generation::any, "eeprom.owner", "ID lock: written, a request; read, the holder", holder_fields},
    {0x5204, generation::any, "eeprom.release", "ID lock: removes the holders that are written", holder_fields},
    {0x5208, generation::any, "eeprom.pending", "ID lock: the registered holders, granted or not", holder_fields},
    {0x520c, generation::any, "eeprom.locktype", "the kind of EEPROM lock of the card", lock_type_fields},
};

std::span<const register_info> register_table() { return table; }

// The texts of the table need no escapes.
std::string registers_document()
{
    std::string text = R"({"schema":"fxm/1","registers":[)";
    for (const register_info &info : table) {
        const char *of =
            info.of == generation::any ? "null" : (info.of == generation::only_40g ? R"("40G")" : R"("1/10G")");
        text += fmt::format(R"({}{{"address":{},"name":"{}","generation":{},"purpose":"{}","fields":[)",
                            &info == table ? "" : ",", info.address, info.name, of, info.purpose);
        for (const register_field &field : info.fields) {
            text += fmt::format(R"({}{{"name":"{}","first_bit":{},"bits":{},"words":[)",
                                &field == info.fields.data() ? "" : ",", field.name, field.first_bit, field.bits);
            for (const register_word &word : field.words)
                text += fmt::format(R"({}{{"value":{},"text":"{}"}})", &word == field.words.data() ? "" : ",",
                                    word.value, word.text);
            text += "]}";
        }
        text += "]}";
    }
    return text + "]}\n";
}

static bool is_of(const register_info &info, bool is_40g)
{
    return info.of == generation::any || (info.of == generation::only_40g) == is_40g;
}

const register_info *find_register(std::string_view name, bool is_40g)
{
    for (const register_info &info : table) {
        if (name == info.name && is_of(info, is_40g))
            return &info;
    }
    return nullptr;
}

const register_info *find_register(uint32_t address, bool is_40g)
{
    for (const register_info &info : table) {
        if (address == info.address && is_of(info, is_40g))
            return &info;
    }
    return nullptr;
}

const char *word_of(const register_field &field, uint32_t field_value)
{
    for (const register_word &word : field.words) {
        if (word.value == field_value)
            return word.text;
    }
    return nullptr;
}

uint32_t value_of(const register_field &field, uint32_t register_value)
{
    return register_value >> field.first_bit & ((1u << field.bits) - 1);
}

} // namespace fxm

// The registers of a card that have a name, with their fields: one table for the command line, the API, the page and
// the dissector.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fxm
{

struct register_word {
    uint32_t value;
    const char *text;
};

struct register_field {
    const char *name;
    uint8_t first_bit;
    uint8_t bits;
    std::span<const register_word> words; // values in words; may be empty
};

enum class generation : uint8_t { any, only_1g, only_40g };

struct register_info {
    uint32_t address;
    generation of; // cards on which the register is at this address
    const char *name;
    const char *purpose; // one line for people
    std::span<const register_field> fields;
};

std::span<const register_info> register_table();

// The whole table as a document of the API, with a newline.
std::string registers_document();

// By name, or null. `is_40g` selects among addresses that depend on the generation.
const register_info *find_register(std::string_view name, bool is_40g);
const register_info *find_register(uint32_t address, bool is_40g);

// The word of a field's value, or null.
const char *word_of(const register_field &field, uint32_t field_value);
uint32_t value_of(const register_field &field, uint32_t register_value);

} // namespace fxm

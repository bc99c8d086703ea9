// Words and numbers of commands. A parser accepts a whole word or refuses it.
#ifndef SIM_TEXT_H
#define SIM_TEXT_H

#include <string_view>

#include "card.h"

std::vector<std::string_view> text_words(std::string_view line);

bool text_number(std::string_view word, u64 max, u64 &number);    // decimal, or hexadecimal with 0x
bool text_hex(std::string_view word, size_t digits, u64 &number); // at most `digits` digits, with or without 0x
bool text_mac(std::string_view word, u64 &mac);                   // with or without colons
bool text_bool(std::string_view word, bool &value);               // yes, no, 1, 0
std::string text_of_hex(u64 number, unsigned digits);             // at least `digits` digits
std::string text_of_mac(u64 mac);

#endif

// The keys of the configuration: their kinds, ranges and defaults, and what the sample and the messages say of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "daemon/config.h"

namespace fxm
{

// Kinds of values.
struct flag_key {
    bool config::*member;
    bool absent;
};
struct number_key {
    uint32_t config::*member;
    uint32_t least, most, absent;
};
struct text_key {
    std::string config::*member;
    const char *absent;
    bool (*good)(const std::string &text);
    const char *expected;
};
struct duration_key {
    int64_t config::*member;
    const char *absent;
};
struct ports_key {
};
struct list_key { // of at least one text, if it is set
    std::vector<std::string> config::*member;
    size_t most;
    bool (*good)(const std::string &text);
    const char *expected;
};
// Of the library: passed on as it is.
struct library_number {
    uint32_t least, most, absent;
};
struct library_mac {
    const char *absent;
};

struct key {
    const char *section; // empty for the top of the file
    const char *name;
    std::variant<flag_key, number_key, text_key, duration_key, ports_key, list_key, library_number, library_mac> kind;
    bool reloadable;
    const char *purpose;
};

std::span<const key> keys(); // in the order of the sample file

bool has_key(config_of what, const key &entry);
// A room runs beside an fxmd, so its socket is another one.
inline constexpr const char *ROOM_SOCKET = "/run/fxm-room/fxmd.sock";

std::string full_name(const key &entry);                        // "api.listen"
std::string expected(const key &entry);                         // what the value must be, for messages
std::optional<int64_t> parse_duration(const std::string &text); // "90s", in ms

} // namespace fxm

#include "daemon/config_keys.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>

#include "common/card_id.h"
#include "fleet/names.h"

namespace fxm
{

static bool is_absolute(const std::string &text) { return text.starts_with('/') && text.size() < 400; }
static bool is_socket(const std::string &text) { return text.starts_with('/') && text.size() < 108; }
static bool is_empty_or_absolute(const std::string &text) { return text.empty() || is_absolute(text); }
static bool is_group(const std::string &text)
{
    return !text.empty() && text.size() <= 32 && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.';
    });
}
static bool is_level(const std::string &text)
{
    return text == "error" || text == "warning" || text == "info" || text == "debug";
}
static bool is_listen(const std::string &text)
{
    if (text.empty())
        return true;
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos)
        return false;
    const std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    const auto number = port.starts_with('0') ? std::nullopt : parse_u32(port);
    return (host == "127.0.0.1" || host == "localhost") && number && *number <= 65535;
}

static bool is_server(const std::string &text)
{
    constexpr std::string_view schemes[] = {"nats://", "tls://"};
    return text.size() < 256 && std::any_of(std::begin(schemes), std::end(schemes), [&](std::string_view scheme) {
               return text.starts_with(scheme) && text.size() > scheme.size() &&
                      std::all_of(text.begin(), text.end(), [](unsigned char c) { return c > ' ' && c < 0x7f; });
           });
}
static bool is_empty_or_site(const std::string &text) { return text.empty() || fleet::is_site(text); }
static bool is_role(const std::string &text) { return text == "view" || text == "operate" || text == "admin"; }

// In the order of the sample file.
static const key table[] = {
    {"", "ports", ports_key{}, false,
     "The interfaces on the management network, one or two. The unit of fxmd brings them up; without systemd they must "
     "be up when it starts."},
    {"", "eeprom_writer", flag_key{&config::eeprom_writer, false}, true,
     "Whether EEPROMs may be written. The lock on a card cannot keep two fxmd apart, so set it in exactly one of all "
     "fxmd that reach the same cards."},
    {"", "max_cards", number_key{&config::max_cards, 1, 10000000, 131072}, true,
     "Cards beyond this number are ignored, with one warning. It limits the memory that frames can take."},
    {"", "forget_after", duration_key{&config::forget_after_ms, "0s"}, true,
     "Cards that are lost for longer are deleted: \"90s\", \"10m\", \"12h\", \"7d\". 0s: never."},
    {"", "run_dir", text_key{&config::run_dir, "/run/fxm", is_absolute, "an absolute path"}, false,
     "Where fxmd writes the library's configuration."},
    {"", "state_dir", text_key{&config::state_dir, "/var/lib/fxm", is_absolute, "an absolute path"}, false,
     "Where the history and the event numbers are kept."},
    {"api", "socket",
     text_key{&config::socket, "/run/fxm/fxmd.sock", is_socket, "an absolute path of at most 107 characters"}, false,
     "The Unix socket of the API."},
    {"api", "listen",
     text_key{&config::listen, "", is_listen, "a loopback address with a port, such as 127.0.0.1:8610, or nothing"},
     false,
     "A loopback address for the API, such as \"127.0.0.1:8610\". Browsers open the page there, and Prometheus reads "
     "/metrics. Empty: none."},
    {"api", "token_file", text_key{&config::token_file, "", is_empty_or_absolute, "an absolute path, or nothing"}, true,
     "Who may use that address: a file with lines such as \"view TOKEN\". Required with listen; not readable by "
     "others."},
    {"api", "group_view", text_key{&config::group_view, "fxm-view", is_group, "the name of a group"}, true,
     "The group that may read everything."},
    {"api", "group_operate", text_key{&config::group_operate, "fxm", is_group, "the name of a group"}, true,
     "The group that may also write to cards."},
    {"api", "group_admin", text_key{&config::group_admin, "fxm-admin", is_group, "the name of a group"}, true,
     "The group that may also administer fxmd. Root may always."},
    {"api", "max_clients", number_key{&config::max_clients, 16, 65536, 4096}, false,
     "Connections at the same time; further clients wait."},
    {"history", "enabled", flag_key{&config::history_enabled, true}, false, "Whether events are kept on disk."},
    {"history", "days", number_key{&config::history_days, 1, 3650, 30}, true, "How many days an event is kept."},
    {"history", "max_events", number_key{&config::history_max_events, 1000, 100000000, 1000000}, true,
     "How many events are kept at most; the oldest go first."},
    {"log", "level", text_key{&config::log_level, "info", is_level, "error, warning, info or debug"}, true,
     "What fxmd logs to stderr. Writes to cards are always logged."},
    {"fleet", "urls",
     list_key{&config::fleet_urls, 16, is_server, "a list of servers, such as [\"nats://10.0.0.1:4222\"]"}, false,
     "The NATS servers of a fleet of several fxmd. What a site knows goes there, and a room reads it there. Without "
     "this "
     "key there is no fleet."},
    {"fleet", "site", text_key{&config::fleet_site, "", is_empty_or_site, "at most 32 of a-z, 0-9 and -"}, false,
     "The name of this fxmd, unique in the fleet. Required with urls. Of a room: the user of its certificate."},
    {"fleet", "ca", text_key{&config::fleet_ca, "", is_empty_or_absolute, "an absolute path, or nothing"}, false,
     "The certificate that has signed those of the servers. Empty: the connection is not encrypted."},
    {"fleet", "certificate",
     text_key{&config::fleet_certificate, "", is_empty_or_absolute, "an absolute path, or nothing"}, false,
     "A file with the certificate of this site or room and its key. Required with ca."},
    {"fleet", "allow", text_key{&config::fleet_allow, "view", is_role, "view, operate or admin"}, false,
     "The most that a request from the fleet may do here, whoever asks. Of a room: the most that it asks for."},
    {"library", "ether_type", library_number{0, 65535, 0x88b6}, false, "EtherType of all management frames."},
    {"library", "broadcast_mac", library_mac{"03:00:ff:ff:ff:ff"}, false, "Destination of a Reset frame."},
    {"library", "devinfo_check_interval", library_number{1000, 100000, 1000}, false,
     "Time between two checks of all cards for silence, ms."},
    {"library", "devinfo_expire_time", library_number{1000, 100000, 5000}, false,
     "Silence after which a channel goes down, ms."},
    {"library", "devinfo_flag_check_interval", library_number{1, 100000, 100}, false,
     "How often the library checks whether it has been told to stop, ms. A stop of fxmd can take as long."},
    {"library", "update_evt_mask", library_number{1, 2, 2}, false,
     "Changes that count. 1: all. 2: all but the lowest status bits of down ports and sub-states."},
    {"library", "frame_retry_interval", library_number{1, 1000, 100}, false, "How long to wait for an answer, ms."},
    {"library", "frame_retry_count", library_number{0, 100, 10}, false, "Attempts after the first one."},
    {"library", "frame_retry_interval_livecheck", library_number{1, 1000, 100}, false,
     "How long a live check waits for an answer, ms."},
    {"library", "frame_retry_count_livecheck", library_number{0, 100, 10}, false,
     "Attempts of a live check after the first one."},
    {"library", "register_verify_interval", library_number{0, 1000, 0}, false,
     "Pause before a register that does not hold its value is written again, ms."},
    {"library", "vlan_check_interval", library_number{1, 1000, 10}, false,
     "How often the library looks for the new VLAN of a card, ms."},
    {"library", "tag_min", library_number{0, 255, 0}, false, "First tag of register reads."},
    {"library", "tag_max", library_number{0, 255, 255}, false, "Last tag of register reads."},
    {"library", "eeprom_type", library_number{0, 1, 0}, false,
     "Address form of EEPROMs of 1G/10G cards. 0: split, then plain. 1: plain only."},
    {"library", "eeprom_check_interval", library_number{0, 1000, 1}, false,
     "Pause before each check whether an access is complete, ms."},
    {"library", "eeprom_check_retry_count", library_number{0, 1000, 50}, false, "Checks after the first one."},
    {"library", "eeprom_rw_interval", library_number{0, 1000, 100}, false, "Pause between two attempts at a word, ms."},
    {"library", "eeprom_retry_interval", library_number{1, 1000, 50}, false,
     "Pause between two tries for the EEPROM lock, ms."},
    {"library", "eeprom_retry_count", library_number{0, 1000, 100}, false, "Tries after the first one."},
    {"library", "eeprom_verify_count", library_number{0, 60, 20}, false, "Reads that must find a new lock unchanged."},
    {"library", "eeprom_verify_interval", library_number{1, UINT32_MAX, 1}, false, "Pause before each of them, ms."},
    {"library", "eeprom_lock_other_bit", library_number{0, UINT32_MAX, 8}, false,
     "The bits of the other holder in a bit lock."},
    {"library", "force_lock_try_count", library_number{0, 1000, 10}, false,
     "How often one operation may clear another holder."},
};

std::span<const key> keys() { return table; }

bool has_key(config_of what, const key &entry)
{
    const std::string_view section = entry.section;
    return what == config_of::fxmd || section == "api" || section == "log" || section == "fleet";
}

std::string full_name(const key &entry)
{
    return *entry.section == '\0' ? entry.name : fmt::format("{}.{}", entry.section, entry.name);
}

std::optional<int64_t> parse_duration(const std::string &text)
{
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string unit(end, static_cast<size_t>(text.data() + text.size() - end));
    constexpr int64_t MOST = 3650;
    if (error != std::errc{} || value < 0)
        return std::nullopt;
    const int64_t seconds = unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86400 : 0;
    if (seconds == 0 || value > MOST * 86400 / seconds)
        return std::nullopt;
    return value * seconds * 1000;
}

std::string expected(const key &entry)
{
    struct {
        std::string operator()(const flag_key &) const { return "true or false"; }
        std::string operator()(const number_key &k) const
        {
            return fmt::format("a number from {} to {}", k.least, k.most);
        }
        std::string operator()(const text_key &k) const { return k.expected; }
        std::string operator()(const duration_key &) const
        {
            return "a time such as \"90s\", \"10m\", \"12h\" or \"7d\", at most 3650 days";
        }
        std::string operator()(const ports_key &) const
        {
            return "one or two different names of interfaces, such as [\"eth2\", \"eth3\"]";
        }
        std::string operator()(const list_key &k) const { return k.expected; }
        std::string operator()(const library_number &k) const
        {
            return fmt::format("a number from {} to {}", k.least, k.most);
        }
        std::string operator()(const library_mac &) const { return "a MAC address such as \"03:00:ff:ff:ff:ff\""; }
    } words;
    return std::visit(words, entry.kind);
}

// ------------------------------------------------------------------------------------------------------------- sample

static std::string default_text(const key &entry)
{
    struct {
        const char *name;
        std::string operator()(const flag_key &k) const { return k.absent ? "true" : "false"; }
        std::string operator()(const number_key &k) const { return std::to_string(k.absent); }
        std::string operator()(const text_key &k) const { return fmt::format("\"{}\"", k.absent); }
        std::string operator()(const duration_key &k) const { return fmt::format("\"{}\"", k.absent); }
        std::string operator()(const ports_key &) const { return "[\"eth2\"]"; }
        std::string operator()(const list_key &) const { return "[]"; }
        std::string operator()(const library_number &k) const
        {
            const bool hex =
                std::string_view(name) == "ether_type" || std::string_view(name) == "eeprom_lock_other_bit";
            return hex ? fmt::format("{:#x}", k.absent) : std::to_string(k.absent);
        }
        std::string operator()(const library_mac &k) const { return fmt::format("\"{}\"", k.absent); }
    } words{entry.name};
    return std::visit(words, entry.kind);
}

// Comment lines of at most 100 characters.
static std::string wrapped(const std::string &text)
{
    std::string out;
    std::string line = "#";
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > 100) {
            out += line + '\n';
            line = "#";
        }
        line += ' ' + word;
    }
    return out + line + '\n';
}

uint16_t ether_type_of(const config &settings)
{
    const auto set = settings.library.find("ether_type");
    if (set != settings.library.end())
        return static_cast<uint16_t>(std::stoul(set->second));
    const auto entry = std::find_if(std::begin(keys()), std::end(keys()),
                                    [](const key &one) { return std::string_view(one.name) == "ether_type"; });
    return static_cast<uint16_t>(std::get<library_number>(entry->kind).absent);
}

std::string sample_config(config_of what)
{
    const bool is_room = what == config_of::room;
    std::string text = is_room
                           ? "# Configuration of an operations room, fxmd --fleet, with all keys and their defaults.\n"
                             "# fxmd --fleet --check reads it and reports every error.\n"
                           : "# Configuration of fxmd, with all keys and their defaults. fxmd --check reads it and "
                             "reports every error.\n";
    text += "# fxmctl reload applies the keys marked \"reload\"; the others need a restart.\n";
    std::string section;
    for (const key &entry : keys()) {
        if (!has_key(what, entry))
            continue;
        if (section != entry.section) {
            section = entry.section;
            text += fmt::format("\n[{}]\n", section);
            if (section == "library")
                text += "# Passed on to the library as they are.\n";
        }
        const std::string_view name = entry.name;
        const bool needed =
            std::holds_alternative<ports_key>(entry.kind) || (is_room && (name == "urls" || name == "site"));
        std::string value = default_text(entry);
        if (is_room && name == "socket")
            value = fmt::format("\"{}\"", ROOM_SOCKET);
        else if (is_room && needed)
            value = name == "site" ? "\"room\"" : R"(["nats://127.0.0.1:4222"])";
        text += fmt::format("\n{}# Expected: {}.{}\n{}{} = {}\n", wrapped(entry.purpose), expected(entry),
                            entry.reloadable ? " (reload)" : "", needed ? "" : "#", entry.name, value);
    }
    return text;
}

} // namespace fxm

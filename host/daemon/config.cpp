#include "daemon/config.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>
#include <toml++/toml.h>
#include <variant>

#include "common/card_id.h"
#include "daemon/tokens.h"
#include "fleet/names.h"

namespace fxm
{

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------------------------------------- the table

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
static const key keys[] = {
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
     "The NATS servers of a fleet of several fxmd. What this one knows goes there, and requests come from there. "
     "Without this key there is no fleet."},
    {"fleet", "site", text_key{&config::fleet_site, "", is_empty_or_site, "at most 32 of a-z, 0-9 and -"}, false,
     "The name of this fxmd, unique in the fleet. Required with urls."},
    {"fleet", "ca", text_key{&config::fleet_ca, "", is_empty_or_absolute, "an absolute path, or nothing"}, false,
     "The certificate that has signed those of the servers. Empty: the connection is not encrypted."},
    {"fleet", "certificate",
     text_key{&config::fleet_certificate, "", is_empty_or_absolute, "an absolute path, or nothing"}, false,
     "A file with the certificate of this site and its key. Required with ca."},
    {"fleet", "allow", text_key{&config::fleet_allow, "view", is_role, "view, operate or admin"}, false,
     "The most that a request from the fleet may do here, whoever asks."},
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

static std::string full_name(const key &entry)
{
    return *entry.section == '\0' ? entry.name : fmt::format("{}.{}", entry.section, entry.name);
}

// ------------------------------------------------------------------------------------------------------------ reading

static std::optional<int64_t> parse_duration(const std::string &text)
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

static bool is_interface_name(const std::string &name)
{
    // What the kernel takes, without a comma, which would end the name in the library's file.
    return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return c > ' ' && c != 0x7f && c != '/' && c != ':' && c != ',' && c != '"' && c != '\'';
           });
}

// The one form that the library reads.
static bool is_mac(const std::string &text)
{
    return text.size() == 17 && text[2] == ':' && parse_id(text).has_value();
}

static std::string show(const toml::node &node)
{
    if (node.is_table())
        return "{...}";
    std::ostringstream text;
    text << toml::toml_formatter(node,
                                 toml::toml_formatter::default_flags & ~toml::format_flags::allow_literal_strings);
    constexpr size_t LONGEST = 120;
    std::string line = text.str();
    return line.size() > LONGEST ? line.substr(0, LONGEST) + "..." : line;
}

// What the value must be, for messages.
static std::string expected(const key &entry)
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

// Takes the value; false if it is not what is expected.
static bool take(const key &entry, const toml::node &node, config *out)
{
    const auto number = [&node](uint32_t least, uint32_t most) -> std::optional<uint32_t> {
        const auto *value = node.as_integer();
        if (value == nullptr || value->get() < least || value->get() > most)
            return std::nullopt;
        return static_cast<uint32_t>(value->get());
    };
    if (const auto *flag = std::get_if<flag_key>(&entry.kind)) {
        const auto *value = node.as_boolean();
        if (value != nullptr)
            out->*flag->member = value->get();
        return value != nullptr;
    }
    if (const auto *range = std::get_if<number_key>(&entry.kind)) {
        const auto value = number(range->least, range->most);
        if (value)
            out->*range->member = *value;
        return value.has_value();
    }
    if (const auto *range = std::get_if<library_number>(&entry.kind)) {
        const auto value = number(range->least, range->most);
        if (value)
            out->library[entry.name] = std::to_string(*value);
        return value.has_value();
    }
    if (std::holds_alternative<ports_key>(entry.kind)) {
        const toml::array *list = node.as_array();
        if (list == nullptr || list->empty() || list->size() > 2)
            return false;
        out->ports.clear();
        for (const toml::node &item : *list) {
            const auto *name = item.as_string();
            if (name == nullptr || !is_interface_name(name->get()))
                return false;
            out->ports.push_back(name->get());
        }
        return out->ports.size() == 1 || out->ports[0] != out->ports[1];
    }
    if (const auto *list = std::get_if<list_key>(&entry.kind)) {
        const toml::array *items = node.as_array();
        if (items == nullptr || items->empty() || items->size() > list->most)
            return false;
        (out->*list->member).clear();
        for (const toml::node &item : *items) {
            const auto *text = item.as_string();
            if (text == nullptr || !list->good(text->get()))
                return false;
            (out->*list->member).push_back(text->get());
        }
        return true;
    }
    const auto *value = node.as_string();
    if (value == nullptr)
        return false;
    if (const auto *text = std::get_if<text_key>(&entry.kind)) {
        const bool good = text->good(value->get());
        if (good)
            out->*text->member = value->get();
        return good;
    }
    if (const auto *duration = std::get_if<duration_key>(&entry.kind)) {
        const auto length = parse_duration(value->get());
        if (length)
            out->*duration->member = *length;
        return length.has_value();
    }
    const bool good = is_mac(value->get());
    if (good)
        out->library[entry.name] = value->get();
    return good;
}

static config defaults()
{
    config made;
    for (const key &entry : keys) {
        if (const auto *flag = std::get_if<flag_key>(&entry.kind))
            made.*flag->member = flag->absent;
        else if (const auto *range = std::get_if<number_key>(&entry.kind))
            made.*range->member = range->absent;
        else if (const auto *text = std::get_if<text_key>(&entry.kind))
            made.*text->member = text->absent;
        else if (const auto *duration = std::get_if<duration_key>(&entry.kind))
            made.*duration->member = *parse_duration(duration->absent);
    }
    return made;
}

static size_t distance(const std::string &left, const std::string &right)
{
    std::vector<size_t> row(right.size() + 1);
    for (size_t j = 0; j < row.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= left.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= right.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (left[i - 1] == right[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[right.size()];
}

// The known key whose name, with or without its section, is most like this one.
static std::string nearest(const std::string &name)
{
    const std::string bare = name.substr(name.rfind('.') + 1);
    const auto away = [&](const key &entry) {
        return std::min(distance(full_name(entry), name), distance(entry.name, bare));
    };
    return full_name(*std::min_element(std::begin(keys), std::end(keys),
                                       [&](const key &left, const key &right) { return away(left) < away(right); }));
}

// Collects the errors of one file.
class reader
{
  public:
    explicit reader(fs::path file) : file_(std::move(file)), made_(defaults()) {}

    config read()
    {
        toml::table table;
        try {
            table = toml::parse(text_of_file(), file_.string());
        } catch (const toml::parse_error &failure) {
            throw config_error(
                fmt::format("{}:{}: {}", file_.string(), failure.source().begin.line, failure.description()));
        }
        read_section("", table);
        if (!table.contains("ports"))
            errors_.emplace_back(0,
                                 fmt::format("{}: ports is missing: expected {}", file_.string(), expected(keys[0])));
        check_pairs(table);
        if (!errors_.empty()) {
            std::stable_sort(errors_.begin(), errors_.end(),
                             [](const auto &a, const auto &b) { return a.first < b.first; });
            std::string lines;
            for (const auto &[line, text] : errors_)
                lines += (lines.empty() ? "" : "\n") + text;
            throw config_error(lines);
        }
        return std::move(made_);
    }

  private:
    std::string text_of_file() const
    {
        errno = 0;
        std::ifstream in(file_);
        std::ostringstream text;
        if (in.is_open() && in.peek() != std::ifstream::traits_type::eof())
            text << in.rdbuf();
        if (!in.is_open() && errno == ENOENT)
            throw config_error(
                fmt::format("there is no file {}; fxmd --print-config prints one to start from", file_.string()));
        if (!in.is_open() || in.bad() || !text)
            throw config_error(fmt::format("cannot read {}: {}", file_.string(), strerror(errno)));
        return text.str();
    }

    void fail(const toml::node &node, const std::string &name, const std::string &what)
    {
        const auto line = node.source().begin.line;
        std::string text = fmt::format("{}:{}: {} = {}: {}", file_.string(), line, name, show(node), what);
        // One line, and nothing that a terminal would take for a command.
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
        errors_.emplace_back(line, std::move(text));
    }

    void read_section(const std::string &section, const toml::table &table)
    {
        for (const auto &[found, node] : table) {
            const std::string name(found.str());
            const std::string full = section.empty() ? name : fmt::format("{}.{}", section, name);
            const auto entry = std::find_if(std::begin(keys), std::end(keys),
                                            [&](const key &k) { return section == k.section && name == k.name; });
            const bool known = entry != std::end(keys);
            // The keys of an unknown section are unknown one by one, so that each is named with the one that is meant.
            if (!known && node.is_table() && (is_section(full) || !node.as_table()->empty()))
                read_section(full, *node.as_table());
            else if (!known && is_section(full))
                fail(node, full, fmt::format("expected a section, [{}]", full));
            else if (!known)
                fail(node, full, fmt::format("there is no such key; did you mean {}?", nearest(full)));
            else if (!take(*entry, node, &made_))
                fail(node, full, "expected " + expected(*entry));
        }
    }

    static bool is_section(const std::string &name)
    {
        return std::any_of(std::begin(keys), std::end(keys),
                           [&](const key &k) { return *k.section != '\0' && name == k.section; });
    }

    // What no single key can have wrong.
    void check_pairs(const toml::table &table)
    {
        const auto tag = [this](const char *name, unsigned long absent) {
            const auto found = made_.library.find(name);
            return found != made_.library.end() ? std::stoul(found->second) : absent;
        };
        if (tag("tag_min", 0) > tag("tag_max", 255))
            fail(*table["library"]["tag_min"].node(), "library.tag_min",
                 fmt::format("must not be greater than tag_max, which is {}", tag("tag_max", 255)));
        if (!made_.fleet_urls.empty() && made_.fleet_site.empty())
            fail(*table["fleet"]["urls"].node(), "fleet.urls", "fleet.site must be set too");
        if (made_.fleet_ca.empty() != made_.fleet_certificate.empty())
            fail(*table["fleet"][made_.fleet_ca.empty() ? "certificate" : "ca"].node(),
                 made_.fleet_ca.empty() ? "fleet.certificate" : "fleet.ca",
                 "fleet.ca and fleet.certificate belong together");
        const auto tokens = table["api"]["token_file"];
        if (!made_.listen.empty() && (!tokens || tokens.value<std::string>() == ""))
            fail(*table["api"]["listen"].node(), "api.listen",
                 "api.token_file must be set too, because every process of this machine can reach the address");
        if (made_.token_file.empty())
            return;
        try {
            read_tokens(made_.token_file);
        } catch (const std::system_error &failure) {
            // Whoever checks the file for another user may not be allowed to look.
            if (failure.code() != std::errc::permission_denied || geteuid() == 0)
                fail(*tokens.node(), "api.token_file", failure.what());
        } catch (const std::runtime_error &failure) {
            fail(*tokens.node(), "api.token_file", failure.what());
        }
    }

    const fs::path file_;
    config made_;
    std::vector<std::pair<toml::source_index, std::string>> errors_;
};

config load_config(const fs::path &file) { return reader(file).read(); }

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
    const auto *entry = std::find_if(std::begin(keys), std::end(keys),
                                     [](const key &one) { return std::string_view(one.name) == "ether_type"; });
    return static_cast<uint16_t>(std::get<library_number>(entry->kind).absent);
}

std::string sample_config()
{
    std::string text =
        "# Configuration of fxmd, with all keys and their defaults. fxmd --check reads it and reports every error.\n"
        "# fxmctl reload applies the keys marked \"reload\"; the others need a restart.\n";
    std::string section;
    for (const key &entry : keys) {
        if (section != entry.section) {
            section = entry.section;
            text += fmt::format("\n[{}]\n", section);
            if (section == "library")
                text += "# Passed on to the library as they are.\n";
        }
        const bool needed = std::holds_alternative<ports_key>(entry.kind);
        text += fmt::format("\n{}# Expected: {}.{}\n{}{} = {}\n", wrapped(entry.purpose), expected(entry),
                            entry.reloadable ? " (reload)" : "", needed ? "" : "#", entry.name, default_text(entry));
    }
    return text;
}

// ------------------------------------------------------------------------------------------------------------- reload

// The value as text, so that two configurations can be compared key by key.
static std::string value_text(const key &entry, const config &settings)
{
    struct {
        const char *name;
        const config &settings;
        std::string operator()(const flag_key &k) const { return settings.*k.member ? "true" : "false"; }
        std::string operator()(const number_key &k) const { return std::to_string(settings.*k.member); }
        std::string operator()(const text_key &k) const { return settings.*k.member; }
        std::string operator()(const duration_key &k) const { return std::to_string(settings.*k.member); }
        std::string operator()(const ports_key &) const { return fmt::format("{}", fmt::join(settings.ports, " ")); }
        std::string operator()(const list_key &k) const
        {
            return fmt::format("{}", fmt::join(settings.*k.member, " "));
        }
        std::string operator()(const library_number &k) const { return of_library(std::to_string(k.absent)); }
        std::string operator()(const library_mac &k) const { return of_library(k.absent); }
        std::string of_library(const std::string &absent) const
        {
            const auto found = settings.library.find(name);
            return found != settings.library.end() ? found->second : absent;
        }
    } words{entry.name, settings};
    return std::visit(words, entry.kind);
}

std::vector<changed_key> changed_keys(const config &before, const config &next)
{
    std::vector<changed_key> changed;
    for (const key &entry : keys) {
        if (value_text(entry, before) != value_text(entry, next))
            changed.push_back({full_name(entry), entry.reloadable});
    }
    return changed;
}

config reloaded(const config &before, const config &next)
{
    config made = before;
    for (const key &entry : keys) {
        if (!entry.reloadable)
            continue;
        if (const auto *flag = std::get_if<flag_key>(&entry.kind))
            made.*flag->member = next.*flag->member;
        else if (const auto *range = std::get_if<number_key>(&entry.kind))
            made.*range->member = next.*range->member;
        else if (const auto *text = std::get_if<text_key>(&entry.kind))
            made.*text->member = next.*text->member;
        else if (const auto *duration = std::get_if<duration_key>(&entry.kind))
            made.*duration->member = next.*duration->member;
    }
    return made;
}

} // namespace fxm

#include "daemon/config.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <system_error>
#include <toml++/toml.h>
#include <variant>

#include "common/card_id.h"
#include "daemon/config_keys.h"
#include "daemon/tokens.h"

namespace fxm
{

namespace fs = std::filesystem;

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
    for (const key &entry : keys()) {
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
    return full_name(*std::min_element(std::begin(keys()), std::end(keys()),
                                       [&](const key &left, const key &right) { return away(left) < away(right); }));
}

// Collects the errors of one file.
class reader
{
  public:
    reader(fs::path file, config_of what) : file_(std::move(file)), what_(what), made_(defaults())
    {
        if (what == config_of::room)
            made_.socket = ROOM_SOCKET;
    }

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
        if (what_ == config_of::room && (!table["fleet"]["urls"] || !table["fleet"]["site"]))
            errors_.emplace_back(0,
                                 fmt::format("{}: fleet.urls and fleet.site are missing: a room has a fleet and a name",
                                             file_.string()));
        if (what_ == config_of::fxmd && !table.contains("ports"))
            errors_.emplace_back(0,
                                 fmt::format("{}: ports is missing: expected {}", file_.string(), expected(keys()[0])));
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
            throw config_error(fmt::format("there is no file {}; fxmd{} --print-config prints one to start from",
                                           file_.string(), what_ == config_of::room ? " --fleet" : ""));
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
            const auto entry = std::find_if(std::begin(keys()), std::end(keys()),
                                            [&](const key &k) { return section == k.section && name == k.name; });
            const bool known = entry != std::end(keys());
            // The keys of an unknown section are unknown one by one, so that each is named with the one that is meant.
            if (!known && node.is_table() && (is_section(full) || !node.as_table()->empty()))
                read_section(full, *node.as_table());
            else if (!known && is_section(full))
                fail(node, full, fmt::format("expected a section, [{}]", full));
            else if (!known)
                fail(node, full, fmt::format("there is no such key; did you mean {}?", nearest(full)));
            else if (!has_key(what_, *entry))
                fail(node, full, "an operations room has no such key; it belongs into the file of an fxmd");
            else if (!take(*entry, node, &made_))
                fail(node, full, "expected " + expected(*entry));
        }
    }

    static bool is_section(const std::string &name)
    {
        return std::any_of(std::begin(keys()), std::end(keys()),
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
    const config_of what_;
    config made_;
    std::vector<std::pair<toml::source_index, std::string>> errors_;
};

config load_config(const fs::path &file, config_of what) { return reader(file, what).read(); }

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
    for (const key &entry : keys()) {
        if (value_text(entry, before) != value_text(entry, next))
            changed.push_back({full_name(entry), entry.reloadable});
    }
    return changed;
}

config reloaded(const config &before, const config &next)
{
    config made = before;
    for (const key &entry : keys()) {
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

// The list of a fleet. All of its errors are told at once.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>
#include <toml++/toml.h>

#include "ctl/fleet.h"
#include "fleet/names.h"

namespace fxm
{

constexpr const char *NAME_WORDS = "at most 32 of a-z, 0-9 and -";

bool is_ip_address(const std::string &text)
{
    in6_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1 || inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

std::string with_port(const std::string &address, unsigned port)
{
    const bool is_ipv6 = address.find(':') != std::string::npos;
    return is_ipv6 ? fmt::format("[{}]:{}", address, port) : fmt::format("{}:{}", address, port);
}

static bool is_server_address(const std::string &text)
{
    if (is_ip_address(text))
        return text != "0.0.0.0" && text != "::";
    const bool is_name = !text.empty() && text.size() <= 253 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
    });
    // What has no letter was meant as an IP address.
    return is_name && text.find_first_not_of("0123456789.") != std::string::npos && text[0] != '-' && text[0] != '.';
}

static bool is_server_path(const std::string &text)
{
    return text.size() > 1 && text[0] == '/' && text.back() != '/' && std::all_of(text.begin(), text.end(), [](char c) {
               return c > ' ' && c < 0x7f && c != '"' && c != '\\' && c != '\'';
           });
}

class list_reader
{
  public:
    explicit list_reader(std::string file) : file_(std::move(file)) {}

    fleet_list read()
    {
        const auto text = text_of(file_);
        if (!text)
            throw ctl_error(EXIT_FAILED, fmt::format("there is no list of a fleet {}", file_),
                            "name it with --list; fxmctl fleet --help shows one");
        try {
            table_ = toml::parse(*text, file_);
        } catch (const toml::parse_error &failure) {
            errors_.emplace(failure.source().begin.line,
                            fmt::format("{}:{}: {}", file_, failure.source().begin.line, failure.description()));
            finish();
        }
        read_keys();
        finish();
        return std::move(made_);
    }

  private:
    void read_keys()
    {
        const auto node = [this](const char *key, const char *expected = nullptr) {
            known_.emplace_back(key);
            if (expected != nullptr && !table_.contains(key))
                errors_.emplace(0, fmt::format("{}: {} is missing: expected {}", file_, key, expected));
            return table_.get(key);
        };
        const auto path = [](const std::string &value) { return is_server_path(value); };
        take_text(node("name", NAME_WORDS), "name", fleet::is_site, NAME_WORDS, &made_.name);
        take_names(node("sites", "a list of names"), "sites", &made_.sites);
        take_servers(node("servers", "a section, [servers], of 1, 3 or 5 lines NAME = \"ADDRESS\""));
        take_users(node("users", "a section, [users], of lines NAME = \"ROLE\""));
        take_names(node("readers"), "readers", &made_.readers);
        take_text(node("certificates"), "certificates", path, "an absolute path", &made_.certificates);
        take_text(node("store"), "store", path, "an absolute path", &made_.store);
        take_number(node("store_gib"), "store_gib", 1, 1u << 20, &made_.store_gib);
        take_number(node("memory_mib"), "memory_mib", 64, 1u << 24, &made_.memory_mib);
        for (const auto &[key, unknown] : table_) {
            if (std::find(known_.begin(), known_.end(), key.str()) == known_.end())
                fail(unknown, std::string(key.str()),
                     fmt::format("there is no such key; there are {}", fmt::join(known_, ", ")));
        }
    }

    void fail(const toml::node &node, const std::string &key, const std::string &what)
    {
        std::ostringstream shown;
        if (node.is_table())
            shown << "{...}";
        else
            shown << toml::toml_formatter(node, toml::toml_formatter::default_flags &
                                                    ~toml::format_flags::allow_literal_strings);
        std::string text = shown.str();
        constexpr size_t LONGEST = 120;
        if (text.size() > LONGEST)
            text = text.substr(0, LONGEST) + "...";
        text = fmt::format("{}:{}: {} = {}: {}", file_, node.source().begin.line, key, text, what);
        // One line, and nothing that a terminal would take for a command.
        std::replace_if(
            text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, ' ');
        errors_.emplace(node.source().begin.line, std::move(text));
    }

    void finish() const
    {
        if (errors_.empty())
            return;
        std::string lines = fmt::format("{} cannot be used:", file_);
        for (const auto &[line, text] : errors_)
            lines += '\n' + text;
        throw ctl_error(EXIT_FAILED, lines);
    }

    template <typename Good>
    void take_text(const toml::node *node, const std::string &key, Good good, const char *expected, std::string *out)
    {
        if (node == nullptr)
            return;
        const auto *value = node->as_string();
        if (value != nullptr && good(value->get()))
            *out = value->get();
        else
            fail(*node, key, fmt::format("expected {}", expected));
    }

    void take_number(const toml::node *node, const char *key, unsigned least, unsigned most, unsigned *out)
    {
        if (node == nullptr)
            return;
        const auto *value = node->as_integer();
        if (value != nullptr && value->get() >= least && value->get() <= most)
            *out = static_cast<unsigned>(value->get());
        else
            fail(*node, key, fmt::format("expected a number from {} to {}", least, most));
    }

    // A certificate stands for one name, whether that is a site, a server, a user or a reader.
    bool take_name(const toml::node &node, const std::string &key, const std::string &name)
    {
        if (!fleet::is_site(name))
            fail(node, key, fmt::format("expected {}", NAME_WORDS));
        else if (name == "ca")
            fail(node, key, "ca.pem is the certificate of the fleet itself; choose another name");
        else if (const auto [taken, is_new] = names_.emplace(name, key); !is_new)
            fail(node, key,
                 fmt::format("{} has this name already; each name stands for one certificate", taken->second));
        else
            return true;
        return false;
    }

    void take_names(const toml::node *node, const char *key, std::vector<std::string> *out)
    {
        if (node == nullptr)
            return;
        const toml::array *list = node->as_array();
        if (list == nullptr || list->empty())
            return fail(*node, key, "expected a list of names");
        for (const toml::node &item : *list) {
            if (const auto *value = item.as_string(); value == nullptr)
                fail(item, key, "expected a name in quotes");
            else if (take_name(item, key, value->get()))
                out->push_back(value->get());
        }
    }

    void take_servers(const toml::node *node)
    {
        if (node == nullptr)
            return;
        const toml::table *lines = node->as_table();
        if (lines == nullptr || (lines->size() != 1 && lines->size() != 3 && lines->size() != 5))
            return fail(*node, "servers", "expected a section of 1, 3 or 5 servers; of these, more than half must run");
        std::map<std::string, std::string> known;
        for (const auto &[found, item] : *lines) {
            const std::string name(found.str()), key = "servers." + name;
            std::string address;
            take_text(&item, key, is_server_address, "an IP address, or the name of a machine", &address);
            const bool good = take_name(item, key, name);
            if (const auto [other, is_new] = known.emplace(address, name); !address.empty() && !is_new)
                fail(item, key, fmt::format("this is the address of {}", other->second));
            if (good)
                made_.servers.push_back({name, address});
        }
    }

    void take_users(const toml::node *node)
    {
        if (node == nullptr)
            return;
        const toml::table *lines = node->as_table();
        if (lines == nullptr || lines->empty())
            return fail(*node, "users", "expected a section of lines NAME = \"ROLE\"");
        const auto is_role = [](const std::string &value) {
            return value == "view" || value == "operate" || value == "admin";
        };
        for (const auto &[found, item] : *lines) {
            const std::string name(found.str()), key = "users." + name;
            std::string role;
            take_text(&item, key, is_role, "view, operate or admin", &role);
            if (take_name(item, key, name))
                made_.users.push_back({name, role});
        }
    }

    const std::string file_;
    toml::table table_;
    fleet_list made_;
    std::vector<std::string> known_;
    std::map<std::string, std::string> names_; // with the key that has it
    std::multimap<toml::source_index, std::string> errors_;
};

fleet_list load_fleet_list(const std::string &file) { return list_reader(file).read(); }

} // namespace fxm

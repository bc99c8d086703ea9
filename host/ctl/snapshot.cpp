// The fabric at one time as a file, and what has changed since.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

using cards_by_id = std::map<std::string, json::object>;

static cards_by_id index(const json::object &document, const std::string &source)
{
    cards_by_id made;
    const json::value *cards = document.if_contains("cards");
    if (cards == nullptr || !cards->is_array())
        throw ctl_error(EXIT_USAGE, fmt::format("{} is no snapshot", source), "fxmctl snapshot > FILE makes one");
    for (const json::value &card : cards->get_array())
        made[text(card.as_object(), "id")] = card.as_object();
    return made;
}

static cards_by_id read_snapshot(const std::string &path)
{
    std::ifstream file(path);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot read {}: {}", path, strerror(errno)));
    boost::system::error_code error;
    const json::value parsed = json::parse(bytes, error);
    if (error || !parsed.is_object())
        throw ctl_error(EXIT_USAGE, fmt::format("{} is no snapshot", path), "fxmctl snapshot > FILE makes one");
    return index(parsed.get_object(), path);
}

static std::string words_of(const json::value &value)
{
    return value.is_string() ? std::string(value.get_string().c_str()) : json::serialize(value);
}

// What is not the same in both; times always differ.
static std::string changes(const json::object &before, const json::object &after)
{
    std::string words;
    for (const auto &member : after) {
        const json::value *old = before.if_contains(member.key());
        if (member.key() == "seen_ms" || member.key() == "updated_ms" || old == nullptr || *old == member.value())
            continue;
        words += fmt::format(" {} {}→{}", std::string_view(member.key()), words_of(*old), words_of(member.value()));
    }
    return words;
}

static int diff(session *all, const std::string &old_file, const std::string &new_file)
{
    const cards_by_id before = read_snapshot(old_file);
    const cards_by_id after =
        new_file.empty() ? index(all->api().get("/v1/cards"), "the answer of fxmd") : read_snapshot(new_file);
    size_t differences = 0;
    const auto line = [&](char sign, const std::string &words, const std::string &id) {
        ++differences;
        put(fmt::format("{} {}{}\n", sign, id, words));
    };
    for (const auto &[id, card] : before) {
        const auto now = after.find(id);
        if (now == after.end())
            line('-', " gone", id);
        else if (const std::string words = changes(card, now->second); !words.empty())
            line(text(now->second, "health") == "lost" && text(card, "health") != "lost" ? '-' : '~', words, id);
    }
    for (const auto &[id, card] : after) {
        if (!before.contains(id))
            line('+',
                 fmt::format(" {} vlan {} {}", upper(text(card, "class")), number(card, "vlan"), text(card, "health")),
                 id);
    }
    return differences == 0 ? EXIT_DONE : EXIT_FAILED;
}

void add_snapshot_commands(CLI::App *app, session *all)
{
    auto *snapshot = app->add_subcommand("snapshot", "all cards as a JSON document, for fxmctl diff");
    explain(snapshot, reach::fxmd, "Example: fxmctl snapshot > monday.json");
    snapshot->callback([all] {
        all->run = [all] {
            put(all->api().get_text("/v1/cards"));
            return EXIT_DONE;
        };
    });
    auto files = std::make_shared<std::pair<std::string, std::string>>();
    auto *compare = app->add_subcommand("diff", "what has changed since a snapshot");
    compare->add_option("old", files->first, "a file of fxmctl snapshot")->required();
    compare->add_option("new", files->second, "another one (default: the fabric as it is now)");
    explain(compare, reach::fxmd, "Example: fxmctl diff monday.json", "something has changed, or failed");
    compare->callback([all, files] { all->run = [all, files] { return diff(all, files->first, files->second); }; });
}

} // namespace fxm

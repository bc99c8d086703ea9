// What a room of a fleet has and an fxmd has not.
#include <fmt/format.h>

#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

static std::string count_of(const json::object &from, const char *name)
{
    return with_commas(static_cast<uint64_t>(number(from, name)));
}

static std::string health_list(const json::object &cards)
{
    std::string line = fmt::format("{} cards: {} well", count_of(cards, "total"), count_of(cards, "well"));
    for (const char *state : {"degraded", "error", "lost", "unmonitored", "silent"}) {
        if (number(cards, state) != 0 || std::string_view(state) == "error" || std::string_view(state) == "lost")
            line += fmt::format(", {} {}", count_of(cards, state), state);
    }
    return line;
}

void print_room_status(const json::object &status)
{
    const json::object &sites = object(status, "sites");
    const json::object &room = object(status, "room");
    std::string states;
    for (const char *state : {"live", "silent", "starting", "refused"}) {
        if (number(sites, state) != 0)
            states += fmt::format("{}{} {}", states.empty() ? "" : ", ", number(sites, state), state);
    }
    put(fmt::format("room {}, fxmd {}, up {}, {} sites{}{}\n", text(room, "user"), text(status, "version"),
                    format_duration(number(status, "time_ms") - number(status, "started_ms")), number(sites, "total"),
                    states.empty() ? "" : ": ", states));
    put(fmt::format("  {}\n", health_list(object(status, "cards"))));
    put(fmt::format("  {} {}", text(room, "state"), text(room, "server")));
    if (number(room, "cards_wanted") != 0)
        put(fmt::format(", reading the cards: {} of {}", count_of(room, "cards_read"), count_of(room, "cards_wanted")));
    put("\n");
    for (const json::value &warning : array(status, "warnings"))
        put(fmt::format("  warning: {}\n", std::string_view(warning.as_string())));
}

static void print_sites(session *all, const json::object &document)
{
    table shown({"SITE", "STATE", "HEARD", "CLOCK", "CARDS", "WELL", "DEGRADED", "ERROR", "LOST", "WAITING", "HOLES",
                 "VERSION", "ALLOWS"});
    for (const json::value &entry : array(document, "sites")) {
        const json::object &site = entry.as_object();
        const json::object &cards = object(site, "cards");
        const auto card_count = [&](const char *name) { return count_of(cards, name); };
        shown.add({text(site, "site"), text(site, "state"), format_duration(number(site, "age_ms")) + " ago",
                   is_null(site, "offset_ms") ? "" : fmt::format("{:+} ms", number(site, "offset_ms")),
                   card_count("total"), card_count("well"), card_count("degraded"), card_count("error"),
                   card_count("lost"), count_of(site, "waiting"), count_of(site, "lost"), text(site, "version"),
                   text(site, "allow")});
    }
    if (shown.rows() == 0)
        put("No site has told anything yet; fxmctl fleet doctor looks for the reason.\n");
    else
        shown.print({"CARDS", "WELL", "DEGRADED", "ERROR", "LOST", "WAITING", "HOLES"}, all->how.colour);
}

void add_room_commands(CLI::App *app, session *all)
{
    auto *sites = app->add_subcommand("sites", "the sites of a fleet, as a room sees them");
    explain(sites, reach::fxmd, "Example: fxmctl --fleet /run/fxm-room/fxmd.sock sites");
    sites->callback([all] {
        all->run = [all] {
            return print_document(
                all, "/v1/sites", {}, [all](const json::object &found) { print_sites(all, found); }, "sites");
        };
    });
}

} // namespace fxm

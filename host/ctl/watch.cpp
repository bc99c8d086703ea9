// Following events: watch and wait.
#include <fmt/format.h>

#include <chrono>
#include <thread>

#include "common/card_id.h"
#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

static std::string value_words(const json::value &value)
{
    if (value.is_string())
        return std::string(value.get_string().c_str());
    return value.is_null() ? "none" : json::serialize(value);
}

// One line for people.
std::string event_words(const json::object &event)
{
    const std::string type = text(event, "type");
    if (type == "gap")
        return fmt::format("              gap: events {} to {} are missing", number(event, "from"),
                           number(event, "to"));
    if (type == "hole")
        return fmt::format("              gap: events {} to {} of the site {} are missing", number(event, "from"),
                           number(event, "to"), text(event, "site"));
    const std::string time = format_time(number(event, "time_ms"));
    if (type == "site")
        return fmt::format("{}  site {} is {}", time, text(event, "site"), text(event, "state"));
    if (type == "reset")
        return fmt::format("{}  the site {} has lost its state; its numbers begin anew", time, text(event, "site"));
    if (type == "boot")
        return fmt::format("{}  fxmd has been started again; its events begin at {}, those before may be missing", time,
                           number(event, "seq") + 1);
    if (type == "port") {
        const json::array &state = array(event, "state");
        return fmt::format("{}  port {} {} {}→{}", time, number(event, "port"), text(event, "name"),
                           value_words(state[0]), value_words(state[1]));
    }
    if (type == "library")
        return fmt::format("{}  library {}{}", time, text(event, "state"),
                           is_null(event, "result") ? "" : " after " + text(event, "result"));
    if (type == "job")
        return fmt::format("{}  {}  job {} {} {} {}/{}", time, text(event, "card"), number(event, "job"),
                           text(event, "kind"), text(event, "state"), number(event, "done"), number(event, "total"));
    std::string words = fmt::format("{}  {} ", time, text(event, "card"));
    const json::array &kinds = array(event, "kinds");
    const json::object &changes = object(event, "changes");
    for (const json::value &kind : kinds) {
        const std::string word = value_words(kind);
        if (word == "new" || word == "delete" || changes.empty())
            words += ' ' + word;
    }
    for (const auto &change : changes) {
        // The interrupt vector is one of the three status bytes.
        if (change.key() == "status" && changes.contains("int_vector"))
            continue;
        const json::array &values = change.value().as_array();
        words +=
            fmt::format(" {} {}→{}", std::string_view(change.key()), value_words(values[0]), value_words(values[1]));
    }
    if (number(event, "int_seen") != 0)
        words += fmt::format(" (interrupt bits seen: {:02x})", number(event, "int_seen"));
    if (!is_null(event, "now"))
        words +=
            fmt::format(" {} vlan {} {}", upper(text(event, "class")), number(event, "vlan"), text(event, "health"));
    return words;
}

static std::string join(const std::vector<std::string> &words)
{
    std::string joined;
    for (const std::string &word : words)
        joined += (joined.empty() ? "" : " ") + word;
    return joined;
}

// Follows the events from now on, also across a restart of fxmd, until `see` or `idle` returns false. The number of the
// last event goes with each new connection, so that no event comes twice.
static void follow(session *all, const std::string &filter,
                   const std::function<bool(std::string_view, const json::object &)> &see,
                   const std::function<bool()> &idle)
{
    std::string boot;
    int64_t seq = 0;
    bool lost = false;
    for (;;) {
        query arguments;
        if (!filter.empty())
            arguments.emplace_back("filter", filter);
        if (!boot.empty())
            arguments.emplace_back("after", fmt::format("{}.{}", boot, seq));
        bool ended = false;
        try {
            all->api().stream(
                "/v1/events", arguments,
                [&](std::string_view line) {
                    if (line.empty())
                        return true;
                    const json::object event = parse_line(line);
                    const std::string type = text(event, "type");
                    if (type == "boot")
                        boot = text(event, "boot");
                    // What a room says of a site alone has no number of that site.
                    const char *last = type == "gap" ? "to" : "seq";
                    if (event.contains(last))
                        seq = number(event, last);
                    lost = false;
                    ended = !see(line, event);
                    return !ended;
                },
                [&] {
                    ended = !idle();
                    return !ended;
                });
        } catch (const ctl_error &failure) {
            // Before the first line there is nothing to go on with.
            if ((failure.exit != EXIT_NO_DAEMON && failure.exit != EXIT_UNREACHABLE) || boot.empty())
                throw;
        }
        if (ended)
            return;
        if (!lost)
            fmt::print(stderr, "fxmctl: the connection to fxmd has ended; waiting for it to come back\n");
        lost = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        if (!idle())
            return;
    }
}

static int watch(session *all, const std::vector<std::string> &words, int seconds)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const auto goes_on = [&] { return seconds == 0 || std::chrono::steady_clock::now() < until; };
    follow(
        all, join(words),
        [&](std::string_view line, const json::object &event) {
            if (all->how.json || all->how.ndjson)
                put(std::string(line) + '\n');
            else if (text(event, "type") != "boot" || !flag(event, "resumed"))
                put(event_words(event) + '\n');
            flush();
            return goes_on();
        },
        goes_on);
    return EXIT_DONE;
}

// ----------------------------------------------------------------------------------------------------------------- wait

static constexpr const char *conditions =
    "connected, unconnected, well, degraded, error, lost, seen, gone or KEY=VALUE of a filter";

// Whether the card is as it is wanted; a card that does not exist is `gone`. `found` is what the card is, in words.
static bool is_met(session *all, const std::string &id, const std::string &condition, std::string *found)
{
    *found = "it has not been seen";
    try {
        const json::object card = all->api().get(card_path(id));
        *found = fmt::format("it is {}, {}, vlan {}", text(card, "health"),
                             array(card, "partners").empty() ? "unconnected" : "connected", number(card, "vlan"));
        if (condition == "gone")
            return false;
        if (condition == "seen")
            return true;
        if (condition == "connected" || condition == "unconnected")
            return array(card, "partners").empty() == (condition == "unconnected");
        if (condition.find('=') == std::string::npos)
            return text(card, "health") == condition;
        const json::object matching =
            all->api().get("/v1/cards", {{"filter", fmt::format("id={} {}", text(card, "id"), condition)}});
        return !array(matching, "cards").empty();
    } catch (const ctl_error &failure) {
        if (failure.exit != EXIT_NO_CARD)
            throw;
        return condition == "gone";
    }
}

static int wait_for(session *all, const std::string &id, const std::string &condition, double timeout)
{
    const std::vector<std::string> words = {"connected", "unconnected", "well", "degraded",
                                            "error",     "lost",        "seen", "gone"};
    if (condition.find('=') == std::string::npos && std::find(words.begin(), words.end(), condition) == words.end())
        throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is no condition", condition),
                        fmt::format("write {}", conditions));
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    std::string found;
    while (!is_met(all, id, condition, &found)) {
        if (std::chrono::steady_clock::now() >= end)
            throw ctl_error(EXIT_UNREACHABLE, fmt::format("card {} was not {} within {} s", id, condition, timeout),
                            found);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return EXIT_DONE;
}

void add_watch_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::vector<std::string> filter;
        std::string id, condition;
        double timeout = 30;
        int seconds = 0;
    };
    auto given = std::make_shared<arguments>();
    auto *watched = app->add_subcommand("watch", "events as they come, until Ctrl-C");
    watched->add_option("filter", given->filter, FILTER_HELP);
    watched->add_option("--seconds", given->seconds, "end after this time")->check(CLI::Range(1, 1000000));
    explain(watched, reach::fxmd,
            "When fxmd restarts, it goes on behind the last event that it has shown.\n"
            "Example: fxmctl watch vlan=100");
    watched->callback([all, given] { all->run = [all, given] { return watch(all, given->filter, given->seconds); }; });

    auto *waited = app->add_subcommand("wait", "waits until a card is as wanted");
    waited->add_option("card", given->id, "its id")->required();
    waited->add_option("condition", given->condition, conditions)->required();
    waited->add_option("--timeout", given->timeout, "seconds; when they are over, the exit code is 4")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 1e9));
    explain(waited, reach::record, "Example: fxmctl wait 02:00:00:00:20:00 connected --timeout 30");
    waited->callback([all, given] {
        all->run = [all, given] { return wait_for(all, given->id, given->condition, given->timeout); };
    });
}

} // namespace fxm

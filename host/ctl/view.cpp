// The commands that show the fabric and fxmd.
#include <fmt/format.h>

#include <charconv>
#include <map>

#include "common/card_id.h"
#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

// -------------------------------------------------------------------------------------------------------------- status

static std::string port_line(const json::object &port, int64_t now)
{
    const std::string state = text(port, "state");
    std::string words = state == "up" ? "up" : state == "down" ? "NO CARRIER" : "CLOSED";
    if (state != "up" && !is_null(port, "changed_ms"))
        words += fmt::format(" since {} ({})", format_seconds(number(port, "changed_ms")),
                             format_duration(now - number(port, "changed_ms")));
    return fmt::format("  port {} {}  {}  {} frames, {} dropped\n", number(port, "port"), text(port, "name"), words,
                       with_commas(static_cast<uint64_t>(number(port, "received"))),
                       with_commas(static_cast<uint64_t>(number(port, "dropped"))));
}

static void print_status(const json::object &status)
{
    if (status.if_contains("room") != nullptr) {
        print_room_status(status);
        return;
    }
    const json::object &cards = object(status, "cards");
    const int64_t now = number(status, "time_ms");
    // A silent site has not told since when it runs.
    const std::string up =
        is_null(status, "started_ms") ? "silent" : "up " + format_duration(now - number(status, "started_ms"));
    std::string line = fmt::format("fxmd {}, {}, {} cards ({} FXSV, {} FXIO): {} well", text(status, "version"), up,
                                   with_commas(static_cast<uint64_t>(number(cards, "total"))), number(cards, "fxsv"),
                                   number(cards, "fxio"), number(cards, "well"));
    for (const char *state : {"degraded", "error", "lost", "unmonitored", "silent"}) {
        if (!cards.contains(state)) // only a room knows silent cards
            continue;
        if (number(cards, state) != 0 || std::string_view(state) == "error" || std::string_view(state) == "lost")
            line += fmt::format(", {} {}", number(cards, state), state);
    }
    put(line + '\n');
    for (const json::value &port : array(status, "ports"))
        put(port_line(port.as_object(), now));
    const std::string library = text(object(status, "library"), "state");
    if (library != "running")
        put(fmt::format("  library {}\n", library));
    const json::object &jobs = object(status, "jobs");
    put(fmt::format("  history {}, {} events; jobs: {} running, {} queued; clients: {}\n",
                    text(object(status, "history"), "state"),
                    with_commas(static_cast<uint64_t>(number(object(status, "history"), "events"))),
                    number(jobs, "running"), number(jobs, "queued"), number(status, "clients")));
    const json::value *fleet = status.if_contains("fleet"); // null: of none
    if (fleet != nullptr && fleet->is_object()) {
        const json::object &site = fleet->as_object();
        put(fmt::format("  fleet {} {} {}, {} events and {} cards wait\n", text(site, "site"), text(site, "state"),
                        text(site, "server"), with_commas(static_cast<uint64_t>(number(site, "waiting"))),
                        with_commas(static_cast<uint64_t>(number(site, "cards_waiting")))));
    }
    for (const json::value &warning : array(status, "warnings"))
        put(fmt::format("  warning: {}\n", std::string_view(warning.as_string())));
}

static void print_ports(const json::object &document)
{
    table shown({"PORT", "NAME", "IFINDEX", "MAC", "STATE", "SINCE", "DOWNS", "RECEIVED", "SENT", "DROPPED"});
    for (const json::value &entry : array(document, "ports")) {
        const json::object &port = entry.as_object();
        shown.add({std::to_string(number(port, "port")), text(port, "name"), std::to_string(number(port, "ifindex")),
                   text(port, "mac"), text(port, "state"),
                   is_null(port, "changed_ms") ? "start" : format_seconds(number(port, "changed_ms")),
                   std::to_string(number(port, "downs")), with_commas(static_cast<uint64_t>(number(port, "received"))),
                   with_commas(static_cast<uint64_t>(number(port, "sent"))),
                   with_commas(static_cast<uint64_t>(number(port, "dropped")))});
    }
    shown.print({"PORT", "IFINDEX", "DOWNS", "RECEIVED", "SENT", "DROPPED"}, false);
}

// --------------------------------------------------------------------------------------------------------------- cards

// "P0:2 P1:-": the channels of each port that are up.
static std::string channel_words(const json::object &channels)
{
    std::string words;
    for (const char *port : {"p0", "p1"}) {
        int up = 0;
        bool known = false;
        for (const char *mac : {"m0", "m1"}) {
            const std::string state = text(channels, std::string(port) + mac);
            up += state == "up" ? 1 : 0;
            known |= !state.empty();
        }
        words += fmt::format("{}{}:{}", words.empty() ? "" : " ", upper(port),
                             up != 0 ? std::to_string(up) : (known ? "0" : "-"));
    }
    return words;
}

static std::string partner_words(const json::object &card)
{
    const json::array &partners = array(card, "partners");
    if (!is_null(card, "down_port_count"))
        return fmt::format("{} of {} down ports", partners.size(), number(card, "down_port_count"));
    return partners.empty() ? "unconnected" : std::string(partners[0].as_string().c_str());
}

static constexpr const char *card_fields =
    "id,class,generation,vlan,channels,int_vector,partners,down_port_count,health,seen_ms,updated_ms";

static int64_t parse_since(const std::string &text);

static query filter_query(const std::vector<std::string> &words)
{
    std::string filter;
    for (const std::string &word : words)
        filter += (filter.empty() ? "" : " ") + word;
    return filter.empty() ? query{} : query{{"filter", filter}};
}

static int list_cards(session *all, const std::vector<std::string> &words, const std::string &since)
{
    query arguments = filter_query(words);
    const int64_t oldest = since.empty() ? 0 : parse_since(since);
    if (all->how.json && since.empty()) {
        put(all->api().get_text("/v1/cards", arguments));
        return EXIT_DONE;
    }
    if (all->how.json)
        throw ctl_error(EXIT_USAGE, "--since makes no JSON document", "use --ndjson");
    if (all->how.ndjson) {
        all->api().stream("/v1/cards", arguments, [oldest](std::string_view line) {
            if (oldest == 0 || number(parse_line(line), "updated_ms") >= oldest)
                put(std::string(line) + '\n');
            return true;
        });
        return EXIT_DONE;
    }
    arguments.emplace_back("fields", card_fields);
    table shown({"CARD", "CLASS", "GEN", "VLAN", "CHANNELS", "INT", "HEALTH", "PARTNERS", "SEEN"});
    const int64_t now = now_ms();
    all->api().stream("/v1/cards", arguments, [&](std::string_view line) {
        const json::object card = parse_line(line);
        if (number(card, "updated_ms") < oldest)
            return true;
        shown.add({text(card, "id"), upper(text(card, "class")), text(card, "generation"),
                   std::to_string(number(card, "vlan")), channel_words(object(card, "channels")),
                   fmt::format("{:02x}", number(card, "int_vector")), text(card, "health"), partner_words(card),
                   is_null(card, "seen_ms") ? "never" : format_duration(now - number(card, "seen_ms"))});
        return true;
    });
    if (shown.rows() == 0)
        put(words.empty() && since.empty() ? "No card has announced itself yet; fxmctl doctor looks for the reason.\n"
                                           : "No card matches.\n");
    else
        shown.print({"VLAN"}, all->how.colour);
    return EXIT_DONE;
}

static void print_bridge(const char *title, const json::object &bridge)
{
    put(fmt::format(
        "  {:<14} buses {}-{}-{}, command {:02x}, memory {:04x}-{:04x}, prefetchable {:08x}{:04x}-{:08x}{:04x}\n",
        title, number(bridge, "primary_bus"), number(bridge, "secondary_bus"), number(bridge, "subordinate_bus"),
        number(bridge, "command"), number(bridge, "memory_base"), number(bridge, "memory_limit"),
        number(bridge, "prefetchable_base_upper"), number(bridge, "prefetchable_base"),
        number(bridge, "prefetchable_limit_upper"), number(bridge, "prefetchable_limit")));
}

static void print_card(session *all, const json::object &card)
{
    const int64_t now = now_ms();
    put(fmt::format("{} {} {}  vlan {}  {}\n", text(card, "id"), upper(text(card, "class")), text(card, "generation"),
                    number(card, "vlan"), coloured(text(card, "health"), all->how.colour)));
    const auto row = [](const char *title, const std::string &value) {
        put(fmt::format("  {:<14} {}\n", title, value));
    };
    std::string channels;
    for (const char *name : {"p0m0", "p0m1", "p1m0", "p1m1"}) {
        const std::string state = text(object(card, "channels"), name);
        if (!state.empty())
            channels += fmt::format("{}{} {} ({})", channels.empty() ? "" : ", ", upper(name), state,
                                    format_duration(now - number(object(card, "received_ms"), name)));
    }
    row("channels", channels.empty() ? "none seen" : channels);
    row("updated", is_null(card, "updated_ms") ? "never" : format_time(number(card, "updated_ms")));
    row("interrupts", fmt::format("{:02x}", number(card, "int_vector")));
    const json::array &status = array(card, "status");
    row("status",
        fmt::format("{:02x} {:02x} {:02x}, link status {:02x}, flow id {:02x}", status[0].as_int64(),
                    status[1].as_int64(), status[2].as_int64(), number(card, "link_status"), number(card, "flow_id")));
    row("version", std::to_string(number(card, "version")));
    row("layout", text(card, "layout"));
    row("own links", fmt::format("port 0 {}, port 1 {}", flag(card, "port0_link") ? "up" : "down",
                                 flag(card, "port1_link") ? "up" : "down"));
    row("power",
        fmt::format("{}, UID switch {}", flag(card, "power") ? "on" : "off", flag(card, "uid_switch") ? "on" : "off"));
    if (!is_null(card, "up_port"))
        print_bridge("up port", object(card, "up_port"));
    for (const json::value &entry : array(card, "down_ports")) {
        const json::object &port = entry.as_object();
        if (is_null(port, "partner") && !flag(port, "connected"))
            continue;
        row(fmt::format("down port {}", number(port, "port")).c_str(),
            fmt::format("{}  {}", text(port, "partner"), flag(port, "connected") ? "connected" : "unconnected"));
        if (!is_null(port, "bridge"))
            print_bridge("", object(port, "bridge"));
    }
    if (!is_null(card, "vendor")) {
        row("PCI function", fmt::format("{}:{} class {}, {}", text(card, "vendor"), text(card, "device"),
                                        text(card, "pci_class"), flag(card, "pcie_presence") ? "present" : "absent"));
        row("server", fmt::format("{}  {}", is_null(card, "server") ? "none" : text(card, "server"),
                                  flag(card, "connected") ? "connected" : "unconnected"));
        const json::array &faults = array(card, "link_faults");
        row("link faults", fmt::format("link 0 {}, link 1 {}", faults[0].as_bool() ? "FAULT" : "none",
                                       faults[1].as_bool() ? "FAULT" : "none"));
        if (!is_null(card, "multi_root"))
            row("multi-root", fmt::format("resource number {}", number(card, "multi_root")));
    }
}

static void print_tree(session *all, const json::object &document)
{
    std::map<std::string, json::object> cards;
    all->api().stream("/v1/cards", {{"fields", "id,int_vector,vendor,device,multi_root,health"}},
                      [&](std::string_view line) {
                          json::object card = parse_line(line);
                          cards[text(card, "id")] = std::move(card);
                          return true;
                      });
    const auto interrupts = [&](const std::string &id) {
        const auto found = cards.find(id);
        const int64_t vector = found != cards.end() ? number(found->second, "int_vector") : 0;
        return vector != 0 ? fmt::format(" int={:02x}", vector) : std::string();
    };
    const auto health = [&](const std::string &word) {
        return word == "well" ? std::string() : "  " + coloured(upper(word), all->how.colour);
    };
    for (const json::value &entry : array(document, "servers")) {
        const json::object &server = entry.as_object();
        put(fmt::format("{} FXSV {} vlan {}{}{}\n", text(server, "id"), text(server, "generation"),
                        number(server, "vlan"), health(text(server, "health")), interrupts(text(server, "id"))));
        const json::array &ports = array(server, "ports");
        for (size_t i = 0; i < ports.size(); ++i) {
            const json::object &port = ports[i].as_object();
            put(fmt::format("{} {:<2} {} FXIO ", i + 1 < ports.size() ? "├─" : "└─", number(port, "port"),
                            text(port, "id")));
            if (is_null(port, "health"))
                put("not seen");
            else
                put(fmt::format("{}:{}", text(port, "vendor"), text(port, "device")));
            put(fmt::format("  {}{}{}{}\n", flag(port, "connected") ? "connected" : "unconnected",
                            is_null(port, "multi_root") ? ""
                                                        : fmt::format(", multi-root {}", number(port, "multi_root")),
                            is_null(port, "health") ? "" : health(text(port, "health")), interrupts(text(port, "id"))));
        }
    }
    if (!array(document, "unattached").empty())
        put("without a server:\n");
    for (const json::value &id : array(document, "unattached")) {
        const auto found = cards.find(std::string(id.as_string().c_str()));
        put(fmt::format("   {} FXIO", std::string_view(id.as_string())));
        if (found != cards.end())
            put(fmt::format(" {}:{}{}", text(found->second, "vendor"), text(found->second, "device"),
                            health(text(found->second, "health"))));
        put("\n");
    }
}

// ------------------------------------------------------------------------------------------------------------- the rest

static void print_stats(const json::object &stats)
{
    table frames({"PORT", "FRAMES", "COUNT"});
    for (const json::value &entry : array(stats, "frames")) {
        const json::object &port = entry.as_object();
        for (const auto &count : port) {
            if (count.key() != "port")
                frames.add({std::to_string(number(port, "port")), std::string(count.key()),
                            with_commas(static_cast<uint64_t>(number(port, count.key())))});
        }
    }
    frames.print({"COUNT"}, false);
    put("\n");
    table functions({"FUNCTION", "RESULT", "CALLS"});
    for (const auto &function : object(stats, "functions")) {
        for (const auto &result : function.value().as_object()) {
            const int64_t calls = number(function.value().as_object(), result.key());
            if (calls != 0)
                functions.add({std::string(function.key()), std::string(result.key()),
                               with_commas(static_cast<uint64_t>(calls))});
        }
    }
    functions.print({"CALLS"}, false);
    put("\n");
    table events({"LIBRARY EVENT", "COUNT"});
    for (const auto &event : object(stats, "library_events"))
        events.add({std::string(event.key()),
                    with_commas(static_cast<uint64_t>(number(object(stats, "library_events"), event.key())))});
    for (const auto &count : object(stats, "callbacks"))
        events.add({fmt::format("callbacks {}", std::string_view(count.key())),
                    with_commas(static_cast<uint64_t>(number(object(stats, "callbacks"), count.key())))});
    events.print({"COUNT"}, false);
    put("\n");
    table memory({"MEMORY", "IN USE", "ALLOCATED", "FREED"});
    for (const auto &account : object(stats, "memory")) {
        const json::object &counts = account.value().as_object();
        memory.add({std::string(account.key()), with_commas(static_cast<uint64_t>(number(counts, "in_use"))),
                    with_commas(static_cast<uint64_t>(number(counts, "allocated"))),
                    with_commas(static_cast<uint64_t>(number(counts, "freed")))});
    }
    memory.print({"IN USE", "ALLOCATED", "FREED"}, false);
    put("\n");
    for (const auto &count : object(stats, "daemon"))
        put(fmt::format("{:<16} {}\n", std::string_view(count.key()),
                        with_commas(static_cast<uint64_t>(number(object(stats, "daemon"), count.key())))));
}

// "90s", "10m", "1h", "7d" before now.
static int64_t parse_since(const std::string &text)
{
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const std::string unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const int64_t seconds = unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : unit == "d" ? 86400 : 0;
    if (error != std::errc{} || seconds == 0 || value < 0 || value > 36500)
        throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is no length of time", text), "write 90s, 10m, 1h or 7d");
    return now_ms() - value * seconds * 1000;
}

static int show_log(session *all, const std::string &since)
{
    query arguments;
    if (!since.empty())
        arguments.emplace_back("since_ms", std::to_string(parse_since(since)));
    return print_document(
        all, "/v1/log", arguments,
        [](const json::object &document) {
            for (const json::value &entry : array(document, "lines")) {
                const json::object &line = entry.as_object();
                put(fmt::format("{}  {:<7}  {}\n", format_time(number(line, "time_ms")), text(line, "level"),
                                text(line, "text")));
            }
        },
        "lines");
}

std::string event_words(const json::object &event);

static int show_history(session *all, const std::string &since, const std::string &card, const std::string &type)
{
    query arguments;
    if (!since.empty())
        arguments.emplace_back("since_ms", std::to_string(parse_since(since)));
    if (!card.empty())
        arguments.emplace_back("card", card);
    if (!type.empty())
        arguments.emplace_back("type", type);
    if (all->how.json) {
        put(all->api().get_text("/v1/history", arguments));
        return EXIT_DONE;
    }
    arguments.emplace_back("after_seq", "0");
    // In pieces, so that any length works.
    for (;;) {
        const json::object document = all->api().get("/v1/history", arguments);
        for (const json::value &event : array(document, "events")) {
            if (all->how.ndjson)
                put(json::serialize(event) + "\n");
            else
                put(event_words(event.as_object()) + "\n");
        }
        if (is_null(document, "next_seq"))
            return EXIT_DONE;
        arguments.back().second = std::to_string(number(document, "next_seq"));
    }
}

void add_view_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::vector<std::string> filter;
        std::string id, since, card, type;
    };
    auto given = std::make_shared<arguments>();
    auto *status = app->add_subcommand("status", "fxmd, its ports and the sums of the cards");
    explain(status, reach::fxmd, "Example: fxmctl status");
    status->callback([all] { all->run = [all] { return print_document(all, "/v1/status", {}, print_status); }; });
    auto *ports = app->add_subcommand("ports", "the ports, with their counters");
    explain(ports, reach::fxmd, "Example: fxmctl ports");
    ports->callback([all] { all->run = [all] { return print_document(all, "/v1/ports", {}, print_ports, "ports"); }; });

    auto *cards = app->add_subcommand("cards", "a table of cards");
    cards->add_option("filter", given->filter, FILTER_HELP);
    cards->add_option("--since", given->since, "whose record has changed in the last 90s, 10m, 1h or 7d");
    explain(cards, reach::fxmd,
            "Examples: fxmctl cards state=error,lost vlan=100\n"
            "          fxmctl cards --since 10m");
    cards->callback([all, given] { all->run = [all, given] { return list_cards(all, given->filter, given->since); }; });

    auto *show = app->add_subcommand("show", "everything about one card");
    show->add_option("card", given->id, "its id")->required();
    explain(show, reach::record, "Example: fxmctl show 02:00:00:00:10:00");
    show->callback([all, given] {
        all->run = [all, given] {
            return print_document(all, card_path(given->id), {},
                                  [all](const json::object &card) { print_card(all, card); });
        };
    });

    auto *tree = app->add_subcommand("tree", "FXSV cards with the FXIO cards at their down ports");
    explain(tree, reach::fxmd, "Example: fxmctl tree");
    tree->callback([all] {
        all->run = [all] {
            return print_document(all, "/v1/topology", {},
                                  [all](const json::object &document) { print_tree(all, document); });
        };
    });
    auto *topology = app->add_subcommand("topology", "the same as a graph for Graphviz");
    explain(topology, reach::fxmd, "Example: fxmctl topology | dot -Tsvg > fabric.svg");
    topology->callback([all] {
        all->run = [all] {
            put(all->api().get_text(all->how.json ? "/v1/topology" : "/v1/topology.dot"));
            return EXIT_DONE;
        };
    });

    auto *stats = app->add_subcommand("stats", "counters of frames, functions, memory and clients");
    explain(stats, reach::fxmd, "Example: fxmctl stats");
    stats->callback([all] { all->run = [all] { return print_document(all, "/v1/stats", {}, print_stats); }; });

    auto *log = app->add_subcommand("log", "the last lines of fxmd's log, every write to a card among them");
    log->add_option("--since", given->since, "not older than 90s, 10m, 1h or 7d");
    explain(log, reach::fxmd, "Example: fxmctl log --since 1h");
    log->callback([all, given] { all->run = [all, given] { return show_log(all, given->since); }; });

    auto *history = app->add_subcommand("history", "the events of the past");
    history->add_option("--since", given->since, "not older than 90s, 10m, 1h or 7d");
    history->add_option("--card", given->card, "of this card alone");
    history->add_option("--type", given->type, "change, job, port, library or gap");
    explain(history, reach::fxmd, "Example: fxmctl history --since 1h --card 02:00:00:00:10:00");
    history->callback([all, given] {
        all->run = [all, given] { return show_history(all, given->since, given->card, given->type); };
    });
}

} // namespace fxm

// What changes a card: VLAN, monitoring, reset, pages, and forgetting it.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

struct card_arguments {
    std::string card, file;
    uint32_t vlan = 0, status = 0, page = 0;
    bool verify = false;
    operation_options how;
};

static std::string target_words(session *all, const std::string &card)
{
    return all->how.yes || all->how.dry_run ? card : card_words(all, card);
}

// Sends the request and prints what it has done, or would do.
static int act(session *all, const char *method, const std::string &path, json::object body,
               const std::function<std::string(const json::object &, bool would)> &words)
{
    if (all->how.dry_run)
        body["dry_run"] = true;
    const json::object answer = all->api().send(method, path, body);
    put((all->how.json || all->how.ndjson ? json::serialize(answer) : words(answer, all->how.dry_run)) + "\n");
    return EXIT_DONE;
}

static int set_vlan(session *all, const card_arguments &given)
{
    confirm(all->how, fmt::format("Move {} to vlan {}", target_words(all, given.card), given.vlan));
    json::object body{{"vlan", given.vlan}};
    if (given.verify)
        body["verify"] = true;
    given.how.add_to(&body);
    return act(all, "PUT", card_path(given.card) + "/vlan", body, [&](const json::object &done, bool would) {
        return fmt::format("{}: {}vlan {} → {}{}", text(done, "card"), would ? "would move, " : "", number(done, "old"),
                           number(done, "new"),
                           given.verify && !would ? ", and the card has announced itself there" : "");
    });
}

static int monitor(session *all, const card_arguments &given, bool on)
{
    if (!on)
        confirm(all->how, fmt::format("Take {} out of monitoring", target_words(all, given.card)));
    return act(all, "PUT", card_path(given.card) + "/monitor", {{"monitored", on}},
               [&](const json::object &done, bool would) {
                   return fmt::format("{}: {}{} monitoring", text(done, "card"), would ? "would be " : "",
                                      on ? "in" : "out of");
               });
}

static int forget(session *all, const card_arguments &given)
{
    confirm(all->how, fmt::format("Delete {} from the tables; it comes back when it announces itself",
                                  target_words(all, given.card)));
    return act(all, "DELETE", card_path(given.card), {}, [](const json::object &done, bool would) {
        return fmt::format("{}: {}deleted", text(done, "card"), would ? "would be " : "");
    });
}

// The frame goes to a group address: every card on the VLAN takes it.
static int reset(session *all, const card_arguments &given)
{
    const std::string path = card_path(given.card) + "/reset";
    const json::object trial = all->api().send("POST", path, {{"status", given.status}, {"dry_run", true}});
    const int64_t vlan = number(all->api().get(card_path(given.card)), "vlan");
    const auto cards = [](const json::object &answer) {
        const size_t count = array(answer, "affected").size();
        return fmt::format("{} card{}", count, count == 1 ? "" : "s");
    };
    confirm(all->how, fmt::format("Resets every card that listens on vlan {}: {}", vlan, cards(trial)),
            std::to_string(vlan));
    return act(all, "POST", path, {{"status", given.status}}, [&](const json::object &done, bool would) {
        return would ? fmt::format("would reset every card that listens on vlan {}: {}", vlan, cards(done))
                     : fmt::format("reset with status {} sent to vlan {}: {}", given.status, vlan, cards(done));
    });
}

static int write_page(session *all, const card_arguments &given)
{
    constexpr size_t PAGE_SIZE = 128;
    std::ifstream file(given.file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file)
        throw ctl_error(EXIT_FAILED, fmt::format("cannot read {}: {}", given.file, strerror(errno)));
    if (bytes.size() != PAGE_SIZE)
        throw ctl_error(EXIT_USAGE, fmt::format("{} has {} bytes; a page has {}", given.file, bytes.size(), PAGE_SIZE));
    std::string digits;
    for (const char c : bytes)
        digits += fmt::format("{:02x}", static_cast<unsigned char>(c));
    confirm(all->how, fmt::format("Write page {} of {}", given.page, target_words(all, given.card)));
    json::object body{{"data", digits}};
    given.how.add_to(&body);
    return act(all, "POST", fmt::format("{}/pages/{}", card_path(given.card), given.page), body,
               [&](const json::object &done, bool would) {
                   return fmt::format("{}: page {} {}sent", text(done, "card"), given.page, would ? "would be " : "");
               });
}

void add_card_commands(CLI::App *app, session *all)
{
    auto given = std::make_shared<card_arguments>();
    const auto add = [all, given](CLI::App *command, auto run) {
        command->add_option("card", given->card, "its id")->required();
        command->callback([all, given, run] { all->run = [all, given, run] { return run(all, *given); }; });
    };

    auto *vlan = app->add_subcommand("vlan", "moves a card to another VLAN");
    add(vlan, set_vlan);
    vlan->add_option("vlan", given->vlan, "16 to 4094")->required()->check(CLI::Range(16, 4094));
    vlan->add_flag("--verify", given->verify, "wait until the card announces itself there");
    given->how.add_to(vlan);
    explain(vlan, reach::card, "Example: fxmctl vlan 02:00:00:00:20:00 300 --verify");

    auto *monitored = app->add_subcommand("monitor", "takes a card out of monitoring, or back")->require_subcommand(1);
    explain(monitored, reach::record, "Example: fxmctl monitor off 02:00:00:00:20:00");
    auto *off = monitored->add_subcommand("off", "its record is frozen, and it raises no events");
    add(off, [](session *s, const card_arguments &a) { return monitor(s, a, false); });
    explain(off, reach::record, "Example: fxmctl monitor off 02:00:00:00:20:00");
    auto *on = monitored->add_subcommand("on", "its next frame replaces the record");
    add(on, [](session *s, const card_arguments &a) { return monitor(s, a, true); });
    explain(on, reach::record, "Example: fxmctl monitor on 02:00:00:00:20:00");

    auto *deleted = app->add_subcommand("delete", "removes a card that is gone from the tables");
    add(deleted, forget);
    explain(deleted, reach::record, "Example: fxmctl delete 02:00:00:00:20:00");

    auto *resetting = app->add_subcommand("reset", "sends a reset to all cards on the VLAN of a card");
    add(resetting, reset);
    resetting->add_option("--status", given->status, "its meaning is defined by the card, 0 to 255")
        ->required()
        ->check(CLI::Range(0, 255));
    explain(resetting, reach::card, "Example: fxmctl reset 02:00:00:00:10:00 --status 1 --dry-run");

    auto *page = app->add_subcommand("page", "writes a page of a multi-root card");
    add(page, write_page);
    page->add_option("page", given->page, "0 to 1023")->required()->check(CLI::Range(0, 1023));
    page->add_option("file", given->file, "128 bytes")->required();
    given->how.add_to(page);
    explain(page, reach::card, "Example: fxmctl page 02:00:00:00:21:00 3 page.bin");
}

} // namespace fxm

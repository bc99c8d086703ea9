// Registers, by address or by name.
#include <fmt/format.h>

#include "common/card_id.h"
#include "common/registers.h"
#include "ctl/commands.h"

namespace fxm
{

namespace json = boost::json;

// "(own)" for a field of one bit that is set, "(type ID lock)" for one with words.
static std::string field_words(const json::array &fields)
{
    std::string words;
    for (const json::value &entry : fields) {
        const json::object &field = entry.as_object();
        if (number(field, "value") == 0 && number(field, "bits") == 1 && text(field, "text") == "no")
            continue;
        const bool is_flag = text(field, "text") == "yes";
        words += fmt::format("{}{}", words.empty() ? "" : ", ", text(field, "name"));
        if (!is_flag)
            words += fmt::format(" {}", is_null(field, "text") ? fmt::format("{:#x}", number(field, "value"))
                                                               : text(field, "text"));
    }
    return words.empty() ? "" : fmt::format(" ({})", words);
}

static int read_one(session *all, const std::string &card, const std::string &address, const query &arguments)
{
    return print_document(all, card_path(card) + "/registers/" + escape(address), arguments,
                          [](const json::object &read) {
                              put(fmt::format("{:#06x} {}{}= {:#010x}{}\n", number(read, "address"), text(read, "name"),
                                              is_null(read, "name") ? "" : " ", number(read, "value"),
                                              field_words(array(read, "fields"))));
                          });
}

static int read_range(session *all, const std::string &card, uint32_t start, uint32_t end, query arguments)
{
    // Many registers are a job, which shows its progress and lets others have their turn.
    constexpr uint32_t MOST_AT_ONCE = 4096;
    if ((end - start) / 4 > MOST_AT_ONCE) {
        const json::object job =
            run_job(all, {{"kind", "register-dump"}, {"card", card}, {"start", start}, {"end", end}}, "Reading");
        if (all->how.json || all->how.ndjson)
            put(json::serialize(job) + "\n");
        else
            print_words(start, array(object(job, "result"), "words"));
        return EXIT_DONE;
    }
    arguments.emplace_back("start", std::to_string(start));
    arguments.emplace_back("end", std::to_string(end));
    return print_document(all, card_path(card) + "/registers", arguments,
                          [](const json::object &read) { print_words(number(read, "start"), array(read, "values")); });
}

static uint32_t parse_number(const std::string &text, const char *what)
{
    const auto value = parse_u32(text);
    if (!value)
        throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is no {}", text, what),
                        "write a number of 32 bits, hexadecimal with 0x");
    return *value;
}

static int write_one(session *all, const std::string &card, const std::string &address, const std::string &value,
                     const std::string &mask, bool verify, const operation_options &how)
{
    json::object body{{"value", parse_number(value, "value")}};
    if (!mask.empty())
        body["mask"] = parse_number(mask, "mask");
    if (verify)
        body["verify"] = true;
    how.add_to(&body);
    const std::string path = card_path(card) + "/registers/" + escape(address);
    const char *method = mask.empty() ? "PUT" : "PATCH";
    const auto change = [](const json::object &done) {
        return fmt::format("{:#010x} → {:#010x}", number(done, "old"), number(done, "new"));
    };
    if (all->how.dry_run || !all->how.yes) {
        json::object trial = body;
        trial["dry_run"] = true;
        const json::object would = all->api().send(method, path, trial);
        if (all->how.dry_run) {
            put(all->how.json ? json::serialize(would) + "\n" : fmt::format("would change {}\n", change(would)));
            return EXIT_DONE;
        }
        confirm(all->how,
                fmt::format("Change register {} of {} from {}", address, card_words(all, card), change(would)));
    }
    const json::object done = all->api().send(method, path, body);
    put(all->how.json ? json::serialize(done) + "\n"
                      : fmt::format("{}{}\n", change(done), flag(done, "verified") ? ", verified" : ""));
    return EXIT_DONE;
}

static const char *cards_of(const register_info &info)
{
    return info.of == generation::any ? "all" : (info.of == generation::only_40g ? "40G" : "1/10G");
}

static int print_names(session *all)
{
    if (all->how.json) {
        put(registers_document());
        return EXIT_DONE;
    }
    table shown({"ADDRESS", "CARDS", "NAME", "PURPOSE"});
    for (const register_info &info : register_table())
        shown.add({fmt::format("{:#06x}", info.address), cards_of(info), info.name, info.purpose});
    shown.print({}, all->how.colour);
    return EXIT_DONE;
}

void add_register_commands(CLI::App *app, session *all)
{
    struct arguments {
        std::string card, what, mask;
        bool verify = false;
        bool names = false;
        operation_options how;
    };
    auto given = std::make_shared<arguments>();
    auto *command = app->add_subcommand("reg", "reads and writes registers");
    command->add_option("card", given->card, "its id");
    command->add_option("register", given->what,
                        "an address or a name to read, FIRST..END or FIRST-END to read all before END, or "
                        "REGISTER=VALUE to write");
    command->add_option("--mask", given->mask, "of a write: change these bits alone");
    command->add_flag("--verify", given->verify, "of a write: read back, and write again until the value is there");
    command->add_flag("--names", given->names, "list the registers that have a name");
    given->how.add_to(command);
    explain(command, reach::card,
            "Examples: fxmctl reg 02:00:00:00:10:00 eeprom.lock\n"
            "          fxmctl reg 02:00:00:00:10:00 0x1000..0x1040\n"
            "          fxmctl reg 02:00:00:00:10:00 0x1000=0xcafe --verify --dry-run");
    command->callback([all, given] {
        all->run = [all, given] {
            if (given->names)
                return print_names(all);
            if (given->card.empty() || given->what.empty())
                throw ctl_error(EXIT_USAGE, "reg needs a card and a register", "see fxmctl reg --help");
            const size_t equals = given->what.find('=');
            if (equals != std::string::npos)
                return write_one(all, given->card, given->what.substr(0, equals), given->what.substr(equals + 1),
                                 given->mask, given->verify, given->how);
            if (!given->mask.empty() || given->verify || all->how.dry_run)
                throw ctl_error(EXIT_USAGE, "--mask, --verify and --dry-run belong to a write", "write REGISTER=VALUE");
            query arguments;
            given->how.add_to(&arguments);
            const auto range = parse_range(given->what);
            if (!range)
                return read_one(all, given->card, given->what, arguments);
            return read_range(all, given->card, range->first, range->second, arguments);
        };
    });
}

} // namespace fxm

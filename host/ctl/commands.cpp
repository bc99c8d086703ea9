#include "ctl/commands.h"
#include "fleet/names.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/card_id.h"

namespace fxm
{

namespace json = boost::json;

client &session::api()
{
    if (api_ == nullptr)
        api_ = std::make_unique<client>(where);
    return *api_;
}

// ---------------------------------------------------------------------------------------------------- help of commands

void explain(CLI::App *command, reach far, const std::string &examples, const std::string &failed)
{
    std::string codes = fmt::format("Exit code: 0 done, 1 {}, 2 wrong usage", failed);
    if (far == reach::record || far == reach::card)
        codes += ", 3 no such card";
    if (far != reach::local)
        codes += far == reach::card ? ", 4 the card or fxmd did not answer" : ", 4 no answer in time";
    if (far == reach::card)
        codes += ",\n5 busy, or locked by another manager";
    if (far != reach::local)
        codes += ", 6 no permission, 7 fxmd is not running";
    command->footer(examples + "\n" + codes + ".");
}

// ----------------------------------------------------------------------------------------------------- reading documents

static const json::value &member(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    if (value == nullptr)
        throw ctl_error(EXIT_FAILED, fmt::format("the answer of fxmd has no \"{}\"; fxmctl and fxmd do not fit", name));
    return *value;
}

std::string text(const json::object &from, std::string_view name)
{
    const json::value &value = member(from, name);
    return value.is_string() ? std::string(value.get_string().data(), value.get_string().size()) : std::string();
}

int64_t number(const json::object &from, std::string_view name)
{
    const json::value &value = member(from, name);
    if (value.is_int64())
        return value.get_int64();
    return value.is_uint64() ? static_cast<int64_t>(value.get_uint64()) : 0;
}

bool flag(const json::object &from, std::string_view name)
{
    const json::value &value = member(from, name);
    return value.is_bool() && value.get_bool();
}

bool is_null(const json::object &from, std::string_view name) { return member(from, name).is_null(); }

const json::array &array(const json::object &from, std::string_view name) { return member(from, name).as_array(); }

const json::object &object(const json::object &from, std::string_view name) { return member(from, name).as_object(); }

json::object parse_line(std::string_view line)
{
    boost::system::error_code error;
    json::value parsed = json::parse(line, error);
    if (error || !parsed.is_object())
        throw ctl_error(EXIT_FAILED, "a line of fxmd's answer is no JSON object");
    return std::move(parsed.get_object());
}

// ------------------------------------------------------------------------------------------------------------ for commands

std::string upper(std::string_view text)
{
    std::string made(text);
    std::transform(made.begin(), made.end(), made.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return made;
}

std::string card_path(const std::string &id)
{
    // A room shows ids as SITE/ID.
    const size_t slash = id.find('/');
    const std::string site = slash == std::string::npos ? "" : id.substr(0, slash);
    const auto parsed = parse_id(std::string_view(id).substr(slash == std::string::npos ? 0 : slash + 1));
    if (!parsed || (slash != std::string::npos && !fleet::is_site(site)))
        throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is not a card id", id), "write an id like 02:00:00:00:10:00");
    return "/v1/cards/" + (site.empty() ? "" : site + '/') + format_id(*parsed);
}

std::string card_words(session *all, const std::string &id)
{
    const json::object card = all->api().get(card_path(id));
    const std::string site = all->api().site();
    return fmt::format("{} ({}, vlan {}){}{}", text(card, "id"), upper(text(card, "class")), number(card, "vlan"),
                       site.empty() ? "" : " of the site ", site);
}

int print_document(session *all, const std::string &path, const query &arguments,
                   const std::function<void(const json::object &)> &show, const char *list)
{
    if (all->how.ndjson && list != nullptr) {
        const json::object document = all->api().get(path, arguments);
        for (const json::value &entry : array(document, list)) {
            json::object line{{"schema", document.at("schema")}};
            for (const auto &field : entry.as_object())
                line[field.key()] = field.value(); // an entry with a schema of its own has the same
            put(json::serialize(line) + "\n");
        }
    } else if (all->how.json || all->how.ndjson) {
        put(all->api().get_text(path, arguments));
    } else {
        show(all->api().get(path, arguments));
    }
    return EXIT_DONE;
}

static volatile sig_atomic_t interrupt_seen = 0;

void catch_interrupt(bool with_sigterm)
{
    struct sigaction action {
    };
    action.sa_handler = [](int) { interrupt_seen = 1; };
    // A second Ctrl-C ends the program.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    if (with_sigterm)
        sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return interrupt_seen != 0; }

json::object run_job(session *all, const json::object &request, const std::string &title,
                     const std::function<void(const json::object &)> &ended)
{
    json::object job = all->api().send("POST", "/v1/jobs", request);
    const std::string path = fmt::format("/v1/jobs/{}", number(job, "job"));
    catch_interrupt();
    bool cancelled = false;
    {
        progress_bar bar(title);
        // The first looks follow closely, for jobs of some milliseconds.
        for (int pause_ms = 2; is_null(job, "ended_ms"); pause_ms = std::min(pause_ms * 2, 250)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
            if (interrupted() && !cancelled) {
                cancelled = true;
                all->api().send("DELETE", path, {});
            }
            job = all->api().get(path);
            bar.show(static_cast<uint64_t>(number(job, "done")), static_cast<uint64_t>(number(job, "total")), "words");
        }
    }
    if (ended)
        ended(job);
    const std::string state = text(job, "state");
    if (state == "cancelled")
        throw ctl_error(EXIT_FAILED, fmt::format("job {} was cancelled", number(job, "job")));
    if (state == "failed") {
        const json::object &error = object(job, "error");
        throw ctl_error(exit_of(text(error, "code"), true), text(error, "message"), text(error, "hint"));
    }
    return job;
}

void print_words(int64_t start, const json::array &words)
{
    const int64_t last = start + 4 * static_cast<int64_t>(words.size()) - 4;
    const int digits = last < 0x1000 ? 3 : last < 0x10000 ? 4 : 6;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i % 4 == 0)
            put(fmt::format("{}0x{:0{}x}:", i == 0 ? "" : "\n", start + static_cast<int64_t>(i) * 4, digits));
        put(fmt::format(" {:08x}", words[i].to_number<uint32_t>()));
    }
    put("\n");
}

std::optional<std::pair<uint32_t, uint32_t>> parse_range(const std::string &text)
{
    const size_t dots = text.find("..");
    // A name has no dash, but a wrong number may begin with one.
    const size_t split = dots != std::string::npos ? dots : text.find('-', 1);
    if (split == std::string::npos)
        return std::nullopt;
    const auto first = parse_u32(std::string_view(text).substr(0, split));
    const auto end = parse_u32(std::string_view(text).substr(split + (dots != std::string::npos ? 2 : 1)));
    if (!first || !end || *end <= *first)
        throw ctl_error(EXIT_USAGE, fmt::format("{} is no range", text),
                        "write FIRST..END, END being the address behind the last word");
    return std::pair(*first, *end);
}

void operation_options::add_to(CLI::App *command)
{
    command->add_option("--retries", retries,
                        "attempts after the first one (default: as configured, or 10 with --interval)");
    command->add_option("--interval", interval_ms,
                        "how long to wait for each answer, ms (default: as configured, or 100 with --retries)");
    command->add_flag("--livecheck", livecheck, "first look for a channel on which the card answers");
}

void operation_options::add_to(json::object *body) const
{
    if (retries)
        (*body)["retries"] = *retries;
    if (interval_ms)
        (*body)["interval_ms"] = *interval_ms;
    if (livecheck)
        (*body)["livecheck"] = true;
}

void operation_options::add_to(query *arguments) const
{
    if (retries)
        arguments->emplace_back("retries", std::to_string(*retries));
    if (interval_ms)
        arguments->emplace_back("interval_ms", std::to_string(*interval_ms));
    if (livecheck)
        arguments->emplace_back("livecheck", "true");
}

} // namespace fxm

// Jobs: what they may be asked for, and the routes to them.
#include <fmt/format.h>

#include "common/card_id.h"
#include "daemon/api.h"
#include "daemon/jobs.h"
#include "fxm.h"

namespace fxm
{

namespace json = boost::json;

static uint64_t job_of(const api_call &call)
{
    const auto number = parse_u32(call.parts.at(0));
    if (!number)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not the number of a job", call.parts.at(0)));
    return *number;
}

static void list_jobs(services &all, api_call &call)
{
    json::object made = document();
    made["jobs"] = all.jobs->list();
    call.answer(json_reply(made));
}

static void check_range(uint32_t start, uint32_t end, uint32_t most_words, const char *of)
{
    if (start % 4 == 0 && end % 4 == 0 && start < end && (end - start) / 4 <= most_words)
        return;
    throw api_error(
        "FXM_API_EINVAL", fmt::format("there is no range of {} from {:#x} to {:#x}", of, start, end),
        fmt::format("both are multiples of 4, \"end\" is the address behind the last word, and a job reads at "
                    "most {} words",
                    most_words));
}

// The members that a kind of job has for itself. They are checked here, where they are named; the board trusts them.
static void take_members(arguments *given, job_request *asked)
{
    constexpr uint32_t WORDS = FXM_EEPROM_SIZE / 4;
    if (asked->kind == "eeprom-dump") {
        asked->start = given->optional_number("start", 0, FXM_EEPROM_SIZE - 4).value_or(0);
        asked->end = given->optional_number("end", 4, FXM_EEPROM_SIZE).value_or(FXM_EEPROM_SIZE);
        check_range(asked->start, asked->end, WORDS, "EEPROM words");
    } else if (asked->kind == "eeprom-compare" || asked->kind == "eeprom-restore") {
        asked->words = given->words("words", WORDS);
        asked->start = given->optional_number("start", 0, FXM_EEPROM_SIZE - 4).value_or(0);
        asked->end = asked->start + static_cast<uint32_t>(asked->words.size()) * 4;
        if (asked->end > FXM_EEPROM_SIZE)
            throw api_error("FXM_API_EINVAL", fmt::format("{} words do not fit behind {:#x}; an EEPROM has {} bytes",
                                                          asked->words.size(), asked->start, FXM_EEPROM_SIZE));
        check_range(asked->start, asked->end, WORDS, "EEPROM words");
    } else if (asked->kind == "eeprom-write") {
        asked->address = given->number("address", 0, FXM_EEPROM_SIZE - 4);
        asked->value = given->number("value", 0, UINT32_MAX);
        check_range(asked->address, asked->address + 4, 1, "EEPROM words");
    } else if (asked->kind == "register-dump") {
        asked->start = given->number("start", 0, FXM_REGISTER_LAST);
        asked->end = given->number("end", 4, FXM_REGISTER_LAST + 4);
        check_range(asked->start, asked->end, job_board::MOST_REGISTERS, "registers");
    } else if (asked->kind == "vlan") {
        asked->value = given->number("vlan", FXM_VLAN_FIRST, FXM_VLAN_LAST);
    } else {
        throw api_error("FXM_API_EINVAL", fmt::format("there is no kind of job \"{}\"", asked->kind),
                        "kinds are eeprom-dump, eeprom-compare, eeprom-restore, eeprom-write, register-dump and vlan");
    }
    if (asked->kind.starts_with("eeprom"))
        asked->force = given->flag("force");
    if (asked->kind == "vlan" || asked->writes_eeprom())
        asked->dry_run = given->flag("dry_run");
}

static void submit_job(services &all, api_call &call)
{
    arguments given(call.request);
    job_request asked;
    asked.kind = given.text("kind");
    const std::string card = given.text("card");
    const auto id = parse_id(card);
    if (!id)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not a card id", card));
    asked.card = all.cards->resolve(*id);
    asked.how = take_operation(&given);
    take_members(&given, &asked);
    given.finish();
    if (asked.force && call.id.role != "admin")
        throw api_error("FXM_DENIED", "only an admin may take the EEPROM lock away from another manager",
                        "leave out \"force\", or ask somebody of the group of admins");
    asked.who = call.id;
    call.answer(json_reply(all.jobs->submit(std::move(asked)), 202));
}

static void show_job(services &all, api_call &call) { call.answer(json_reply(all.jobs->get(job_of(call)))); }

static void cancel_job(services &all, api_call &call) { call.answer(json_reply(all.jobs->cancel(job_of(call)))); }

std::span<const route> job_routes()
{
    static constexpr route routes[] = {
        {"GET", "/v1/jobs", role::view, list_jobs},
        {"POST", "/v1/jobs", role::operate, submit_job},
        {"GET", "/v1/jobs/*", role::view, show_job},
        {"DELETE", "/v1/jobs/*", role::operate, cancel_job},
    };
    return routes;
}

} // namespace fxm

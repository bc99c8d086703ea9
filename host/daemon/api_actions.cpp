// What reads and writes registers, and what changes a card. Everything here runs on the executor for operations.
#include <fmt/format.h>

#include <chrono>

#include "common/card_id.h"
#include "common/registers.h"
#include "daemon/api.h"
#include "daemon/library_error.h"

namespace fxm
{

namespace json = boost::json;

constexpr uint32_t MAX_RANGE = 4096; // registers in one answer

static json::object action_document(const char *action, uint64_t card, bool dry_run)
{
    json::object made = document();
    made["action"] = action;
    made["card"] = format_id(card);
    made["dry_run"] = dry_run;
    made["done"] = !dry_run;
    made["old"] = nullptr;
    made["new"] = nullptr;
    made["affected"] = json::array{json::string(format_id(card))};
    return made;
}

// The line of the log that tells who has changed what.
static void audit(services &all, const caller &who, uint64_t card, const std::string &what, const std::string &before,
                  const std::string &after, int result)
{
    all.log->audit(fmt::format("write {} card={} {} old={} new={} result={}", words(who), format_id(card), what, before,
                               after, result));
}

static void check(int result, const std::string &what, uint64_t card)
{
    if (result != FXM_API_SUCCESS)
        throw_result(result, what, card);
}

// ---------------------------------------------------------------------------------------------------------- registers

static void check_address(uint32_t address, const std::string &text)
{
    if (address > FXM_REGISTER_LAST || address % 4 != 0)
        throw api_error("FXM_API_EINVAL", fmt::format("there is no register {}", text),
                        fmt::format("an address is a multiple of 4, at most {:#x}", FXM_REGISTER_LAST));
}

static uint32_t parse_address(const std::string &text, bool is_40g)
{
    if (const register_info *named = find_register(text, is_40g))
        return named->address;
    const auto address = parse_u32(text);
    if (!address)
        throw api_error("FXM_API_EINVAL", fmt::format("there is no register \"{}\"", text),
                        "write an address such as 0x1000, or a name; fxmctl reg --names lists the names");
    check_address(*address, text);
    return *address;
}

static json::array fields_of(const register_info *named, uint32_t value)
{
    json::array fields;
    if (named == nullptr)
        return fields;
    for (const register_field &field : named->fields) {
        const uint32_t part = value_of(field, value);
        const char *text = word_of(field, part);
        json::object entry{{"name", field.name}, {"first_bit", field.first_bit}, {"bits", field.bits}, {"value", part}};
        entry["text"] = text != nullptr ? json::value(text) : json::value(nullptr);
        fields.push_back(std::move(entry));
    }
    return fields;
}

static json::value name_of(const register_info *named)
{
    return named != nullptr ? json::value(named->name) : json::value(nullptr);
}

using time_point = std::chrono::steady_clock::time_point;

static time_point time_now() { return std::chrono::steady_clock::now(); }

static uint64_t us_since(time_point began)
{
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(time_now() - began).count());
}

static uint32_t read_one(services &all, uint64_t card, uint32_t address, const operation &how, uint64_t *duration_us)
{
    const time_point began = time_now();
    uint32_t value = 0;
    const int result = fxm_read_register(card, address, &value, how.param(), how.flags & FXM_FLAG_LIVECHECK);
    *duration_us = us_since(began);
    all.timing->add(register_timing::read, result, *duration_us);
    check(result, fmt::format("cannot read register {:#x}", address), card);
    return value;
}

static void read_register(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    const bool is_40g = all.cards->facts_of_card(card).is_40g;
    const uint32_t address = parse_address(call.parts.at(1), is_40g);
    arguments given(call.request);
    const operation how = take_operation(&given);
    given.finish();
    later(all, call, card, [&all, card, address, is_40g, how] {
        uint64_t duration = 0;
        const uint32_t value = read_one(all, card, address, how, &duration);
        const register_info *named = find_register(address, is_40g);
        json::object made = document();
        made["card"] = format_id(card);
        made["address"] = address;
        made["name"] = name_of(named);
        made["value"] = value;
        made["fields"] = fields_of(named, value);
        made["duration_us"] = duration;
        return json_reply(made);
    });
}

static void read_registers(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    arguments given(call.request);
    const uint32_t start = given.number("start", 0, FXM_REGISTER_LAST);
    const uint32_t end = given.number("end", 4, FXM_REGISTER_LAST + 4);
    const operation how = take_operation(&given);
    given.finish();
    check_address(start, fmt::format("{:#x}", start));
    if (end <= start || end % 4 != 0 || (end - start) / 4 > MAX_RANGE)
        throw api_error("FXM_API_EINVAL", fmt::format("there is no range from {:#x} to {:#x}", start, end),
                        fmt::format("\"end\" is the address behind the last register, at most {} registers further; a "
                                    "job of the kind register-dump reads more",
                                    MAX_RANGE));
    later(all, call, card, [&all, card, start, end, how] {
        std::vector<uint32_t> values((end - start) / 4);
        uint64_t size = values.size() * 4;
        const time_point began = time_now();
        const int result =
            fxm_dump_register(card, start, end, values.data(), &size, how.param(), how.flags & FXM_FLAG_LIVECHECK);
        const uint64_t took = us_since(began);
        all.timing->add(register_timing::range, result, took);
        check(result, fmt::format("cannot read register {:#x}", start + static_cast<uint32_t>(size)), card);
        json::object made = document();
        made["card"] = format_id(card);
        made["start"] = start;
        made["end"] = end;
        made["values"] = json::array(values.begin(), values.end());
        made["duration_us"] = took;
        return json_reply(made);
    });
}

// Both writes: `mask` is all ones for the first.
static void change_register(services &all, api_call &call, bool masked)
{
    const uint64_t card = card_of(all, call);
    const bool is_40g = all.cards->facts_of_card(card).is_40g;
    const uint32_t address = parse_address(call.parts.at(1), is_40g);
    arguments given(call.request);
    operation how = take_operation(&given);
    const uint32_t value = given.number("value", 0, UINT32_MAX);
    const uint32_t mask = masked ? given.number("mask", 0, UINT32_MAX) : UINT32_MAX;
    const bool dry_run = given.flag("dry_run");
    const bool verify = given.flag("verify");
    given.finish();
    if (verify)
        how.flags |= FXM_FLAG_VERIFY;
    const caller who = call.id;
    later(all, call, card, [&all, card, address, is_40g, how, value, mask, masked, dry_run, verify, who] {
        uint64_t duration = 0;
        const uint32_t before = read_one(all, card, address, how, &duration);
        const uint32_t after = (before & ~mask) | (value & mask);
        if (!dry_run) {
            const time_point began = time_now();
            const int result = masked ? fxm_modify_register(card, address, value, mask, how.param(), how.flags)
                                      : fxm_write_register(card, address, value, how.param(), how.flags);
            all.timing->add(register_timing::write, result, us_since(began));
            audit(all, who, card, fmt::format("register {:#x}", address), fmt::format("{:#010x}", before),
                  fmt::format("{:#010x}", after), result);
            check(result, fmt::format("cannot write register {:#x}", address), card);
        }
        json::object made = document();
        made["card"] = format_id(card);
        made["address"] = address;
        made["name"] = name_of(find_register(address, is_40g));
        made["old"] = before;
        made["new"] = after;
        made["verified"] = verify && !dry_run;
        made["dry_run"] = dry_run;
        made["done"] = !dry_run;
        return json_reply(made);
    });
}

static void write_register(services &all, api_call &call) { change_register(all, call, false); }
static void modify_register(services &all, api_call &call) { change_register(all, call, true); }

// -------------------------------------------------------------------------------------------------------------- cards

static void set_vlan(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    arguments given(call.request);
    operation how = take_operation(&given);
    const auto vlan = static_cast<uint16_t>(given.number("vlan", FXM_VLAN_FIRST, FXM_VLAN_LAST));
    const bool dry_run = given.flag("dry_run");
    if (given.flag("verify"))
        how.flags |= FXM_FLAG_VERIFY;
    given.finish();
    const caller who = call.id;
    later(all, call, card, [&all, card, vlan, dry_run, how, who] {
        const uint16_t before = all.cards->facts_of_card(card).vlan;
        if (!dry_run) {
            const int result = fxm_set_vlanid(card, vlan, how.param(), how.flags);
            audit(all, who, card, "vlan", std::to_string(before), std::to_string(vlan), result);
            check(result, fmt::format("cannot set VLAN {}", vlan), card);
        }
        json::object made = action_document("vlan", card, dry_run);
        made["old"] = before;
        made["new"] = vlan;
        return json_reply(made);
    });
}

static void set_monitor(services &all, api_call &call)
{
    // A card that has never been seen can be kept out, too.
    const auto parsed = parse_id(call.parts.at(0));
    if (!parsed)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not a card id", call.parts.at(0)));
    const uint64_t card =
        all.cards->knows(*parsed) || !all.cards->knows(*parsed & ~uint64_t{1}) ? *parsed : all.cards->resolve(*parsed);
    arguments given(call.request);
    const bool dry_run = given.flag("dry_run");
    const bool monitored = given.flag("monitored", true);
    given.finish();
    const caller who = call.id;
    later(all, call, card, [&all, card, monitored, dry_run, who] {
        const bool known = all.cards->knows(card);
        const json::value before =
            known ? json::value(all.cards->facts_of_card(card).state != health::unmonitored) : json::value(nullptr);
        if (!dry_run) {
            const int result = all.cards->set_monitored(card, monitored, [] {});
            audit(all, who, card, "monitored", known ? json::serialize(before) : "unknown",
                  monitored ? "true" : "false", result);
            check(result, "cannot change the monitoring", card);
        }
        json::object made = action_document("monitor", card, dry_run);
        made["old"] = before;
        made["new"] = monitored;
        return json_reply(made);
    });
}

static void reset_cards(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    arguments given(call.request);
    const auto status = static_cast<uint8_t>(given.number("status", 0, 255));
    const bool dry_run = given.flag("dry_run");
    given.finish();
    const caller who = call.id;
    later(all, call, card, [&all, card, status, dry_run, who] {
        const uint16_t vlan = all.cards->facts_of_card(card).vlan;
        json::array affected;
        uint64_t next = 0;
        do {
            next = all.cards->visit(
                next, 1024, false, [vlan](const fxm::card &known) { return common(known.data).fcd_vlan_id == vlan; },
                [&affected](const fxm::card &known) { affected.emplace_back(format_id(known.id)); });
        } while (next != 0);
        if (!dry_run) {
            const int result = fxm_send_resetframe(card, status, nullptr, 0);
            audit(all, who, card, fmt::format("reset vlan={} cards={}", vlan, affected.size()), "-",
                  std::to_string(status), result);
            check(result, "cannot send the reset", card);
        }
        json::object made = action_document("reset", card, dry_run);
        made["new"] = status;
        made["affected"] = std::move(affected);
        return json_reply(made);
    });
}

static std::vector<uint8_t> parse_page(const std::string &text)
{
    std::vector<uint8_t> page;
    const auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        c = static_cast<char>(c | 0x20);
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0)
            break;
        page.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    if (page.size() != FXM_MMS_PAGE_SIZE || text.size() != page.size() * 2)
        throw api_error("FXM_API_EINVAL", fmt::format("\"data\" must be the {} hexadecimal digits of {} bytes",
                                                      FXM_MMS_PAGE_SIZE * 2, FXM_MMS_PAGE_SIZE));
    return page;
}

static void write_page(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    const auto page = parse_u32(call.parts.at(1));
    if (!page || *page >= FXM_MMS_PAGES)
        throw api_error("FXM_API_EINVAL",
                        fmt::format("there is no page {}; pages are 0 to {}", call.parts.at(1), FXM_MMS_PAGES - 1));
    arguments given(call.request);
    const operation how = take_operation(&given);
    const std::vector<uint8_t> data = parse_page(given.text("data"));
    const bool dry_run = given.flag("dry_run");
    given.finish();
    const caller who = call.id;
    later(all, call, card, [&all, card, page = *page, data, dry_run, how, who] {
        if (!dry_run) {
            const int result = fxm_write_mmspage(card, page, data.data(), how.flags);
            audit(all, who, card, fmt::format("page {}", page), "-", fmt::format("{} bytes", data.size()), result);
            check(result, fmt::format("cannot write page {}", page), card);
        }
        return json_reply(action_document("page", card, dry_run));
    });
}

static void delete_card(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    arguments given(call.request);
    const bool dry_run = given.flag("dry_run");
    given.finish();
    const caller who = call.id;
    later(all, call, card, [&all, card, dry_run, who] {
        if (!dry_run) {
            const int result = all.cards->remove(card);
            audit(all, who, card, "delete", "known", "unknown", result);
            check(result, "cannot delete the card", card);
        }
        return json_reply(action_document("delete", card, dry_run));
    });
}

static void unlock_eeprom(services &all, api_call &call)
{
    const uint64_t card = card_of(all, call);
    arguments given(call.request);
    const bool dry_run = given.flag("dry_run");
    given.finish();
    const caller who = call.id;
    const register_info *lock = find_register("eeprom.lock", false);
    later(all, call, card, [&all, card, dry_run, who, lock] {
        uint64_t duration = 0;
        const json::value before = read_one(all, card, lock->address, {}, &duration);
        json::value after = nullptr;
        if (!dry_run) {
            const int result = fxm_unlock_eeprom(card);
            audit(all, who, card, "eeprom-lock", json::serialize(before), "released", result);
            check(result, "cannot release the EEPROM lock", card);
            after = read_one(all, card, lock->address, {}, &duration);
        }
        json::object made = action_document("eeprom-lock", card, dry_run);
        made["old"] = before;
        made["new"] = after;
        return json_reply(made);
    });
}

std::span<const route> action_routes()
{
    static constexpr route routes[] = {
        {"GET", "/v1/cards/*/registers", role::view, read_registers},
        {"GET", "/v1/cards/*/registers/*", role::view, read_register},
        {"PUT", "/v1/cards/*/registers/*", role::operate, write_register},
        {"PATCH", "/v1/cards/*/registers/*", role::operate, modify_register},
        {"PUT", "/v1/cards/*/vlan", role::operate, set_vlan},
        {"PUT", "/v1/cards/*/monitor", role::operate, set_monitor},
        {"POST", "/v1/cards/*/reset", role::operate, reset_cards},
        {"POST", "/v1/cards/*/pages/*", role::operate, write_page},
        {"DELETE", "/v1/cards/*", role::operate, delete_card},
        {"DELETE", "/v1/cards/*/eeprom-lock", role::admin, unlock_eeprom},
    };
    return routes;
}

} // namespace fxm

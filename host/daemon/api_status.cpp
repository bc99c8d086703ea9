// Status, ports, counters, log, history, jobs, and what administers fxmd.
#include <fmt/format.h>

#include <charconv>

#include "common/card_id.h"
#include "daemon/api.h"
#include "daemon/counters.h"
#include "daemon/embedded.h"
#include "daemon/library_files.h"
#include "daemon/metrics.h"
#include "daemon/status.h"

namespace fxm
{

namespace json = boost::json;

static json::object counts_of(const std::vector<named_count> &counts)
{
    json::object made;
    for (const named_count &count : counts)
        made[count.name] = count.value;
    return made;
}

static void show_status(services &all, api_call &call)
{
    json::object made = status_document(all);
    made["role"] = word(call.who);
    call.answer(json_reply(made));
}

static void show_ports(services &all, api_call &call)
{
    json::object made = document();
    made["ether_type"] = ether_type_of(*all.settings());
    made["ports"] = ports_of(all);
    call.answer(json_reply(made));
}

static void show_stats(services &all, api_call &call)
{
    const counters now = read_counters(all.settings()->ports);
    json::object made = document();
    json::array frames;
    for (const port_counters &port : now.ports) {
        json::object entry{{"port", port.number}};
        for (const named_count &count : port.frames)
            entry[count.name] = count.value;
        frames.push_back(std::move(entry));
    }
    made["frames"] = std::move(frames);
    made["results"] = counts_of(now.results);
    json::object functions;
    for (const auto &[name, results] : now.functions)
        functions[name] = counts_of(results);
    made["functions"] = std::move(functions);
    made["library_events"] = counts_of(now.events);
    json::object memory;
    uint64_t queued = 0;
    for (const memory_account &account : now.memory) {
        memory[account.name] = json::object{
            {"in_use", account.allocated - account.freed}, {"allocated", account.allocated}, {"freed", account.freed}};
        if (std::string_view(account.name) == "evt_node")
            queued = account.allocated - account.freed;
    }
    made["callbacks"] =
        json::object{{"called", now.callbacks_called}, {"returned", now.callbacks_returned}, {"queued", queued}};
    made["memory"] = std::move(memory);
    made["daemon"] = json::object{{"events", all.events->last_seq() - all.events->start_seq()},
                                  {"clients", all.server->clients()},
                                  {"streams", all.server->streams()},
                                  {"gaps", all.gaps.load()},
                                  {"requests", all.server->requests()},
                                  {"ring_first_seq", all.events->first_seq()},
                                  {"ring_last_seq", all.events->last_seq()},
                                  {"resident_bytes", resident_bytes()}};
    call.answer(json_reply(made));
}

static void show_metrics(services &all, api_call &call)
{
    http_reply reply;
    reply.type = METRICS_TYPE;
    reply.body = metrics_text(all);
    call.answer(std::move(reply));
}

// A time in a query, in milliseconds; numbers of the API that do not fit 32 bits.
static int64_t big_number(const http_request &request, const char *name, int64_t absent)
{
    const std::string *text = request.argument(name);
    if (text == nullptr)
        return absent;
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc{} || end != text->data() + text->size() || value < 0)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is \"{}\"; it must be a number", name, *text));
    return value;
}

static void check_names(const http_request &request, std::initializer_list<std::string_view> names)
{
    for (const auto &[key, value] : request.query) {
        if (std::find(names.begin(), names.end(), key) == names.end())
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not known here", key),
                            fmt::format("possible are: {}", fmt::join(names, ", ")));
    }
}

static void show_log(services &all, api_call &call)
{
    check_names(call.request, {"since_ms"});
    json::array lines;
    for (const log_line &line : all.log->lines(big_number(call.request, "since_ms", 0)))
        lines.push_back(json::object{{"time_ms", line.time_ms}, {"level", word(line.level)}, {"text", line.text}});
    json::object made = document();
    made["lines"] = std::move(lines);
    call.answer(json_reply(made));
}

static void show_schema(services &, api_call &call)
{
    http_reply reply;
    reply.type = "application/schema+json";
    reply.body = schema_text;
    call.answer(std::move(reply));
}

// -------------------------------------------------------------------------------------------------------------- history

static history &past_of(services &all)
{
    if (all.past == nullptr)
        throw api_error("FXM_API_ENOENT", "the history is switched off", "set enabled = true below [history]");
    return *all.past;
}

static void show_history(services &all, api_call &call)
{
    history &past = past_of(all);
    check_names(call.request, {"after_seq", "since_ms", "until_ms", "card", "type", "limit", "newest"});
    history_query query;
    query.after_seq = static_cast<uint64_t>(big_number(call.request, "after_seq", 0));
    query.since_ms = big_number(call.request, "since_ms", 0);
    query.until_ms = big_number(call.request, "until_ms", INT64_MAX);
    query.limit = static_cast<size_t>(big_number(call.request, "limit", 1000));
    if (query.limit == 0 || query.limit > 10000)
        throw api_error("FXM_API_EINVAL", "\"limit\" must be a number from 1 to 10000");
    if (const std::string *newest = call.request.argument("newest")) {
        if (*newest != "true" && *newest != "false")
            throw api_error("FXM_API_EINVAL", "\"newest\" must be true or false");
        query.newest = *newest == "true";
    }
    if (const std::string *type = call.request.argument("type"))
        query.type = *type;
    if (const std::string *card = call.request.argument("card")) {
        const auto id = parse_id(*card);
        if (!id)
            throw api_error("FXM_API_EINVAL", fmt::format("\"card\" is \"{}\"; it must be a card id", *card));
        query.card = *id;
    }
    later(all, call, 0, [&past, query] {
        http_reply reply;
        reply.body = R"({"schema":"fxm/1","events":[)";
        uint64_t last = 0;
        size_t count = 0;
        past.query_events(query, [&](uint64_t seq, std::string_view text) {
            if (count++ != 0)
                reply.body += ',';
            reply.body += text;
            last = seq;
        });
        reply.body +=
            fmt::format("],\"next_seq\":{}}}\n", count == query.limit && !query.newest ? std::to_string(last) : "null");
        return reply;
    });
}

static void show_minutes(services &all, api_call &call)
{
    history &past = past_of(all);
    check_names(call.request, {"since_ms", "until_ms"});
    const int64_t since = big_number(call.request, "since_ms", 0);
    const int64_t until = big_number(call.request, "until_ms", INT64_MAX);
    later(all, call, 0, [&past, since, until] {
        http_reply reply;
        reply.body = R"({"schema":"fxm/1","minutes":[)";
        const char *comma = "";
        past.query_minutes(since, until, [&](const minute_sample &minute) {
            reply.body += fmt::format(
                R"({}{{"time_ms":{},"well":{},"degraded":{},"error":{},"lost":{},"unmonitored":{},"frames":[{},{}],"events":{},"registers":{},"register_us":{}}})",
                comma, minute.time_ms, minute.well, minute.degraded, minute.error, minute.lost, minute.unmonitored,
                minute.frames[0], minute.frames[1], minute.events, minute.registers,
                minute.registers != 0 ? std::to_string(minute.register_us) : "null");
            comma = ",";
        });
        reply.body += "]}\n";
        return reply;
    });
}

// ------------------------------------------------------------------------------------------------------- administration

// Reads files and looks groups up, which can block.
static void reload(services &all, api_call &call)
{
    const caller who = call.id;
    later(all, call, 0, [&all, who] {
        reload_result result;
        try {
            result = all.reload();
        } catch (const std::exception &failure) {
            throw api_error("FXM_API_EINVAL", failure.what(), "nothing has been applied");
        }
        all.log->audit(fmt::format("reload {} applied={} needs_restart={}", words(who), fmt::join(result.applied, ","),
                                   fmt::join(result.needs_restart, ",")));
        json::object made = document();
        made["applied"] = json::array(result.applied.begin(), result.applied.end());
        made["needs_restart"] = json::array(result.needs_restart.begin(), result.needs_restart.end());
        return json_reply(made);
    });
}

static void set_log_level(services &all, api_call &call)
{
    struct entry {
        const char *name;
        int level;
    };
    constexpr entry levels[] = {{"fatal", FXM_LOG_FATAL}, {"error", FXM_LOG_ERROR}, {"warning", FXM_LOG_WARN},
                                {"info", FXM_LOG_INFO},   {"debug", FXM_LOG_DEBUG}, {"trace", FXM_LOG_TRACE}};
    arguments given(call.request);
    const std::string name = given.text("level");
    given.finish();
    for (const entry &known : levels) {
        if (name != known.name)
            continue;
        const int result = library::set_log_level(known.level);
        if (result != FXM_API_SUCCESS)
            throw api_error("FXM_API_ENOSYS", "the library is not running");
        all.log->audit(fmt::format("log level uid={} pid={} level={}", call.id.uid, call.id.pid, name));
        json::object made = document();
        made["level"] = name;
        call.answer(json_reply(made));
        return;
    }
    throw api_error("FXM_API_EINVAL", fmt::format("there is no level \"{}\"", name),
                    "levels are fatal, error, warning, info, debug and trace");
}

// The library writes it as a whole, which takes a while with many cards.
static void write_status_dump(services &all, api_call &call)
{
    arguments given(call.request);
    const bool verbose = given.flag("verbose");
    given.finish();
    later(all, call, 0, [&all, verbose] {
        const std::string file = report_file(*all.settings());
        if (all.fabric->write_report(verbose, file) != FXM_API_SUCCESS)
            throw api_error("FXM_API_ENOSYS", "the library is not running");
        json::object made = document();
        made["file"] = file;
        return json_reply(made);
    });
}

std::span<const route> status_routes()
{
    static constexpr route routes[] = {
        {"GET", "/v1/status", role::view, show_status},
        {"GET", "/v1/ports", role::view, show_ports},
        {"GET", "/v1/stats", role::view, show_stats},
        {"GET", "/metrics", role::view, show_metrics},
        {"GET", "/v1/log", role::view, show_log},
        {"GET", "/v1/schema", role::view, show_schema},
        {"GET", "/v1/history", role::view, show_history},
        {"GET", "/v1/history/minutes", role::view, show_minutes},
        {"POST", "/v1/reload", role::admin, reload},
        {"PUT", "/v1/log/level", role::admin, set_log_level},
        {"POST", "/v1/log/status-dump", role::admin, write_status_dump},
    };
    return routes;
}

} // namespace fxm

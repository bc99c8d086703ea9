#include "daemon/api.h"

#include <fmt/format.h>

#include <algorithm>

#include "common/card_id.h"

namespace fxm
{

namespace json = boost::json;

// ------------------------------------------------------------------------------------------------------------ answers

json::object document()
{
    json::object made;
    made["schema"] = "fxm/1";
    return made;
}

http_reply json_reply(const json::object &document, int status)
{
    http_reply reply;
    reply.status = status;
    reply.body = json::serialize(document) + "\n";
    return reply;
}

static int status_of(std::string_view code)
{
    struct entry {
        std::string_view code;
        int status;
    };
    constexpr entry entries[] = {
        {"FXM_API_EINVAL", 400}, {"FXM_API_ERANGE", 400},    {"FXM_API_ENOENT", 404}, {"FXM_API_ENOLINK", 502},
        {"FXM_API_EBUSY", 409},  {"FXM_API_ETIMEDOUT", 504}, {"FXM_API_ENOSYS", 503}, {"FXM_DENIED", 403},
        {"FXM_METHOD", 405},     {"FXM_TOO_LARGE", 413},     {"FXM_TOO_MANY", 429},
    };
    for (const entry &known : entries) {
        if (known.code == code)
            return known.status;
    }
    return 500;
}

http_reply error_reply(const api_error &failure)
{
    json::object made = document();
    made["code"] = failure.code;
    made["message"] = failure.what();
    if (failure.hint.empty())
        made["hint"] = nullptr;
    else
        made["hint"] = failure.hint;
    return json_reply(made, status_of(failure.code));
}

// What `work` returns or throws.
static http_reply outcome(const std::function<http_reply()> &work)
{
    try {
        return work();
    } catch (const api_error &failure) {
        return error_reply(failure);
    } catch (const std::exception &failure) {
        return error_reply(api_error("FXM_API_EPROTO", failure.what()));
    }
}

void later(services &all, const api_call &call, uint64_t card, std::function<http_reply()> work)
{
    const http_server::responder answer = call.answer;
    const bool taken = all.operations->submit(
        card, [answer, work = std::move(work)] { answer(outcome(work)); },
        [answer] { answer(error_reply(api_error("FXM_API_ENOSYS", "fxmd is stopping"))); });
    if (!taken)
        throw api_error("FXM_TOO_MANY",
                        card != 0 ? fmt::format("too many requests wait for card {}", format_id(card))
                                  : "too many requests wait",
                        "try again when earlier requests have been answered");
}

bool wants(const http_request &request, std::string_view type)
{
    return request.accept.find(type) != std::string::npos;
}

// ---------------------------------------------------------------------------------------------------------- arguments

arguments::arguments(const http_request &request)
{
    if (!request.body.empty()) {
        boost::system::error_code error;
        json::value parsed = json::parse(request.body, error, {}, {.max_depth = 8});
        if (error || !parsed.is_object())
            throw api_error("FXM_API_EINVAL",
                            fmt::format("the body is not a JSON object{}", error ? ": " + error.message() : ""));
        members_ = std::move(parsed.as_object());
    }
    for (const auto &[key, value] : request.query) {
        if (members_.contains(key))
            throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" appears twice", key));
        members_[key] = value;
    }
}

const json::value *arguments::find(const char *name)
{
    taken_.emplace_back(name);
    return members_.if_contains(name);
}

// In a query a number is text.
static std::optional<uint32_t> as_number(const json::value &value)
{
    if (const json::string *text = value.if_string())
        return parse_u32(std::string_view(text->data(), text->size()));
    if (value.is_int64() && value.get_int64() >= 0 && value.get_int64() <= UINT32_MAX)
        return static_cast<uint32_t>(value.get_int64());
    if (value.is_uint64() && value.get_uint64() <= UINT32_MAX)
        return static_cast<uint32_t>(value.get_uint64());
    return std::nullopt;
}

std::optional<uint32_t> arguments::optional_number(const char *name, uint32_t least, uint32_t most)
{
    const json::value *value = find(name);
    if (value == nullptr || value->is_null())
        return std::nullopt;
    const auto number = as_number(*value);
    if (!number || *number < least || *number > most)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is {}; it must be a number from {} to {}", name,
                                                      json::serialize(*value), least, most));
    return number;
}

uint32_t arguments::number(const char *name, uint32_t least, uint32_t most)
{
    const auto value = optional_number(name, least, most);
    if (!value)
        throw api_error("FXM_API_EINVAL",
                        fmt::format("\"{}\" is missing; it must be a number from {} to {}", name, least, most));
    return *value;
}

bool arguments::flag(const char *name, bool absent)
{
    const json::value *value = find(name);
    if (value == nullptr)
        return absent;
    if (value->is_bool())
        return value->get_bool();
    const json::string *text = value->if_string();
    if (text != nullptr && (*text == "true" || *text == "1"))
        return true;
    if (text != nullptr && (*text == "false" || *text == "0"))
        return false;
    throw api_error("FXM_API_EINVAL",
                    fmt::format("\"{}\" is {}; it must be true or false", name, json::serialize(*value)));
}

std::optional<std::string> arguments::optional_text(const char *name)
{
    const json::value *value = find(name);
    if (value == nullptr || value->is_null())
        return std::nullopt;
    const json::string *text = value->if_string();
    if (text == nullptr)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is {}; it must be text", name, json::serialize(*value)));
    return std::string(text->data(), text->size());
}

std::string arguments::text(const char *name)
{
    auto value = optional_text(name);
    if (!value)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is missing", name));
    return std::move(*value);
}

std::vector<uint32_t> arguments::words(const char *name, size_t most)
{
    const json::value *value = find(name);
    const json::array *items = value != nullptr ? value->if_array() : nullptr;
    std::vector<uint32_t> taken;
    if (items != nullptr && items->size() <= most) {
        for (const json::value &item : *items) {
            if (const auto word = as_number(item))
                taken.push_back(*word);
        }
    }
    if (items == nullptr || taken.empty() || taken.size() != items->size())
        throw api_error("FXM_API_EINVAL",
                        fmt::format("\"{}\" must be an array of 1 to {} numbers of 32 bits", name, most));
    return taken;
}

void arguments::finish() const
{
    for (const auto &member : members_) {
        if (std::find(taken_.begin(), taken_.end(), std::string_view(member.key())) != taken_.end())
            continue;
        std::string known;
        for (const std::string &name : taken_)
            known += (known.empty() ? "" : ", ") + name;
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not known here", std::string_view(member.key())),
                        "possible are: " + known);
    }
}

operation take_operation(arguments *given)
{
    operation how;
    const auto retries = given->optional_number("retries", 0, 100);
    const auto interval = given->optional_number("interval_ms", 1, 1000);
    if (retries || interval)
        how.retry = fxm_retry_param_t{retries.value_or(10), interval.value_or(100)};
    if (given->flag("livecheck"))
        how.flags |= FXM_FLAG_LIVECHECK;
    return how;
}

// ------------------------------------------------------------------------------------------------------------- routes

uint64_t card_of(const services &all, const api_call &call)
{
    const auto id = parse_id(call.parts.at(0));
    if (!id)
        throw api_error("FXM_API_EINVAL", fmt::format("\"{}\" is not a card id", call.parts.at(0)),
                        "write an id like 02:00:00:00:10:00");
    return all.cards->resolve(*id);
}

static bool match(std::string_view pattern, std::string_view path, std::vector<std::string> *parts)
{
    parts->clear();
    while (!pattern.empty() || !path.empty()) {
        if (pattern.empty() || path.empty() || pattern[0] != '/' || path[0] != '/')
            return false;
        const auto word = pattern.substr(1, pattern.find('/', 1) - 1);
        const auto given = path.substr(1, path.find('/', 1) - 1);
        if (word == "*" && !given.empty())
            parts->emplace_back(given);
        else if (word != given)
            return false;
        pattern.remove_prefix(1 + word.size());
        path.remove_prefix(1 + given.size());
    }
    return true;
}

// The page of another site must not reach fxmd: not by a name that it chose itself for the loopback address, and not by a
// request that a browser sends in its name. The Unix socket has callers that make up a host, and browsers behind a
// forwarded port.
static void check_origin(const http_request &request)
{
    const std::string_view host = request.host;
    const std::string_view name = host.ends_with(']') ? host : host.substr(0, host.rfind(':'));
    const bool is_loopback = name == "127.0.0.1" || name == "localhost" || name == "[::1]";
    if (!is_loopback && (!request.who.local || request.from_browser))
        throw api_error("FXM_DENIED", fmt::format("the Host header names \"{}\"", host),
                        "use the address 127.0.0.1 or localhost");
    if (!request.origin.empty() && request.origin != fmt::format("http://{}", host))
        throw api_error("FXM_DENIED", fmt::format("the request comes from a page of \"{}\"", request.origin),
                        "open the page of fxmd itself");
}

std::span<const std::span<const route>> own_tables()
{
    static const std::span<const route> tables[] = {card_routes(),  action_routes(), job_routes(),
                                                    event_routes(), status_routes(), page_routes()};
    return tables;
}

static void dispatch(services &all, std::span<const std::span<const route>> tables, const http_request &request,
                     const http_server::responder &answer, const route_runner &run)
{
    check_origin(request);
    const std::shared_ptr<const roles> judge = all.who();
    api_call call{request, answer, judge->of(request), {}, {}};
    call.id = {request.who.uid, request.who.pid, word(call.who), request.who.user};
    const route *found = nullptr;
    size_t found_in = 0;
    bool path_exists = false;
    for (size_t table = 0; table < tables.size() && found == nullptr; ++table) {
        for (const route &candidate : tables[table]) {
            std::vector<std::string> parts;
            if (!match(candidate.pattern, request.path, &parts))
                continue;
            path_exists = true;
            const bool is_head = request.method == "HEAD" && std::string_view(candidate.method) == "GET";
            if (request.method != candidate.method && !is_head)
                continue;
            found = &candidate;
            found_in = table;
            call.parts = std::move(parts);
            break;
        }
    }
    // Somebody without a role learns nothing, not even which paths exist.
    const role needed = found != nullptr ? found->needs : role::view;
    if (call.who < needed)
        throw api_error(
            "FXM_DENIED",
            fmt::format("{} {} needs the role {}; {}", request.method, request.path, word(needed),
                        call.who == role::none ? "you have none" : fmt::format("you have the role {}", word(call.who))),
            judge->hint(needed, request.who.local));
    if (found == nullptr && path_exists)
        throw api_error("FXM_METHOD", fmt::format("{} is not possible for {}", request.method, request.path));
    if (found == nullptr)
        throw api_error("FXM_API_ENOENT", fmt::format("there is no path {}", request.path),
                        "docs/api.md lists the paths");
    if (request.too_large)
        throw api_error("FXM_TOO_LARGE", fmt::format("the body is larger than {} bytes", http_server::MAX_BODY));
    run(found_in, *found, call);
}

void handle_request(services &all, const http_request &request, const http_server::responder &answer)
{
    handle_request(all, own_tables(), request, answer,
                   [&all](size_t, const route &found, api_call &call) { found.handle(all, call); });
}

void handle_request(services &all, std::span<const std::span<const route>> tables, const http_request &request,
                    const http_server::responder &answer, const route_runner &run)
{
    try {
        dispatch(all, tables, request, answer, run);
    } catch (const api_error &failure) {
        answer(error_reply(failure));
    } catch (const std::exception &failure) {
        all.log->error("{} {}: {}", request.method, request.path, failure.what());
        answer(error_reply(api_error("FXM_API_EPROTO", failure.what())));
    }
}

} // namespace fxm

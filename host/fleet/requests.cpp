#include "fleet/requests.h"

#include <fmt/format.h>
#include <microhttpd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "daemon/api.h"
#include "fleet/names.h"

namespace fxm::fleet
{

static nats_message message_of(http_reply reply)
{
    if (reply.endless)
        reply = error_reply(api_error("FXM_API_EINVAL", "a stream without end cannot be asked for over the fleet",
                                      fmt::format("read the stream {}", EVENTS_STREAM)));
    if (reply.source) {
        while (reply.body.size() <= desk::MOST_BYTES && reply.source->read(&reply.body) == http_source::state::more) {
        }
    }
    if (reply.body.size() > desk::MOST_BYTES)
        reply =
            error_reply(api_error("FXM_TOO_LARGE", fmt::format("the answer is larger than {} bytes", desk::MOST_BYTES),
                                  "ask for a part: limit=1000, and after=ID for the next one"));
    nats_message made;
    made.headers = {{STATUS, std::to_string(reply.status)}, {TYPE, reply.type}};
    for (auto &header : reply.headers)
        made.headers.push_back(std::move(header));
    made.data = std::move(reply.body);
    return made;
}

static nats_message refusal(const char *code, const std::string &message, const std::string &hint = "")
{
    return message_of(error_reply(api_error(code, message, hint)));
}

static std::string decoded(std::string_view text)
{
    std::string plain(text);
    plain.resize(MHD_http_unescape(plain.data()));
    return plain;
}

static http_request http_of(const nats_message &request, role granted, std::string user)
{
    http_request made;
    const auto text = [&](const char *name) {
        const std::string *value = request.header(name);
        return value != nullptr ? *value : std::string();
    };
    made.method = text(METHOD);
    made.accept = text("Accept");
    const std::string path = text(PATH);
    const size_t mark = path.find('?');
    made.path = decoded(path.substr(0, mark));
    for (std::string_view rest = mark == std::string::npos ? std::string_view()
                                                           : std::string_view(path).substr(mark + 1);
         !rest.empty();) {
        const std::string_view word = rest.substr(0, rest.find('&'));
        const size_t equal = word.find('=');
        made.query.emplace_back(decoded(word.substr(0, equal)),
                                equal == std::string_view::npos ? "" : decoded(word.substr(equal + 1)));
        rest.remove_prefix(std::min(rest.size(), word.size() + 1));
    }
    made.body = request.data;
    made.too_large = request.data.size() > http_server::MAX_BODY;
    made.who.local = true;
    made.who.uid = 65534; // nobody of this machine
    made.who.granted = granted;
    made.who.user = std::move(user);
    return made;
}

// fxm.api.SITE.ROLE.USER; false for anything else.
static bool parse_subject(std::string_view subject, std::string_view site, role *asked, std::string *user)
{
    const std::string head = fmt::format("fxm.api.{}.", site);
    if (!subject.starts_with(head))
        return false;
    subject.remove_prefix(head.size());
    const size_t dot = subject.find('.');
    if (dot == std::string_view::npos || dot + 1 == subject.size())
        return false;
    *user = subject.substr(dot + 1);
    *asked = role_of(subject.substr(0, dot));
    return *asked != role::none;
}

// A header that goes into the log, and into a path.
static bool is_plain(const std::string *text)
{
    constexpr size_t LONGEST = 4096;
    return text != nullptr && !text->empty() && text->size() <= LONGEST &&
           std::all_of(text->begin(), text->end(), [](unsigned char c) { return c > ' ' && c != 0x7f; });
}

static desk::answer addressed_to(const nats_message &request, desk::answer send)
{
    return [send = std::move(send), to = request.reply](nats_message message) {
        message.subject = to;
        send(std::move(message));
    };
}

void desk::turn_away(const nats_message &request, const answer &send) const
{
    if (!request.reply.empty())
        addressed_to(request, send)(
            refusal("FXM_TOO_MANY", "too many requests wait", "try again when earlier ones have been answered"));
}

void desk::take(const nats_message &request, const answer &send)
{
    // Without a place for the answer nobody has asked. What a stream delivers is no request either, whatever its headers say:
    // whoever may read a stream may choose the subject under which it comes.
    if (request.reply.empty() || request.reply.starts_with("$JS."))
        return;
    const answer reply = addressed_to(request, send);
    role asked = role::none;
    std::string user;
    const std::string *id = request.header(REQUEST_ID);
    const std::string *deadline = request.header(DEADLINE);
    const std::string *method = request.header(METHOD);
    const std::string *path = request.header(PATH);
    if (!parse_subject(request.subject, site_, &asked, &user) || !is_plain(&user) || !is_plain(id) ||
        !is_plain(deadline) || !is_plain(method) || !is_plain(path)) {
        reply(refusal("FXM_API_EINVAL",
                      "a request needs a role and a user in its subject, an id, a deadline, a method and "
                      "a path"));
        return;
    }
    // The same id of two users is two requests.
    const std::string key = user + '/' + *id;
    const int64_t late_ms = clock_ms() - std::strtoll(deadline->c_str(), nullptr, 10);
    std::optional<nats_message> known;
    {
        std::lock_guard guard(mutex_);
        numbers_.requests += 1;
        const auto found = results_.find(key);
        if (found != results_.end()) {
            numbers_.repeated += 1;
            if (!found->second.done) {
                found->second.waiting.push_back(reply);
                return;
            }
            known = found->second.message;
        } else if (late_ms >= 0) {
            numbers_.late += 1;
        } else if (asked > allow_) {
            numbers_.denied += 1;
        } else {
            remember(key, reply);
        }
    }
    if (known) {
        reply(std::move(*known));
        return;
    }
    // A room says whom it asks for; the servers do not prove that.
    const std::string *asks_for = request.header(FOR);
    const std::string what =
        fmt::format("request of {} as {}{}{}: {} {}", user, word(asked), is_plain(asks_for) ? " for " : "",
                    is_plain(asks_for) ? *asks_for : "", *method, *path);
    if (late_ms >= 0) {
        all_->log->warning("{}: too late by {} ms; not carried out", what, late_ms);
        reply(refusal("FXM_API_ETIMEDOUT", fmt::format("the request came {} ms after its deadline", late_ms),
                      "nothing was done; compare the clocks"));
        return;
    }
    if (asked > allow_) {
        all_->log->warning("{}: refused; this site allows {}", what, word(allow_));
        reply(refusal("FXM_DENIED", fmt::format("the site {} allows {}", site_, word(allow_)),
                      fmt::format("set allow = \"{}\" below [fleet] in its fxmd.toml", word(asked))));
        return;
    }
    all_->log->info("{}", what);
    // The handler may go on with it on another thread.
    const auto asks = std::make_shared<const http_request>(http_of(request, asked, user));
    handle_request(*all_, *asks,
                   [this, key, asks](http_reply answered) { finish(key, message_of(std::move(answered))); });
}

// The caller holds the mutex.
void desk::remember(const std::string &key, const answer &reply)
{
    const auto now = std::chrono::steady_clock::now();
    for (size_t left = order_.size(); left != 0 && (order_.size() >= KEPT || order_.front().since < now - KEPT_FOR);
         --left) {
        kept oldest = std::move(order_.front());
        order_.pop_front();
        const auto found = results_.find(oldest.key);
        if (found != results_.end() && !found->second.done)
            order_.push_back(std::move(oldest)); // it runs, and its answer must find it; the executor bounds those
        else if (found != results_.end())
            results_.erase(found);
    }
    results_[key].waiting.push_back(reply);
    order_.push_back({key, now});
}

void desk::finish(const std::string &key, const nats_message &message)
{
    std::vector<answer> waiting;
    {
        std::lock_guard guard(mutex_);
        const auto found = results_.find(key);
        if (found == results_.end() || found->second.done)
            return;
        waiting.swap(found->second.waiting);
        found->second.done = true;
        if (message.data.size() > MOST_KEPT_BYTES)
            results_.erase(found);
        else
            found->second.message = message;
    }
    for (const answer &reply : waiting)
        reply(message);
}

desk_numbers desk::numbers() const
{
    std::lock_guard guard(mutex_);
    return numbers_;
}

} // namespace fxm::fleet

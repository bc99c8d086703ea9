#include "fleet/requests.h"

#include <fmt/format.h>

#include <charconv>

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

// What is behind '%' and two hexadecimal digits, as in a path.
static std::string decoded(std::string_view text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned value = 0;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16).ptr == text.data() + i + 3) {
            plain += static_cast<char>(value);
            i += 2;
        } else {
            plain += text[i];
        }
    }
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
    for (const role known : {role::view, role::operate, role::admin}) {
        *asked = known;
        if (subject.substr(0, dot) == word(known))
            return true;
    }
    return false;
}

void desk::take(const nats_message &request, answer send)
{
    if (request.reply.empty())
        return;
    const auto reply = [send = std::move(send), to = request.reply](const nats_message &message) {
        nats_message addressed = message;
        addressed.subject = to;
        send(std::move(addressed));
    };
    role asked = role::none;
    std::string user;
    const std::string *id = request.header(REQUEST_ID);
    const std::string *deadline = request.header(DEADLINE);
    const std::string *method = request.header(METHOD);
    const std::string *path = request.header(PATH);
    if (!parse_subject(request.subject, site_, &asked, &user) || id == nullptr || id->empty() || id->size() > 64 ||
        deadline == nullptr || method == nullptr || path == nullptr) {
        reply(refusal("FXM_API_EINVAL", "a request needs an id, a deadline, a method and a path"));
        return;
    }
    // The same id of two users is two requests.
    const std::string key = user + '/' + *id;
    {
        std::lock_guard guard(mutex_);
        numbers_.requests += 1;
        const auto known = results_.find(key);
        if (known != results_.end()) {
            numbers_.repeated += 1;
            if (known->second.done)
                reply(known->second.message);
            else
                known->second.waiting.emplace_back(reply);
            return;
        }
    }
    const std::string what = fmt::format("request of {} as {}: {} {}", user, word(asked), *method, *path);
    const int64_t now = clock_ms();
    const int64_t until = std::strtoll(deadline->c_str(), nullptr, 10);
    if (until <= now) {
        std::lock_guard guard(mutex_);
        numbers_.late += 1;
        all_->log->warning("{}: too late by {} ms; not carried out", what, now - until);
        reply(refusal("FXM_API_ETIMEDOUT", fmt::format("the request came {} ms after its deadline", now - until),
                      "compare the clocks; nothing was done"));
        return;
    }
    if (asked > allow_) {
        {
            std::lock_guard guard(mutex_);
            numbers_.denied += 1;
        }
        all_->log->warning("{}: refused; this site allows {}", what, word(allow_));
        reply(refusal("FXM_DENIED", fmt::format("the site {} allows {}", site_, word(allow_)),
                      fmt::format("set allow = \"{}\" below [fleet] in its fxmd.toml", word(asked))));
        return;
    }
    all_->log->info("{}", what);
    {
        std::lock_guard guard(mutex_);
        const auto old = std::chrono::steady_clock::now() - KEPT_FOR;
        // One that runs stays, so that its answer finds it.
        while (!order_.empty() && (order_.size() >= KEPT || order_.front().since < old)) {
            const auto oldest = results_.find(order_.front().id);
            if (oldest != results_.end() && !oldest->second.done && order_.size() < 2 * KEPT)
                break;
            if (oldest != results_.end())
                results_.erase(oldest);
            order_.pop_front();
        }
        results_[key].waiting.emplace_back(reply);
        order_.push_back({key, std::chrono::steady_clock::now()});
    }
    const auto finished = [this, key](http_reply answered) { finish(key, message_of(std::move(answered))); };
    handle_request(*all_, http_of(request, asked, user), finished);
}

void desk::finish(const std::string &id, nats_message message)
{
    std::vector<std::function<void(const nats_message &)>> waiting;
    {
        std::lock_guard guard(mutex_);
        const auto found = results_.find(id);
        if (found == results_.end() || found->second.done)
            return;
        found->second.done = true;
        waiting.swap(found->second.waiting);
        if (message.data.size() > MOST_KEPT_BYTES)
            results_.erase(found);
        else
            found->second.message = message;
    }
    for (const auto &reply : waiting)
        reply(message);
}

desk_numbers desk::numbers() const
{
    std::lock_guard guard(mutex_);
    return numbers_;
}

} // namespace fxm::fleet

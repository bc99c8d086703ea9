#include "ctl/client.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace fxm
{

namespace json = boost::json;

struct client::state {
    CURL *handle = nullptr;
};

std::string escape(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || strchr("-._~:", c) != nullptr)
            out += c;
        else
            out += fmt::format("%{:02X}", byte);
    }
    return out;
}

client::client(endpoint where) : where_(std::move(where)), state_(new state)
{
    if (!where_.token_file.empty()) {
        std::ifstream file(where_.token_file);
        std::string role;
        // A file of fxmd has the role in front; one for users may have the token alone.
        file >> role >> token_;
        if (token_.empty())
            token_ = role;
        if (token_.empty())
            throw ctl_error(EXIT_USAGE, fmt::format("{} holds no token", where_.token_file));
    }
    // Nothing of TLS is needed, and its initialisation takes longer than a request.
    curl_global_init(CURL_GLOBAL_NOTHING);
    state_->handle = curl_easy_init();
    if (state_->handle == nullptr) {
        delete state_;
        throw ctl_error(EXIT_FAILED, "libcurl could not start");
    }
}

client::~client()
{
    curl_easy_cleanup(state_->handle);
    delete state_;
}

std::string client::where() const { return where_.url.empty() ? where_.socket : where_.url; }

static size_t write_body(char *data, size_t, size_t size, void *arg)
{
    const auto &take = *static_cast<const std::function<bool(const char *, size_t)> *>(arg);
    return take(data, size) ? size : 0;
}

static exit_code exit_of(std::string_view code, std::string_view path)
{
    struct entry {
        std::string_view code;
        exit_code exit;
    };
    constexpr entry entries[] = {
        {"FXM_API_EINVAL", EXIT_USAGE},          {"FXM_API_ERANGE", EXIT_USAGE}, {"FXM_API_ENOLINK", EXIT_UNREACHABLE},
        {"FXM_API_ETIMEDOUT", EXIT_UNREACHABLE}, {"FXM_API_EBUSY", EXIT_BUSY},   {"FXM_TOO_MANY", EXIT_BUSY},
        {"FXM_API_ENOSYS", EXIT_UNREACHABLE},    {"FXM_DENIED", EXIT_DENIED},
    };
    if (code == "FXM_API_ENOENT")
        return path.starts_with("/v1/cards/") || path == "/v1/jobs" ? EXIT_NO_CARD : EXIT_FAILED;
    for (const entry &known : entries) {
        if (known.code == code)
            return known.exit;
    }
    return EXIT_FAILED;
}

static std::string text_of(const json::object &from, std::string_view name)
{
    const json::value *value = from.if_contains(name);
    return value != nullptr && value->is_string() ? std::string(value->get_string().data(), value->get_string().size())
                                                  : std::string();
}

[[noreturn]] static void throw_answer(const std::string &path, long status, const std::string &body)
{
    boost::system::error_code error;
    const json::value parsed = json::parse(body, error);
    if (error || !parsed.is_object() || text_of(parsed.get_object(), "message").empty())
        throw ctl_error(EXIT_FAILED, fmt::format("fxmd answered {} with HTTP status {}", path, status));
    const json::object &answer = parsed.get_object();
    throw ctl_error(exit_of(text_of(answer, "code"), path), text_of(answer, "message"), text_of(answer, "hint"));
}

// Returns the HTTP status. `take` gets the body, or nothing when it returns false, which ends the transfer.
long client::perform(const char *method, const std::string &path, const query &arguments, const std::string &body,
                     const char *accept, const std::function<bool(const char *, size_t)> &take)
{
    CURL *handle = state_->handle;
    curl_easy_reset(handle);
    std::string url = (where_.url.empty() ? "http://fxmd" : where_.url) + path;
    char separator = '?';
    for (const auto &[key, value] : arguments) {
        url += separator + escape(key) + '=' + escape(value);
        separator = '&';
    }
    if (where_.url.empty())
        curl_easy_setopt(handle, CURLOPT_UNIX_SOCKET_PATH, where_.socket.c_str());
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, write_body);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &take);
    struct lists {
        curl_slist *headers = nullptr;
        ~lists() { curl_slist_free_all(headers); }
    } made;
    made.headers = curl_slist_append(made.headers, fmt::format("Accept: {}", accept).c_str());
    if (!token_.empty())
        made.headers = curl_slist_append(made.headers, ("Authorization: Bearer " + token_).c_str());
    if (!body.empty()) {
        made.headers = curl_slist_append(made.headers, "Content-Type: application/json");
        // The server takes the body at once; waiting for its consent costs a second where it does not answer.
        made.headers = curl_slist_append(made.headers, "Expect:");
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, made.headers);
    const CURLcode code = curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_OK || code == CURLE_WRITE_ERROR)
        return status;
    if (code == CURLE_COULDNT_CONNECT && where_.url.empty() && access(where_.socket.c_str(), F_OK) != 0)
        throw ctl_error(EXIT_NO_DAEMON, fmt::format("fxmd is not running: there is no socket {}", where_.socket),
                        "start fxmd, or set --socket or FXM_SOCKET");
    if (code == CURLE_COULDNT_CONNECT && where_.url.empty() && access(where_.socket.c_str(), W_OK) != 0)
        throw ctl_error(EXIT_DENIED, fmt::format("no permission on the socket {}", where_.socket),
                        "ask for membership of the group fxm-view or fxm, or use sudo");
    throw ctl_error(EXIT_NO_DAEMON,
                    fmt::format("no answer from fxmd at {}: {}", this->where(), curl_easy_strerror(code)),
                    "start fxmd, or set --socket or FXM_SOCKET");
}

std::string client::request(const char *method, const std::string &path, const query &arguments,
                            const std::string &body)
{
    std::string answer;
    const long status = perform(method, path, arguments, body, "application/json", [&](const char *data, size_t size) {
        answer.append(data, size);
        return true;
    });
    if (status >= 400)
        throw_answer(path, status, answer);
    return answer;
}

static json::object parse_object(const std::string &path, const std::string &text)
{
    boost::system::error_code error;
    json::value parsed = json::parse(text, error);
    if (error || !parsed.is_object())
        throw ctl_error(EXIT_FAILED, fmt::format("the answer to {} is no JSON object", path));
    return std::move(parsed.get_object());
}

std::string client::get_text(const std::string &path, const query &arguments)
{
    return request("GET", path, arguments, "");
}

json::object client::get(const std::string &path, const query &arguments)
{
    return parse_object(path, get_text(path, arguments));
}

json::object client::send(const char *method, const std::string &path, const json::object &body)
{
    return parse_object(path, request(method, path, {}, body.empty() ? "" : json::serialize(body)));
}

void client::stream(const std::string &path, const query &arguments, const std::function<bool(std::string_view)> &see)
{
    std::string partial;
    std::string refusal;
    bool asked_to_end = false;
    const long status = perform("GET", path, arguments, "", "application/x-ndjson", [&](const char *data, size_t size) {
        long now = 0;
        curl_easy_getinfo(state_->handle, CURLINFO_RESPONSE_CODE, &now);
        if (now >= 400) {
            refusal.append(data, size);
            return true;
        }
        partial.append(data, size);
        size_t at = 0;
        for (size_t end; (end = partial.find('\n', at)) != std::string::npos; at = end + 1) {
            if (!see(std::string_view(partial).substr(at, end - at))) {
                asked_to_end = true;
                return false;
            }
        }
        partial.erase(0, at);
        return true;
    });
    if (status >= 400)
        throw_answer(path, status, refusal);
    if (!asked_to_end && !partial.empty())
        throw ctl_error(EXIT_NO_DAEMON, fmt::format("the answer to {} ended in the middle", path));
}

} // namespace fxm

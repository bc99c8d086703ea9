#include "ctl/client.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "common/card_id.h"

namespace fxm
{

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace json = boost::json;

struct client::state {
    asio::io_context context;
    // Kept for the next request.
    asio::generic::stream_protocol::socket socket{context};
    boost::beast::flat_buffer buffer;
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

void use_room(endpoint *where, const std::string &address)
{
    where->is_room = true;
    (address.starts_with('/') ? where->socket : where->url) = address;
}

client::client(endpoint where) : where_(std::move(where)), state_(std::make_unique<state>())
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
}

client::~client() = default;

std::string client::where() const { return where_.url.empty() ? where_.socket : where_.url; }

exit_code exit_of(std::string_view code, bool is_card)
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
        return is_card ? EXIT_NO_CARD : EXIT_FAILED;
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

[[noreturn]] static void throw_answer(const std::string &path, unsigned status, const std::string &body)
{
    boost::system::error_code error;
    const json::value parsed = json::parse(body, error);
    if (error || !parsed.is_object() || text_of(parsed.get_object(), "message").empty())
        throw ctl_error(EXIT_FAILED, fmt::format("fxmd answered {} with HTTP status {}", path, status));
    const json::object &answer = parsed.get_object();
    const bool is_card = path.starts_with("/v1/cards/") || path == "/v1/jobs"; // a job is made for a card
    std::string hint = text_of(answer, "hint");
    if (hint.find("?site=NAME") != std::string::npos)
        hint = "name one with --site; fxmctl sites lists them";
    else if (hint.find("/v1/sites") != std::string::npos)
        hint = "fxmctl sites lists them";
    throw ctl_error(exit_of(text_of(answer, "code"), is_card), text_of(answer, "message"), hint);
}

// Only loopback addresses make sense: fxmd listens nowhere else.
static asio::ip::tcp::endpoint parse_url(const std::string &url)
{
    constexpr std::string_view scheme = "http://";
    std::string_view rest = url;
    if (rest.starts_with(scheme)) {
        rest.remove_prefix(scheme.size());
        while (rest.ends_with('/'))
            rest.remove_suffix(1);
        const size_t colon = rest.rfind(':');
        const auto port = colon != std::string_view::npos ? parse_u32(rest.substr(colon + 1)) : std::nullopt;
        const std::string_view host = rest.substr(0, colon);
        if (port && *port <= 65535 && (host == "127.0.0.1" || host == "localhost"))
            return {asio::ip::address_v4::loopback(), static_cast<unsigned short>(*port)};
    }
    throw ctl_error(EXIT_USAGE, fmt::format("\"{}\" is no address of fxmd", url), "write http://127.0.0.1:8610");
}

void client::connect()
{
    boost::system::error_code error;
    state_->buffer.clear();
    state_->socket = asio::generic::stream_protocol::socket(state_->context);
    if (!where_.url.empty())
        state_->socket.connect(parse_url(where_.url), error);
    else if (where_.socket.size() < 108)
        state_->socket.connect(asio::local::stream_protocol::endpoint(where_.socket), error);
    else
        throw ctl_error(EXIT_USAGE, fmt::format("the path of a socket has at most 107 characters: {}", where_.socket));
    if (!error)
        return;
    if (error == asio::error::access_denied)
        throw ctl_error(EXIT_DENIED, fmt::format("no permission on the socket {}", where()),
                        "ask for membership of the group fxm-view or fxm, or use sudo");
    const bool missing = where_.url.empty() && access(where_.socket.c_str(), F_OK) != 0;
    throw ctl_error(EXIT_NO_DAEMON,
                    missing ? fmt::format("fxmd is not running: there is no socket {}", where_.socket)
                            : fmt::format("fxmd is not running: nobody listens at {}", where()),
                    "start fxmd, or set --socket or FXM_SOCKET");
}

// A request may wait for its turn at a card and for as many retries as were asked for. An event stream shows a sign of
// life every 15 s.
constexpr int REQUEST_SECONDS = 600;
constexpr int STREAM_SECONDS = 45;

// Waits until there is something to read, at most so long. Returns false if `idle`, which is called every second, has.
bool client::await(int most_seconds, const std::function<bool()> &idle)
{
    pollfd wanted{state_->socket.native_handle(), POLLIN, 0};
    for (int seconds = 0; seconds < most_seconds; ++seconds) {
        if (poll(&wanted, 1, 1000) > 0)
            return true;
        if (idle && !idle())
            return false;
    }
    state_->socket.close();
    throw ctl_error(EXIT_UNREACHABLE, fmt::format("fxmd at {} has been silent for {} s", where(), most_seconds),
                    "see whether it still runs, and its log");
}

// Returns the HTTP status. `take` gets the body piece by piece; when it or `idle` returns false, the transfer ends.
unsigned client::perform(const char *method, const std::string &path, const query &arguments, const std::string &body,
                         const char *accept, const std::function<bool(unsigned, const char *, size_t)> &take,
                         int most_seconds, const std::function<bool()> &idle)
{
    std::string target = path;
    char separator = '?';
    for (const auto &[key, value] : arguments) {
        target += separator + escape(key) + '=' + escape(value);
        separator = '&';
    }
    if (!where_.site.empty())
        target += separator + std::string("site=") + where_.site;
    http::request<http::string_body> request;
    request.method_string(method);
    request.target(target);
    request.version(11);
    request.set(http::field::host, where_.url.empty() ? "fxmd" : "127.0.0.1");
    request.set(http::field::accept, accept);
    if (!token_.empty())
        request.set(http::field::authorization, "Bearer " + token_);
    request.body() = body;
    request.prepare_payload();

    boost::system::error_code error;
    // A request that fails on a connection that was kept is sent again; a write must not be.
    if (std::string_view(method) != "GET")
        state_->socket.close(error);
    const bool kept = state_->socket.is_open();
    if (!kept)
        connect();
    state_->socket.non_blocking(false, error);
    http::response_parser<http::buffer_body> parser;
    parser.body_limit(boost::none);
    http::write(state_->socket, request, error);
    // From here on a read says that it would block, and the wait for more has an end. The parser keeps what it has.
    if (!error)
        state_->socket.non_blocking(true, error);
    while (!error && !parser.is_header_done()) {
        http::read_header(state_->socket, state_->buffer, parser, error);
        if (error != asio::error::would_block)
            continue;
        error = {};
        if (!await(most_seconds, idle)) {
            state_->socket.close();
            return 0;
        }
    }
    // fxmd has ended a connection that was idle, or has been restarted. Nothing of the answer has come.
    if (error && kept && !parser.got_some()) {
        state_->socket.close();
        return perform(method, path, arguments, body, accept, take, most_seconds, idle);
    }
    std::array<char, 65536> piece;
    while (!error && !parser.is_done()) {
        parser.get().body().data = piece.data();
        parser.get().body().size = piece.size();
        parser.get().body().more = true;
        // One read at a time: a stream has no end to wait for.
        http::read_some(state_->socket, state_->buffer, parser, error);
        const bool waits = error == asio::error::would_block;
        if (waits || error == http::error::need_buffer)
            error = {};
        const size_t size = piece.size() - parser.get().body().size;
        if (size != 0 && !take(parser.get().result_int(), piece.data(), size)) {
            state_->socket.close();
            return parser.get().result_int();
        }
        if (waits && !await(most_seconds, idle)) {
            state_->socket.close();
            return parser.get().result_int();
        }
    }
    if (error || !parser.get().keep_alive())
        state_->socket.close();
    if (error && !parser.is_done())
        throw ctl_error(EXIT_NO_DAEMON, fmt::format("fxmd at {} ended the connection: {}", where(), error.message()),
                        "see its log");
    return parser.get().result_int();
}

std::string client::request(const char *method, const std::string &path, const query &arguments,
                            const std::string &body)
{
    std::string answer;
    const unsigned status = perform(method, path, arguments, body, "application/json",
                                    [&](unsigned, const char *data, size_t size) {
                                        answer.append(data, size);
                                        return true;
                                    },
                                    REQUEST_SECONDS, {});
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
    // Also for whom --yes has answered everything else.
    const bool is_own = path == "/v1/reload"; // of the room itself
    if (where_.is_room && where_.site.empty() && !is_own)
        throw ctl_error(EXIT_USAGE, fmt::format("{} {} names no site", method, path),
                        "a write over a room takes --site; fxmctl sites lists them");
    return parse_object(path, request(method, path, {}, body.empty() ? "" : json::serialize(body)));
}

void client::stream(const std::string &path, const query &arguments, const std::function<bool(std::string_view)> &see,
                    const std::function<bool()> &idle)
{
    std::string partial;
    std::string refusal;
    bool asked_to_end = false;
    const unsigned status = perform(
        "GET", path, arguments, "", "application/x-ndjson",
        [&](unsigned now, const char *data, size_t size) {
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
        },
        idle ? STREAM_SECONDS : REQUEST_SECONDS,
        [&] {
            asked_to_end = idle && !idle();
            return !asked_to_end;
        });
    if (status >= 400)
        throw_answer(path, status, refusal);
    if (!asked_to_end && !partial.empty())
        throw ctl_error(EXIT_NO_DAEMON, fmt::format("the answer to {} ended in the middle", path));
}

} // namespace fxm

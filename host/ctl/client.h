// The HTTP client of fxmctl, on Boost.Beast: a program that runs for some milliseconds cannot afford the libraries that a
// client for the whole internet loads. A failure is an exception that carries the exit code and one line for people.
#pragma once

#include <boost/json.hpp>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fxm
{

enum exit_code {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_CARD = 3,
    EXIT_UNREACHABLE = 4, // the card did not answer, or a wait ran out
    EXIT_BUSY = 5,
    EXIT_DENIED = 6,
    EXIT_NO_DAEMON = 7
};

class ctl_error : public std::runtime_error
{
  public:
    ctl_error(exit_code exit, const std::string &message, std::string hint = "")
        : std::runtime_error(message), exit(exit), hint(std::move(hint))
    {
    }
    exit_code exit;
    std::string hint;
};

struct endpoint {
    std::string socket;     // of fxmd; used unless `url` is set
    std::string url;        // http://127.0.0.1:8610
    std::string token_file; // with the token for `url`
    bool is_room = false;   // of a fleet
    std::string site = {};  // of that room, which answers in its place
};

void use_room(endpoint *where, const std::string &address); // the path of its socket, or its loopback address

using query = std::vector<std::pair<std::string, std::string>>;

class client
{
  public:
    explicit client(endpoint where);
    ~client();
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    std::string get_text(const std::string &path, const query &arguments = {});
    boost::json::object get(const std::string &path, const query &arguments = {});
    boost::json::object send(const char *method, const std::string &path, const boost::json::object &body);

    // Hands each line of an NDJSON answer to `see`, without its end, until `see` returns false or the answer ends. Empty
    // lines come too. An end that nobody asked for is EXIT_NO_DAEMON.
    // An event stream says what happens in each second without a line: `idle` returns false to end it. It has signs of
    // life, and without them it is EXIT_UNREACHABLE.
    void stream(const std::string &path, const query &arguments, const std::function<bool(std::string_view)> &see,
                const std::function<bool()> &idle = {});

    std::string where() const; // for messages
    const std::string &site() const { return where_.site; }

  private:
    struct state;
    void connect();
    bool await(int most_seconds, const std::function<bool()> &idle);
    unsigned perform(const char *method, const std::string &path, const query &arguments, const std::string &body,
                     const char *accept, const std::function<bool(unsigned, const char *, size_t)> &take,
                     int most_seconds, const std::function<bool()> &idle);
    std::string request(const char *method, const std::string &path, const query &arguments, const std::string &body);

    endpoint where_;
    std::string token_;
    std::unique_ptr<state> state_;
};

// The exit code for the `code` of an error document. What does not exist is a card, or something else.
exit_code exit_of(std::string_view code, bool is_card);

// Escapes a part of a path.
std::string escape(std::string_view text);

} // namespace fxm

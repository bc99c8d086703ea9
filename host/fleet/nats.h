// NATS: libnats, which is loaded when somebody makes the first connection, and owners of what it hands out. Nothing else in
// the tree names its functions, so a program without a fleet neither needs nor loads it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fxm
{

// what() says what has failed, on what.
class nats_error : public std::runtime_error
{
  public:
    // `refused`: the server has answered, with a refusal; otherwise no answer came in time, or the connection has ended.
    nats_error(const std::string &what, bool refused) : std::runtime_error(what), refused(refused) {}
    const bool refused;
};

struct nats_message {
    std::string subject, reply;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string data;

    const std::string *header(std::string_view name) const; // null if absent
};

// A message as a stream holds it.
struct nats_entry {
    nats_message message;
    uint64_t number = 0; // of the stream
    int64_t time_ms = 0; // when the stream took it
    uint64_t left = 0;   // messages that wait behind it
};

// What has become of a message that was sent to a stream.
struct nats_outcome {
    uint64_t number = 0; // that the sender has given it
    bool stored = false;
    std::chrono::steady_clock::time_point came; // when this was known
};

struct nats_stream {
    std::string created; // tells a stream from a later one of its name
    uint64_t first = 0, last = 0;
};

struct nats_options {
    std::string url;             // of one server: nats://127.0.0.1:4222
    std::string name;            // of this client, for the server's lists
    std::string inbox;           // the beginning of its inboxes, which the server's rights name
    std::string ca, certificate; // files, the second one with the key; empty: without TLS
    bool one_thread = false;     // for all subscriptions, whose functions then must not block
};

// A connection to one server. It does not connect again by itself: whoever owns it makes another one, to another server.
// Any thread; a call waits for the server as long as its timeout says.
class nats_connection
{
  public:
    static constexpr int CONNECT_MS = 2000;
    static constexpr int QUIET_MS = 2000; // after which a stream that is followed shows that it is there

    explicit nats_connection(const nats_options &options); // throws nats_error; std::runtime_error without libnats
    ~nats_connection();
    nats_connection(const nats_connection &) = delete;
    nats_connection &operator=(const nats_connection &) = delete;

    bool is_up() const;
    void close(); // from any thread: whoever waits for an answer is told so
    // What the server has refused since the last question, such as a message that this client may not send: only then the
    // cause of a missing answer is known. Empty: nothing.
    std::string take_refusal();

    void publish(const nats_message &message); // not stored: a beat, or an answer
    nats_message ask(const nats_message &message, int timeout_ms);

    // `see` runs on a thread of libnats until the connection ends.
    void subscribe(const std::string &subject, std::function<void(nats_message)> see);

    // Stores a message in the stream that takes its subject, and waits until the stream has confirmed it.
    void store(const nats_message &message, int timeout_ms);
    // The same without the wait: outcomes() tells later what has become of it. Each message has a number of its own.
    void send_to_store(nats_message message, uint64_t number);
    // What has come since the last question. Waits for so many, but no longer than the timeout says.
    std::vector<nats_outcome> outcomes(size_t count, int timeout_ms);
    nats_stream about(const std::string &stream, int timeout_ms);
    // Hands what the stream has to `see`, in order and each once, and later what comes, on a thread of libnats of its own:
    // from a number on, or with 0 the last message of each subject; without subjects, of all. Returns how many are there
    // now. When reads_well() is false, something is missing, and whoever reads makes another connection.
    // While a server is down, this may take a few seconds.
    uint64_t follow(const std::string &stream, const std::string &subjects, uint64_t from,
                    const std::function<void(nats_entry)> &see);
    bool reads_well() const;

    // The last message of a subject, from any server that holds the stream.
    std::optional<nats_message> last(const std::string &stream, const std::string &subject, int timeout_ms);

  private:
    uint64_t begin_reading(const std::string &stream, const std::string &subjects, uint64_t from,
                           std::function<void(nats_entry)> see, int timeout_ms);

    struct handles;
    std::unique_ptr<handles> handles_;
};

} // namespace fxm

// The HTTP server: libmicrohttpd on one epoll thread, for a Unix socket and, if configured, a loopback address. All its
// state belongs to that thread. A handler runs there and must not block; it answers at once, or later from any thread
// through its responder.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "daemon/caller.h"

struct MHD_Connection;
struct MHD_Daemon;
struct MHD_Response;

namespace fxm
{

struct peer {
    bool local = false; // on the Unix socket: the kernel names the rest
    uint32_t uid = 0;
    int32_t pid = 0;
    std::vector<uint32_t> groups;
    std::optional<role> granted; // of a request of the fleet, which has not come over HTTP
    std::string user;            // who made it
};

struct http_request {
    std::string method;
    std::string path; // decoded, without the query
    std::vector<std::pair<std::string, std::string>> query;
    std::string accept, authorization, host, origin, last_event_id;
    bool from_browser = false;
    std::string body;
    bool too_large = false; // the body was; it has not been kept
    peer who;

    const std::string *argument(std::string_view name) const; // of the query; null if absent
};

// A body that is made while it is sent. Lives on the HTTP thread.
class http_source
{
  public:
    enum class state { more, wait, end };
    virtual ~http_source() = default;
    // Appends the next piece. `wait`: nothing to send now.
    virtual state read(std::string *out) = 0;
    // Called while it waits, when events have been appended and at least every 15 s: is there something to send?
    virtual bool ready() { return true; }
};

struct http_reply {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string policy = "default-src 'self'"; // what a browser may load and run for it
    std::unique_ptr<http_source> source;       // instead of a body
    bool endless = false;                      // the source is a stream of events
};

class http_server
{
  public:
    // Sends the answer to one request, from any thread. Copies answer the same request; the first one counts. A client that
    // has gone is no error.
    using responder = std::function<void(http_reply reply)>;
    using handler = std::function<void(const http_request &, responder)>;

    struct options {
        std::string socket_path;
        std::optional<uint32_t> socket_group; // owner group of the socket file
        std::string listen;                   // "127.0.0.1:8610", or empty
        unsigned max_clients = 4096;
        int socket_fd = -1; // a listening socket handed over by the service manager, instead of socket_path
    };

    // Listens at once, so that a path or an address that is in use is an error here (std::runtime_error).
    http_server(options settings, handler handle);
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    void start();
    void stop(); // no handler runs and no answer is taken any more

    void events_appended(); // any thread: looks at waiting sources soon

    unsigned clients() const { return clients_; }    // connections
    unsigned streams() const { return streams_; }    // endless ones
    uint64_t requests() const { return requests_; }  // since the start
    int64_t turned_ms() const { return turned_ms_; } // when its thread last went round
    int listening_port() const { return tcp_port_; } // of the loopback address; 0: none

    static constexpr size_t MAX_BODY = 65536;

  private:
    struct exchange;
    struct glue; // the callbacks of libmicrohttpd

    void open_unix();
    void open_tcp();
    MHD_Daemon *make_daemon(int fd);
    void run();
    void take_answers();
    bool wake_some();
    int queue(exchange *current);
    void post(uint64_t connection, http_reply reply);
    void signal() const;

    const options settings_;
    const handler handle_;
    int unix_fd_ = -1;
    int tcp_fd_ = -1;
    int tcp_port_ = 0;
    int event_fd_ = -1;
    int epoll_fd_ = -1;
    std::vector<MHD_Daemon *> daemons_;
    std::thread thread_;
    std::atomic<std::thread::id> server_thread_; // which it says itself: it may answer before thread_ is written

    // The HTTP thread alone:
    std::map<uint64_t, exchange *> live_;
    uint64_t next_connection_ = 1;
    std::map<uint64_t, exchange *> waiting_; // sources that wait
    // A round over them, in slices, so that requests get their turn between a thousand streams.
    bool waking_ = false;
    bool wake_all_ = false;  // whether they are ready or not
    uint64_t wake_from_ = 0; // the last one of this round

    std::mutex mutex_; // guards answers_
    std::vector<std::pair<uint64_t, http_reply>> answers_;
    std::atomic<bool> appended_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<unsigned> clients_{0};
    std::atomic<unsigned> streams_{0};
    std::atomic<uint64_t> requests_{0};
    std::atomic<int64_t> turned_ms_{0};
};

} // namespace fxm

#include "daemon/http.h"

#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "common/card_id.h"
#include "daemon/log.h"

namespace fxm
{

// Of memory that libmicrohttpd keeps for a connection: the head of the request, and the piece that is being sent.
constexpr size_t CONNECTION_MEMORY = 32768;
constexpr size_t PIECE = 28672;
constexpr size_t STREAM_PIECE = 4096;     // of a stream of events: there may be thousands
constexpr unsigned REQUEST_TIMEOUT = 10;  // s of silence in the middle of a request or of its answer
constexpr unsigned STREAM_TIMEOUT = 3600; // s during which a stream's client may read nothing
constexpr auto HEARTBEAT = std::chrono::seconds(15);
// Between two rounds over the streams, in lengths of the last round. The events of a pause go out together, so that a
// thousand streams leave most of the time to requests; with few streams the pause is too short to be seen.
constexpr int REST = 4;
constexpr auto LONGEST_REST = std::chrono::milliseconds(200);

const std::string *http_request::argument(std::string_view name) const
{
    for (const auto &[key, value] : query) {
        if (key == name)
            return &value;
    }
    return nullptr;
}

// ----------------------------------------------------------------------------------------------- one request, its life

struct http_server::exchange {
    http_server *server;
    MHD_Connection *connection;
    uint64_t id;
    http_request request;
    http_reply reply;
    bool dispatched = false;
    bool answered = false;
    bool suspended = false;
    // Of a source:
    std::unique_ptr<http_source> source;
    std::string pending; // read from the source, and not sent
    size_t sent = 0;     // of pending
    bool endless = false;
};

static peer peer_of(int fd, bool local)
{
    peer who;
    who.local = local;
    if (!local)
        return who;
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        who.local = false;
        return who;
    }
    who.uid = credentials.uid;
    who.pid = credentials.pid;
    // The kernel's list needs no look-up of names, which could block.
    std::vector<gid_t> groups(64);
    size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    if (result != 0 && errno == ERANGE) {
        groups.resize(size / sizeof(gid_t));
        result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    }
    groups.resize(result == 0 ? size / sizeof(gid_t) : 0);
    groups.push_back(credentials.gid);
    who.groups.assign(groups.begin(), groups.end());
    return who;
}

static http_reply stopping_reply()
{
    http_reply reply;
    reply.status = 503;
    reply.body = R"({"schema":"fxm/1","code":"FXM_API_ENOSYS","message":"fxmd is stopping","hint":null})"
                 "\n";
    return reply;
}

struct http_server::glue {
    static exchange *begin(http_server *server, MHD_Connection *connection, const char *url, const char *method)
    {
        auto current = std::make_unique<exchange>();
        current->server = server;
        current->connection = connection;
        current->id = server->next_connection_++;
        http_request &request = current->request;
        request.method = method;
        request.path = url;
        MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, add_argument, &request.query);
        const auto header = [&](const char *name) {
            const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
            return std::string(value != nullptr ? value : "");
        };
        request.accept = header("Accept");
        request.authorization = header("Authorization");
        request.host = header("Host");
        request.origin = header("Origin");
        request.last_event_id = header("Last-Event-ID");
        // A script can change this header, but no browser leaves it out.
        request.from_browser = !request.origin.empty() ||
                               MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Accept-Language") != nullptr;
        const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        sockaddr_storage address{};
        socklen_t size = sizeof(address);
        const bool local = info != nullptr &&
                           getsockname(info->connect_fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
                           address.ss_family == AF_UNIX;
        request.who = peer_of(info != nullptr ? info->connect_fd : -1, local);
        server->live_[current->id] = current.get();
        server->requests_ += 1;
        return current.release();
    }

    static MHD_Result add_argument(void *out, MHD_ValueKind, const char *key, const char *value)
    {
        auto *query = static_cast<std::vector<std::pair<std::string, std::string>> *>(out);
        query->emplace_back(key, value != nullptr ? value : "");
        return MHD_YES;
    }

    // Called for the head of a request, for each piece of its body, at its end, and again when it is resumed.
    static MHD_Result access(void *arg, MHD_Connection *connection, const char *url, const char *method, const char *,
                             const char *data, size_t *size, void **slot)
    {
        auto *server = static_cast<http_server *>(arg);
        if (*slot == nullptr) {
            *slot = begin(server, connection, url, method);
            return MHD_YES;
        }
        auto *current = static_cast<exchange *>(*slot);
        if (*size != 0) {
            if (current->request.body.size() + *size > MAX_BODY) {
                current->request.too_large = true;
                current->request.body.clear();
            } else if (!current->request.too_large) {
                current->request.body.append(data, *size);
            }
            *size = 0;
            return MHD_YES;
        }
        if (!current->dispatched) {
            current->dispatched = true;
            const responder answer = [server, id = current->id](http_reply reply) {
                server->post(id, std::move(reply));
            };
            // No connection may be suspended when its daemon ends.
            if (server->stopping_)
                answer(stopping_reply());
            else
                server->handle_(current->request, answer);
            server->take_answers();
        }
        if (current->answered)
            return server->queue(current) != 0 ? MHD_YES : MHD_NO;
        current->suspended = true;
        MHD_suspend_connection(connection);
        return MHD_YES;
    }

    static void completed(void *, MHD_Connection *, void **slot, MHD_RequestTerminationCode)
    {
        auto *current = static_cast<exchange *>(*slot);
        if (current == nullptr)
            return;
        if (current->endless)
            current->server->streams_ -= 1;
        current->server->live_.erase(current->id);
        current->server->waiting_.erase(current->id);
        delete current;
        *slot = nullptr;
    }

    static void connected(void *arg, MHD_Connection *, void **, MHD_ConnectionNotificationCode code)
    {
        auto *server = static_cast<http_server *>(arg);
        if (code == MHD_CONNECTION_NOTIFY_STARTED)
            server->clients_ += 1;
        else
            server->clients_ -= 1;
    }

    static ssize_t read(void *arg, uint64_t, char *buffer, size_t size)
    {
        auto *current = static_cast<exchange *>(arg);
        if (current->sent == current->pending.size()) {
            current->pending.clear();
            current->sent = 0;
            http_source::state state = http_source::state::more;
            while (state == http_source::state::more && current->pending.empty())
                state = current->server->stopping_ ? http_source::state::end : current->source->read(&current->pending);
            if (current->pending.empty()) {
                if (state == http_source::state::end)
                    return MHD_CONTENT_READER_END_OF_STREAM;
                current->pending = {}; // one that waits needs no memory for text
                current->suspended = true;
                current->server->waiting_[current->id] = current;
                MHD_suspend_connection(current->connection);
                return 0;
            }
        }
        const size_t most = current->endless ? std::min(size, STREAM_PIECE) : size;
        const size_t piece = std::min(most, current->pending.size() - current->sent);
        memcpy(buffer, current->pending.data() + current->sent, piece); // NOLINT(bugprone-not-null-terminated-result)
        current->sent += piece;
        return static_cast<ssize_t>(piece);
    }
};

int http_server::queue(exchange *current)
{
    http_reply &reply = current->reply;
    MHD_Response *response = nullptr;
    if (reply.source != nullptr) {
        current->source = std::move(reply.source);
        current->endless = reply.endless;
        streams_ += current->endless ? 1 : 0;
        if (current->endless)
            MHD_set_connection_option(current->connection, MHD_CONNECTION_OPTION_TIMEOUT, STREAM_TIMEOUT);
        response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, current->endless ? STREAM_PIECE : PIECE,
                                                     glue::read, current, nullptr);
    } else {
        response = MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY);
        reply.body = {};
    }
    if (response == nullptr)
        return 0;
    if (!reply.type.empty())
        MHD_add_response_header(response, "Content-Type", reply.type.c_str());
    MHD_add_response_header(response, "Content-Security-Policy", reply.policy.c_str());
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    for (const auto &[name, value] : reply.headers)
        MHD_add_response_header(response, name.c_str(), value.c_str());
    const int queued = MHD_queue_response(current->connection, static_cast<unsigned>(reply.status), response);
    MHD_destroy_response(response);
    return queued;
}

// ------------------------------------------------------------------------------------------------------------ answers

void http_server::post(uint64_t connection, http_reply reply)
{
    {
        std::lock_guard guard(mutex_);
        answers_.emplace_back(connection, std::move(reply));
    }
    if (std::this_thread::get_id() != server_thread_.load())
        signal();
}

void http_server::signal() const
{
    const uint64_t one = 1;
    // A full counter is signalled already.
    [[maybe_unused]] const ssize_t written = write(event_fd_, &one, sizeof(one));
}

void http_server::events_appended()
{
    // One signal for any number of events until the thread has looked.
    if (!appended_.exchange(true))
        signal();
}

void http_server::take_answers()
{
    std::vector<std::pair<uint64_t, http_reply>> answers;
    {
        std::lock_guard guard(mutex_);
        answers.swap(answers_);
    }
    for (auto &[id, reply] : answers) {
        const auto found = live_.find(id);
        if (found == live_.end() || found->second->answered)
            continue;
        exchange *current = found->second;
        current->reply = std::move(reply);
        current->answered = true;
        if (current->suspended) {
            current->suspended = false;
            MHD_resume_connection(current->connection);
        }
    }
}

// The next slice of the round. False at its end.
bool http_server::wake_some()
{
    using std::chrono::steady_clock;
    constexpr int SLICE = 8;
    // A stream that wants nothing of a burst takes its time, too.
    const auto until = steady_clock::now() + std::chrono::microseconds(500);
    auto next = waiting_.upper_bound(wake_from_);
    for (int woken = 0; next != waiting_.end() && woken < SLICE && steady_clock::now() < until;) {
        exchange *current = next->second;
        wake_from_ = next->first;
        if (!wake_all_ && !current->source->ready()) {
            ++next;
            continue;
        }
        ++woken;
        next = waiting_.erase(next);
        current->suspended = false;
        MHD_resume_connection(current->connection);
    }
    return next != waiting_.end();
}

// --------------------------------------------------------------------------------------------------------- listening

static std::runtime_error failed(const std::string &what)
{
    return std::runtime_error(fmt::format("{}: {}", what, strerror(errno)));
}

void http_server::open_unix()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string &path = settings_.socket_path;
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        throw std::runtime_error(
            fmt::format("the path of the socket must have 1 to {} characters: {}", sizeof(address.sun_path) - 1, path));
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    unix_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (unix_fd_ < 0)
        throw failed("cannot create a socket");
    // A file that a killed fxmd has left refuses connections. One that takes them has an owner.
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool taken = connect(probe, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    const bool stale = !taken && errno == ECONNREFUSED;
    close(probe);
    if (taken)
        throw std::runtime_error(fmt::format("another fxmd serves {}", path));
    struct stat status {
    };
    if (stale && lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
        unlink(path.c_str());
    // Nobody may connect before the group is right.
    const mode_t mask = umask(0177);
    const int bound = bind(unix_fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    umask(mask);
    if (bound != 0)
        throw failed(fmt::format("cannot listen on {}", path));
    if (settings_.socket_group && chown(path.c_str(), static_cast<uid_t>(-1), *settings_.socket_group) != 0)
        throw failed(fmt::format("cannot give {} to group {}", path, *settings_.socket_group));
    // Who may do what is decided for each request, so the role of a caller must be looked at, not kept out by the file.
    if (chmod(path.c_str(), 0666) != 0 || listen(unix_fd_, 1024) != 0)
        throw failed(fmt::format("cannot listen on {}", path));
}

void http_server::open_tcp()
{
    const size_t colon = settings_.listen.rfind(':');
    const auto port = parse_u32(settings_.listen.substr(colon + 1));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (colon == std::string::npos || !port || *port > 65535)
        throw std::runtime_error(fmt::format("not a loopback address with a port: {}", settings_.listen));
    address.sin_port = htons(static_cast<uint16_t>(*port));
    tcp_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (tcp_fd_ < 0 || setsockopt(tcp_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        bind(tcp_fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(tcp_fd_, 1024) != 0)
        throw failed(fmt::format("cannot listen on {}", settings_.listen));
    socklen_t size = sizeof(address);
    getsockname(tcp_fd_, reinterpret_cast<sockaddr *>(&address), &size);
    tcp_port_ = ntohs(address.sin_port);
}

MHD_Daemon *http_server::make_daemon(int fd)
{
    MHD_Daemon *made = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ITC, 0, nullptr, nullptr, glue::access, this,
        MHD_OPTION_LISTEN_SOCKET, fd, MHD_OPTION_NOTIFY_COMPLETED, glue::completed, this, MHD_OPTION_NOTIFY_CONNECTION,
        glue::connected, this, MHD_OPTION_CONNECTION_LIMIT, settings_.max_clients, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
        CONNECTION_MEMORY, MHD_OPTION_CONNECTION_TIMEOUT, REQUEST_TIMEOUT, MHD_OPTION_END);
    if (made == nullptr)
        throw std::runtime_error("libmicrohttpd could not start");
    const MHD_DaemonInfo *info = MHD_get_daemon_info(made, MHD_DAEMON_INFO_EPOLL_FD);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = info->epoll_fd;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, info->epoll_fd, &event);
    return made;
}

// Each client needs a descriptor.
static void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

http_server::http_server(options settings, handler handle) : settings_(std::move(settings)), handle_(std::move(handle))
{
    raise_descriptor_limit();
    event_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    if (settings_.socket_fd >= 0)
        unix_fd_ = settings_.socket_fd;
    else
        open_unix();
    if (!settings_.listen.empty())
        open_tcp();
}

http_server::~http_server()
{
    stop();
    // libmicrohttpd closes the listening sockets of its daemons.
    if (daemons_.empty()) {
        for (const int fd : {unix_fd_, tcp_fd_}) {
            if (fd >= 0)
                close(fd);
        }
    }
    close(epoll_fd_);
    close(event_fd_);
    if (settings_.socket_fd < 0 && unix_fd_ >= 0)
        unlink(settings_.socket_path.c_str());
}

void http_server::start()
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = event_fd_;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, event_fd_, &event);
    for (const int fd : {unix_fd_, tcp_fd_}) {
        if (fd >= 0)
            daemons_.push_back(make_daemon(fd));
    }
    turned_ms_ = clock_ms();
    thread_ = std::thread([this] { run(); });
}

void http_server::stop()
{
    if (!thread_.joinable())
        return;
    stopping_ = true;
    signal();
    thread_.join();
}

// --------------------------------------------------------------------------------------------------------- the thread

void http_server::run()
{
    using std::chrono::steady_clock;
    server_thread_ = std::this_thread::get_id();
    auto last_heartbeat = steady_clock::now();
    steady_clock::time_point round_began, next_round;
    while (!stopping_) {
        int timeout = waking_ ? 0 : 1000;
        if (!waking_ && appended_) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_round - steady_clock::now()).count();
            timeout = static_cast<int>(std::clamp<int64_t>(left, 0, 1000));
        }
        for (MHD_Daemon *daemon : daemons_) {
            MHD_UNSIGNED_LONG_LONG wanted = 0;
            if (MHD_get_timeout(daemon, &wanted) == MHD_YES)
                timeout = std::min(timeout, static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(wanted, 1000)));
        }
        epoll_event ready[4];
        epoll_wait(epoll_fd_, ready, std::size(ready), timeout);
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t taken = read(event_fd_, &count, sizeof(count));
        turned_ms_ = clock_ms();
        take_answers();
        const auto now = steady_clock::now();
        const bool heartbeat = !waking_ && now - last_heartbeat >= HEARTBEAT;
        if (heartbeat)
            last_heartbeat = now;
        // Events that come in the middle of a round begin another one later.
        if (!waking_ && (heartbeat || (now >= next_round && appended_.exchange(false)))) {
            waking_ = true;
            wake_all_ = heartbeat;
            wake_from_ = 0;
            round_began = now;
        }
        if (waking_) {
            waking_ = wake_some();
            if (!waking_)
                next_round = now + std::min<steady_clock::duration>((now - round_began) * REST, LONGEST_REST);
        }
        for (MHD_Daemon *daemon : daemons_)
            MHD_run(daemon);
        // On a busy machine the threads that serve requests would wait for the end of this thread's time slice.
        if (waking_)
            std::this_thread::yield();
    }
    // Every suspended connection must be resumed before its daemon ends. What has no answer yet gets none.
    for (auto &[id, current] : live_) {
        if (!current->suspended)
            continue;
        current->suspended = false;
        if (current->dispatched && !current->answered) {
            current->answered = true;
            current->reply = stopping_reply();
        }
        MHD_resume_connection(current->connection);
    }
    waiting_.clear();
    for (MHD_Daemon *daemon : daemons_) {
        MHD_run(daemon);
        MHD_stop_daemon(daemon);
    }
}

} // namespace fxm

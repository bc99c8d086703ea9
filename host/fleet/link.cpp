#include "fleet/link.h"

#include <algorithm>
#include <utility>

#include "fleet/names.h"

namespace fxm::fleet
{

using std::chrono::milliseconds;

constexpr auto LEAST_BACK_OFF = milliseconds(100);
constexpr auto MOST_BACK_OFF = milliseconds(5000);
// Servers that have just worked are electing a leader, which takes them 5 to 20 s. Whoever waits adds to that.
constexpr auto ELECTION = std::chrono::seconds(30);
constexpr auto ELECTION_BACK_OFF = milliseconds(500);
constexpr auto WARN_EVERY = std::chrono::minutes(1); // servers may be away for days

server_link::server_link(const member_options &of, std::string client, std::string meanwhile, logger *log)
    : urls_(of.urls), meanwhile_(std::move(meanwhile)), log_(log)
{
    each_.name = std::move(client);
    each_.inbox = inbox_of(of.name);
    each_.ca = of.ca;
    each_.certificate = of.certificate;
}

std::shared_ptr<nats_connection> server_link::open(bool one_thread)
{
    nats_options wanted = each_;
    wanted.one_thread = one_thread;
    wanted.url = urls_[next_++ % urls_.size()];
    {
        std::lock_guard guard(mutex_);
        status_.server = wanted.url;
    }
    return std::make_shared<nats_connection>(wanted);
}

void server_link::use(std::shared_ptr<nats_connection> next)
{
    std::shared_ptr<nats_connection> late;
    {
        std::lock_guard guard(mutex_);
        connection_.swap(next);
        status_.connected = false;
        if (stopping_) // the stop has not seen it
            late = connection_;
    }
    // Outside of the lock: whoever waits for an answer is told, and the end of a connection waits for its threads.
    for (const auto &ended : {std::exchange(next, nullptr), late}) {
        if (ended)
            ended->close();
    }
}

void server_link::joined()
{
    std::lock_guard guard(mutex_);
    status_.connected = connection_ != nullptr;
    status_.connects += 1;
}

void server_link::works()
{
    worked_ = std::chrono::steady_clock::now();
    if (std::exchange(back_off_, milliseconds(0)) == milliseconds(0) && status().error.empty())
        return;
    std::lock_guard guard(mutex_);
    status_.error.clear();
}

void server_link::failed(const std::string &why)
{
    {
        std::lock_guard guard(mutex_);
        if (stopping_) // which has closed the connection
            return;
        status_.error = why;
        status_.refused += 1;
    }
    const auto now = std::chrono::steady_clock::now();
    if (now < next_warning_)
        return;
    next_warning_ = now + WARN_EVERY;
    log_->warning("fleet: {}; {}", why, meanwhile_);
}

bool server_link::pause(milliseconds time)
{
    std::unique_lock guard(mutex_);
    return !wake_.wait_for(guard, time, [this] { return stopping_; });
}

milliseconds server_link::next_wait()
{
    const bool elects = worked_ && std::chrono::steady_clock::now() - *worked_ < ELECTION;
    back_off_ = std::clamp(back_off_ * 2, LEAST_BACK_OFF, elects ? ELECTION_BACK_OFF : MOST_BACK_OFF);
    const bool has_more = !connection_ && next_ % urls_.size() != 0;
    return has_more ? milliseconds(1) : back_off_;
}

std::shared_ptr<nats_connection> server_link::now() const
{
    std::lock_guard guard(mutex_);
    return connection_;
}

void server_link::stop()
{
    std::shared_ptr<nats_connection> connection;
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
        connection = connection_;
    }
    wake_.notify_all();
    if (connection)
        connection->close();
}

link_status server_link::status() const
{
    std::lock_guard guard(mutex_);
    return status_;
}

} // namespace fxm::fleet

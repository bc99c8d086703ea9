// Requests of the operations room: each has an id, a deadline, and the role that its subject names. They run like requests
// over HTTP, on the executor for operations.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "daemon/services.h"
#include "fleet/nats.h"
#include "fleet/status.h"

namespace fxm::fleet
{

class desk
{
  public:
    static constexpr size_t KEPT = 1024;                       // answers, for ids that come again
    static constexpr auto KEPT_FOR = std::chrono::minutes(10); // each
    static constexpr size_t MOST_BYTES = 524288;               // of an answer; longer lists are read in parts
    static constexpr size_t MOST_KEPT_BYTES = 16384; // of an answer; only reads have longer ones, and may run again
    using answer = std::function<void(nats_message)>;

    desk(services *all, std::string site, role allow) : all_(all), site_(std::move(site)), allow_(allow) {}

    // On a thread of the executor. `send` is called once, on this or another one of its threads, unless the request has no
    // reply subject.
    void take(const nats_message &request, const answer &send);
    // Instead of take(), on any thread, when the executor is full.
    void turn_away(const nats_message &request, const answer &send) const;

    desk_numbers numbers() const;

  private:
    struct kept {
        std::string key; // USER/ID
        std::chrono::steady_clock::time_point since;
    };
    struct result {
        bool done = false;
        nats_message message;        // without its subject
        std::vector<answer> waiting; // for the first one to end
    };

    void remember(const std::string &key, const answer &reply);
    void finish(const std::string &key, const nats_message &message);

    services *all_;
    const std::string site_;
    const role allow_;
    mutable std::mutex mutex_; // guards what follows
    std::unordered_map<std::string, result> results_;
    std::deque<kept> order_;
    desk_numbers numbers_;
};

} // namespace fxm::fleet

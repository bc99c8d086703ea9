// The way of a site or a room to the servers of a fleet: a connection to one of them, and to the next one when that is
// silent. One thread owns it, waits in it and replaces the connection; any thread may ask over the one that is there.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "daemon/caller.h"
#include "daemon/log.h"
#include "fleet/nats.h"

namespace fxm::fleet
{

// A site or a room, to the servers.
struct member_options {
    std::vector<std::string> urls;
    std::string name;            // of the site; of a room the user, whose rights the servers know
    std::string ca, certificate; // files; the second one has the key too
    role allow = role::view;     // the most that a site does for a request, and that a room asks for
};

struct link_status {
    bool connected = false;
    std::string server; // that it is connected to, or tries
    std::string error;  // what has failed last; empty while all is well
    uint64_t connects = 0, refused = 0;
};

class server_link
{
  public:
    // `client` is for the servers' lists. `meanwhile` is what goes on without a server, for the log.
    server_link(const member_options &of, std::string client, std::string meanwhile, logger *log);

    // ------------------------------------------------------------------------------------- for the thread that owns it
    const std::shared_ptr<nats_connection> &connection() const { return connection_; }
    // To the next server, not used yet; throws. `one_thread` is for all that is subscribed to.
    std::shared_ptr<nats_connection> open(bool one_thread);
    void use(std::shared_ptr<nats_connection> next); // instead of the one that is there, which is closed; null: none
    void joined();                                   // what is asked at the beginning has been answered
    void works();                               // it does what it is for: the next failure waits for a moment again
    void failed(const std::string &why);        // told in the log at most once a minute
    bool pause(std::chrono::milliseconds time); // false: the thread shall end
    std::chrono::milliseconds next_wait();      // before the next attempt; between two servers there is none

    // ------------------------------------------------------------------------------------------------------ any thread
    std::shared_ptr<nats_connection> now() const;
    void stop(); // ends all waits
    link_status status() const;
    size_t servers() const { return urls_.size(); }

  private:
    const std::vector<std::string> urls_;
    const std::string meanwhile_;
    logger *log_;
    nats_options each_; // of a connection, without the url

    // The owning thread alone:
    size_t next_ = 0; // server
    std::chrono::milliseconds back_off_{0};
    std::optional<std::chrono::steady_clock::time_point> worked_; // for the last time
    std::chrono::steady_clock::time_point next_warning_;

    mutable std::mutex mutex_; // guards what follows
    std::condition_variable wake_;
    bool stopping_ = false;
    std::shared_ptr<nats_connection> connection_; // written by the owning thread alone
    link_status status_;
};

} // namespace fxm::fleet

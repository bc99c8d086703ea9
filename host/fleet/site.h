// A site of the fleet: what this fxmd knows goes to the servers of NATS, on a thread of its own that nothing else waits for.
// Events go in batches, one after the other, each frozen until the stream has confirmed it; cards as documents, the newest
// only; and requests of the operations room are answered. The history is the spool: memory does not grow while the servers
// cannot be reached.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "daemon/services.h"
#include "fleet/feed.h"
#include "fleet/link.h"
#include "fleet/requests.h"
#include "fleet/status.h"

namespace fxm::fleet
{

class site
{
  public:
    site(member_options options, services *all);
    ~site();
    site(const site &) = delete;
    site &operator=(const site &) = delete;

    void start();
    void stop();
    site_status status() const;

  private:
    using clock = std::chrono::steady_clock;
    struct frozen {
        nats_message message;
        batch events;
    };

    void run();
    void connect();
    std::optional<nats_message> last(const std::string &stream, const std::string &subject);
    void ask_cursor();
    void serve();
    bool send_events();
    void freeze(batch next);
    void confirm();
    void tell_sent();
    bool send_cards();
    void take_outcomes(size_t wanted);
    void adapt(clock::duration took);
    void give_up_in_flight();
    void mark_cards();
    void mark_all_cards();
    void look_at_bucket();
    void delete_cards_of_the_past();
    void send_site();
    void send_beat();
    std::string card_document(uint64_t id, uint64_t rev);
    void mark(uint64_t id);

    const member_options options_;
    services *all_;
    const feed feed_;
    desk desk_;
    server_link link_;

    // The thread alone:
    std::optional<frozen> frozen_;
    uint64_t cursor_ = 0;            // the last number that the stream has
    uint64_t confirmed_ = 0;         // the highest that it has confirmed in this run
    clock::time_point confirmed_at_; // when this server has confirmed anything, or was new
    bool made_streams_ = false;      // on this connection
    bool knows_cursor_ = false;
    std::optional<clock::time_point> low_since_; // the stream has said less than it had confirmed
    uint64_t losses_ = 0;   // of the stream; batches that it has lost go under other ids, which it does not know yet
    uint64_t cards_cursor_; // of the ring, for cards_
    struct card_state {
        bool dirty = false;
        clock::time_point earliest; // when it may go again
    };
    std::unordered_map<uint64_t, card_state> cards_;   // those to send, and those that were sent just now
    std::deque<uint64_t> to_send_;                     // the dirty ones
    std::unordered_map<uint64_t, uint64_t> in_flight_; // sent, without an outcome yet: its number, and the card
    uint64_t card_number_ = 0;                         // of the last one that was sent
    size_t window_;                                    // so many may be in flight
    uint64_t probe_ = 0;                               // the last one of a full window; 0: none
    clock::time_point probed_at_;                      // when it was sent
    clock::time_point cards_answered_;                 // when the bucket has said something, or none was in flight
    std::optional<clock::time_point> delete_at_;       // cards of the past; empty: done
    clock::time_point next_compare_, next_beat_, next_site_, last_site_, next_tidy_;
    std::string site_text_; // that was sent last, without its times

    mutable std::mutex mutex_; // guards what follows
    site_status status_;       // but for what the link knows
    std::thread thread_;
};

} // namespace fxm::fleet

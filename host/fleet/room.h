// An operations room: it reads what the sites of a fleet send, over a connection of its own, and asks them. It owns no port
// and sends no frame.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "daemon/http.h"
#include "daemon/services.h"
#include "fleet/link.h"
#include "fleet/view.h"

namespace fxm::fleet
{

struct room_status {
    link_status link;
    uint64_t cards = 0;                            // of the bucket that are read
    uint64_t reading = 0;                          // that were there when the reading began; 0: all are read
    uint64_t filled = 0;                           // events that a site's history had, and the stream had not
    uint64_t good = 0, failed = 0, unanswered = 0; // requests
};

class room
{
  public:
    room(member_options options, services *all);
    ~room();
    room(const room &) = delete;
    room &operator=(const room &) = delete;

    void start();
    void stop();

    const member_options &options() const { return options_; }
    const view &sites() const { return view_; }
    room_status status() const;
    bool turns() const; // its thread does

    // Asks a site and waits for its answer. Throws api_error if there is none.
    http_reply ask(const std::string &site, role as, const http_request &request);

    static constexpr int DEADLINE_MS = 5000; // within which a site must begin with a request

  private:
    void run();
    void connect();
    void make_streams(nats_connection *connection) const;
    void follow_cards(nats_connection *connection);
    void follow_sites(nats_connection *connection);
    void follow_events(nats_connection *connection);
    void take_events(nats_connection *connection, const nats_entry &entry);
    void fill(nats_connection *connection, const view::batch &before, view::hole missing);
    nats_message request_to(const std::string &site, role as, const http_request &request) const;

    const member_options options_;
    services *all_;
    view view_;
    server_link link_;

    // Where the streams have been read to. The thread writes before it follows one, and the readings, each on its own
    // thread, until they have ended.
    struct progress {
        std::string created;
        std::atomic<uint64_t> last{0};
    };
    progress cards_, events_;
    std::atomic<uint64_t> reading_{0}; // counts the connections
    std::atomic<bool> sweeps_{false};  // the reading of the cards tells at its end which ones are gone
    std::atomic<uint64_t> cards_read_{0}, cards_wanted_{0};
    std::atomic<uint64_t> filled_{0};
    std::atomic<uint64_t> good_{0}, failed_{0}, unanswered_{0};
    std::atomic<int64_t> turned_ms_{0};

    std::thread thread_;
};

// The API of a room, over all its sites: docs/fleet.md. Takes the place of the routes of an fxmd.
void handle_room_request(services &all, room &asked, const http_request &request, const http_server::responder &answer);

std::string room_metrics_text(const room &asked);

} // namespace fxm::fleet

// What a room knows of its sites: the last state of each card, what each site tells of itself, and the events of all of
// them in the order in which the servers have stored them. Threads of the connection write; anybody reads, under one
// short lock.
#pragma once

#include <boost/json.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "common/facts.h"
#include "daemon/log.h"
#include "fleet/room_card.h"

namespace fxm::fleet
{

// Live: its beats come. Silent: none has come for 15 s. Starting: none has come yet, but the room has not waited so long.
// Refused: it speaks another schema, so the room shows nothing but its own description.
enum class site_state { live, silent, starting, refused };
inline constexpr std::array<const char *, 4> site_state_words = {"live", "silent", "starting", "refused"};
inline const char *word(site_state value) { return site_state_words[static_cast<size_t>(value)]; }

// An event, as its site has told it, or the room's own one that says what has become of a site.
struct room_event {
    uint64_t number = 0; // of the room
    int64_t time_ms = 0; // when the stream took it
    std::string site, boot;
    uint64_t seq = 0;       // of the site; 0: the room's own
    bool is_change = false; // of a card; only those are filtered
    bool breaks = false;    // numbers of the site begin anew here
    facts before, after;    // of the card
    std::string type;       // a word of the event stream
    std::string text;       // the whole object, on one line
};

struct site_numbers {
    std::string site;
    site_state state = site_state::starting;
    int64_t age_ms = 0;                         // since it was heard
    std::optional<int64_t> offset_ms;           // of its clock
    boost::json::object document;               // what it tells of itself; empty until then
    std::string boot;                           // of its last event
    uint64_t seq = 0, waiting = 0;              // last number it has told, and numbers that its spool holds
    uint64_t events = 0, doubled = 0, lost = 0; // that this room has seen: events, second ones, missing numbers
    uint32_t cards[2][OWN_HEALTHS]{};           // by class and last health
    uint64_t told_cards = 0;                    // that it says it has
    bool differs = false;                       // for 15 s that has been another number than the bucket has
    uint32_t total() const;
};

class view
{
  public:
    static constexpr size_t KEPT = 65536; // events
    static constexpr auto SILENT_AFTER = std::chrono::seconds(15);

    explicit view(logger *log) : log_(log) {}

    // --------------------------------------------------------------------------------- what comes from the servers
    void take_card(const std::string &site, uint64_t id, std::string_view document, bool gone);
    // A reading of the whole bucket: what it has not named is gone at its end.
    void begin_cards();
    void end_cards();
    void take_site(const std::string &site, std::string_view document, int64_t time_ms, bool gone);
    void take_beat(const std::string &site, std::string_view document, int64_t now_ms);

    struct batch {
        std::string site, boot, schema;
        uint64_t first = 0, last = 0, previous = 0;
        int64_t time_ms = 0;
        std::string_view lines;
    };
    struct hole {
        uint64_t from = 0, to = 0; // none: 0
    };
    // The numbers in front of the batch that the room has not seen.
    hole hole_before(const batch &arrived) const;
    // Events that are known are dropped. What is still missing in front of them becomes a gap.
    void take_batch(const batch &arrived);

    // A few times a second: who has fallen silent, and who is back?
    void tick();

    // ---------------------------------------------------------------------------------------------------- reading
    std::vector<site_numbers> sites() const;
    std::optional<site_numbers> site(const std::string &name) const;
    // A number whose events and all before it are in the cards of that site, with its boot.
    std::pair<std::string, uint64_t> position(const std::string &site) const;

    struct place {
        std::string site;
        uint64_t id = 0;
        bool operator<(const place &other) const { return std::tie(site, id) < std::tie(other.site, other.id); }
    };
    using seen = std::function<void(const std::string &site, site_state state, const room_card &card)>;
    // Looks at up to `limit` cards behind a place, of one site or, with an empty name, of all, and hands those that are
    // wanted to `see`, under the lock. Returns the place of the last one that it looked at; nothing if none is behind it.
    std::optional<place> visit(const place &after, const std::string &of, size_t limit,
                               const std::function<bool(const facts &)> &wanted, const seen &see) const;
    bool with_card(const place &where, const seen &see) const; // false: there is none

    struct reading {
        std::vector<std::shared_ptr<const room_event>> events;
        uint64_t gap_from = 0, gap_to = 0; // numbers that are lost to this reader
    };
    reading read(uint64_t after, size_t limit) const;
    uint64_t last() const;  // number of the last event
    uint64_t first() const; // of the oldest one that is kept
    // Where a reader goes on that has seen the number `seq` of a site. Nothing: its numbers are of another run.
    struct found {
        uint64_t place = 0;  // number of the room, in front of the next event
        uint64_t gap_to = 0; // events up to this number of the site are not kept any more; 0: all are
    };
    std::optional<found> find(const std::string &site, const std::string &boot, uint64_t seq) const;
    void on_append(std::function<void()> notify) { notify_ = std::move(notify); } // before anything comes

  private:
    using clock = std::chrono::steady_clock;
    struct span {
        uint64_t first, last;
    };
    struct known_site {
        std::map<uint64_t, room_card> cards;
        std::map<uint64_t, span> pending; // changes of cards that their documents do not have yet
        boost::json::object document;
        std::string document_boot;
        int64_t document_ms = 0;
        bool refused = false;
        std::optional<clock::time_point> heard;
        std::deque<int64_t> offsets; // of the last beats
        uint64_t beat_seq = 0, waiting = 0, told_cards = 0;
        std::string boot;
        std::optional<uint64_t> number; // of the last event
        uint64_t events = 0, doubled = 0, lost = 0;
        uint32_t counts[2][OWN_HEALTHS]{};
        site_state told = site_state::starting;
        std::optional<clock::time_point> differs_since; // from what it says it has
    };

    known_site &at(const std::string &name);
    site_state state_of(const known_site &of, clock::time_point now) const;
    site_numbers numbers_of(const std::string &name, const known_site &of) const;
    void refuse(const std::string &name, known_site *of, std::string_view schema);
    void take_line(const batch &arrived, known_site *of, std::string_view line);
    void missing(const batch &arrived, known_site *of, uint64_t from, uint64_t to);
    static room_event event_of(const batch &arrived, uint64_t seq, std::string type, std::string text);
    void append(room_event event);
    static void count(known_site *of, const room_card &card, int by);

    logger *log_;
    std::function<void()> notify_;
    const clock::time_point began_ = clock::now();

    mutable std::mutex mutex_; // guards what follows
    std::map<std::string, known_site> sites_;
    uint32_t reading_ = 0;
    std::deque<std::shared_ptr<const room_event>> events_;
    uint64_t last_ = 0;
};

} // namespace fxm::fleet

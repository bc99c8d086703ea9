// All cards of the fabric as fxmd knows them, on a thread of its own. It takes the cards that the library has marked,
// compares each with its last copy, and appends what has changed to the ring. Everybody else reads under a short lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "daemon/card.h"
#include "daemon/dirty_set.h"
#include "daemon/log.h"
#include "daemon/ring.h"

namespace fxm
{

struct card_totals {
    uint32_t of[2][OWN_HEALTHS]{}; // by class and health
    uint32_t in(health state) const { return of[0][static_cast<int>(state)] + of[1][static_cast<int>(state)]; }
    uint32_t in(card_class kind) const;
    uint32_t all() const { return in(card_class::fxsv) + in(card_class::fxio); }
};

struct card_in_error {
    uint64_t id = 0;
    card_class kind = card_class::fxsv;
    uint8_t int_vector = 0;
};

class model
{
  public:
    // `unmonitored_file` keeps the ids of cards out of monitoring across restarts.
    model(ring *events, logger *log, std::filesystem::path unmonitored_file);
    ~model();
    model(const model &) = delete;
    model &operator=(const model &) = delete;

    void start(); // the thread
    void stop();  // joins it; called before the library goes

    void set_forget_after(int64_t ms) { forget_after_ms_ = ms; } // 0: never

    dirty_set dirty;
    // Called on the model's thread several times a second, for whatever has no thread of its own.
    std::function<void()> on_tick;

    // ----------------------------------------------------------------------------- for the owner of the library
    void library_starts(); // it is up and takes no frames yet: cards out of monitoring stay out
    void library_ended();  // all channels are down

    // ----------------------------------------------------------------------------------------- reading, any thread
    // The id under which a card is known: the even one for the odd address of a 40G card. Throws FXM_API_ENOENT.
    uint64_t resolve(uint64_t id) const;
    bool knows(uint64_t id) const;
    facts facts_of_card(uint64_t id) const; // throws FXM_API_ENOENT

    // Reads the card's record afresh and hands it to `read`, under the lock. Throws FXM_API_ENOENT.
    void with_card(uint64_t id, const std::function<void(const card &)> &read);

    // Looks at up to `limit` cards behind the id `after`, in order, under the lock, and hands those that are `wanted` to
    // `see`. `fresh_times` asks the library for the times of the last frames, which alone do not make an event. Returns
    // the id of the last card that it looked at, or 0 if no card is left behind it.
    uint64_t visit(uint64_t after, size_t limit, bool fresh_times, const std::function<bool(const card &)> &wanted,
                   const std::function<void(const card &)> &see);

    card_totals totals() const;
    // The same, and of the same instant up to `most` cards in error, in the order of their ids. It looks at no other card.
    card_totals totals(size_t most, std::vector<card_in_error> *in_error) const;

    // --------------------------------------------------------------------------------------- changes, any thread
    // Each returns an FXM_API_ code of the library.
    int set_monitored(uint64_t id, bool monitored, const std::function<void()> &changed);
    int remove(uint64_t id);

  private:
    void run();
    void look_at(const dirty_set::cards &cards);
    void look_at_one(uint64_t id, const dirty_card &dirty, std::vector<event_draft> *drafts);
    void forget_lost();
    void replace(card *known, card next);
    void count(const card &counted, int by);
    void save_unmonitored();
    card *find(uint64_t id);
    const card *find(uint64_t id) const;

    ring *events_;
    logger *log_;
    const std::filesystem::path unmonitored_file_;
    std::atomic<int64_t> forget_after_ms_{0};

    // Guards what follows. Under it the thread takes the library's locks, never another lock of fxmd.
    mutable std::mutex mutex_;
    std::map<uint64_t, card> cards_;
    std::set<uint64_t> unmonitored_;
    card_totals totals_;
    std::map<uint64_t, card_in_error> in_error_;
    bool library_up_ = false;

    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace fxm

// The history on disk: the events of the ring, and sums of each minute, in SQLite on a thread of its own. It reads the
// ring like any client, so it can hold up nobody; what it misses while the disk is full becomes a gap.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "common/error.h"
#include "daemon/log.h"
#include "daemon/ring.h"

struct sqlite3;

namespace fxm
{

class sqlite_failure;

// The counters are totals since the start; the history stores what each minute has added.
struct minute_sample {
    int64_t time_ms = 0;
    uint32_t well = 0, degraded = 0, error = 0, lost = 0, unmonitored = 0;
    uint64_t frames[2] = {};
    uint64_t events = 0;
    uint64_t registers = 0;
    uint64_t register_us = 0; // a total when sampled; the mean of a read when queried
};

struct history_limits {
    uint32_t days = 30;
    uint32_t max_events = 1000000;
};

struct history_status {
    bool failing = false;
    std::string error; // why
    uint64_t events = 0;
};

struct history_query {
    uint64_t after_seq = 0;
    int64_t since_ms = 0;
    int64_t until_ms = INT64_MAX;
    uint64_t card = 0; // 0: any
    std::string type;  // empty: any
    size_t limit = 1000;
    bool newest = false; // cut at the limit, they are the last ones; they come oldest first all the same
};

class history
{
  public:
    history(const std::filesystem::path &state_dir, history_limits limits, const ring *events, logger *log,
            std::function<minute_sample()> sample);
    ~history();
    history(const history &) = delete;
    history &operator=(const history &) = delete;

    void start();
    void stop(); // stores what is there

    void set_limits(history_limits limits);
    void set_retry_ms(int ms) { retry_ms_ = ms; } // between two attempts after a failure; for tests

    history_status status() const;

    // For threads that may block. Each throws api_error if the file cannot be read. Oldest first.
    void query_events(const history_query &query, const std::function<void(uint64_t seq, std::string_view text)> &see);
    void query_cards(const std::function<void(uint64_t card)> &see); // of which it has an event
    void query_minutes(int64_t since_ms, int64_t until_ms, const std::function<void(const minute_sample &)> &see);

  private:
    struct closer {
        void operator()(sqlite3 *file) const;
    };
    using database = std::unique_ptr<sqlite3, closer>;

    void run();
    void open();
    void store();
    void sample_minute();
    void store_minutes();
    void prune();
    bool has_file() const;
    bool round();
    void execute(const char *sql);
    void fail(const std::string &what);
    database open_reader() const;
    api_error unreadable(const sqlite_failure &failure);

    const std::filesystem::path file_;
    const ring *events_;
    logger *log_;
    const std::function<minute_sample()> sample_;
    std::atomic<int> retry_ms_{10000};

    // The thread alone:
    database file_open_;
    uint64_t cursor_;
    minute_sample last_;
    int64_t next_minute_ms_ = 0;
    std::deque<minute_sample> minutes_; // to be stored; register_us is the mean
    uint64_t inode_ = 0;                // of the open file
    std::atomic<bool> damaged_{false};  // any thread has found it so

    mutable std::mutex mutex_; // guards what follows
    history_limits limits_;
    history_status status_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace fxm

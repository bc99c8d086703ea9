#include "daemon/history.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <chrono>
#include <stdexcept>

#include "common/error.h"

namespace fxm
{

constexpr size_t BATCH = 1000;
constexpr int STEP_MS = 1000; // a kill loses at most that much
constexpr int MINUTE_MS = 60000;
constexpr int PRUNE_ROWS = 10000; // in one transaction
constexpr int SCHEMA_VERSION = 1;

// ----------------------------------------------------------------------------------------------------------- statements

class sqlite_failure : public std::runtime_error
{
  public:
    sqlite_failure(sqlite3 *file, int code_) : std::runtime_error(sqlite3_errmsg(file)), code(code_) {}
    const int code;
};

static void check(sqlite3 *file, int code)
{
    if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE)
        throw sqlite_failure(file, code);
}

class statement
{
  public:
    statement(sqlite3 *file, const std::string &sql) : file_(file)
    {
        check(file, sqlite3_prepare_v2(file, sql.c_str(), -1, &made_, nullptr));
    }
    ~statement() { sqlite3_finalize(made_); }
    statement(const statement &) = delete;
    statement &operator=(const statement &) = delete;

    statement &bind(int place, int64_t value)
    {
        check(file_, sqlite3_bind_int64(made_, place, value));
        return *this;
    }
    statement &bind(int place, std::string_view value)
    {
        check(file_, sqlite3_bind_text(made_, place, value.data(), static_cast<int>(value.size()), SQLITE_STATIC));
        return *this;
    }
    bool step() // false at the end
    {
        const int code = sqlite3_step(made_);
        check(file_, code);
        return code == SQLITE_ROW;
    }
    void reset() { sqlite3_reset(made_); }
    int64_t number(int column) const { return sqlite3_column_int64(made_, column); }
    std::string_view text(int column) const
    {
        const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(made_, column));
        return {value != nullptr ? value : "", static_cast<size_t>(sqlite3_column_bytes(made_, column))};
    }

  private:
    sqlite3 *file_;
    sqlite3_stmt *made_ = nullptr;
};

// ---------------------------------------------------------------------------------------------------------------- life

void history::closer::operator()(sqlite3 *file) const { sqlite3_close(file); }

history::history(const std::filesystem::path &state_dir, history_limits limits, const ring *events, logger *log,
                 std::function<minute_sample()> sample)
    : file_(state_dir / "history.db"), events_(events), log_(log), sample_(std::move(sample)),
      cursor_(events->start_seq()), limits_(limits)
{
}

history::~history() { stop(); }

void history::start()
{
    last_ = sample_();
    thread_ = std::thread([this] { run(); });
}

void history::stop()
{
    stopping_ = true;
    if (thread_.joinable())
        thread_.join();
}

void history::set_limits(history_limits limits)
{
    std::lock_guard guard(mutex_);
    limits_ = limits;
}

history_status history::status() const
{
    std::lock_guard guard(mutex_);
    return status_;
}

void history::execute(const char *sql)
{
    check(file_open_.get(), sqlite3_exec(file_open_.get(), sql, nullptr, nullptr, nullptr));
}

// A file that is no history is kept for whoever wants to look at it, and a new one begins.
void history::open()
{
    if (damaged_) {
        const std::string aside = fmt::format("{}.damaged-{}", file_.string(), clock_ms());
        std::filesystem::rename(file_, aside);
        for (const char *part : {"-wal", "-shm"})
            std::filesystem::remove(file_.string() + part);
        damaged_ = false;
        log_->warning("the history was damaged and is now {}; a new one begins", aside);
    }
    sqlite3 *made = nullptr;
    const int code = sqlite3_open_v2(file_.c_str(), &made, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    file_open_.reset(made);
    check(made, code);
    sqlite3_busy_timeout(made, 1000);
    // auto_vacuum lets pruning give room back; the size of the log bounds what a reader can make it grow.
    execute("PRAGMA auto_vacuum=INCREMENTAL; PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
            "PRAGMA journal_size_limit=16777216;");
    int64_t version = 0;
    {
        statement read(made, "PRAGMA user_version");
        if (read.step())
            version = read.number(0);
    }
    if (version > SCHEMA_VERSION)
        throw std::runtime_error(fmt::format("{} was written by a newer fxmd", file_.string()));
    execute(
        "CREATE TABLE IF NOT EXISTS events(seq INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, card INTEGER NOT NULL,"
        " type INTEGER NOT NULL, text TEXT NOT NULL);"
        "CREATE INDEX IF NOT EXISTS events_of_card ON events(card, seq) WHERE card != 0;"
        "CREATE INDEX IF NOT EXISTS events_by_time ON events(time_ms);"
        "CREATE TABLE IF NOT EXISTS minutes(time_ms INTEGER PRIMARY KEY, well INTEGER, degraded INTEGER,"
        " error INTEGER, lost INTEGER, unmonitored INTEGER, frames0 INTEGER, frames1 INTEGER, events INTEGER,"
        " registers INTEGER, register_us INTEGER);"
        "PRAGMA user_version=1;");
    statement count(made, "SELECT count(*) FROM events");
    count.step();
    std::lock_guard guard(mutex_);
    status_.events = static_cast<uint64_t>(count.number(0));
}

// --------------------------------------------------------------------------------------------------------------- writing

// A gap in the numbers, as a row with a type of its own.
constexpr int64_t TYPE_GAP = 4;

void history::store()
{
    for (;;) {
        const ring::batch batch = events_->read(cursor_, BATCH);
        if (batch.events.empty() && batch.gap_to == 0)
            return;
        execute("BEGIN IMMEDIATE");
        uint64_t last = cursor_;
        {
            statement insert(file_open_.get(), "INSERT OR IGNORE INTO events VALUES(?, ?, ?, ?, ?)");
            const auto put = [&insert](uint64_t seq, int64_t time, uint64_t card, int64_t type, std::string_view text) {
                insert.bind(1, static_cast<int64_t>(seq)).bind(2, time).bind(3, static_cast<int64_t>(card));
                insert.bind(4, type).bind(5, text).step();
                insert.reset();
            };
            if (batch.gap_to != 0) {
                put(batch.gap_to, clock_ms(), 0, TYPE_GAP,
                    fmt::format(R"({{"schema":"fxm/1","type":"gap","from":{},"to":{}}})", batch.gap_from,
                                batch.gap_to));
                last = batch.gap_to;
            }
            for (const auto &entry : batch.events) {
                put(entry->seq, entry->time_ms, entry->card, static_cast<int64_t>(entry->type), entry->text);
                last = entry->seq;
            }
        }
        execute("COMMIT");
        cursor_ = last;
        std::lock_guard guard(mutex_);
        status_.events += batch.events.size() + (batch.gap_to != 0 ? 1 : 0);
    }
}

void history::store_minute()
{
    const int64_t now = clock_ms();
    if (next_minute_ms_ == 0 || next_minute_ms_ - now > MINUTE_MS)
        next_minute_ms_ = (now / MINUTE_MS + 1) * MINUTE_MS;
    if (now < next_minute_ms_)
        return;
    const minute_sample next = sample_();
    const auto added = [](uint64_t before, uint64_t after) {
        return static_cast<int64_t>(after >= before ? after - before : after);
    };
    const int64_t registers = added(last_.registers, next.registers);
    statement insert(file_open_.get(), "INSERT OR REPLACE INTO minutes VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    insert.bind(1, next_minute_ms_).bind(2, next.well).bind(3, next.degraded).bind(4, next.error).bind(5, next.lost);
    insert.bind(6, next.unmonitored).bind(7, added(last_.frames[0], next.frames[0]));
    insert.bind(8, added(last_.frames[1], next.frames[1])).bind(9, added(last_.events, next.events));
    insert.bind(10, registers);
    insert.bind(11, registers != 0 ? added(last_.register_us, next.register_us) / registers : 0);
    insert.step();
    last_ = next;
    next_minute_ms_ += MINUTE_MS;
    prune();
}

// A small step each minute, so that no transaction is long.
void history::prune()
{
    history_limits limits;
    uint64_t events = 0;
    {
        std::lock_guard guard(mutex_);
        limits = limits_;
        events = status_.events;
    }
    const int64_t oldest = clock_ms() - static_cast<int64_t>(limits.days) * 86400000;
    uint64_t removed = 0;
    const auto remove = [&](const std::string &sql, int64_t bound) {
        statement step(file_open_.get(), sql);
        step.bind(1, bound).step();
        removed += static_cast<uint64_t>(sqlite3_changes(file_open_.get()));
    };
    remove(fmt::format(
               "DELETE FROM events WHERE seq IN (SELECT seq FROM events WHERE time_ms < ? ORDER BY time_ms LIMIT {})",
               PRUNE_ROWS),
           oldest);
    if (events - removed > limits.max_events)
        remove("DELETE FROM events WHERE seq IN (SELECT seq FROM events ORDER BY seq LIMIT ?)",
               std::min<int64_t>(static_cast<int64_t>(events - removed - limits.max_events), int64_t{10} * PRUNE_ROWS));
    statement(file_open_.get(), "DELETE FROM minutes WHERE time_ms < ?").bind(1, oldest).step();
    execute("PRAGMA incremental_vacuum(1000)");
    std::lock_guard guard(mutex_);
    status_.events -= removed;
}

void history::fail(const std::string &what)
{
    file_open_.reset();
    std::lock_guard guard(mutex_);
    if (!status_.failing)
        log_->warning("the history cannot be written: {}: {}; fxmd goes on without it and tries again", file_.string(),
                      what);
    status_.failing = true;
    status_.error = what;
}

void history::run()
{
    auto next_try = std::chrono::steady_clock::now();
    for (bool last_round = false; !last_round;) {
        last_round = stopping_;
        const auto now = std::chrono::steady_clock::now();
        if (file_open_ == nullptr && now < next_try && !last_round) {
            // Not on the ring: it would wake for every event.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        try {
            if (file_open_ == nullptr)
                open();
            store();
            store_minute();
            std::lock_guard guard(mutex_);
            if (status_.failing)
                log_->warning("the history is written again");
            status_.failing = false;
            status_.error.clear();
        } catch (const sqlite_failure &failure) {
            damaged_ = failure.code == SQLITE_NOTADB || failure.code == SQLITE_CORRUPT;
            fail(failure.what());
            next_try = now + std::chrono::milliseconds(damaged_ ? 0 : retry_ms_.load());
        } catch (const std::exception &failure) {
            fail(failure.what());
            next_try = now + std::chrono::milliseconds(retry_ms_);
        }
        // Events of a second are stored together.
        for (int waited = 0; waited < STEP_MS && !stopping_; waited += 50)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    file_open_.reset();
}

// --------------------------------------------------------------------------------------------------------------- reading

history::database history::open_reader() const
{
    sqlite3 *made = nullptr;
    const int code = sqlite3_open_v2(file_.c_str(), &made, SQLITE_OPEN_READONLY, nullptr);
    database file(made);
    check(made, code);
    sqlite3_busy_timeout(made, 1000);
    return file;
}

static api_error unreadable(const std::exception &failure)
{
    return {"FXM_API_EPROTO", fmt::format("the history cannot be read: {}", failure.what()), "see fxmctl log"};
}

static int64_t type_number(const std::string &type)
{
    for (const event_type known : {event_type::change, event_type::job, event_type::port, event_type::library}) {
        if (type == word(known))
            return static_cast<int64_t>(known);
    }
    if (type == "gap")
        return TYPE_GAP;
    throw api_error("FXM_API_EINVAL", fmt::format("there is no type \"{}\"", type),
                    "types are change, job, port, library, gap");
}

void history::query_events(const history_query &query, const std::function<void(uint64_t, std::string_view)> &see)
{
    std::string sql = "SELECT seq, text FROM events WHERE seq > ?1 AND time_ms >= ?2 AND time_ms <= ?3";
    if (query.card != 0)
        sql += fmt::format(" AND card = {}", query.card);
    if (!query.type.empty())
        sql += fmt::format(" AND type = {}", type_number(query.type));
    sql += " ORDER BY seq LIMIT ?4";
    try {
        const database file = open_reader();
        statement rows(file.get(), sql);
        rows.bind(1, static_cast<int64_t>(query.after_seq)).bind(2, query.since_ms).bind(3, query.until_ms);
        rows.bind(4, static_cast<int64_t>(query.limit));
        while (rows.step())
            see(static_cast<uint64_t>(rows.number(0)), rows.text(1));
    } catch (const sqlite_failure &failure) {
        throw unreadable(failure);
    }
}

void history::query_minutes(int64_t since_ms, int64_t until_ms, const std::function<void(const minute_sample &)> &see)
{
    try {
        const database file = open_reader();
        statement rows(file.get(), "SELECT * FROM minutes WHERE time_ms >= ? AND time_ms <= ? ORDER BY time_ms");
        rows.bind(1, since_ms).bind(2, until_ms);
        while (rows.step()) {
            minute_sample minute;
            minute.time_ms = rows.number(0);
            uint32_t *const healths[] = {&minute.well, &minute.degraded, &minute.error, &minute.lost,
                                         &minute.unmonitored};
            for (int i = 0; i < 5; ++i)
                *healths[i] = static_cast<uint32_t>(rows.number(1 + i));
            uint64_t *const sums[] = {&minute.frames[0], &minute.frames[1], &minute.events, &minute.registers,
                                      &minute.register_us};
            for (int i = 0; i < 5; ++i)
                *sums[i] = static_cast<uint64_t>(rows.number(6 + i));
            see(minute);
        }
    } catch (const sqlite_failure &failure) {
        throw unreadable(failure);
    }
}

} // namespace fxm

#include "daemon/history.h"

#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <stdexcept>

#include "common/card_id.h"
#include "common/error.h"

namespace fxm
{

constexpr size_t READ_AT_ONCE = 1000;
constexpr int STEP_MS = 1000; // a kill loses at most that much
constexpr int64_t MINUTE_MS = 60000;
constexpr int PRUNE_ROWS = 2000;      // in one transaction
constexpr int PRUNE_MS = 500;         // of each minute
constexpr size_t MOST_MINUTES = 1440; // that wait for the disk
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

// The file may have been removed under the open database, which SQLite does not notice.
bool history::has_file() const
{
    struct stat status {
    };
    return stat(file_.c_str(), &status) == 0 && status.st_ino == inode_;
}

// A file that is no history is kept for whoever wants to look at it, and a new one begins.
void history::open()
{
    if (damaged_) {
        const std::string aside = fmt::format("{}.damaged-{}", file_.string(), clock_ms());
        if (std::filesystem::exists(file_)) {
            std::filesystem::rename(file_, aside);
            log_->warning("the history was damaged and is now {}; a new one begins", aside);
        }
        for (const char *part : {"-wal", "-shm"})
            std::filesystem::remove(file_.string() + part);
        damaged_ = false;
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
    // The last statement writes also to a file that has all, so an open file is one that can be written.
    execute(
        "CREATE TABLE IF NOT EXISTS events(seq INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, card INTEGER NOT NULL,"
        " type INTEGER NOT NULL, text TEXT NOT NULL);"
        "CREATE INDEX IF NOT EXISTS events_of_card ON events(card, seq) WHERE card != 0;"
        "CREATE INDEX IF NOT EXISTS events_by_time ON events(time_ms);"
        "CREATE TABLE IF NOT EXISTS minutes(time_ms INTEGER PRIMARY KEY, well INTEGER, degraded INTEGER,"
        " error INTEGER, lost INTEGER, unmonitored INTEGER, frames0 INTEGER, frames1 INTEGER, events INTEGER,"
        " registers INTEGER, register_us INTEGER);"
        "PRAGMA user_version=1;");
    struct stat status {
    };
    inode_ = stat(file_.c_str(), &status) == 0 ? status.st_ino : 0;
    statement count(made, "SELECT count(*) FROM events");
    count.step();
    std::lock_guard guard(mutex_);
    status_.events = static_cast<uint64_t>(count.number(0));
}

// --------------------------------------------------------------------------------------------------------------- writing

// A gap in the numbers, as a row with a type of its own.
constexpr int64_t TYPE_GAP = 4;

// What the columns of a row say is left out of its text: a third of an event.
static std::string head_of(event_type type, uint64_t seq, int64_t time_ms, uint64_t card)
{
    std::string head = event_head(type, seq, time_ms);
    if (type == event_type::change)
        head += fmt::format(R"("card":"{}",)", format_id(card));
    return head;
}

void history::store()
{
    for (;;) {
        const ring::batch batch = events_->read(cursor_, READ_AT_ONCE);
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
                put(batch.gap_to, clock_ms(), 0, TYPE_GAP, gap_text(batch.gap_from, batch.gap_to));
                last = batch.gap_to;
            }
            for (const auto &entry : batch.events) {
                const std::string head = head_of(entry->type, entry->seq, entry->time_ms, entry->card);
                std::string_view text = entry->text;
                if (text.starts_with(head))
                    text.remove_prefix(head.size());
                put(entry->seq, entry->time_ms, entry->card, static_cast<int64_t>(entry->type), text);
                last = entry->seq;
            }
        }
        execute("COMMIT");
        cursor_ = last;
        std::lock_guard guard(mutex_);
        status_.events += batch.events.size() + (batch.gap_to != 0 ? 1 : 0);
    }
}

// At the end of each minute, also while nothing can be stored.
void history::sample_minute()
{
    const int64_t now = clock_ms();
    // The clock may have been set.
    if (std::abs(next_minute_ms_ - now) > 2 * MINUTE_MS)
        next_minute_ms_ = (now / MINUTE_MS + 1) * MINUTE_MS;
    if (now < next_minute_ms_)
        return;
    const minute_sample next = sample_();
    const auto added = [](uint64_t before, uint64_t after) { return after >= before ? after - before : after; };
    minute_sample minute = next;
    minute.time_ms = next_minute_ms_;
    for (int port = 0; port < 2; ++port)
        minute.frames[port] = added(last_.frames[port], next.frames[port]);
    minute.events = added(last_.events, next.events);
    minute.registers = added(last_.registers, next.registers);
    minute.register_us = minute.registers != 0 ? added(last_.register_us, next.register_us) / minute.registers : 0;
    minutes_.push_back(minute);
    if (minutes_.size() > MOST_MINUTES)
        minutes_.pop_front();
    last_ = next;
    next_minute_ms_ += MINUTE_MS;
}

void history::store_minutes()
{
    if (minutes_.empty())
        return;
    for (; !minutes_.empty(); minutes_.pop_front()) {
        const minute_sample &minute = minutes_.front();
        const int64_t values[] = {minute.time_ms,
                                  minute.well,
                                  minute.degraded,
                                  minute.error,
                                  minute.lost,
                                  minute.unmonitored,
                                  static_cast<int64_t>(minute.frames[0]),
                                  static_cast<int64_t>(minute.frames[1]),
                                  static_cast<int64_t>(minute.events),
                                  static_cast<int64_t>(minute.registers),
                                  static_cast<int64_t>(minute.register_us)};
        statement insert(file_open_.get(), "INSERT OR REPLACE INTO minutes VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
        int place = 0;
        for (const int64_t value : values)
            insert.bind(++place, value);
        insert.step();
    }
    prune();
}

// Each minute for a short time, in small transactions.
void history::prune()
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(PRUNE_MS);
    int64_t oldest = 0;
    const auto remove = [&](const char *sql, int64_t first, int64_t second) {
        statement step(file_open_.get(), sql);
        step.bind(1, first).bind(2, second).step();
        const int removed = sqlite3_changes(file_open_.get());
        std::lock_guard guard(mutex_);
        status_.events -= std::min(status_.events, static_cast<uint64_t>(removed));
        return removed;
    };
    for (int removed = 1; removed != 0 && std::chrono::steady_clock::now() < end && !stopping_;) {
        int64_t too_many = 0;
        {
            std::lock_guard guard(mutex_);
            oldest = clock_ms() - static_cast<int64_t>(limits_.days) * 86400000;
            too_many = static_cast<int64_t>(status_.events) - static_cast<int64_t>(limits_.max_events);
        }
        removed = remove("DELETE FROM events WHERE seq IN"
                         " (SELECT seq FROM events WHERE time_ms < ? ORDER BY time_ms LIMIT ?)",
                         oldest, PRUNE_ROWS);
        too_many = std::min<int64_t>(too_many - removed, PRUNE_ROWS);
        if (too_many > 0)
            removed +=
                remove("DELETE FROM events WHERE seq IN (SELECT seq FROM events WHERE seq > ? ORDER BY seq LIMIT ?)",
                       -1, too_many);
    }
    statement(file_open_.get(), "DELETE FROM minutes WHERE time_ms < ?").bind(1, oldest).step();
    execute("PRAGMA incremental_vacuum(1000)");
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

// Stores what there is. False if that has failed.
bool history::round()
{
    // A damaged file is set aside at once, with its own warning; a disk that damages the next one too can wait.
    for (int attempt = 0;; ++attempt) {
        try {
            if (damaged_)
                file_open_.reset();
            if (file_open_ != nullptr && !has_file())
                throw std::runtime_error("the file is gone");
            if (file_open_ == nullptr)
                open();
            store();
            store_minutes();
            std::lock_guard guard(mutex_);
            if (status_.failing)
                log_->warning("the history is written again");
            status_.failing = false;
            status_.error.clear();
            return true;
        } catch (const sqlite_failure &failure) {
            damaged_ = failure.code == SQLITE_NOTADB || failure.code == SQLITE_CORRUPT;
            if (damaged_ && attempt == 0)
                continue;
            fail(failure.what());
            return false;
        } catch (const std::exception &failure) {
            fail(failure.what());
            return false;
        }
    }
}

void history::run()
{
    using clock = std::chrono::steady_clock;
    bool good = true;
    auto next_round = clock::now();
    for (;;) {
        const bool last_round = stopping_;
        // Events of a second are stored together, and many of them sooner: the ring holds a burst for a second only.
        const bool many = good && events_->last_seq() - cursor_ >= READ_AT_ONCE;
        sample_minute();
        if (last_round || many || clock::now() >= next_round) {
            good = round();
            next_round = clock::now() + std::chrono::milliseconds(good ? STEP_MS : retry_ms_.load());
        }
        if (last_round)
            break;
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

api_error history::unreadable(const sqlite_failure &failure)
{
    // The writer may never come to the damaged page by itself.
    if (failure.code == SQLITE_NOTADB || failure.code == SQLITE_CORRUPT)
        damaged_ = true;
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
    std::string sql = "SELECT seq, time_ms, card, type, text FROM events WHERE seq > ?1 AND time_ms >= ?2"
                      " AND time_ms <= ?3";
    // The second condition allows the use of the partial index.
    if (query.card != 0)
        sql += fmt::format(" AND card = {} AND card != 0", query.card);
    if (!query.type.empty())
        sql += fmt::format(" AND type = {}", type_number(query.type));
    sql += query.newest ? " ORDER BY seq DESC LIMIT ?4" : " ORDER BY seq LIMIT ?4";
    if (query.newest)
        sql = "SELECT * FROM (" + sql + ") ORDER BY seq";
    try {
        const database file = open_reader();
        auto after = static_cast<int64_t>(query.after_seq);
        // A bound of the time becomes one of the number through the index of times; the clock may have been set.
        if (query.since_ms > 0) {
            statement first(file.get(), "SELECT min(seq) FROM events INDEXED BY events_by_time WHERE time_ms >= ?");
            first.bind(1, query.since_ms).step();
            if (first.number(0) == 0)
                return;
            after = std::max(after, first.number(0) - 1);
        }
        statement rows(file.get(), sql);
        rows.bind(1, after).bind(2, query.since_ms).bind(3, query.until_ms);
        rows.bind(4, static_cast<int64_t>(query.limit));
        while (rows.step()) {
            const auto seq = static_cast<uint64_t>(rows.number(0));
            const std::string_view text = rows.text(4);
            if (text.starts_with('{'))
                see(seq, text);
            else
                see(seq, head_of(static_cast<event_type>(rows.number(3)), seq, rows.number(1),
                                 static_cast<uint64_t>(rows.number(2))) +
                             std::string(text));
        }
    } catch (const sqlite_failure &failure) {
        throw unreadable(failure);
    }
}

void history::query_cards(const std::function<void(uint64_t card)> &see)
{
    try {
        const database file = open_reader();
        statement rows(file.get(), "SELECT DISTINCT card FROM events WHERE card != 0");
        while (rows.step())
            see(static_cast<uint64_t>(rows.number(0)));
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

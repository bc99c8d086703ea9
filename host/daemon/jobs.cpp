#include "daemon/jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "common/card_id.h"
#include "common/error.h"
#include "daemon/library_error.h"
#include "daemon/log.h"
#include "fxm.h"

namespace fxm
{

namespace json = boost::json;

constexpr uint32_t REGISTER_STEP = 256; // registers in one call of the library
constexpr int64_t PROGRESS_MS = 500;    // between two events of the progress of a job

struct job_cancelled {
};

struct job_board::job : job_request {
    explicit job(job_request asked) : job_request(std::move(asked)) {}

    // Set before it is queued:
    uint64_t number = 0;
    int64_t created_ms = 0;
    std::atomic<bool> cancel{false};

    // Guarded by the board's mutex:
    const char *state = "queued";
    uint32_t done = 0, total = 0;
    int64_t started_ms = 0, ended_ms = 0, told_ms = 0;
    std::vector<uint32_t> held;          // words that have been read, from `start` on
    std::vector<uint32_t> written, left; // addresses, of a restore; `left` is all that is not known to be right
    bool writing = false;                // a restore has compared
    uint32_t before = 0;                 // the old value of a write
    json::value error;

    // To take the lock from its holder changes the card, so a dry run does not.
    uint32_t flags() const { return how.flags | (force && !dry_run ? FXM_FLAG_FORCELOCK : 0); }
    bool ended() const { return ended_ms != 0; }
    size_t kept_words() const { return held.capacity() + words.capacity() + written.capacity() + left.capacity(); }
};

// ------------------------------------------------------------------------------------------------------------- requests

json::object job_board::submit(job_request asked)
{
    if (asked.writes_eeprom() && !asked.dry_run)
        check_writer();
    auto work = std::make_shared<job>(std::move(asked));
    std::lock_guard guard(mutex_);
    forget_old();
    if (jobs_.size() >= MOST_KEPT)
        throw api_error("FXM_TOO_MANY", fmt::format("{} jobs wait or run already", MOST_KEPT),
                        "wait until earlier jobs have ended");
    work->created_ms = clock_ms();
    work->number = next_;
    // Under the mutex, which the job needs to begin: so it is known, and said to be queued, before it runs.
    if (!threads_.submit(
            work->card, [this, work] { run(work); }, [this, work] { end(work, "cancelled"); }))
        throw api_error("FXM_TOO_MANY", fmt::format("{} jobs wait for card {}", MOST_QUEUED, format_id(work->card)),
                        "wait until earlier jobs have ended");
    jobs_[next_++] = work;
    announce(*work);
    return document(*work, true);
}

// A reload may have taken the permission away while the job waited.
void job_board::check_writer() const
{
    if (!eeprom_writer_)
        throw api_error("FXM_DENIED", "this fxmd may not write EEPROMs",
                        "set eeprom_writer = true in exactly one fxmd that reaches the card, and reload it");
}

// ------------------------------------------------------------------------------------------------------------ documents

static json::array numbers(std::span<const uint32_t> values) { return json::array(values.begin(), values.end()); }

// Made when it is asked for: as JSON the words take six times the memory. The caller holds the mutex.
json::value job_board::result_of(const job &work)
{
    const bool done = std::string_view(work.state) == "done";
    if (!work.ended() && !work.writing)
        return nullptr;
    if (work.kind == "vlan")
        return done ? json::value{{"old", work.before}, {"new", work.value}} : json::value(nullptr);
    if (work.kind == "eeprom-write")
        return done ? json::value{{"address", work.address},
                                  {"old", work.before},
                                  {"new", work.value},
                                  {"written", !work.dry_run}}
                    : json::value(nullptr);
    if (work.started_ms == 0)
        return nullptr;
    if (work.words.empty())
        return {{"start", work.start},
                {"end", work.start + static_cast<uint32_t>(work.held.size()) * 4},
                {"words", numbers(work.held)}};
    json::array differing;
    for (uint32_t i = 0; i < work.held.size(); ++i) {
        if (work.held[i] != work.words[i])
            differing.push_back({{"address", work.start + i * 4}, {"card", work.held[i]}, {"file", work.words[i]}});
    }
    json::object result{{"differing", std::move(differing)}};
    if (work.kind == "eeprom-restore") {
        result["backup"] = numbers(work.held);
        result["written"] = numbers(work.written);
        result["left"] = numbers(work.left);
    }
    return result;
}

// The caller holds the mutex.
json::object job_board::document(const job &work, bool whole) const
{
    const auto time = [](int64_t ms) { return ms != 0 ? json::value(ms) : json::value(nullptr); };
    json::object made;
    if (whole)
        made["schema"] = "fxm/1";
    made["job"] = work.number;
    made["kind"] = work.kind;
    made["card"] = format_id(work.card);
    made["state"] = work.state;
    made["dry_run"] = work.dry_run;
    made["done"] = work.done;
    made["total"] = work.total;
    made["created_ms"] = work.created_ms;
    made["started_ms"] = time(work.started_ms);
    made["ended_ms"] = time(work.ended_ms);
    made["uid"] = work.who.uid;
    made["pid"] = work.who.pid;
    // A list leaves the words out; they can be thousands for each job.
    made["result"] = whole ? result_of(work) : json::value(nullptr);
    made["error"] = work.error;
    return made;
}

job_board::job_ptr job_board::find(uint64_t number) const
{
    const auto found = jobs_.find(number);
    if (found == jobs_.end())
        throw api_error("FXM_API_ENOENT", fmt::format("there is no job {}", number),
                        "fxmctl jobs lists them; a result is kept for an hour");
    return found->second;
}

json::object job_board::get(uint64_t number)
{
    std::lock_guard guard(mutex_);
    forget_old();
    return document(*find(number), true);
}

json::array job_board::list()
{
    json::array made;
    std::lock_guard guard(mutex_);
    forget_old();
    for (const auto &[number, work] : jobs_)
        made.push_back(document(*work, false));
    return made;
}

job_counts job_board::counts() const
{
    job_counts sums;
    std::lock_guard guard(mutex_);
    for (const auto &[number, work] : jobs_) {
        const std::string_view state = work->state;
        uint32_t &count = state == "queued"    ? sums.queued
                          : state == "running" ? sums.running
                          : state == "done"    ? sums.done
                          : state == "failed"  ? sums.failed
                                               : sums.cancelled;
        count += 1;
    }
    return sums;
}

json::object job_board::cancel(uint64_t number)
{
    std::lock_guard guard(mutex_);
    const job_ptr work = find(number);
    if (!work->ended())
        work->cancel = true;
    // Its turn may be far away; it is passed over then.
    if (work->started_ms == 0 && !work->ended())
        end_locked(work.get(), "cancelled");
    return document(*work, true);
}

// Those that ended first go first, when there are too many or their words take too much. The caller holds the mutex.
void job_board::forget_old()
{
    const int64_t now = clock_ms();
    size_t words = 0;
    std::vector<std::pair<int64_t, uint64_t>> ended; // when, and the number
    for (const auto &[number, work] : jobs_) {
        words += work->kept_words();
        if (work->ended())
            ended.emplace_back(work->ended_ms, number);
    }
    std::sort(ended.begin(), ended.end());
    for (const auto &[when, number] : ended) {
        if (now - when <= KEPT_MS && jobs_.size() < MOST_KEPT && words <= MOST_WORDS)
            break;
        words -= jobs_[number]->kept_words();
        jobs_.erase(number);
    }
}

// --------------------------------------------------------------------------------------------------------------- running

job_board::job_board(ring *events, bool eeprom_writer, audit_function audit)
    : events_(events), eeprom_writer_(eeprom_writer), audit_(std::move(audit))
{
}

job_board::~job_board() { close(); }

void job_board::close()
{
    {
        std::lock_guard guard(mutex_);
        for (const auto &[number, work] : jobs_)
            work->cancel = true;
    }
    threads_.close();
}

// The caller holds the mutex.
void job_board::announce(job &work)
{
    work.told_ms = clock_ms();
    events_->append(event_draft{
        .type = event_type::job,
        .card = work.card,
        .before = {},
        .after = {},
        .members = fmt::format(R"("job":{},"kind":"{}","card":"{}","state":"{}","done":{},"total":{})", work.number,
                               work.kind, format_id(work.card), work.state, work.done, work.total)});
}

// A step is done. Throws if the job has been cancelled.
void job_board::progress(job *work, uint32_t done, uint32_t total)
{
    {
        const int64_t now = clock_ms();
        std::lock_guard guard(mutex_);
        work->done = done;
        work->total = total;
        if (std::abs(now - work->told_ms) >= PROGRESS_MS)
            announce(*work);
    }
    if (work->cancel)
        throw job_cancelled();
}

// The caller holds the mutex.
void job_board::end_locked(job *work, const char *state)
{
    work->state = state;
    work->ended_ms = clock_ms();
    work->held.shrink_to_fit();
    announce(*work);
}

void job_board::end(const job_ptr &work, const char *state)
{
    bool incomplete = false;
    {
        std::lock_guard guard(mutex_);
        if (work->ended())
            return;
        end_locked(work.get(), state);
        incomplete = work->writing && !work->left.empty();
    }
    // The result ends with the daemon, and it may be the daemon that stops.
    if (incomplete)
        audit_(work->who, work->card, fmt::format("eeprom-restore job={} {}", work->number, state), "-",
               fmt::format("{} words written, {} left; run the restore again to finish", work->written.size(),
                           work->left.size()));
}

void job_board::run(const job_ptr &work)
{
    struct entry {
        const char *kind;
        void (job_board::*run)(job *work);
    };
    constexpr entry entries[] = {
        {"eeprom-dump", &job_board::read_words},        {"eeprom-compare", &job_board::read_words},
        {"eeprom-restore", &job_board::restore_eeprom}, {"eeprom-write", &job_board::write_eeprom},
        {"register-dump", &job_board::dump_registers},  {"vlan", &job_board::set_vlan},
    };
    {
        std::lock_guard guard(mutex_);
        if (work->ended())
            return;
        work->state = "running";
        work->started_ms = clock_ms();
        announce(*work);
    }
    const char *state = "done";
    try {
        for (const entry &known : entries) {
            if (work->kind == known.kind)
                (this->*known.run)(work.get());
        }
    } catch (const job_cancelled &) {
        state = "cancelled";
    } catch (const api_error &failure) {
        state = "failed";
        std::lock_guard guard(mutex_);
        work->error = json::object{{"code", failure.code},
                                   {"message", failure.what()},
                                   {"hint", failure.hint.empty() ? json::value(nullptr) : json::value(failure.hint)}};
    } catch (const std::exception &failure) {
        state = "failed";
        std::lock_guard guard(mutex_);
        work->error = json::object{{"code", "FXM_API_EPROTO"}, {"message", failure.what()}, {"hint", nullptr}};
    }
    end(work, state);
}

// ---------------------------------------------------------------------------------------------------------------- EEPROM

// Moves a word. A card that falls silent while its lock is taken costs a hundred tries for the lock, each with all
// retries: two minutes in which the job cannot be cancelled. So the first attempt has few of them, and only a card that
// still answers gets another one with the configured number. Who asks for a number of retries gets just that.
template <typename Move> static int move_word(const job_request &asked, const std::atomic<bool> &cancel, Move move)
{
    constexpr fxm_retry_param_t FEW{2, 100};
    const int result = move(asked.how.retry ? asked.how.param() : &FEW);
    if (result != FXM_API_ETIMEDOUT || asked.how.retry)
        return result;
    if (cancel)
        throw job_cancelled();
    uint32_t unused = 0;
    return fxm_read_register(asked.card, 0, &unused, nullptr, 0) == FXM_API_SUCCESS ? move(nullptr) : result;
}

// A word, read twice: the lock on the card has one bit for every fxm, so another one may have moved a word in between.
uint32_t job_board::read_word(job *work, uint32_t address)
{
    constexpr int ATTEMPTS = 3;
    uint32_t first = 0;
    uint32_t second = 0;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        for (uint32_t *word : {&first, &second}) {
            const int result = move_word(*work, work->cancel, [&](const fxm_retry_param_t *retries) {
                return fxm_read_eeprom(work->card, address, word, retries, work->flags());
            });
            if (result != FXM_API_SUCCESS)
                throw_result(result, fmt::format("cannot read EEPROM word {:#05x}", address), work->card);
        }
        if (first == second)
            return first;
    }
    throw api_error("FXM_API_EPROTO",
                    fmt::format("EEPROM word {:#05x} of card {} reads {:#010x} and {:#010x}", address,
                                format_id(work->card), first, second),
                    "another manager may be at work on this EEPROM; only one fxmd may reach a card");
}

// Reads the words of the range one by one.
void job_board::read_words(job *work)
{
    const uint32_t total = (work->end - work->start) / 4;
    for (uint32_t i = 0; i < total; ++i) {
        progress(work, i, total);
        const uint32_t word = read_word(work, work->start + i * 4);
        std::lock_guard guard(mutex_);
        work->held.push_back(word);
        if (!work->words.empty() && word == work->words[i])
            std::erase(work->left, work->start + i * 4);
    }
    progress(work, total, total);
}

// What is left to do is always the words that differ, so running it again goes on where it ended.
void job_board::restore_eeprom(job *work)
{
    const auto count = static_cast<uint32_t>(work->words.size());
    {
        std::lock_guard guard(mutex_);
        for (uint32_t i = 0; i < count; ++i)
            work->left.push_back(work->start + i * 4);
    }
    read_words(work);
    if (work->dry_run)
        return;
    std::vector<uint32_t> differing;
    {
        std::lock_guard guard(mutex_);
        work->writing = true;
        differing = work->left;
    }
    const auto total = static_cast<uint32_t>(differing.size());
    for (uint32_t i = 0; i < total; ++i) {
        progress(work, i, total);
        const uint32_t at = (differing[i] - work->start) / 4;
        write_word(work, differing[i], work->held[at], work->words[at]);
        std::lock_guard guard(mutex_);
        work->written.push_back(differing[i]);
        std::erase(work->left, differing[i]);
    }
    // All of the range, not only what was written: the whole is what counts.
    for (uint32_t i = 0; i < count; ++i) {
        progress(work, total, total);
        if (read_word(work, work->start + i * 4) != work->words[i]) {
            std::lock_guard guard(mutex_);
            work->left.push_back(work->start + i * 4);
        }
    }
    if (!work->left.empty())
        throw api_error(
            "FXM_API_EPROTO",
            fmt::format("{} words of card {} differ again after the restore", work->left.size(), format_id(work->card)),
            "another manager may be at work on this EEPROM; run the restore again");
}

// The word may have been written also if this fails.
void job_board::write_word(job *work, uint32_t address, uint32_t before, uint32_t after)
{
    check_writer();
    // Not cancelled between two attempts: what has happened to the word must be in the log.
    const int result = move_word(*work, false, [&](const fxm_retry_param_t *retries) {
        return fxm_write_eeprom(work->card, address, after, retries, work->flags() | FXM_FLAG_VERIFY);
    });
    audit_(work->who, work->card,
           fmt::format("eeprom {:#05x} job={} result={}", address, work->number, result_name(result)),
           fmt::format("{:#010x}", before), fmt::format("{:#010x}", after));
    if (result != FXM_API_SUCCESS)
        throw_result(result, fmt::format("cannot write EEPROM word {:#05x}", address), work->card);
}

void job_board::write_eeprom(job *work)
{
    progress(work, 0, 1);
    const uint32_t before = read_word(work, work->address);
    {
        std::lock_guard guard(mutex_);
        work->before = before;
    }
    progress(work, 0, 1);
    if (!work->dry_run)
        write_word(work, work->address, before, work->value);
    std::lock_guard guard(mutex_);
    work->done = work->total;
}

// -------------------------------------------------------------------------------------------------------------- the rest

void job_board::dump_registers(job *work)
{
    const uint32_t total = (work->end - work->start) / 4;
    for (uint32_t read = 0; read < total;) {
        progress(work, read, total);
        const uint32_t from = work->start + read * 4;
        const uint32_t to = std::min(from + REGISTER_STEP * 4, work->end);
        std::vector<uint32_t> step((to - from) / 4);
        uint64_t size = step.size() * 4;
        const int result =
            fxm_dump_register(work->card, from, to, step.data(), &size, work->how.param(), work->how.flags);
        {
            std::lock_guard guard(mutex_);
            work->held.insert(work->held.end(), step.begin(), step.begin() + static_cast<ptrdiff_t>(size / 4));
            read = static_cast<uint32_t>(work->held.size());
            work->done = read;
        }
        if (result != FXM_API_SUCCESS)
            throw_result(result, fmt::format("cannot read register {:#x}", from + static_cast<uint32_t>(size)),
                         work->card);
    }
}

void job_board::set_vlan(job *work)
{
    progress(work, 0, 1);
    fxm_fxsv_t server{};
    fxm_fxio_t device{};
    uint16_t before = 0;
    if (fxm_get_fxsv(work->card, &server) == FXM_API_SUCCESS)
        before = server.fsv_card.fcd_vlan_id;
    else if (fxm_get_fxio(work->card, &device) == FXM_API_SUCCESS)
        before = device.fio_card.fcd_vlan_id;
    {
        std::lock_guard guard(mutex_);
        work->before = before;
    }
    if (!work->dry_run) {
        const int result = fxm_set_vlanid(work->card, static_cast<uint16_t>(work->value), work->how.param(),
                                          work->how.flags | FXM_FLAG_VERIFY);
        audit_(work->who, work->card, fmt::format("vlan job={} result={}", work->number, result_name(result)),
               std::to_string(before), std::to_string(work->value));
        if (result != FXM_API_SUCCESS)
            throw_result(result, fmt::format("cannot set VLAN {}", work->value), work->card);
    }
    std::lock_guard guard(mutex_);
    work->done = work->total;
}

} // namespace fxm

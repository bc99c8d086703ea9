#include "daemon/model.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "common/card_id.h"
#include "common/error.h"

namespace fxm
{

// A batch is short enough for readers to get their turn.
constexpr size_t BATCH = 64;
constexpr auto IDLE = std::chrono::milliseconds(200);

uint32_t card_totals::in(card_class kind) const
{
    uint32_t sum = 0;
    for (const uint32_t cards : of[static_cast<int>(kind)])
        sum += cards;
    return sum;
}

// ------------------------------------------------------------------------------------------------------------- events

static std::string kind_words(uint32_t kinds)
{
    constexpr const char *words[] = {"new", "update", "connection", "error", "path", "channel", "monitor", "delete"};
    std::string text;
    for (size_t i = 0; i < std::size(words); ++i) {
        if ((kinds & 1u << i) != 0)
            text += (text.empty() ? "\"" : ",\"") + std::string(words[i]) + '"';
    }
    return text;
}

// Kinds that only fxmd raises, behind those of the library.
constexpr uint32_t KIND_NEW = 1u << FXM_EVT_NEWDEVINFO;
constexpr uint32_t KIND_UPDATE = 1u << FXM_EVT_UPDATEDEVINFO;
constexpr uint32_t KIND_CHANNEL = 1u << FXM_EVT_CHANNELSTATECHANGE;
constexpr uint32_t KIND_MONITOR = 1u << 6;
constexpr uint32_t KIND_DELETE = 1u << 7;

// `before` may be null: the card is new.
static event_draft change_event(const card *before, const card &after, const std::string &changes,
                                const dirty_card &dirty)
{
    event_draft draft{
        .type = event_type::change, .card = after.id, .before = {}, .after = facts_of(after), .members = {}};
    draft.before = before != nullptr ? facts_of(*before) : draft.after;
    draft.members = fmt::format(
        R"("card":"{}","class":"{}","vlan":{},"health":"{}","kinds":[{}],"changes":{{{}}},"int_seen":{},"coalesced":{},"now":)",
        format_id(after.id), word(draft.after.kind), draft.after.vlan, word(draft.after.state), kind_words(dirty.kinds),
        changes, dirty.interrupts, dirty.events);
    if (before == nullptr) {
        draft.members += '{';
        write_card(&draft.members, after, member_set::all());
        draft.members += '}';
    } else {
        draft.members += "null";
    }
    return draft;
}

// ------------------------------------------------------------------------------------------------------ life, reading

model::model(ring *events, logger *log, std::filesystem::path unmonitored_file)
    : events_(events), log_(log), unmonitored_file_(std::move(unmonitored_file))
{
    std::ifstream file(unmonitored_file_);
    for (std::string line; std::getline(file, line);) {
        if (const auto id = parse_id(line))
            unmonitored_.insert(*id);
    }
}

model::~model() { stop(); }

void model::start()
{
    thread_ = std::thread([this] { run(); });
}

void model::stop()
{
    stopping_ = true;
    dirty.wake();
    if (thread_.joinable())
        thread_.join();
}

card *model::find(uint64_t id)
{
    const auto found = cards_.find(id);
    return found != cards_.end() ? &found->second : nullptr;
}

const card *model::find(uint64_t id) const
{
    const auto found = cards_.find(id);
    return found != cards_.end() ? &found->second : nullptr;
}

[[noreturn]] static void throw_unknown(uint64_t id)
{
    throw api_error("FXM_API_ENOENT", fmt::format("there is no card {}", format_id(id)),
                    "fxmctl cards lists the cards that have announced themselves");
}

uint64_t model::resolve(uint64_t id) const
{
    std::lock_guard guard(mutex_);
    if (find(id) != nullptr)
        return id;
    const card *even = find(id & ~uint64_t{1});
    if (even != nullptr && common(even->data).fcd_type != 0)
        return even->id;
    throw_unknown(id);
}

bool model::knows(uint64_t id) const
{
    std::lock_guard guard(mutex_);
    return find(id) != nullptr;
}

facts model::facts_of_card(uint64_t id) const
{
    std::lock_guard guard(mutex_);
    const card *known = find(id);
    if (known == nullptr)
        throw_unknown(id);
    return facts_of(*known);
}

void model::with_card(uint64_t id, const std::function<void(const card &)> &read)
{
    std::lock_guard guard(mutex_);
    const card *known = find(id);
    if (known == nullptr)
        throw_unknown(id);
    // Times and status bits that make no event are newer in the library.
    card fresh{known->id, copy(known->data), known->monitored, known->gone};
    if (!known->gone) {
        if (auto data = read_record(id))
            fresh.data = std::move(*data);
    }
    read(fresh);
}

// Takes the times from the library's record of the card.
static void read_times(card *known)
{
    fxm_fxsv_t server;
    fxm_fxio_t device;
    fxm_card_data_t *to = nullptr;
    const fxm_card_data_t *from = nullptr;
    if (auto *held = std::get_if<std::unique_ptr<fxm_fxsv_t>>(&known->data)) {
        to = &(*held)->fsv_card;
        if (fxm_get_fxsv(known->id, &server) == FXM_API_SUCCESS)
            from = &server.fsv_card;
    } else {
        to = &std::get<fxm_fxio_t>(known->data).fio_card;
        if (fxm_get_fxio(known->id, &device) == FXM_API_SUCCESS)
            from = &device.fio_card;
    }
    if (from == nullptr)
        return;
    // A channel that the model has not seen up yet appears with the event.
    for (size_t p = 0; p < 2; ++p) {
        for (size_t m = 0; m < 2; ++m) {
            if (to->fcd_recvtime[p][m] != 0)
                to->fcd_recvtime[p][m] = from->fcd_recvtime[p][m];
        }
    }
}

uint64_t model::visit(uint64_t after, size_t limit, bool fresh_times, const std::function<bool(const card &)> &wanted,
                      const std::function<void(const card &)> &see)
{
    std::lock_guard guard(mutex_);
    auto next = cards_.upper_bound(after);
    uint64_t last = 0;
    for (size_t seen = 0; next != cards_.end() && seen < limit; ++next, ++seen) {
        card &known = next->second;
        last = known.id;
        if (!wanted(known))
            continue;
        if (fresh_times && !known.gone)
            read_times(&known);
        see(known);
    }
    return next != cards_.end() ? last : 0;
}

card_totals model::totals() const
{
    std::lock_guard guard(mutex_);
    return totals_;
}

card_totals model::totals(size_t most, std::vector<card_in_error> *in_error) const
{
    std::lock_guard guard(mutex_);
    auto next = in_error_.begin();
    for (in_error->clear(); next != in_error_.end() && in_error->size() < most; ++next)
        in_error->push_back(next->second);
    return totals_;
}

// ------------------------------------------------------------------------------------------------------------ changes

// The caller of the functions from here on holds the mutex, unless they take it.

void model::count(const card &counted, int by)
{
    const card_class kind = fxsv(counted.data) != nullptr ? card_class::fxsv : card_class::fxio;
    const health state = health_of(counted);
    uint32_t &cards = totals_.of[static_cast<int>(kind)][static_cast<int>(state)];
    cards = static_cast<uint32_t>(static_cast<int64_t>(cards) + by);
    if (state == health::error && by > 0)
        in_error_[counted.id] = {counted.id, kind, common(counted.data).fcd_int_vector};
    else if (state == health::error)
        in_error_.erase(counted.id);
}

void model::replace(card *known, card next)
{
    count(*known, -1);
    *known = std::move(next);
    count(*known, 1);
}

void model::look_at_one(uint64_t id, const dirty_card &dirty, std::vector<event_draft> *drafts)
{
    auto data = read_record(id);
    if (!data)
        return; // deleted meanwhile, or the library is stopping
    card next{id, std::move(*data), !unmonitored_.contains(id), false};
    card *known = find(id);
    if (known == nullptr) {
        drafts->push_back(change_event(nullptr, next, "", dirty));
        count(next, 1);
        cards_.emplace(id, std::move(next));
        return;
    }
    std::string changes;
    write_changes(&changes, *known, next);
    // What the last copy had already is no event, unless something came and went within the tick.
    const uint8_t seen_before = common(known->data).fcd_int_vector | common(next.data).fcd_int_vector;
    const bool blinked = (dirty.interrupts & ~seen_before) != 0 ||
                         (dirty.kinds & ~(KIND_NEW | KIND_UPDATE | KIND_CHANNEL | 1u << FXM_EVT_MAJORMINORERROR)) != 0;
    if (!changes.empty() || blinked)
        drafts->push_back(change_event(known, next, changes, dirty));
    replace(known, std::move(next));
}

void model::look_at(const dirty_set::cards &cards)
{
    std::vector<event_draft> drafts;
    for (auto next = cards.begin(); next != cards.end();) {
        drafts.clear();
        {
            std::lock_guard guard(mutex_);
            for (size_t i = 0; i < BATCH && next != cards.end(); ++i, ++next)
                look_at_one(next->first, next->second, &drafts);
        }
        events_->append(drafts);
    }
}

int model::set_monitored(uint64_t id, bool monitored, const std::function<void()> &changed)
{
    std::vector<event_draft> drafts;
    {
        std::lock_guard guard(mutex_);
        const int result = monitored ? fxm_restart_monitor(id) : fxm_stop_monitor(id);
        if (result != FXM_API_SUCCESS)
            return result;
        const bool is_news = monitored ? unmonitored_.erase(id) != 0 : unmonitored_.insert(id).second;
        if (is_news)
            save_unmonitored();
        card *known = find(id);
        if (known != nullptr && known->monitored != monitored) {
            card next{id, copy(known->data), monitored, known->gone};
            std::string changes;
            write_changes(&changes, *known, next);
            drafts.push_back(change_event(known, next, changes, {.kinds = KIND_MONITOR}));
            replace(known, std::move(next));
        }
    }
    changed();
    events_->append(drafts);
    return FXM_API_SUCCESS;
}

int model::remove(uint64_t id)
{
    std::vector<event_draft> drafts;
    {
        std::lock_guard guard(mutex_);
        const card *known = find(id);
        if (known == nullptr)
            return FXM_API_ENOENT;
        const int of_server = fxm_delete_fxsv(id);
        const int of_device = fxm_delete_fxio(id);
        // A card that has not come back since the library stopped by itself is here alone.
        if (of_server != FXM_API_SUCCESS && of_device != FXM_API_SUCCESS && of_server != FXM_API_ENOENT)
            return of_server;
        drafts.push_back(change_event(known, *known, "", {.kinds = KIND_DELETE}));
        count(*known, -1);
        cards_.erase(id);
    }
    events_->append(drafts);
    return FXM_API_SUCCESS;
}

// Replaces the file in one step, so that a kill leaves the old one or the new one.
void model::save_unmonitored()
{
    const std::filesystem::path fresh = unmonitored_file_.string() + ".new";
    bool good = false;
    {
        std::ofstream file(fresh);
        for (const uint64_t id : unmonitored_)
            file << format_id(id) << '\n';
        file.close();
        good = !file.fail();
    }
    if (!good || ::rename(fresh.c_str(), unmonitored_file_.c_str()) != 0)
        log_->warning("cannot write {}: {}; a restart of fxmd takes the cards into monitoring again",
                      unmonitored_file_.string(), strerror(errno));
}

// ------------------------------------------------------------------------------------------------------- the library

void model::library_starts()
{
    std::lock_guard guard(mutex_);
    library_up_ = true;
    for (const uint64_t id : unmonitored_) {
        if (fxm_stop_monitor(id) != FXM_API_SUCCESS)
            log_->warning("card {} could not be taken out of monitoring again", format_id(id));
    }
}

void model::library_ended()
{
    std::vector<uint64_t> ids;
    {
        std::lock_guard guard(mutex_);
        library_up_ = false;
        for (const auto &[id, known] : cards_)
            ids.push_back(id);
    }
    for (size_t at = 0; at < ids.size();) {
        std::vector<event_draft> drafts;
        {
            std::lock_guard guard(mutex_);
            for (const size_t end = std::min(ids.size(), at + BATCH); at < end; ++at) {
                card *known = find(ids[at]);
                if (known == nullptr || known->gone)
                    continue;
                card next{known->id, copy(known->data), known->monitored, true};
                take_channels_down(&next.data);
                std::string changes;
                write_changes(&changes, *known, next);
                if (!changes.empty())
                    drafts.push_back(change_event(known, next, changes, {.kinds = KIND_CHANNEL}));
                replace(known, std::move(next));
            }
        }
        events_->append(drafts);
    }
}

void model::forget_lost()
{
    const int64_t limit = forget_after_ms_;
    if (limit == 0)
        return;
    std::vector<uint64_t> old;
    {
        const int64_t now = clock_ms();
        std::lock_guard guard(mutex_);
        for (const auto &[id, known] : cards_) {
            if (health_of(known) == health::lost && now - seen_ms(known.data) > limit)
                old.push_back(id);
        }
    }
    for (const uint64_t id : old) {
        if (remove(id) == FXM_API_SUCCESS)
            log_->info("card {} was lost for more than {} s and has been deleted", format_id(id), limit / 1000);
    }
}

// --------------------------------------------------------------------------------------------------------- the thread

void model::run()
{
    auto last_look = std::chrono::steady_clock::now();
    while (!stopping_) {
        look_at(dirty.take(IDLE));
        if (on_tick)
            on_tick();
        const auto now = std::chrono::steady_clock::now();
        if (now - last_look >= std::chrono::seconds(1)) {
            last_look = now;
            forget_lost();
        }
    }
}

} // namespace fxm

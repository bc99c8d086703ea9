#include "fleet/view.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "common/card_id.h"
#include "daemon/ring.h"
#include "fleet/document.h"
#include "fleet/names.h"

namespace fxm::fleet
{

namespace json = boost::json;

constexpr size_t OFFSETS = 12;        // beats, a minute of them
constexpr size_t PARSED_BYTES = 8192; // of the document of a card, without asking the heap

uint32_t site_numbers::total() const
{
    uint32_t sum = 0;
    for (const auto &of_class : cards) {
        for (const uint32_t count : of_class)
            sum += count;
    }
    return sum;
}

// ------------------------------------------------------------------------------------------------------------- cards

view::known_site &view::at(const std::string &name) { return sites_[name]; }

void view::count(known_site *of, const room_card &card, int by)
{
    uint32_t &entry = of->counts[static_cast<size_t>(card.known.kind)][static_cast<size_t>(card.known.state)];
    entry = static_cast<uint32_t>(static_cast<int>(entry) + by);
}

void view::take_card(const std::string &site, uint64_t id, std::string_view document, bool gone)
{
    std::array<unsigned char, PARSED_BYTES>
        memory; // NOLINT(cppcoreguidelines-pro-type-member-init): it is written first
    json::monotonic_resource resource(memory.data(), memory.size());
    const auto parsed = gone ? std::nullopt : object_of(document, &resource);
    room_card next;
    if (parsed)
        next = read_card(id, *parsed, document);
    std::lock_guard guard(mutex_);
    known_site &of = at(site);
    if (parsed && text_of(*parsed, "schema") != SCHEMA) {
        refuse(site, &of, text_of(*parsed, "schema"));
        return;
    }
    if (!gone && !parsed)
        return; // the bucket holds something else; the last good state stays
    const auto known = of.cards.find(id);
    if (known != of.cards.end())
        count(&of, known->second, -1);
    if (gone) {
        of.pending.erase(id);
        if (known != of.cards.end())
            of.cards.erase(known);
        return;
    }
    const auto pending = of.pending.find(id);
    if (pending != of.pending.end() && next.rev >= pending->second.last)
        of.pending.erase(pending);
    else if (pending != of.pending.end())
        pending->second.first = std::max(pending->second.first, next.rev + 1);
    next.reading = reading_;
    count(&of, next, 1);
    of.cards.insert_or_assign(known, id, std::move(next));
}

void view::begin_cards()
{
    std::lock_guard guard(mutex_);
    reading_ += 1;
}

void view::end_cards()
{
    std::lock_guard guard(mutex_);
    for (auto &[name, of] : sites_) {
        std::erase_if(of.cards, [this, &of = of](const auto &entry) {
            const bool is_old = entry.second.reading != reading_;
            if (is_old)
                count(&of, entry.second, -1);
            return is_old;
        });
    }
}

bool view::with_card(const place &where, const seen &see) const
{
    std::lock_guard guard(mutex_);
    const auto of = sites_.find(where.site);
    if (of == sites_.end())
        return false;
    const auto card = of->second.cards.find(where.id);
    if (card == of->second.cards.end())
        return false;
    see(where.site, state_of(of->second, clock::now()), card->second);
    return true;
}

std::optional<view::place> view::visit(const place &after, const std::string &of, size_t limit,
                                       const std::function<bool(const facts &)> &wanted, const seen &see) const
{
    const auto now = clock::now();
    std::lock_guard guard(mutex_);
    place last = after;
    for (auto site = sites_.lower_bound(of.empty() ? after.site : of); site != sites_.end(); ++site) {
        if (!of.empty() && site->first != of)
            break;
        const site_state state = state_of(site->second, now);
        auto card = site->second.cards.upper_bound(site->first == after.site ? after.id : 0);
        for (; card != site->second.cards.end(); ++card) {
            if (limit-- == 0)
                return last;
            last = {site->first, card->first};
            facts known = card->second.all_facts();
            if (state != site_state::live)
                known.state = health::silent;
            if (wanted(known))
                see(site->first, state, card->second);
        }
    }
    return std::nullopt;
}

// -------------------------------------------------------------------------------------------------------------- sites

void view::refuse(const std::string &name, known_site *of, std::string_view schema)
{
    if (!std::exchange(of->refused, true))
        log_->error("fleet: the site {} speaks \"{}\", and this room {}; its cards and events are left out", name,
                    schema, SCHEMA);
}

void view::take_site(const std::string &site, std::string_view document, int64_t time_ms, bool gone)
{
    auto parsed = gone ? std::nullopt : object_of(document);
    std::lock_guard guard(mutex_);
    if (gone) {
        sites_.erase(site);
        return;
    }
    if (!parsed)
        return;
    known_site &of = at(site);
    if (text_of(*parsed, "schema") != SCHEMA)
        refuse(site, &of, text_of(*parsed, "schema"));
    else
        of.refused = false;
    of.document = std::move(*parsed);
    of.document_ms = time_ms;
    of.document_boot = std::string(text_of(of.document, "boot"));
    if (!is_word(of.document_boot))
        of.document_boot.clear();
}

void view::take_beat(const std::string &site, std::string_view document, int64_t now_ms)
{
    const auto parsed = object_of(document);
    if (!parsed)
        return;
    std::lock_guard guard(mutex_);
    known_site &of = at(site);
    of.heard = clock::now();
    of.beat_seq = number_of(*parsed, "seq");
    of.waiting = number_of(*parsed, "waiting");
    of.told_cards = number_of(*parsed, "cards");
    // A clock that shows more is none.
    constexpr uint64_t MOST_MS = uint64_t{1} << 53;
    of.offsets.push_back(static_cast<int64_t>(std::min(number_of(*parsed, "time_ms"), MOST_MS)) - now_ms);
    if (of.offsets.size() > OFFSETS)
        of.offsets.pop_front();
}

site_state view::state_of(const known_site &of, clock::time_point now) const
{
    if (of.refused)
        return site_state::refused;
    if (of.heard)
        return now - *of.heard > SILENT_AFTER ? site_state::silent : site_state::live;
    return now - began_ > SILENT_AFTER ? site_state::silent : site_state::starting;
}

site_numbers view::numbers_of(const std::string &name, const known_site &of) const
{
    const auto now = clock::now();
    site_numbers made;
    made.site = name;
    made.state = state_of(of, now);
    made.age_ms = of.heard ? std::chrono::duration_cast<std::chrono::milliseconds>(now - *of.heard).count()
                           : std::max<int64_t>(0, clock_ms() - of.document_ms);
    // A beat that was under way for long makes the clock look late, never early.
    if (!of.offsets.empty())
        made.offset_ms = *std::max_element(of.offsets.begin(), of.offsets.end());
    made.document = of.document;
    made.boot = of.boot.empty() ? of.document_boot : of.boot;
    made.seq = std::max({of.beat_seq, of.number.value_or(0), number_of(of.document, "seq")});
    made.waiting = of.waiting;
    made.told_cards = of.told_cards;
    made.differs = of.differs_since && now - *of.differs_since > SILENT_AFTER;
    made.events = of.events;
    made.doubled = of.doubled;
    made.lost = of.lost;
    std::copy(&of.counts[0][0], &of.counts[0][0] + 2 * OWN_HEALTHS, &made.cards[0][0]);
    return made;
}

std::vector<site_numbers> view::sites() const
{
    std::lock_guard guard(mutex_);
    std::vector<site_numbers> made;
    for (const auto &[name, of] : sites_)
        made.push_back(numbers_of(name, of));
    return made;
}

std::optional<site_numbers> view::site(const std::string &name) const
{
    std::lock_guard guard(mutex_);
    const auto found = sites_.find(name);
    if (found == sites_.end())
        return std::nullopt;
    return numbers_of(name, found->second);
}

void view::tick()
{
    bool told = false;
    {
        const auto now = clock::now();
        std::lock_guard guard(mutex_);
        for (auto &[name, of] : sites_) {
            const site_state state = state_of(of, now);
            // Cards that are under way make a difference for a moment.
            if (state != site_state::live || of.told_cards == of.cards.size())
                of.differs_since.reset();
            else if (!of.differs_since)
                of.differs_since = now;
            if (state == of.told)
                continue;
            if (state == site_state::silent)
                log_->warning("fleet: the site {} is silent; its cards are shown as they were", name);
            else if (of.told == site_state::silent)
                log_->info("fleet: the site {} is {}", name, word(state));
            of.told = state;
            room_event event;
            event.time_ms = clock_ms();
            event.site = name;
            event.type = "site";
            event.text = fmt::format(R"({{"schema":"fxm/1","type":"site","time_ms":{},"site":"{}","state":"{}"}})",
                                     event.time_ms, name, word(state));
            append(std::move(event));
            told = true;
        }
    }
    if (told && notify_)
        notify_();
}

// ------------------------------------------------------------------------------------------------------------- events

void view::append(room_event event)
{
    event.number = ++last_;
    events_.push_back(std::make_shared<const room_event>(std::move(event)));
    if (events_.size() > KEPT)
        events_.pop_front();
}

view::hole view::hole_before(const batch &arrived) const
{
    std::lock_guard guard(mutex_);
    const auto of = sites_.find(arrived.site);
    if (of == sites_.end() || !of->second.number || arrived.previous <= *of->second.number || arrived.schema != SCHEMA)
        return {};
    return {*of->second.number + 1, std::min(arrived.previous, arrived.first - 1)};
}

room_event view::event_of(const batch &arrived, uint64_t seq, std::string type, std::string text)
{
    room_event made;
    made.time_ms = arrived.time_ms;
    made.site = arrived.site;
    made.boot = arrived.boot;
    made.seq = seq;
    made.type = std::move(type);
    made.text = std::move(text);
    return made;
}

void view::missing(const batch &arrived, known_site *of, uint64_t from, uint64_t to)
{
    of->lost += to - from + 1;
    of->number = to;
    append(event_of(arrived, to, "gap", gap_text(from, to)));
}

// What a change says of its card before and after it. What it does not say is as the room knows it.
static std::pair<facts, facts> facts_around(const json::object &change, facts known)
{
    for (const char *name : {"class", "vlan", "health"}) {
        if (const json::value *value = change.if_contains(name))
            set_fact(&known, name, *value);
    }
    std::pair<facts, facts> made{known, known};
    const json::value *changes = change.if_contains("changes");
    for (const auto &member : changes != nullptr && changes->is_object() ? changes->get_object() : json::object()) {
        const json::array *values = member.value().if_array();
        if (values == nullptr || values->size() != 2)
            continue;
        set_fact(&made.first, member.key(), values->at(0));
        set_fact(&made.second, member.key(), values->at(1));
    }
    return made;
}

static bool is_delete(const json::object &change)
{
    const json::value *kinds = change.if_contains("kinds");
    const json::array *words = kinds != nullptr ? kinds->if_array() : nullptr;
    return words != nullptr && std::find(words->begin(), words->end(), "delete") != words->end();
}

// The caller holds the mutex.
void view::take_line(const batch &arrived, known_site *of, std::string_view line)
{
    const auto parsed = object_of(line);
    if (!parsed)
        return;
    const std::string type(text_of(*parsed, "type"));
    const bool is_gap = type == "gap", begins_anew = type == "reset";
    const uint64_t number = number_of(*parsed, is_gap ? "to" : "seq");
    if (!begins_anew && of->number && number <= *of->number) {
        of->doubled += 1;
        return;
    }
    of->number = number;
    room_event event =
        event_of(arrived, number, type, has_control(line) ? json::serialize(*parsed) : std::string(line));
    event.breaks = begins_anew;
    if (begins_anew)
        of->pending.clear();
    else if (is_gap)
        of->lost += number - std::min(number, number_of(*parsed, "from")) + 1;
    else
        of->events += 1;
    const auto id = parse_id(text_of(*parsed, "card"));
    if (type == "change" && id) {
        const auto known = of->cards.find(*id);
        const bool is_known = known != of->cards.end();
        facts now = is_known ? known->second.all_facts() : facts{};
        now.id = *id;
        event.is_change = true;
        std::tie(event.before, event.after) = facts_around(*parsed, now);
        // The document of a card that is gone has gone before or will go; what was never there will not come.
        if (is_known ? known->second.rev < number : !is_delete(*parsed))
            of->pending.emplace(*id, span{number, number}).first->second.last = number;
        if (of->pending.size() > KEPT) // more than events are kept: nobody can be told them again
            of->pending.clear();
    }
    append(std::move(event));
}

void view::take_batch(const batch &arrived)
{
    {
        std::lock_guard guard(mutex_);
        known_site &of = at(arrived.site);
        if (arrived.schema != SCHEMA) {
            refuse(arrived.site, &of, arrived.schema);
            return;
        }
        if (!of.number) // the first one that this room sees; what was before it is not missed
            of.number = arrived.previous;
        if (arrived.previous > *of.number)
            missing(arrived, &of, *of.number + 1, std::min(arrived.previous, arrived.first - 1));
        of.boot = arrived.boot;
        std::string_view rest = arrived.lines;
        while (!rest.empty()) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(rest.size(), line.size() + 1));
            take_line(arrived, &of, line);
        }
    }
    if (notify_)
        notify_();
}

std::pair<std::string, uint64_t> view::position(const std::string &site) const
{
    std::lock_guard guard(mutex_);
    const auto found = sites_.find(site);
    if (found == sites_.end())
        return {};
    const known_site &of = found->second;
    uint64_t safe = of.number.value_or(number_of(of.document, "seq"));
    for (const auto &[id, changes] : of.pending)
        safe = std::min(safe, changes.first - 1);
    // A change that is pending for longer than events are kept would make every reader list again and again.
    const auto oldest = std::find_if(events_.begin(), events_.end(),
                                     [&](const auto &event) { return event->seq != 0 && event->site == site; });
    if (oldest != events_.end() && !of.pending.empty())
        safe = std::max(safe, (*oldest)->seq - 1);
    return {of.boot.empty() ? of.document_boot : of.boot, safe};
}

view::reading view::read(uint64_t after, size_t limit) const
{
    std::lock_guard guard(mutex_);
    reading made;
    const uint64_t oldest = last_ + 1 - events_.size();
    if (after + 1 < oldest) {
        made.gap_from = after + 1;
        made.gap_to = oldest - 1;
        after = oldest - 1;
    }
    for (uint64_t number = after + 1; number <= last_ && made.events.size() < limit; ++number)
        made.events.push_back(events_[static_cast<size_t>(number - oldest)]);
    return made;
}

uint64_t view::last() const
{
    std::lock_guard guard(mutex_);
    return last_;
}

uint64_t view::first() const
{
    std::lock_guard guard(mutex_);
    return last_ + 1 - events_.size();
}

std::optional<view::found> view::find(const std::string &site, const std::string &boot, uint64_t seq) const
{
    std::lock_guard guard(mutex_);
    const auto of = sites_.find(site);
    if (of == sites_.end() || (!of->second.boot.empty() && of->second.boot != boot))
        return std::nullopt;
    // From the newest one on: most readers are up to date.
    uint64_t place = last_;
    uint64_t next = of->second.number.value_or(seq) + 1; // number of the site behind the place
    for (auto event = events_.rbegin(); event != events_.rend(); ++event) {
        if ((*event)->site != site || (*event)->seq == 0)
            continue;
        if ((*event)->seq <= seq)
            return found{place, 0};
        if ((*event)->breaks)
            return std::nullopt;
        place = (*event)->number - 1;
        next = (*event)->seq;
    }
    // All that is kept is behind that number.
    return found{place, next > seq + 1 ? next - 1 : 0};
}

} // namespace fxm::fleet

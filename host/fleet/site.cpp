#include "fleet/site.h"

#include <boost/json.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

#include "common/card_id.h"
#include "daemon/card.h"
#include "daemon/status.h"
#include "fleet/names.h"
#include "fleet/streams.h"
#include "fxm.h"

namespace fxm::fleet
{

namespace json = boost::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr auto BATCH_EVERY = milliseconds(100); // a full batch goes at once
constexpr auto CARD_EVERY = seconds(1);         // of one card
// Cards are in flight by the hundred, as many as the servers answer in a moment: over a slow line, events would wait behind
// more of them until the server seemed to be silent.
constexpr size_t LEAST_IN_FLIGHT = 64;
constexpr size_t FIRST_IN_FLIGHT = 512;
constexpr size_t MOST_IN_FLIGHT = 2048;
constexpr auto QUICK = milliseconds(300); // all in flight were answered: twice as many
constexpr auto SLOW = milliseconds(600);  // half as many
constexpr int SILENCE_MS = 3000;          // of the server, after which another one is tried
constexpr int QUESTIONS = 6;              // within that time
constexpr auto BEAT_EVERY = seconds(5);
constexpr auto BEAT_SLICE = seconds(1); // of a wait
constexpr auto SITE_EVERY = seconds(30);
constexpr auto SITE_AT_MOST_EVERY = seconds(5);
constexpr auto COMPARE_EVERY = std::chrono::minutes(10);
constexpr auto LOSS_AFTER = seconds(30); // a follower may lag; after so long its answer counts
constexpr auto ASK_AGAIN = seconds(1);
constexpr auto CARDS_COME_WITHIN = seconds(20); // after a start, those that are there; a later one is stored again
constexpr auto TIDY_EVERY = seconds(1);         // what is known of cards that were sent
constexpr auto LOOK_EVERY = seconds(1);         // at what the document of the site says
constexpr uint64_t REQUESTS_QUEUE = UINT64_MAX; // at the executor, for requests alone: no card has this id

site::site(member_options options, services *all)
    : options_(std::move(options)), all_(all), feed_(all->events, all->past), desk_(all, options_.name, options_.allow),
      link_(options_, fmt::format("fxmd of {}", options_.name), "fxmd goes on, and sends what it has later", all->log),
      cards_cursor_(all->events->start_seq()), window_(FIRST_IN_FLIGHT)
{
    status_.site = options_.name;
}

site::~site() { stop(); }

void site::start()
{
    delete_at_ = clock::now() + CARDS_COME_WITHIN;
    thread_ = std::thread([this] { run(); });
}

void site::stop()
{
    link_.stop();
    if (thread_.joinable())
        thread_.join();
}

site_status site::status() const
{
    const desk_numbers requests = desk_.numbers();
    const link_status link = link_.status();
    std::lock_guard guard(mutex_);
    site_status now = status_;
    now.connected = link.connected;
    now.server = link.server;
    now.error = link.error;
    now.connects = link.connects;
    now.refused = link.refused;
    now.waiting = feed_.waiting(status_.sent);
    now.requests = requests;
    return now;
}

void site::run()
{
    for (bool goes_on = true; goes_on;) {
        try {
            if (!link_.connection())
                connect();
            serve();
            break; // the thread shall end
        } catch (const nats_error &failure) {
            link_.failed(failure.what());
            // One that is silent, or has gone, is left for the next. So is one that refuses all: it may be cut off from the
            // other servers.
            const bool useless = link_.servers() > 1 && clock::now() - confirmed_at_ > milliseconds(SILENCE_MS);
            if (!failure.refused || !link_.connection() || !link_.connection()->is_up() || useless)
                link_.use(nullptr);
        } catch (const std::exception &failure) {
            link_.failed(failure.what());
            link_.use(nullptr);
        }
        for (milliseconds left = link_.next_wait(); goes_on && left > milliseconds(0); left -= BEAT_SLICE) {
            goes_on = link_.pause(std::min<milliseconds>(left, BEAT_SLICE));
            send_beat();
        }
    }
    link_.use(nullptr);
}

void site::connect()
{
    const auto made = link_.open(true);
    // The answer goes over the connection that brought the request, if it is still there. A thread of libnats must not hold
    // the connection, whose end waits for that thread.
    made->subscribe(requests_subject(options_.name),
                    [this, on = made.get(), weak = std::weak_ptr(made)](const nats_message &request) {
                        const bool taken = all_->operations->submit(REQUESTS_QUEUE, [this, weak, request] {
                            desk_.take(request, [weak, log = all_->log](const nats_message &answer) {
                                try {
                                    if (const auto connection = weak.lock())
                                        connection->publish(answer);
                                } catch (const nats_error &failure) {
                                    log->warning("fleet: an answer could not be sent: {}", failure.what());
                                }
                            });
                        });
                        if (!taken)
                            desk_.turn_away(request, [on](const nats_message &answer) { on->publish(answer); });
                    });
    link_.use(made);
    link_.joined();
    give_up_in_flight();
    confirmed_at_ = clock::now();
    knows_cursor_ = made_streams_ = false;
    next_beat_ = next_site_ = next_compare_ = clock::now();
    site_text_.clear(); // the bucket of another server may be new
}

// ------------------------------------------------------------------------------------------------------------- events

static uint64_t number_of(const nats_message &message, const char *name)
{
    const std::string *text = message.header(name);
    uint64_t value = 0;
    if (text != nullptr)
        std::from_chars(text->data(), text->data() + text->size(), value);
    return value;
}

// Any server that holds the stream may be the one that answers, also one that is cut off from this one and cannot. So the
// question is put again before no answer means that there is no such stream.
std::optional<nats_message> site::last(const std::string &stream, const std::string &subject)
{
    for (int left = QUESTIONS;;) {
        try {
            return link_.connection()->last(stream, subject, SILENCE_MS / QUESTIONS);
        } catch (const nats_error &failure) {
            if (failure.refused || !link_.connection()->is_up())
                throw;
            if (--left != 0)
                continue;
            if (std::exchange(made_streams_, true))
                throw;
        }
        make_streams(link_.connection().get(), link_.servers(), SILENCE_MS, all_->log);
        left = QUESTIONS;
    }
}

// The stream knows best what it has. It may have lost what it had confirmed, when its machines lost power together; and a
// server that lags behind may answer, so a low number is asked for again for a while. Events wait for the answer, nothing
// else does.
void site::ask_cursor()
{
    const auto newest = last(EVENTS_STREAM, events_subject(options_.name));
    const uint64_t end = newest ? number_of(*newest, LAST) : 0;
    const auto now = clock::now();
    if (end < confirmed_) {
        if (!low_since_)
            low_since_ = now;
        if (now - *low_since_ < LOSS_AFTER) {
            knows_cursor_ = false;
            next_compare_ = now + ASK_AGAIN;
            return;
        }
    }
    low_since_.reset();
    next_compare_ = now + COMPARE_EVERY;
    if (!std::exchange(knows_cursor_, true))
        all_->log->info("fleet: {} takes what the site {} sends, from number {} on", link_.status().server,
                        options_.name, end + 1);
    if (end < confirmed_) {
        const uint64_t lost = confirmed_ - end;
        losses_ += 1;
        all_->log->warning(
            "fleet: the stream has lost {} numbers that it had confirmed, from {} on; they are sent again", lost,
            end + 1);
        std::lock_guard guard(mutex_);
        status_.resent_after_loss += lost;
    }
    if (frozen_ && (end >= frozen_->events.last || end != cursor_))
        frozen_.reset(); // it has arrived, or does not fit any more
    cursor_ = confirmed_ = end;
    if (end > all_->events->last_seq()) {
        // The numbers have begun anew: the state of this fxmd was lost.
        const uint64_t start = all_->events->start_seq();
        batch reset{start, start, 1,
                    fmt::format(R"({{"schema":"fxm/1","type":"reset","seq":{},"time_ms":{},"boot":"{}"}})", start,
                                clock_ms(), all_->boot) +
                        "\n",
                    0};
        all_->log->warning(
            "fleet: the stream has number {}, but this fxmd begins with {}; readers are told to begin anew", end,
            start);
        cursor_ = confirmed_ = 0;
        freeze(std::move(reset));
    }
    tell_sent();
}

// The cards of events that were sent wait from now on: nobody shall see the one without the other.
void site::tell_sent()
{
    mark_cards();
    std::lock_guard guard(mutex_);
    status_.sent = cursor_;
    status_.cards_waiting = to_send_.size() + in_flight_.size();
}

void site::freeze(batch next)
{
    nats_message made;
    made.subject = events_subject(options_.name);
    made.headers = {{ID, fmt::format("{}.{}{}.{}", options_.name, all_->boot,
                                     losses_ == 0 ? "" : fmt::format("-{}", losses_), next.first)},
                    {FIRST, std::to_string(next.first)},
                    {LAST, std::to_string(next.last)},
                    {PREVIOUS, std::to_string(cursor_)},
                    {SCHEMA_HEADER, SCHEMA}};
    made.data = std::move(next.text);
    next.text.clear();
    frozen_ = frozen{std::move(made), std::move(next)};
}

void site::confirm()
{
    cursor_ = confirmed_ = frozen_->events.last;
    confirmed_at_ = clock::now();
    tell_sent();
    std::lock_guard guard(mutex_);
    status_.batches += 1;
    status_.gaps += frozen_->events.lost;
    frozen_.reset();
}

// True if there is more.
bool site::send_events()
{
    if (!frozen_) {
        auto next = feed_.next(cursor_);
        if (!next)
            return false;
        freeze(std::move(*next));
    }
    const bool full =
        frozen_->events.events >= feed::MOST_EVENTS || frozen_->message.data.size() > feed::MOST_BYTES / 2;
    link_.connection()->store(frozen_->message, SILENCE_MS);
    confirm();
    return full;
}

// -------------------------------------------------------------------------------------------------------------- cards

void site::mark(uint64_t id)
{
    if (!std::exchange(cards_[id].dirty, true))
        to_send_.push_back(id);
}

void site::mark_all_cards()
{
    uint64_t next = 0;
    do {
        next = all_->cards->visit(
            next, 256, false, [](const card &) { return true; }, [this](const card &known) { mark(known.id); });
    } while (next != 0);
}

// What the ring tells of cards since the last look.
void site::mark_cards()
{
    for (;;) {
        const ring::batch read = all_->events->read(cards_cursor_, 1000);
        if (read.gap_to != 0) {
            cards_cursor_ = read.gap_to;
            mark_all_cards();
        }
        if (read.events.empty())
            return;
        for (const auto &event : read.events) {
            cards_cursor_ = event->seq;
            if (event->card != 0 && event->type == event_type::change)
                mark(event->card);
        }
    }
}

// A bucket that is new, was emptied, or was filled by an earlier run of fxmd is filled anew. Any card tells.
void site::look_at_bucket()
{
    uint64_t id = 0;
    all_->cards->visit(
        0, 1, false, [](const card &) { return true; }, [&id](const card &known) { id = known.id; });
    if (id == 0)
        return;
    const auto stored = last(cards_stream(BUCKET), card_subject(BUCKET, options_.name, id));
    const std::string own = fmt::format(R"("boot":"{}")", all_->boot);
    if (!stored || stored->data.find(own) == std::string::npos)
        mark_all_cards();
}

// A card that was deleted, or has not come back, while no fxmd ran would stay in the bucket for ever. The history knows it.
void site::delete_cards_of_the_past()
{
    delete_at_.reset();
    if (all_->past == nullptr)
        return;
    try {
        all_->past->query_cards([this](uint64_t id) {
            if (!all_->cards->knows(id))
                mark(id);
        });
    } catch (const api_error &failure) {
        all_->log->warning("fleet: cards that are gone may stay in the bucket: {}", failure.what());
    }
}

// Empty if the card is gone.
std::string site::card_document(uint64_t id, uint64_t rev)
{
    std::string text;
    try {
        all_->cards->with_card(id, [&](const card &known) {
            text =
                fmt::format(R"({{"schema":"fxm/1","site":"{}","boot":"{}","rev":{},)", options_.name, all_->boot, rev);
            write_brief(&text, known);
            text += '}';
        });
    } catch (const api_error &) {
        text.clear();
    }
    return text;
}

// Whether they were stored, nobody will say.
void site::give_up_in_flight()
{
    for (const auto &[number, id] : in_flight_)
        mark(id);
    in_flight_.clear();
    window_ = FIRST_IN_FLIGHT;
    probe_ = 0;
    cards_answered_ = clock::now();
}

// A full window was under way for so long.
void site::adapt(clock::duration took)
{
    if (took < QUICK)
        window_ = std::min(window_ * 2, MOST_IN_FLIGHT);
    else if (took > SLOW)
        window_ = std::max(window_ / 2, LEAST_IN_FLIGHT);
}

// What the bucket has said of cards that were sent, once there are so many answers or after a moment. Throws if it did not
// take one, or says nothing any more.
void site::take_outcomes(size_t wanted)
{
    constexpr int WAIT_MS = 100; // events and beats go on meanwhile
    size_t stored = 0, refused = 0;
    for (const nats_outcome &outcome : link_.connection()->outcomes(wanted, WAIT_MS)) {
        const auto sent = in_flight_.find(outcome.number);
        if (sent == in_flight_.end())
            continue;
        if (outcome.number == probe_) {
            adapt(outcome.came - probed_at_);
            probe_ = 0;
        }
        if (!outcome.stored)
            mark(sent->second);
        (outcome.stored ? stored : refused) += 1;
        in_flight_.erase(sent);
    }
    const auto now = clock::now();
    if (stored != 0)
        confirmed_at_ = now;
    if (stored + refused != 0 || in_flight_.empty())
        cards_answered_ = now;
    {
        std::lock_guard guard(mutex_);
        status_.cards += stored;
        status_.cards_waiting = to_send_.size() + in_flight_.size();
    }
    if (refused == 0 && now - cards_answered_ <= milliseconds(SILENCE_MS))
        return;
    const std::string why = link_.connection()->take_refusal();
    const size_t count = refused != 0 ? refused : in_flight_.size();
    give_up_in_flight();
    throw nats_error(fmt::format("{} cards were not stored{}{}", count, why.empty() ? "" : ": ", why), !why.empty());
}

// Fills what may be in flight; true if there are more that may go now.
bool site::send_cards()
{
    take_outcomes(0);
    const auto now = clock::now();
    // All events up to here are in the documents that are read from now on.
    const uint64_t rev = all_->events->last_seq();
    if (now >= next_tidy_) {
        std::erase_if(cards_, [now](const auto &entry) { return !entry.second.dirty && entry.second.earliest <= now; });
        next_tidy_ = now + TIDY_EVERY;
    }
    for (size_t left = to_send_.size(); left != 0 && in_flight_.size() < window_; --left) {
        const uint64_t id = to_send_.front();
        to_send_.pop_front();
        card_state &state = cards_[id];
        if (state.earliest > now) {
            to_send_.push_back(id);
            continue;
        }
        nats_message made;
        made.subject = card_subject(BUCKET, options_.name, id);
        made.data = card_document(id, rev);
        if (made.data.empty())
            made.headers = {{"KV-Operation", "DEL"}};
        state = {false, now + CARD_EVERY};
        in_flight_.emplace(++card_number_, id);
        link_.connection()->send_to_store(std::move(made), card_number_);
        if (probe_ == 0 && in_flight_.size() == window_) {
            probe_ = card_number_;
            probed_at_ = clock::now();
        }
    }
    const bool is_full = in_flight_.size() >= window_;
    if (is_full)
        take_outcomes(window_ / 2);
    return is_full;
}

// ---------------------------------------------------------------------------------------------------------- the site

void site::send_site()
{
    const auto now = clock::now();
    if (now < next_site_)
        return;
    next_site_ = now + LOOK_EVERY;
    json::object made = status_document(*all_);
    json::object document{{"schema", SCHEMA},       {"site", options_.name},  {"version", FXM_VERSION},
                          {"boot", all_->boot},     {"bucket", BUCKET},       {"allow", word(options_.allow)},
                          {"cards", made["cards"]}, {"ports", made["ports"]}, {"library", made["library"]}};
    // What changes by itself all the time does not count as a change.
    json::object steady = document;
    json::array states;
    for (const json::value &port : made["ports"].as_array())
        states.push_back(port.at("state"));
    steady["ports"] = states;
    std::string text = json::serialize(steady);
    if (text == site_text_ && now - last_site_ < SITE_EVERY)
        return;
    document["seq"] = all_->events->last_seq();
    document["time_ms"] = clock_ms();
    nats_message message;
    message.subject = site_subject(options_.name);
    message.data = json::serialize(document);
    link_.connection()->store(message, SILENCE_MS);
    site_text_ = std::move(text);
    confirmed_at_ = clock::now();
    last_site_ = now;
    next_site_ = now + SITE_AT_MOST_EVERY;
}

// Between all that may wait for a stream: a site that waits is not silent.
void site::send_beat()
{
    const auto now = clock::now();
    if (now < next_beat_ || !link_.connection() || !link_.connection()->is_up())
        return;
    next_beat_ = now + BEAT_EVERY;
    nats_message message;
    message.subject = beat_subject(options_.name);
    message.data = fmt::format(
        R"({{"schema":"fxm/1","site":"{}","boot":"{}","seq":{},"cards":{},"waiting":{},"time_ms":{}}})", options_.name,
        all_->boot, all_->events->last_seq(), all_->cards->totals().all(), feed_.waiting(cursor_), clock_ms());
    try {
        link_.connection()->publish(message);
    } catch (const nats_error &) { // what comes next finds the same, and says so
    }
}

// Until the thread shall end; throws what keeps it from going on.
void site::serve()
{
    for (;;) {
        if (!link_.connection()->is_up()) {
            const std::string why = link_.connection()->take_refusal();
            throw nats_error(
                fmt::format("{} has closed the connection{}{}", link_.status().server, why.empty() ? "" : ": ", why),
                false);
        }
        const auto began = clock::now();
        send_beat();
        const bool compares = began >= next_compare_;
        if (compares)
            ask_cursor();
        send_beat();
        bool more = knows_cursor_ && send_events();
        send_beat();
        if (compares)
            look_at_bucket();
        send_beat();
        mark_cards();
        if (delete_at_ && began >= *delete_at_)
            delete_cards_of_the_past();
        more = send_cards() || more;
        send_beat();
        send_site();
        link_.works();
        const auto left = BATCH_EVERY - std::chrono::duration_cast<milliseconds>(clock::now() - began);
        if (!link_.pause(more ? milliseconds(0) : std::max(left, milliseconds(1))))
            return;
    }
}

} // namespace fxm::fleet

#include "fleet/room.h"

#include <boost/json.hpp>
#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "common/card_id.h"
#include "daemon/api.h"
#include "fleet/names.h"
#include "fleet/streams.h"

namespace fxm::fleet
{

namespace json = boost::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int ROOM_SILENCE_MS = 3000; // of the server, after which another one is tried
constexpr auto ROUND = milliseconds(200);
constexpr auto PROBE_EVERY = seconds(5); // a server that is cut from the others goes on sending, but knows no stream
constexpr uint64_t BATCHES_OF_THE_PAST = 2000; // that a room reads when it starts
constexpr size_t FILL_ROUNDS = 20;             // of 500 events
constexpr int FILL_MS = 1500;                  // for the history of a site
constexpr int READ_MS = 30000;                 // for an answer; a card that is silent takes seconds
constexpr int WRITE_MS = 130000;               // writes are tried again, up to a hundred times

room::room(member_options options, services *all)
    : options_(std::move(options)), all_(all), view_(all->log),
      link_(options_, fmt::format("room {}", options_.name), "the room goes on, and shows what it knows", all->log)
{
    view_.on_append([this] { all_->server->events_appended(); });
}

room::~room() { stop(); }

void room::start()
{
    thread_ = std::thread([this] { run(); });
}

void room::stop()
{
    link_.stop();
    if (thread_.joinable())
        thread_.join();
}

room_status room::status() const
{
    return {link_.status(), cards_read_, cards_wanted_, filled_, good_, failed_, unanswered_};
}

bool room::turns() const
{
    constexpr int64_t STUCK_MS = 30000; // a server that does not answer may hold it for a while
    return std::abs(clock_ms() - turned_ms_.load()) < STUCK_MS;
}

void room::run()
{
    bool goes_on = true;
    while (goes_on) {
        try {
            connect();
            auto next_probe = std::chrono::steady_clock::now() + PROBE_EVERY;
            while ((goes_on = link_.pause(ROUND))) {
                turned_ms_ = clock_ms();
                view_.tick();
                if (!link_.connection()->is_up() || !link_.connection()->reads_well())
                    throw nats_error(fmt::format("{} has gone, or tells nothing any more", link_.status().server),
                                     false);
                if (std::chrono::steady_clock::now() < next_probe)
                    continue;
                link_.connection()->about(EVENTS_STREAM, ROOM_SILENCE_MS);
                link_.works();
                next_probe = std::chrono::steady_clock::now() + PROBE_EVERY;
            }
        } catch (const std::exception &failure) {
            link_.failed(failure.what());
            link_.use(nullptr);
            turned_ms_ = clock_ms();
            view_.tick();
            goes_on = link_.pause(link_.next_wait());
        }
    }
    link_.use(nullptr);
}

void room::connect()
{
    const auto made = link_.open(false);
    link_.use(made); // requests can go; a stop ends what follows
    make_streams(made.get());
    made->subscribe(beat_subject("*"), [this](const nats_message &beat) {
        const std::string site = beat.subject.substr(beat_subject("").size());
        if (is_site(site))
            view_.take_beat(site, beat.data, clock_ms());
    });
    follow_sites(made.get());
    follow_cards(made.get());
    follow_events(made.get());
    link_.joined();
}

// A stream that is not there does not answer.
void room::make_streams(nats_connection *connection) const
{
    try {
        connection->about(EVENTS_STREAM, ROOM_SILENCE_MS);
        connection->about(cards_stream(BUCKET), ROOM_SILENCE_MS);
        connection->about(SITES_STREAM, ROOM_SILENCE_MS);
    } catch (const nats_error &failure) {
        if (!failure.refused)
            throw;
        fleet::make_streams(connection, link_.servers(), ROOM_SILENCE_MS, all_->log);
    }
}

static bool is_deleted(const nats_message &message)
{
    const std::string *operation = message.header("KV-Operation");
    return operation != nullptr && *operation != "PUT";
}

// The place of the names in $KV.BUCKET.SITE.ID.
static std::string_view word_of(std::string_view subject, size_t index)
{
    for (; index != 0; --index) {
        const size_t dot = subject.find('.');
        if (dot == std::string_view::npos)
            return {};
        subject.remove_prefix(dot + 1);
    }
    return subject.substr(0, subject.find('.'));
}

// What an earlier connection still hands over comes too late: readings are of the newest one.
template <typename Take> static auto only_of(const std::atomic<uint64_t> *current, Take take)
{
    return [current, mine = current->load(), take = std::move(take)](nats_entry entry) {
        if (*current == mine)
            take(std::move(entry));
    };
}

void room::follow_sites(nats_connection *connection)
{
    reading_ += 1;
    connection->follow(SITES_STREAM, site_subject(">"), 0, only_of(&reading_, [this](const nats_entry &entry) {
                           const std::string site(word_of(entry.message.subject, 2));
                           if (is_site(site))
                               view_.take_site(site, entry.message.data, entry.time_ms, is_deleted(entry.message));
                       }));
}

void room::follow_cards(nats_connection *connection)
{
    const std::string stream = cards_stream(BUCKET);
    const nats_stream now = connection->about(stream, ROOM_SILENCE_MS);
    // The reading goes on where it was, unless the bucket is another one or has lost its end.
    const bool goes_on = cards_.created == now.created && cards_.last != 0 && cards_.last <= now.last;
    if (!goes_on) {
        view_.begin_cards();
        cards_.created = now.created;
        cards_.last = 0;
        cards_read_ = 0;
        sweeps_ = true;
    }
    // All of the bucket: it keeps the last message of each card, and a server looks for a million of those for 10 s.
    const uint64_t there = connection->follow(
        stream, "", goes_on ? cards_.last + 1 : 1, only_of(&reading_, [this](const nats_entry &entry) {
            const std::string site(word_of(entry.message.subject, 2));
            const auto id = parse_id(word_of(entry.message.subject, 3));
            if (id && is_site(site))
                view_.take_card(site, *id, entry.message.data, is_deleted(entry.message));
            cards_.last = entry.number;
            cards_read_ += 1;
            if (entry.left == 0) {
                cards_wanted_ = 0;
                if (sweeps_.exchange(false))
                    view_.end_cards();
            }
        }));
    if (there == 0 && sweeps_.exchange(false))
        view_.end_cards();
    else if (sweeps_)
        cards_wanted_ = there;
}

void room::follow_events(nats_connection *connection)
{
    const nats_stream now = connection->about(EVENTS_STREAM, ROOM_SILENCE_MS);
    uint64_t from = events_.last + 1;
    if (events_.created != now.created || events_.last == 0)
        from = std::max(now.first, now.last - std::min(now.last, BATCHES_OF_THE_PAST) + 1);
    else if (events_.last > now.last) // it has lost its end, and the sites send that again
        from = now.last + 1;
    events_.created = now.created;
    events_.last = std::max<uint64_t>(from, 1) - 1;
    connection->follow(EVENTS_STREAM, events_subject(">"), std::max<uint64_t>(from, 1),
                       only_of(&reading_, [this, connection](const nats_entry &entry) {
                           take_events(connection, entry);
                           events_.last = entry.number;
                       }));
}

static uint64_t header_number(const nats_message &message, const char *name)
{
    const std::string *text = message.header(name);
    return text != nullptr ? std::strtoull(text->c_str(), nullptr, 10) : 0;
}

void room::take_events(nats_connection *connection, const nats_entry &entry)
{
    view::batch arrived;
    arrived.site = word_of(entry.message.subject, 2);
    arrived.time_ms = entry.time_ms;
    arrived.first = header_number(entry.message, FIRST);
    arrived.last = header_number(entry.message, LAST);
    arrived.previous = header_number(entry.message, PREVIOUS);
    arrived.lines = entry.message.data;
    if (const std::string *schema = entry.message.header(SCHEMA_HEADER))
        arrived.schema = *schema;
    // SITE.BOOT.FIRST, and SITE.BOOT-2.FIRST after two losses of the stream.
    if (const std::string *id = entry.message.header(ID)) {
        const std::string_view boot = word_of(*id, 1);
        arrived.boot = boot.substr(0, boot.find('-'));
    }
    if (arrived.first == 0 || arrived.last < arrived.first || !is_site(arrived.site) || !is_word(arrived.boot))
        return; // nobody of the fleet has sent it
    const view::hole missing = view_.hole_before(arrived);
    if (missing.from != 0)
        fill(connection, arrived, missing);
    view_.take_batch(arrived);
}

// Asks the site for what the stream has not: its history is the record.
void room::fill(nats_connection *connection, const view::batch &before, view::hole missing)
{
    const auto of = view_.site(before.site);
    if (!of || of->state == site_state::silent || of->state == site_state::refused)
        return;
    try {
        // The other sites wait meanwhile.
        for (size_t rounds = 0; missing.from <= missing.to && rounds < FILL_ROUNDS; ++rounds) {
            http_request question;
            question.method = "GET";
            question.path = "/v1/history";
            question.query = {{"after_seq", std::to_string(missing.from - 1)}, {"limit", "500"}};
            const nats_message answer = connection->ask(request_to(before.site, role::view, question), FILL_MS);
            const json::value parsed = json::parse(answer.data);
            view::batch found = before;
            found.previous = missing.from - 1;
            std::string lines;
            for (const json::value &event : parsed.at("events").as_array()) {
                const json::value *seq = event.as_object().if_contains("seq");
                const uint64_t number = seq != nullptr ? seq->to_number<uint64_t>() : 0;
                if (number < missing.from || number > missing.to)
                    continue;
                lines += json::serialize(event) + "\n";
                found.last = number;
                filled_ += 1;
            }
            if (lines.empty())
                return;
            found.first = missing.from;
            found.lines = lines;
            view_.take_batch(found);
            missing.from = found.last + 1;
        }
    } catch (const std::exception &failure) {
        all_->log->warning("fleet: the numbers {} to {} of the site {} are missing: {}", missing.from, missing.to,
                           before.site, failure.what());
    }
}

// ----------------------------------------------------------------------------------------------------------- requests

static std::string encoded(std::string_view text)
{
    constexpr std::string_view PLAIN = "-._~:";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || PLAIN.find(c) != std::string_view::npos)
            out += c;
        else
            out += fmt::format("%{:02X}", byte);
    }
    return out;
}

static std::string path_of(const http_request &request)
{
    std::string made;
    std::string_view rest = request.path;
    while (!rest.empty()) {
        const std::string_view part = rest.substr(1, rest.find('/', 1) - 1);
        made += "/" + encoded(part);
        rest.remove_prefix(std::min(rest.size(), part.size() + 1));
    }
    char mark = '?';
    for (const auto &[name, value] : request.query) {
        made += fmt::format("{}{}={}", std::exchange(mark, '&'), encoded(name), encoded(value));
    }
    return made;
}

nats_message room::request_to(const std::string &site, role as, const http_request &request) const
{
    uint64_t random[2] = {};
    if (getrandom(random, sizeof(random), 0) != sizeof(random))
        throw api_error("FXM_API_ENOMEM", "the system gives no random number");
    const auto known = view_.site(site);
    const int64_t offset = known && known->offset_ms ? *known->offset_ms : 0;
    nats_message made;
    made.subject = fmt::format("fxm.api.{}.{}.{}", site, word(as), options_.name);
    made.headers = {{REQUEST_ID, fmt::format("{:016x}{:016x}", random[0], random[1])},
                    {DEADLINE, std::to_string(clock_ms() + offset + DEADLINE_MS)}, // by the clock of the site
                    {METHOD, request.method},
                    {PATH, path_of(request)}};
    if (!request.accept.empty())
        made.headers.emplace_back("Accept", request.accept);
    if (!request.who.user.empty())
        made.headers.emplace_back(FOR, request.who.user);
    made.data = request.body;
    return made;
}

http_reply room::ask(const std::string &site, role as, const http_request &request)
{
    const auto known = view_.site(site);
    if (!known)
        throw api_error("FXM_API_ENOENT", fmt::format("there is no site {}", site), "GET /v1/sites lists them");
    const std::shared_ptr<nats_connection> connection = link_.now();
    if (!connection)
        throw api_error("FXM_API_ENOLINK", fmt::format("this room reaches no server: {}", link_.status().error),
                        "see fxmctl fleet doctor");
    if (known->state == site_state::refused)
        throw api_error("FXM_API_ENOLINK", fmt::format("the site {} speaks another schema", site),
                        "nothing was done; bring site and room to one version");
    if (known->state == site_state::silent)
        throw api_error("FXM_API_ENOLINK",
                        fmt::format("the site {} has been silent for {} s", site, known->age_ms / 1000),
                        "nothing was done; see fxmctl fleet doctor");
    try {
        const bool reads = request.method == "GET" || request.method == "HEAD";
        nats_message answer = connection->ask(request_to(site, as, request), reads ? READ_MS : WRITE_MS);
        http_reply reply;
        const std::string *status = answer.header(STATUS);
        const std::string *type = answer.header(TYPE);
        if (status == nullptr || type == nullptr)
            throw api_error("FXM_API_EPROTO", fmt::format("the answer of the site {} has no status", site));
        reply.status = std::atoi(status->c_str());
        reply.type = *type;
        reply.body = std::move(answer.data);
        if (const std::string *position = answer.header("Fxm-Position"))
            reply.headers.emplace_back("Fxm-Position", *position);
        (reply.status < 400 ? good_ : failed_) += 1;
        return reply;
    } catch (const nats_error &failure) {
        unanswered_ += 1;
        if (failure.refused)
            throw api_error("FXM_API_ENOLINK", fmt::format("the site {} cannot be asked: {}", site, failure.what()),
                            "nothing was done");
        throw api_error("FXM_API_ETIMEDOUT", fmt::format("the site {} has not answered: {}", site, failure.what()),
                        request.method == "GET" ? "" : "whether it was done, its log tells");
    }
}

} // namespace fxm::fleet

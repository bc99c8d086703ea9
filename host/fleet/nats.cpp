#include "fleet/nats.h"

#include <boost/json.hpp>
#include <dlfcn.h>
#include <fmt/format.h>
#include <nats/nats.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace fxm
{

namespace json = boost::json;

// ------------------------------------------------------------------------------------------------------------- libnats

// NOLINTBEGIN(bugprone-macro-parentheses): what stands there are names
struct libnats {
#define FXM_NATS_FUNCTIONS(X)                                                                                          \
    X(natsStatus_GetText)                                                                                              \
    X(natsOptions_Create)                                                                                              \
    X(natsOptions_Destroy)                                                                                             \
    X(natsOptions_SetURL)                                                                                              \
    X(natsOptions_SetName)                                                                                             \
    X(natsOptions_SetTimeout)                                                                                          \
    X(natsOptions_SetAllowReconnect)                                                                                   \
    X(natsOptions_SetSendAsap)                                                                                         \
    X(natsOptions_SetIOBufSize)                                                                                        \
    X(natsOptions_SetPingInterval)                                                                                     \
    X(natsOptions_SetWriteDeadline)                                                                                    \
    X(natsOptions_SetIgnoreDiscoveredServers)                                                                          \
    X(natsOptions_UseGlobalMessageDelivery)                                                                            \
    X(natsOptions_SetCustomInboxPrefix)                                                                                \
    X(natsOptions_SetErrorHandler)                                                                                     \
    X(natsOptions_SetClosedCB)                                                                                         \
    X(natsOptions_SetSecure)                                                                                           \
    X(natsOptions_LoadCATrustedCertificates)                                                                           \
    X(natsOptions_LoadCertificatesChain)                                                                               \
    X(natsConnection_Connect)                                                                                          \
    X(natsConnection_Close)                                                                                            \
    X(natsConnection_Destroy)                                                                                          \
    X(natsConnection_Status)                                                                                           \
    X(natsConnection_GetLastError)                                                                                     \
    X(natsConnection_PublishMsg)                                                                                       \
    X(natsConnection_RequestMsg)                                                                                       \
    X(natsConnection_Subscribe)                                                                                        \
    X(natsSubscription_Destroy)                                                                                        \
    X(natsSubscription_Unsubscribe)                                                                                    \
    X(natsSubscription_SetPendingLimits)                                                                               \
    X(natsSubscription_QueuedMsgs)                                                                                     \
    X(natsSubscription_SetOnCompleteCB)                                                                                \
    X(natsMsg_Create)                                                                                                  \
    X(natsMsg_Destroy)                                                                                                 \
    X(natsMsg_GetSubject)                                                                                              \
    X(natsMsg_GetReply)                                                                                                \
    X(natsMsg_GetData)                                                                                                 \
    X(natsMsg_GetDataLength)                                                                                           \
    X(natsMsg_IsNoResponders)                                                                                          \
    X(natsMsgHeader_Set)                                                                                               \
    X(natsMsgHeader_Get)                                                                                               \
    X(natsMsgHeader_Keys)
#define X(name) decltype(&::name) name;
    FXM_NATS_FUNCTIONS(X)
#undef X

    libnats()
    {
        // It stays: its threads may run until the process ends.
        void *library = dlopen(FXM_LIBNATS, RTLD_NOW | RTLD_NODELETE);
        if (library == nullptr)
            throw std::runtime_error(fmt::format("the fleet takes libnats, which cannot be loaded: {}; install the "
                                                 "package " FXM_LIBNATS_PACKAGE,
                                                 dlerror()));
#define X(name)                                                                                                        \
    name = reinterpret_cast<decltype(&::name)>(dlsym(library, #name));                                                 \
    if (name == nullptr)                                                                                               \
        throw std::runtime_error(FXM_LIBNATS " has no function " #name "; install the package " FXM_LIBNATS_PACKAGE);
        FXM_NATS_FUNCTIONS(X)
#undef X
    }
};
// NOLINTEND(bugprone-macro-parentheses)

static const libnats &nats()
{
    static const libnats loaded;
    return loaded;
}

// ------------------------------------------------------------------------------------------------------------- messages

struct message_closer {
    void operator()(natsMsg *message) const { nats().natsMsg_Destroy(message); }
};
using message_handle = std::unique_ptr<natsMsg, message_closer>;

static void check(natsStatus status, const std::string &what)
{
    if (status != NATS_OK)
        throw nats_error(fmt::format("{}: {}", what, nats().natsStatus_GetText(status)), status == NATS_NOT_PERMITTED);
}

const std::string *nats_message::header(std::string_view name) const
{
    const auto found =
        std::find_if(headers.begin(), headers.end(), [&](const auto &header) { return header.first == name; });
    return found != headers.end() ? &found->second : nullptr;
}

static message_handle handle_of(const nats_message &message)
{
    natsMsg *made = nullptr;
    check(nats().natsMsg_Create(&made, message.subject.c_str(), message.reply.empty() ? nullptr : message.reply.c_str(),
                                message.data.data(), static_cast<int>(message.data.size())),
          message.subject);
    message_handle handle(made);
    for (const auto &[name, value] : message.headers)
        check(nats().natsMsgHeader_Set(made, name.c_str(), value.c_str()), message.subject);
    return handle;
}

static nats_message message_of(natsMsg *handle)
{
    nats_message made;
    const auto text = [](const char *from) { return std::string(from != nullptr ? from : ""); };
    made.subject = text(nats().natsMsg_GetSubject(handle));
    made.reply = text(nats().natsMsg_GetReply(handle));
    made.data.assign(nats().natsMsg_GetData(handle), static_cast<size_t>(nats().natsMsg_GetDataLength(handle)));
    const char **names = nullptr;
    int count = 0;
    if (nats().natsMsgHeader_Keys(handle, &names, &count) == NATS_OK) {
        for (int i = 0; i < count; ++i) {
            const char *value = nullptr;
            if (nats().natsMsgHeader_Get(handle, names[i], &value) == NATS_OK)
                made.headers.emplace_back(names[i], text(value));
        }
        free(names); // NOLINT(cppcoreguidelines-no-malloc): libnats says so
    }
    return made;
}

// ----------------------------------------------------------------------------------------------------------- connection

struct nats_connection::handles {
    struct subscription {
        natsSubscription *handle = nullptr;
        std::function<void(nats_message)> see;
        std::vector<message_handle> spent; // of its thread
        int spent_bytes = 0;
    };

    // Of one stream; its thread writes, any thread reads.
    struct reading {
        natsSubscription *handle = nullptr;
        uint64_t next = 1; // number of the delivery
        std::atomic<bool> given_up{false};
        std::atomic<bool> broken{false};
        std::atomic<int64_t> heard_ms{0};
    };

    std::string inbox, readings_inbox;
    natsConnection *connection = nullptr;
    std::vector<std::unique_ptr<subscription>> subscriptions;
    std::vector<std::unique_ptr<reading>> readings; // whoever owns the connection adds to them

    std::mutex mutex; // guards what follows
    std::condition_variable confirmed;
    std::string refusal;
    std::vector<nats_outcome> outcomes; // that nobody has asked for yet
    size_t wanted = 0;                  // so many somebody waits for
    bool closed = false;
    size_t callers = 0; // of our functions: subscriptions and the connection, until they say that it was the last time

    // On threads of libnats.
    static void on_error(natsConnection *connection, natsSubscription *, natsStatus status, void *self)
    {
        const char *text = nullptr;
        nats().natsConnection_GetLastError(connection, &text);
        auto *of = static_cast<handles *>(self);
        std::lock_guard guard(of->mutex);
        of->refusal = text != nullptr && *text != '\0' ? text : nats().natsStatus_GetText(status);
    }
    static void on_message(natsConnection *, natsSubscription *, natsMsg *message, void *to)
    {
        message_handle owner(message);
        auto *of = static_cast<subscription *>(to);
        try {
            of->see(message_of(message));
            // libnats wakes another thread to free a message, which costs as much as to take one: some go at once.
            constexpr size_t MOST_SPENT = 64;
            constexpr int MOST_SPENT_BYTES = 65536;
            of->spent_bytes += nats().natsMsg_GetDataLength(message);
            of->spent.push_back(std::move(owner));
            if (of->spent.size() >= MOST_SPENT || of->spent_bytes > MOST_SPENT_BYTES) {
                of->spent.clear();
                of->spent_bytes = 0;
            }
        } catch (const std::exception &) { // there is no memory for it; whoever has sent it gets no answer
        }
    }
    static void on_end(void *self)
    {
        auto *of = static_cast<handles *>(self);
        std::lock_guard guard(of->mutex);
        of->callers -= 1;
        of->confirmed.notify_all();
    }
    void on_confirmation(const nats_message &answer);
    std::string take_refusal_of(const std::string &subject);
    natsSubscription *subscribe(const std::string &subject, std::function<void(nats_message)> see);

    ~handles()
    {
        for (const auto &entry : subscriptions)
            nats().natsSubscription_Destroy(entry->handle);
        if (connection == nullptr)
            return;
        nats().natsConnection_Destroy(connection);
        std::unique_lock guard(mutex);
        confirmed.wait(guard, [this] { return callers == 0; });
    }
};

// Throws unless the stream has confirmed: {"stream":"FXM_EVENTS","seq":17}, or {"error":{"description":"..."}}.
static void check_confirmation(const nats_message &answer, const std::string &subject)
{
    boost::system::error_code error;
    const json::value parsed = json::parse(answer.data, error);
    const json::object *members = error ? nullptr : parsed.if_object();
    const json::value *failure = members != nullptr ? members->if_contains("error") : nullptr;
    const json::object *told = failure != nullptr ? failure->if_object() : nullptr;
    if (told != nullptr && told->contains("description"))
        throw nats_error(fmt::format("{}: {}", subject, json::serialize(told->at("description"))), true);
    if (members == nullptr || !members->contains("seq"))
        throw nats_error(fmt::format("{}: no confirmation of a stream: \"{:.100}\"", subject, answer.data), true);
}

void nats_connection::handles::on_confirmation(const nats_message &answer)
{
    // INBOX.NUMBER
    nats_outcome outcome{std::strtoull(answer.subject.c_str() + inbox.size() + 1, nullptr, 10), true,
                         std::chrono::steady_clock::now()};
    std::string why;
    try {
        check_confirmation(answer, "cards");
    } catch (const nats_error &failure) {
        outcome.stored = false;
        why = failure.what();
    }
    std::lock_guard guard(mutex);
    outcomes.push_back(outcome);
    if (!outcome.stored)
        refusal = why;
    if (outcomes.size() >= wanted)
        confirmed.notify_all();
}

nats_connection::nats_connection(const nats_options &options) : handles_(std::make_unique<handles>())
{
    natsOptions *made = nullptr;
    check(nats().natsOptions_Create(&made), options.url);
    const std::unique_ptr<natsOptions, void (*)(natsOptions *)> owner(
        made, [](natsOptions *of) { nats().natsOptions_Destroy(of); });
    constexpr int BUFFER = 65536;
    constexpr int64_t PING_MS = 20000;
    constexpr int64_t WRITE_MS = 2000;
    const auto set = [&](natsStatus status) { check(status, options.url); };
    set(nats().natsOptions_SetURL(made, options.url.c_str()));
    set(nats().natsOptions_SetName(made, options.name.c_str()));
    set(nats().natsOptions_SetTimeout(made, CONNECT_MS));
    set(nats().natsOptions_SetAllowReconnect(made, false));
    set(nats().natsOptions_SetIgnoreDiscoveredServers(made, true));
    set(nats().natsOptions_SetSendAsap(made, true));
    set(nats().natsOptions_SetIOBufSize(made, BUFFER));
    set(nats().natsOptions_SetPingInterval(made, PING_MS));
    set(nats().natsOptions_SetWriteDeadline(made, WRITE_MS));
    set(nats().natsOptions_SetCustomInboxPrefix(made, options.inbox.c_str()));
    set(nats().natsOptions_UseGlobalMessageDelivery(made, options.one_thread));
    set(nats().natsOptions_SetErrorHandler(made, handles::on_error, handles_.get()));
    if (!options.ca.empty()) {
        set(nats().natsOptions_SetSecure(made, true));
        set(nats().natsOptions_LoadCATrustedCertificates(made, options.ca.c_str()));
        set(nats().natsOptions_LoadCertificatesChain(made, options.certificate.c_str(), options.certificate.c_str()));
    }
    // What an earlier connection has asked for must not come here.
    uint64_t random = 0;
    if (getrandom(&random, sizeof(random), 0) != sizeof(random))
        throw std::runtime_error("the system gives no random number");
    handles_->inbox = fmt::format("{}.{:016x}.stored", options.inbox, random);
    handles_->readings_inbox = fmt::format("{}.{:016x}.read", options.inbox, random);
    set(nats().natsOptions_SetClosedCB(
        made, [](natsConnection *, void *of) { handles::on_end(of); }, handles_.get()));
    check(nats().natsConnection_Connect(&handles_->connection, made), options.url);
    handles_->callers = 1;
    subscribe(handles_->inbox + ".*",
              [of = handles_.get()](const nats_message &answer) { of->on_confirmation(answer); });
}

nats_connection::~nats_connection() = default;

bool nats_connection::is_up() const
{
    return nats().natsConnection_Status(handles_->connection) == NATS_CONN_STATUS_CONNECTED;
}

void nats_connection::close()
{
    nats().natsConnection_Close(handles_->connection);
    std::lock_guard guard(handles_->mutex);
    handles_->closed = true;
    handles_->confirmed.notify_all();
}

std::string nats_connection::take_refusal()
{
    std::lock_guard guard(handles_->mutex);
    return std::exchange(handles_->refusal, {});
}

void nats_connection::publish(const nats_message &message)
{
    const message_handle handle = handle_of(message);
    check(nats().natsConnection_PublishMsg(handles_->connection, handle.get()), message.subject);
}

// A refusal that names another subject, such as that of a card, is kept for those who ask for it.
std::string nats_connection::handles::take_refusal_of(const std::string &subject)
{
    std::lock_guard guard(mutex);
    if (refusal.find("Publish to") != std::string::npos && refusal.find(subject) == std::string::npos)
        return {};
    return std::exchange(refusal, {});
}

nats_message nats_connection::ask(const nats_message &message, int timeout_ms)
{
    const message_handle handle = handle_of(message);
    natsMsg *answer = nullptr;
    const natsStatus status = nats().natsConnection_RequestMsg(&answer, handles_->connection, handle.get(), timeout_ms);
    const message_handle owner(answer);
    if (status != NATS_OK) {
        const std::string refusal = handles_->take_refusal_of(message.subject);
        if (!refusal.empty())
            throw nats_error(fmt::format("{}: {}", message.subject, refusal), true);
        if (status == NATS_NO_RESPONDERS)
            throw nats_error(fmt::format("{}: nobody listens there", message.subject), true);
        check(status, message.subject);
    }
    return message_of(answer);
}

natsSubscription *nats_connection::handles::subscribe(const std::string &subject, std::function<void(nats_message)> see)
{
    auto made = std::make_unique<subscription>();
    made->see = std::move(see);
    check(nats().natsConnection_Subscribe(&made->handle, connection, subject.c_str(), on_message, made.get()), subject);
    natsSubscription *handle = made->handle;
    {
        std::lock_guard guard(mutex);
        callers += 1;
        subscriptions.push_back(std::move(made));
    }
    check(nats().natsSubscription_SetOnCompleteCB(handle, on_end, this), subject);
    return handle;
}

void nats_connection::subscribe(const std::string &subject, std::function<void(nats_message)> see)
{
    handles_->subscribe(subject, std::move(see));
}

void nats_connection::store(const nats_message &message, int timeout_ms)
{
    check_confirmation(ask(message, timeout_ms), message.subject);
}

void nats_connection::send_to_store(nats_message message, uint64_t number)
{
    message.reply = fmt::format("{}.{}", handles_->inbox, number);
    publish(message);
}

std::vector<nats_outcome> nats_connection::outcomes(size_t count, int timeout_ms)
{
    std::unique_lock guard(handles_->mutex);
    handles_->wanted = count;
    handles_->confirmed.wait_for(guard, std::chrono::milliseconds(timeout_ms),
                                 [&] { return handles_->outcomes.size() >= count || handles_->closed; });
    return std::exchange(handles_->outcomes, {});
}

// ------------------------------------------------------------------------------------------------------------ streams

// The answer of the servers' API; throws what they refuse.
static json::object told(nats_connection *connection, const nats_message &question, int timeout_ms)
{
    const nats_message answer = connection->ask(question, timeout_ms);
    boost::system::error_code error;
    json::value parsed = json::parse(answer.data, error);
    if (error || !parsed.is_object())
        throw nats_error(fmt::format("{}: \"{:.100}\" is no answer", question.subject, answer.data), true);
    if (const json::value *failure = parsed.as_object().if_contains("error"))
        throw nats_error(fmt::format("{}: {}", question.subject, json::serialize(*failure)), true);
    return std::move(parsed.as_object());
}

nats_stream nats_connection::about(const std::string &stream, int timeout_ms)
{
    nats_message question;
    question.subject = fmt::format("$JS.API.STREAM.INFO.{}", stream);
    try {
        const json::object answer = told(this, question, timeout_ms);
        const json::object &state = answer.at("state").as_object();
        return {std::string(answer.at("created").as_string()), state.at("first_seq").to_number<uint64_t>(),
                state.at("last_seq").to_number<uint64_t>()};
    } catch (const boost::system::system_error &failure) {
        throw nats_error(fmt::format("{}: {}", question.subject, failure.what()), true);
    }
}

// What a stream delivers names its place in the reply subject: $JS.ACK.STREAM.CONSUMER.TRIES.NUMBER.DELIVERY.NS.LEFT, with
// two more words in front of the stream in newer servers. False for anything else.
static bool read_place(std::string_view reply, nats_entry *entry, uint64_t *delivery)
{
    std::vector<std::string_view> words;
    while (!reply.empty()) {
        words.push_back(reply.substr(0, reply.find('.')));
        reply.remove_prefix(std::min(reply.size(), words.back().size() + 1));
    }
    constexpr size_t SHORT = 9;
    constexpr size_t LONG = 11;
    if (words.size() < SHORT || words[0] != "$JS" || words[1] != "ACK" || words.size() == SHORT + 1)
        return false;
    const size_t at = words.size() >= LONG ? 4 : 2;
    const auto value = [&](size_t place) { return std::strtoull(words[at + place].data(), nullptr, 10); };
    constexpr uint64_t NS = 1000000;
    entry->number = value(3);
    *delivery = value(4);
    entry->time_ms = static_cast<int64_t>(value(5) / NS);
    entry->left = value(6);
    return true;
}

static int64_t steady_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// When so many messages are to come, a wake of this thread for each would cost as much as what it does with one. So it
// lets some gather.
constexpr uint64_t MANY = 1000;
constexpr auto GATHER = std::chrono::milliseconds(1);

// One server holds the place of a reader. While a server is down, its part of those that are asked for is given to it, and
// nobody answers. Another question may find another server; one that lives answers within milliseconds.
constexpr std::array PATIENCE_MS = {1000, 1000, 2000, 2000, 4000, 4000};

uint64_t nats_connection::follow(const std::string &stream, const std::string &subjects, uint64_t from,
                                 const std::function<void(nats_entry)> &see)
{
    for (auto patience = PATIENCE_MS.begin();;) {
        try {
            return begin_reading(stream, subjects, from, see, *patience);
        } catch (const nats_error &failure) {
            handles::reading *late = handles_->readings.back().get();
            late->given_up = true;
            nats().natsSubscription_Unsubscribe(late->handle);
            if (failure.refused || !is_up() || ++patience == PATIENCE_MS.end())
                throw;
        }
    }
}

uint64_t nats_connection::begin_reading(const std::string &stream, const std::string &subjects, uint64_t from,
                                        std::function<void(nats_entry)> see, int timeout_ms)
{
    handles_->readings.push_back(std::make_unique<handles::reading>());
    handles::reading *state = handles_->readings.back().get();
    state->heard_ms = steady_ms();
    const std::string inbox = fmt::format("{}.{}", handles_->readings_inbox, handles_->readings.size());
    natsSubscription *handle = handles_->subscribe(inbox, [this, state, see = std::move(see)](nats_message message) {
        if (state->given_up)
            return;
        state->heard_ms = steady_ms();
        nats_entry entry;
        uint64_t delivery = 0;
        if (read_place(message.reply, &entry, &delivery)) {
            if (delivery != state->next)
                state->broken = true;
            if (state->broken)
                return;
            state->next += 1;
            entry.message = std::move(message);
            const bool many = entry.left > MANY;
            see(std::move(entry));
            uint64_t queued = 0;
            if (many && nats().natsSubscription_QueuedMsgs(state->handle, &queued) == NATS_OK && queued == 0)
                std::this_thread::sleep_for(GATHER);
            return;
        }
        // A sign of life, which says how far it is, or a question of the flow control. What names a subject wants an answer.
        const std::string *last = message.header("Nats-Last-Consumer");
        if (last != nullptr && std::strtoull(last->c_str(), nullptr, 10) + 1 != state->next)
            state->broken = true;
        const std::string *stalled = message.header("Nats-Consumer-Stalled");
        nats_message answer;
        answer.subject = stalled != nullptr ? *stalled : message.reply;
        if (!answer.subject.empty())
            publish(answer);
    });
    state->handle = handle; // before anything is asked for
    // The servers bound what they send before it is taken; a message that libnats dropped would be a hole.
    check(nats().natsSubscription_SetPendingLimits(handle, -1, -1), stream);
    constexpr int64_t NS = 1000000;
    json::object config{
        {"deliver_subject", inbox},        {"ack_policy", "none"}, {"replay_policy", "instant"}, {"flow_control", true},
        {"idle_heartbeat", QUIET_MS * NS}, {"max_deliver", 1},     {"mem_storage", true}};
    if (!subjects.empty())
        config["filter_subject"] = subjects;
    config["deliver_policy"] = from == 0 ? "last_per_subject" : "by_start_sequence";
    if (from != 0)
        config["opt_start_seq"] = from;
    nats_message question;
    question.subject = fmt::format("$JS.API.CONSUMER.CREATE.{}", stream);
    question.data = json::serialize(json::object{{"stream_name", stream}, {"config", config}});
    const json::object answer = told(this, question, timeout_ms);
    const json::value *waiting = answer.if_contains("num_pending");
    const json::value *delivered = answer.if_contains("delivered");
    uint64_t there = waiting != nullptr ? waiting->to_number<uint64_t>() : 0;
    if (delivered != nullptr) // some may be on their way already
        there += delivered->at("consumer_seq").to_number<uint64_t>();
    return there;
}

bool nats_connection::reads_well() const
{
    const int64_t now = steady_ms();
    return std::none_of(handles_->readings.begin(), handles_->readings.end(), [now](const auto &state) {
        return !state->given_up && (state->broken || now - state->heard_ms > int64_t{3} * QUIET_MS);
    });
}

std::optional<nats_message> nats_connection::last(const std::string &stream, const std::string &subject, int timeout_ms)
{
    nats_message question;
    question.subject = fmt::format("$JS.API.DIRECT.GET.{}.{}", stream, subject);
    nats_message answer = ask(question, timeout_ms);
    const std::string *status = answer.header("Status");
    if (status == nullptr)
        return answer;
    if (*status == "404")
        return std::nullopt;
    const std::string *why = answer.header("Description");
    throw nats_error(fmt::format("{}: {}", question.subject, why != nullptr ? *why : *status), true);
}

} // namespace fxm

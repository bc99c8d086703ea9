#include "fleet/streams.h"

#include <boost/json.hpp>
#include <fmt/format.h>

#include <string>

#include "fleet/names.h"

namespace fxm::fleet
{

namespace json = boost::json;

constexpr int64_t SECOND_NS = 1000000000;
constexpr int64_t MONTH_NS = SECOND_NS * 86400 * 30;
constexpr int64_t MOST_EVENT_BYTES = 200000000000;
constexpr int64_t LEAST_EVENT_BYTES = 100000000;

// Error codes of the servers.
constexpr int64_t IS_THERE = 10058; // with other limits
constexpr int64_t NO_ROOM = 10047;  // on the disk of the one server
constexpr int64_t NO_PEERS = 10005; // with so much room, in a cluster

// Returns what the servers have against it, and 0 if the stream is there.
static int64_t make(nats_connection *connection, const json::object &wanted, int timeout_ms)
{
    const std::string name(wanted.at("name").as_string());
    nats_message question;
    question.subject = fmt::format("$JS.API.STREAM.CREATE.{}", name);
    question.data = json::serialize(wanted);
    const nats_message answer = connection->ask(question, timeout_ms);
    boost::system::error_code error;
    const json::value told = json::parse(answer.data, error);
    const json::object *members = error ? nullptr : told.if_object();
    if (members == nullptr)
        throw nats_error(fmt::format("{}: \"{:.100}\" is no answer", question.subject, answer.data), true);
    const json::value *failure = members->if_contains("error");
    if (failure == nullptr)
        return 0;
    const json::value *code = failure->is_object() ? failure->get_object().if_contains("err_code") : nullptr;
    const int64_t number = code != nullptr && code->is_int64() ? code->get_int64() : -1;
    if (number == IS_THERE)
        return 0;
    if (number == NO_ROOM || number == NO_PEERS)
        return number;
    throw nats_error(fmt::format("the stream {} cannot be made: {}", name, json::serialize(*failure)), true);
}

void make_streams(nats_connection *connection, size_t servers, int timeout_ms, logger *log)
{
    const size_t replicas = servers >= 3 ? 3 : 1;
    json::object common{{"storage", "file"}, {"num_replicas", replicas}, {"allow_direct", true}};
    json::object events = common;
    events["name"] = EVENTS_STREAM;
    events["subjects"] = json::array{events_subject("*")};
    events["discard"] = "old";
    events["max_age"] = MONTH_NS;
    events["duplicate_window"] = 600 * SECOND_NS;
    // As much as the disks of the servers let it have.
    int64_t bytes = MOST_EVENT_BYTES;
    for (;; bytes /= 2) {
        events["max_bytes"] = bytes;
        if (make(connection, events, timeout_ms) == 0)
            break;
        if (bytes < LEAST_EVENT_BYTES)
            throw nats_error(
                fmt::format("the servers have no room for {} MB of the stream {}", bytes / 1000000, EVENTS_STREAM),
                true);
    }
    log->info("fleet: the stream {} is there, {} copies", EVENTS_STREAM, replicas);
    for (const std::string &stream : {cards_stream(BUCKET), std::string(SITES_STREAM)}) {
        const std::string bucket = stream.substr(sizeof("KV_") - 1);
        json::object wanted = common;
        wanted["name"] = stream;
        wanted["subjects"] = json::array{fmt::format("$KV.{}.>", bucket)};
        wanted["max_msgs_per_subject"] = 1;
        wanted["discard"] = "new";
        wanted["allow_rollup_hdrs"] = true;
        wanted["deny_delete"] = true;
        if (make(connection, wanted, timeout_ms) != 0)
            throw nats_error(fmt::format("the servers have no room for the bucket {}", bucket), true);
        log->info("fleet: the bucket {} is there, {} copies", bucket, replicas);
    }
}

} // namespace fxm::fleet

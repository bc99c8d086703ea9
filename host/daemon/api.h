// The API: routes, roles, errors. docs/api.md describes it. Handlers run on the HTTP thread; what talks to a card or to a
// file goes to an executor.
#pragma once

#include <boost/json.hpp>

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/error.h"
#include "common/filter.h"
#include "daemon/caller.h"
#include "daemon/card.h"
#include "daemon/http.h"
#include "daemon/operation.h"
#include "daemon/roles.h"
#include "daemon/services.h"

namespace fxm
{

struct api_call {
    const http_request &request;
    http_server::responder answer;
    role who;
    caller id;
    std::vector<std::string> parts; // of the path, where the pattern has a star
};

struct route {
    const char *method;
    const char *pattern; // "/v1/cards/*/vlan"
    role needs;
    void (*handle)(services &all, api_call &call);
};

// Each group of routes has a file.
std::span<const route> card_routes();
std::span<const route> action_routes();
std::span<const route> job_routes();
std::span<const route> event_routes();
std::span<const route> status_routes();
std::span<const route> page_routes();

// The routes of an fxmd, in all files.
std::span<const std::span<const route>> own_tables();

// Finds the first route that fits, checks the role, and calls `run` with the number of its table; turns an api_error into
// its answer.
using route_runner = std::function<void(size_t table, const route &found, api_call &call)>;
void handle_request(services &all, std::span<const std::span<const route>> tables, const http_request &request,
                    const http_server::responder &answer, const route_runner &run);
// The same for the routes of an fxmd.
void handle_request(services &all, const http_request &request, const http_server::responder &answer);

// ------------------------------------------------------------------------------------------------- for the handlers

http_reply error_reply(const api_error &failure);
http_reply json_reply(const boost::json::object &document, int status = 200);
boost::json::object document(); // {"schema": "fxm/1"}

// Runs `work` for the card on the executor for operations and answers with what it returns or throws.
void later(services &all, const api_call &call, uint64_t card, std::function<http_reply()> work);

// The card of the first part of the path.
uint64_t card_of(const services &all, const api_call &call);

bool wants(const http_request &request, std::string_view type); // by Accept

// Numbers and switches from the body of a request, or from its query for those without a body. Throws FXM_API_EINVAL,
// which names the member, for a wrong type, a value out of range, or a member that nobody has asked for.
class arguments
{
  public:
    explicit arguments(const http_request &request);

    uint32_t number(const char *name, uint32_t least, uint32_t most);
    std::optional<uint32_t> optional_number(const char *name, uint32_t least, uint32_t most);
    bool flag(const char *name, bool absent = false);
    std::string text(const char *name);
    std::optional<std::string> optional_text(const char *name);
    std::vector<uint32_t> words(const char *name, size_t most); // 1 to `most` numbers of 32 bits
    void finish() const;                                        // nothing else may be there

  private:
    const boost::json::value *find(const char *name);

    boost::json::object members_;
    std::vector<std::string> taken_;
};

// What a list of cards is asked for.
struct list_request {
    filter wanted;
    std::optional<member_set> shown; // empty: all
    std::string after;               // the card behind which it begins; empty: the first one
    uint64_t limit = UINT64_MAX;
    bool ndjson = false;
    bool rows = false; // lines of values; the first one names them
};
list_request list_request_of(const http_request &request); // throws FXM_API_EINVAL

// What a stream of events is asked for.
struct stream_request {
    filter wanted;
    std::string after; // BOOT.SEQ; empty: what comes from now on
};
stream_request stream_request_of(const http_request &request); // throws FXM_API_EINVAL

// "BOOT.SEQ", as a client names the last event that it has seen.
std::pair<std::string, uint64_t> parse_position(const std::string &text);

// The members "retries", "interval_ms" and "livecheck".
operation take_operation(arguments *given);

} // namespace fxm

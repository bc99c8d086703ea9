#include "daemon/status.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>

#include "common/card_id.h"
#include "daemon/api.h"
#include "daemon/services.h"
#include "fxm.h"

namespace fxm
{

namespace json = boost::json;

constexpr int64_t POLL_MS = 200;

port_watch::port_watch(std::vector<std::string> names, ring *events, logger *log)
    : names_(std::move(names)), events_(events), log_(log)
{
}

const char *port_watch::word(state value)
{
    constexpr const char *words[] = {"closed", "down", "up"};
    return words[static_cast<size_t>(value)];
}

port_watch::state port_watch::state_of(const port_counters &port)
{
    return !port.open ? state::closed : port.up ? state::up : state::down;
}

void port_watch::poll()
{
    const int64_t now = clock_ms();
    // A clock that is set back must not stop the watch.
    if (now < next_ms_ && next_ms_ - now <= POLL_MS)
        return;
    next_ms_ = now + POLL_MS;
    for (const port_counters &port : read_counters(names_).ports) {
        const state next = state_of(port);
        state last;
        {
            std::lock_guard guard(mutex_);
            seen &known = seen_[port.number];
            last = known.last;
            known.last = next;
            if (known.known && last == next)
                continue;
            known.changed_ms = now;
            if (!known.known) {
                known.known = true;
                known.changed_ms = 0;
                continue;
            }
        }
        log_->write(next == state::up ? log_level::info : log_level::warning,
                    fmt::format("port {} ({}) was {} and is {}", port.number, port.name, word(last), word(next)));
        events_->append(event_draft{.type = event_type::port,
                                    .card = 0,
                                    .before = {},
                                    .after = {},
                                    .members = fmt::format(R"("port":{},"name":"{}","state":["{}","{}"])", port.number,
                                                           port.name, word(last), word(next))});
    }
}

int64_t port_watch::changed_ms(size_t port) const
{
    std::lock_guard guard(mutex_);
    return seen_[port].changed_ms;
}

uint64_t resident_bytes()
{
    std::ifstream file("/proc/self/statm");
    uint64_t total = 0;
    uint64_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

// -------------------------------------------------------------------------------------------------------------- documents

static json::value or_null(int64_t value) { return value != 0 ? json::value(value) : json::value(nullptr); }

static json::object port_document(services &all, const port_counters &port)
{
    return {{"port", port.number},
            {"name", port.name},
            {"ifindex", port.open ? json::value(port.if_index) : json::value(nullptr)},
            {"mac", port.open ? json::value(format_id(port.mac)) : json::value(nullptr)},
            {"state", port_watch::word(port_watch::state_of(port))},
            {"changed_ms", or_null(all.ports->changed_ms(port.number))},
            {"downs", port.downs},
            {"received", port.received},
            {"sent", port.sent},
            {"dropped", port.dropped}};
}

static json::array ports_of(services &all, const counters &now)
{
    json::array ports;
    for (const port_counters &port : now.ports)
        ports.push_back(port_document(all, port));
    return ports;
}

json::array ports_of(services &all) { return ports_of(all, read_counters(all.settings()->ports)); }

static json::object cards_document(services &all, const counters &now)
{
    const card_totals totals = all.cards->totals();
    json::object made{
        {"total", totals.all()}, {"fxsv", totals.in(card_class::fxsv)}, {"fxio", totals.in(card_class::fxio)}};
    for (size_t i = 0; i < OWN_HEALTHS; ++i)
        made[health_words[i]] = totals.in(static_cast<health>(i));
    made["refused"] = now.refused;
    made["max"] = all.settings()->max_cards;
    return made;
}

static json::object library_document(const library_status &status)
{
    constexpr const char *names[] = {"FXM_API_SUCCESS", "FXM_API_EINVAL", "FXM_API_ERANGE", "FXM_API_ENOENT",
                                     "FXM_API_ENOLINK", "FXM_API_ENOMEM", "FXM_API_EPROTO", "FXM_API_ETIMEDOUT",
                                     "FXM_API_EBUSY",   "FXM_API_ENOSYS"};
    json::object made{{"state", word(status.state)}, {"restarts", status.restarts}};
    made["last_result"] = status.last_result ? json::value(names[*status.last_result]) : json::value(nullptr);
    made["next_start_ms"] = or_null(status.next_start_ms);
    return made;
}

static json::object history_document(services &all)
{
    if (all.past == nullptr)
        return {{"state", "off"}, {"events", 0}, {"error", nullptr}};
    const history_status status = all.past->status();
    return {{"state", status.failing ? "failing" : "on"},
            {"events", status.events},
            {"error", status.failing ? json::value(status.error) : json::value(nullptr)}};
}

static json::array warnings_of(services &all, const counters &now, const library_status &fabric)
{
    json::array warnings;
    if (!fabric.reason.empty())
        warnings.emplace_back(fabric.reason);
    for (const port_counters &port : now.ports) {
        if (fabric.state == library_state::running && !port.open)
            warnings.emplace_back(fmt::format("port {} ({}) is not open; see fxmctl doctor", port.number, port.name));
        if (port.dropped != 0)
            warnings.emplace_back(
                fmt::format("the kernel has dropped {} frames at port {} ({})", port.dropped, port.number, port.name));
    }
    if (now.refused != 0)
        warnings.emplace_back(fmt::format("more than max_cards = {} cards have announced themselves; {} announcements "
                                          "were ignored",
                                          all.settings()->max_cards, now.refused));
    if (all.past != nullptr && all.past->status().failing)
        warnings.emplace_back(fmt::format("the history is not being written: {}", all.past->status().error));
    return warnings;
}

static json::value fleet_document(const services &all)
{
    if (!all.site)
        return nullptr;
    const fleet::site_status now = all.site();
    return json::object{{"site", now.site},
                        {"state", now.connected ? "connected" : "cut-off"},
                        {"server", now.server},
                        {"error", now.error.empty() ? json::value() : json::value(now.error)},
                        {"sent_seq", now.sent},
                        {"waiting", now.waiting},
                        {"cards_waiting", now.cards_waiting}};
}

json::object status_document(services &all)
{
    const counters now = read_counters(all.settings()->ports);
    const library_status fabric = all.fabric->status();
    const job_counts jobs = all.jobs->counts();
    json::object made = document();
    made["version"] = FXM_VERSION;
    made["pid"] = getpid();
    made["boot"] = all.boot;
    made["seq"] = all.events->last_seq();
    made["time_ms"] = clock_ms();
    made["started_ms"] = all.started_ms;
    made["library"] = library_document(fabric);
    made["ports"] = ports_of(all, now);
    made["cards"] = cards_document(all, now);
    made["history"] = history_document(all);
    made["jobs"] = json::object{{"queued", jobs.queued}, {"running", jobs.running}};
    made["clients"] = all.server->clients();
    made["eeprom_writer"] = all.settings()->eeprom_writer;
    made["fleet"] = fleet_document(all);
    made["warnings"] = warnings_of(all, now, fabric);
    return made;
}

} // namespace fxm

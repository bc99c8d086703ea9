#include "daemon/metrics.h"

#include <sys/resource.h>

#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

#include "common/card_id.h"
#include "daemon/samples.h"
#include "daemon/services.h"
#include "fxm.h"

namespace fxm
{

// ------------------------------------------------------------------------------------------------------------ reading

// Everything that the families below show.
struct reading {
    std::shared_ptr<const config> settings;
    counters wire;
    std::vector<card_in_error> in_error;
    card_totals cards;
    library_status fabric;
    ring::numbers events;
    job_counts jobs;
    std::array<register_timing::numbers, register_timing::OPERATIONS> registers;
    bool history_enabled = false;
    history_status past;
    int64_t started_ms = 0;
    unsigned clients = 0, streams = 0;
    uint64_t requests = 0, gaps = 0;
    uint64_t resident = 0;
    double cpu_s = 0;
    fleet::site_status site; // all zero without a fleet
};

static double cpu_seconds()
{
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

static reading read_all(services &all)
{
    reading now;
    now.settings = all.settings();
    now.wire = all.totals->read(now.settings->ports);
    now.cards = all.cards->totals(MOST_CARD_SERIES, &now.in_error);
    now.fabric = all.fabric->status();
    if (all.site)
        now.site = all.site();
    now.events = all.events->count();
    now.jobs = all.jobs->counts();
    now.registers = all.timing->get();
    now.history_enabled = all.past != nullptr;
    if (now.history_enabled)
        now.past = all.past->status();
    now.started_ms = all.started_ms;
    now.clients = all.server->clients();
    now.streams = all.server->streams();
    now.requests = all.server->requests();
    now.gaps = all.gaps;
    now.resident = resident_bytes();
    now.cpu_s = cpu_seconds();
    return now;
}

// ----------------------------------------------------------------------------------------------------------- families

using family = family_of<reading>;

static ClientMetric::Label port_label(const port_counters &port) { return {"port", std::to_string(port.number)}; }

// Results that neither a card nor the network causes share the word "error".
static const char *result_word(size_t code)
{
    switch (code) {
    case FXM_API_SUCCESS:
        return "ok";
    case FXM_API_ENOENT:
        return "not_found";
    case FXM_API_ENOLINK:
        return "no_link";
    case FXM_API_ETIMEDOUT:
        return "timeout";
    case FXM_API_EBUSY:
        return "busy";
    case FXM_API_ENOSYS:
        return "stopped";
    default:
        return "error";
    }
}

// Every word is there from the start, so that a rate is right from the first access on.
static void fill_requests(const reading &now, samples *out)
{
    constexpr const char *operations[] = {"read", "range", "write"};
    constexpr const char *words[] = {"ok", "timeout", "no_link", "busy", "not_found", "stopped", "error"};
    for (size_t i = 0; i < std::size(operations); ++i) {
        for (const std::string_view word : words) {
            uint64_t sum = 0;
            for (size_t code = 0; code < register_timing::RESULTS; ++code)
                sum += result_word(code) == word ? now.registers[i].results[code] : 0;
            out->add(sum, {{"op", operations[i]}, {"result", std::string(word)}});
        }
    }
}

static void fill_cards(const reading &now, samples *out)
{
    for (size_t kind = 0; kind < class_words.size(); ++kind) {
        for (size_t state = 0; state < OWN_HEALTHS; ++state)
            out->add(now.cards.of[kind][state], {{"class", class_words[kind]}, {"health", health_words[state]}});
    }
}

// The totals of a port are the sums of its kinds; beside them they would be counted twice.
static void fill_frames(const reading &now, samples *out)
{
    for (const port_counters &port : now.wire.ports) {
        for (const named_count &kind : port.frames) {
            if (!std::string_view(kind.name).ends_with("_total"))
                out->add(kind.value, {port_label(port), {"kind", kind.name}});
        }
    }
}

static void fill_events(const reading &now, samples *out)
{
    constexpr const char *words[] = {"new", "update", "connection", "error", "path", "channel"};
    for (size_t kind = 0; kind < std::size(words); ++kind)
        out->add(now.wire.events.at(kind).value, {{"kind", words[kind]}});
}

static void fill_stream_events(const reading &now, samples *out)
{
    for (size_t type = 0; type < EVENT_TYPES; ++type)
        out->add(now.events.events[type], {{"type", word(static_cast<event_type>(type))}});
}

static void fill_jobs(const reading &now, samples *out)
{
    out->add(now.jobs.queued, {{"state", "queued"}});
    out->add(now.jobs.running, {{"state", "running"}});
    out->add(now.jobs.done, {{"state", "done"}});
    out->add(now.jobs.failed, {{"state", "failed"}});
    out->add(now.jobs.cancelled, {{"state", "cancelled"}});
}

// In the order of the document, which is that of docs/monitoring.md.
static constexpr family families[] = {
    {"fxm_build_info", MetricType::Gauge, "The version of fxmd; always 1.",
     [](const reading &, samples *out) {
         out->add(1, {{"version", FXM_VERSION}});
     }},
    {"fxm_start_time_seconds", MetricType::Gauge, "When fxmd started, in seconds since 1970.",
     [](const reading &now, samples *out) { out->add(static_cast<double>(now.started_ms) / 1e3); }},
    {"fxm_library_up", MetricType::Gauge, "1 while the library runs, 0 while it starts again.",
     [](const reading &now, samples *out) { out->add(now.fabric.state == library_state::running ? 1 : 0); }},
    {"fxm_library_restarts_total", MetricType::Counter, "Times that the library stopped by itself and runs again.",
     [](const reading &now, samples *out) { out->add(now.fabric.restarts); }},

    {"fxm_cards", MetricType::Gauge, "Cards by class and health.", fill_cards},
    {"fxm_cards_limit", MetricType::Gauge, "Cards beyond this number are ignored: max_cards.",
     [](const reading &now, samples *out) { out->add(now.settings->max_cards); }},
    {"fxm_card_announcements_refused_total", MetricType::Counter, "Ignored announcements of cards beyond the limit.",
     [](const reading &now, samples *out) { out->add(now.wire.refused); }},
    {"fxm_card_int_vector", MetricType::Gauge, "The interrupt vector of a card in error.",
     [](const reading &now, samples *out) {
         for (const card_in_error &card : now.in_error)
             out->add(card.int_vector, {{"card", format_id(card.id)}, {"class", word(card.kind)}});
     }},
    {"fxm_card_error_series_omitted", MetricType::Gauge, "Cards in error without a series of their own.",
     [](const reading &now, samples *out) { out->add(now.cards.in(health::error)-now.in_error.size()); }},

    {"fxm_port_info", MetricType::Gauge, "The interface of a port; always 1.",
     [](const reading &now, samples *out) {
         for (const port_counters &port : now.wire.ports)
             out->add(1, {port_label(port), {"interface", port.name}});
     }},
    {"fxm_port_up", MetricType::Gauge, "1 if the port is open and its link is up.",
     [](const reading &now, samples *out) {
         for (const port_counters &port : now.wire.ports)
             out->add(port_watch::state_of(port) == port_watch::state::up ? 1 : 0, {port_label(port)});
     }},
    {"fxm_port_downs_total", MetricType::Counter, "Times that the link of the port went down.",
     [](const reading &now, samples *out) {
         for (const port_counters &port : now.wire.ports)
             out->add(port.downs, {port_label(port)});
     }},
    {"fxm_port_frames_total", MetricType::Counter, "Frames received (r_) and sent (t_) by kind.", fill_frames},
    {"fxm_port_frames_dropped_total", MetricType::Counter, "Frames that the kernel dropped: its capture ring was full.",
     [](const reading &now, samples *out) {
         for (const port_counters &port : now.wire.ports)
             out->add(port.dropped, {port_label(port)});
     }},

    {"fxm_events_total", MetricType::Counter, "Events of the library by kind, each by itself.", fill_events},
    {"fxm_stream_events_total", MetricType::Counter, "Events of the stream by type; one has all changes of a tick.",
     fill_stream_events},
    {"fxm_ring_events", MetricType::Gauge, "Events that are kept for clients of the stream.",
     [](const reading &now, samples *out) { out->add(now.events.kept); }},
    {"fxm_ring_capacity", MetricType::Gauge, "Events that can be kept for clients of the stream.",
     [](const reading &, samples *out) { out->add(ring::SIZE); }},

    {"fxm_fleet_connected", MetricType::Gauge, "1 while a server of the fleet takes what this site sends.",
     [](const reading &now, samples *out) { out->add(now.site.connected ? 1 : 0); }},
    {"fxm_fleet_waiting_events", MetricType::Gauge, "Events that the fleet has not confirmed yet.",
     [](const reading &now, samples *out) { out->add(now.site.waiting); }},
    {"fxm_fleet_confirmed_total", MetricType::Counter, "What the fleet has confirmed: batches of events, and cards.",
     [](const reading &now, samples *out) {
         out->add(now.site.batches, {{"kind", "batch"}});
         out->add(now.site.cards, {{"kind", "card"}});
     }},
    {"fxm_fleet_refused_total", MetricType::Counter, "Attempts that a server has refused or has not answered.",
     [](const reading &now, samples *out) { out->add(now.site.refused); }},
    {"fxm_fleet_gap_events_total", MetricType::Counter, "Numbers that were lost before the fleet had them.",
     [](const reading &now, samples *out) { out->add(now.site.gaps); }},
    {"fxm_fleet_resent_after_loss_total", MetricType::Counter,
     "Numbers that the fleet had confirmed, lost, and got again.",
     [](const reading &now, samples *out) { out->add(now.site.resent_after_loss); }},
    {"fxm_fleet_requests_total", MetricType::Counter, "Requests over the fleet.",
     [](const reading &now, samples *out) {
         const fleet::desk_numbers &desk = now.site.requests;
         out->add(desk.requests - desk.repeated - desk.late - desk.denied, {{"result", "taken"}});
         out->add(desk.repeated, {{"result", "repeated"}});
         out->add(desk.late, {{"result", "late"}});
         out->add(desk.denied, {{"result", "denied"}});
     }},

    {"fxm_register_duration_seconds", MetricType::Histogram, "Duration of register accesses that succeeded.",
     [](const reading &now, samples *out) {
         out->add_histogram(now.registers[register_timing::read], {{"op", "read"}});
         out->add_histogram(now.registers[register_timing::write], {{"op", "write"}});
     }},
    {"fxm_register_requests_total", MetricType::Counter, "Register accesses by operation and result.", fill_requests},
    {"fxm_jobs", MetricType::Gauge, "Jobs that are kept, by state.", fill_jobs},

    {"fxm_clients", MetricType::Gauge, "Connections of clients.",
     [](const reading &now, samples *out) { out->add(now.clients); }},
    {"fxm_streams", MetricType::Gauge, "Clients that read the stream of events.",
     [](const reading &now, samples *out) { out->add(now.streams); }},
    {"fxm_client_gaps_total", MetricType::Counter, "Gaps told to clients that read the stream too slowly.",
     [](const reading &now, samples *out) { out->add(now.gaps); }},
    {"fxm_http_requests_total", MetricType::Counter, "Requests to the API.",
     [](const reading &now, samples *out) { out->add(now.requests); }},

    {"fxm_history_enabled", MetricType::Gauge, "1 if the history is switched on.",
     [](const reading &now, samples *out) { out->add(now.history_enabled ? 1 : 0); }},
    {"fxm_history_up", MetricType::Gauge, "1 if the history is being written.",
     [](const reading &now, samples *out) { out->add(now.history_enabled && !now.past.failing ? 1 : 0); }},
    {"fxm_history_events", MetricType::Gauge, "Events in the history.",
     [](const reading &now, samples *out) { out->add(now.past.events); }},

    {"fxm_memory_objects", MetricType::Gauge, "Objects of the library on the heap, by kind.",
     [](const reading &now, samples *out) {
         for (const memory_account &account : now.wire.memory)
             out->add(account.allocated - account.freed, {{"kind", account.name}});
     }},
    {"process_resident_memory_bytes", MetricType::Gauge, "Resident memory of fxmd.",
     [](const reading &now, samples *out) { out->add(now.resident); }},
    {"process_cpu_seconds_total", MetricType::Counter, "Processor time of fxmd.",
     [](const reading &now, samples *out) { out->add(now.cpu_s); }},
};

std::string metrics_text(services &all)
{
    const reading now = read_all(all);
    return text_of_families<reading>(families, now);
}

} // namespace fxm

// What a room counts, for Prometheus. docs/monitoring.md describes every family.
#include <iterator>

#include "daemon/samples.h"
#include "daemon/status.h"
#include "fleet/room.h"
#include "fxm.h"

namespace fxm::fleet
{

struct room_reading {
    room_status room;
    std::vector<site_numbers> sites;
};
using room_family = family_of<room_reading>;

static constexpr room_family room_families[] = {
    {"fxm_build_info", MetricType::Gauge, "The version of fxmd; always 1.",
     [](const room_reading &, samples *out) {
         out->add(1, {{"version", FXM_VERSION}});
     }},
    {"fxm_fleet_room_connected", MetricType::Gauge, "1 while the room reads from a server.",
     [](const room_reading &now, samples *out) { out->add(now.room.link.connected ? 1 : 0); }},
    {"fxm_fleet_room_filled_total", MetricType::Counter, "Events that the stream lacked and the history of a site had.",
     [](const room_reading &now, samples *out) { out->add(now.room.filled); }},
    {"fxm_fleet_room_doubled_total", MetricType::Counter, "Events that came a second time and were dropped.",
     [](const room_reading &now, samples *out) {
         uint64_t sum = 0;
         for (const site_numbers &site : now.sites)
             sum += site.doubled;
         out->add(sum);
     }},
    {"fxm_fleet_room_requests_total", MetricType::Counter, "Requests to sites.",
     [](const room_reading &now, samples *out) {
         out->add(now.room.good, {{"result", "ok"}});
         out->add(now.room.failed, {{"result", "failed"}});
         out->add(now.room.unanswered, {{"result", "timeout"}});
     }},
    {"fxm_fleet_site_state", MetricType::Gauge, "1 for the state in which the room sees the site.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites) {
             for (size_t state = 0; state < site_state_words.size(); ++state)
                 out->add(static_cast<size_t>(site.state) == state ? 1 : 0,
                          {{"site", site.site}, {"state", site_state_words[state]}});
         }
     }},
    {"fxm_fleet_site_age_seconds", MetricType::Gauge, "Time since the site was heard.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites)
             out->add(static_cast<double>(site.age_ms) / 1e3, {{"site", site.site}});
     }},
    {"fxm_fleet_site_offset_seconds", MetricType::Gauge, "How far the clock of the site is ahead of that of the room.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites) {
             if (site.offset_ms)
                 out->add(static_cast<double>(*site.offset_ms) / 1e3, {{"site", site.site}});
         }
     }},
    {"fxm_fleet_site_waiting", MetricType::Gauge, "Events that wait at the site, as it says.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites)
             out->add(site.waiting, {{"site", site.site}});
     }},
    {"fxm_fleet_site_cards", MetricType::Gauge, "Cards of the site by health; all are silent while it is.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites) {
             const bool is_live = site.state == site_state::live;
             for (size_t i = 0; i < OWN_HEALTHS; ++i)
                 out->add(is_live ? site.cards[0][i] + site.cards[1][i] : 0,
                          {{"site", site.site}, {"health", health_words[i]}});
             out->add(is_live ? 0 : site.total(), {{"site", site.site}, {"health", word(health::silent)}});
         }
     }},
    {"fxm_fleet_site_events_total", MetricType::Counter, "Events of the site that the room has seen.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites)
             out->add(site.events, {{"site", site.site}});
     }},
    {"fxm_fleet_site_lost_total", MetricType::Counter,
     "Numbers of the site that neither the stream nor its history has.",
     [](const room_reading &now, samples *out) {
         for (const site_numbers &site : now.sites)
             out->add(site.lost, {{"site", site.site}});
     }},
    {"process_resident_memory_bytes", MetricType::Gauge, "Resident memory of fxmd.",
     [](const room_reading &, samples *out) { out->add(resident_bytes()); }},
};

std::string room_metrics_text(const room &asked)
{
    return text_of_families<room_reading>(room_families, {asked.status(), asked.sites().sites()});
}

} // namespace fxm::fleet

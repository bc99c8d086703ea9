// What sites and rooms agree on: names of subjects, streams, buckets and headers.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace fxm::fleet
{

inline constexpr const char *SCHEMA = "fxm/1";
inline constexpr const char *EVENTS_STREAM = "FXM_EVENTS"; // of all sites
inline constexpr const char *SITES_STREAM = "KV_fxm_sites";
inline constexpr uint32_t BUCKET = 1; // of cards

// Headers of a batch of events.
inline constexpr const char *ID = "Nats-Msg-Id"; // SITE.BOOT.FIRST: the servers drop a second one
inline constexpr const char *FIRST = "Fxm-First";
inline constexpr const char *LAST = "Fxm-Last";
inline constexpr const char *PREVIOUS = "Fxm-Prev"; // the last number of the batch before; 0: this is the first one
inline constexpr const char *SCHEMA_HEADER = "Fxm-Schema";
// Headers of a request, and of its answer.
inline constexpr const char *REQUEST_ID = "Fxm-Id";
inline constexpr const char *DEADLINE = "Fxm-Deadline"; // ms since 1970, by the clock of the site
inline constexpr const char *METHOD = "Fxm-Method";
inline constexpr const char *PATH = "Fxm-Path"; // with the query
inline constexpr const char *FOR = "Fxm-For";   // who has asked the room, as the room says; for the log
inline constexpr const char *STATUS = "Fxm-Status";
inline constexpr const char *TYPE = "Fxm-Type";

// Unique in the fleet.
inline bool is_site(std::string_view name)
{
    return !name.empty() && name.size() <= 32 && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

// What stands in documents as it is: the name of a run.
inline bool is_word(std::string_view text)
{
    return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
    });
}

inline std::string events_subject(std::string_view site) { return fmt::format("fxm.ev.{}", site); }
inline std::string site_subject(std::string_view site) { return fmt::format("$KV.fxm_sites.{}", site); }
inline std::string beat_subject(std::string_view site) { return fmt::format("fxm.beat.{}", site); }
inline std::string cards_stream(uint32_t bucket) { return fmt::format("KV_fxm_cards_{}", bucket); }
inline std::string card_subject(uint32_t bucket, std::string_view site, uint64_t id)
{
    return fmt::format("$KV.fxm_cards_{}.{}.{:012x}", bucket, site, id);
}
// Of all requests to a site: fxm.api.SITE.ROLE.USER. The server lets a user send only what ends in its own name.
inline std::string requests_subject(std::string_view site) { return fmt::format("fxm.api.{}.>", site); }
inline std::string inbox_of(std::string_view user) { return fmt::format("_INBOX_{}", user); }

} // namespace fxm::fleet

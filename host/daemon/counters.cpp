#include "daemon/counters.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <type_traits>

#include "core/fxm_state.h"
#include "diag/fxm_snapshot.h"

namespace fxm
{

// "FXM_STATS_R_TOTAL" is r_total in documents.
static const char *frame_name(size_t kind)
{
    static const std::array<std::string, FXM_STATS_FRAMES> names = [] {
        std::array<std::string, FXM_STATS_FRAMES> made;
        for (size_t i = 0; i < made.size(); ++i) {
            made[i] = fxm_frame_names[i] + std::string_view("FXM_STATS_").size();
            std::transform(made[i].begin(), made[i].end(), made[i].begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        }
        return made;
    }();
    return names[kind].c_str();
}

static std::vector<named_count> results_of(const uint64_t (&counts)[FXM_API_CODES])
{
    std::vector<named_count> results;
    for (size_t code = 0; code < FXM_API_CODES; ++code)
        results.push_back({fxm_results[code].name, counts[code]});
    return results;
}

counters read_counters(const std::vector<std::string> &port_names)
{
    // Some kilobytes, and read several times a second by one thread or another.
    const auto snapshot = std::make_unique<fxm_snapshot_t>();
    _fxm_snapshot(snapshot.get());
    const fxm_stats_t &stats = snapshot->stats;
    counters result;
    for (unsigned number = 0; number < port_names.size() && number < FXM_PORT_NUM; ++number) {
        const fxm_port_snapshot_t &port = snapshot->port[number];
        port_counters shown;
        shown.number = number;
        shown.name = port_names[number];
        shown.if_index = port.if_index;
        shown.mac = port.mac;
        shown.open = port.if_index != 0;
        shown.up = port.link == 1;
        shown.downs = port.total_down;
        shown.received = stats.port_frames[number][FXM_STATS_R_TOTAL];
        shown.sent = stats.port_frames[number][FXM_STATS_T_TOTAL];
        shown.dropped = port.dropped;
        for (size_t kind = 0; kind < FXM_STATS_FRAMES; ++kind)
            shown.frames.push_back({frame_name(kind), stats.port_frames[number][kind]});
        result.ports.push_back(std::move(shown));
    }
    result.results = results_of(stats.api_total);
    for (size_t row = 0; row < FXM_API_ROWS; ++row) {
        std::string name = fxm_row_names[row];
        name.resize(name.find('('));
        result.functions.emplace_back(std::move(name), results_of(stats.api_detail[row]));
    }
    for (size_t kind = 0; kind < FXM_EVT_KINDS; ++kind)
        result.events.push_back({fxm_event_names[kind], stats.evt_count[kind]});
    for (size_t account = 0; account < FXM_MEMS; ++account)
        result.memory.push_back({fxm_mem_names[account], stats.mem[account].alloc, stats.mem[account].free});
    result.callbacks_called = stats.cb_called;
    result.callbacks_returned = stats.cb_returned;
    result.refused = snapshot->refused;
    return result;
}

uint64_t lasting_counters::sum::add(uint64_t value)
{
    if (value < last)
        before += last;
    last = value;
    return before + value;
}

counters lasting_counters::read(const std::vector<std::string> &port_names)
{
    std::lock_guard guard(mutex_);
    counters now = read_counters(port_names);
    size_t place = 0; // a reading has the same counters in the same order each time
    const auto lasting = [this, &place](auto *value) {
        if (sums_.size() == place)
            sums_.emplace_back();
        using number = std::remove_pointer_t<decltype(value)>;
        *value = static_cast<number>(sums_[place++].add(*value));
    };
    for (port_counters &port : now.ports) {
        lasting(&port.downs);
        lasting(&port.dropped);
        for (named_count &kind : port.frames)
            lasting(&kind.value);
    }
    for (named_count &kind : now.events)
        lasting(&kind.value);
    lasting(&now.refused);
    return now;
}

void limit_cards(uint32_t cards) { _fxm_set_card_limit(cards); }

} // namespace fxm

// How long the passes over all cards hold the lock of the tables, from inside the library: no frame and no host gets at
// the tables meanwhile. Half of the cards are FXSV, half FXIO, on all four channels; they have come in no particular
// order. The event task delivers beside the pass, as in a running library.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "events/fxm_event.h"
#include "fxm_log4cxxif.h"
#include "registry/fxm_keepalive.h"
#include "registry/fxm_tables.h"

static std::atomic<int64_t> delivered;

static void on_event(uint64_t, int32_t, uint64_t) { delivered.fetch_add(1); }

template <typename Class> static void add_card(uint64_t id) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    typename Class::record_t record;
    memset(&record, 0, sizeof(record));
    Class::card(record).fcd_id = id;
    if (_fxm_tbl_set<Class>(id, &record, FXM_WATCH, FXM_TBL_ALL) != 0)
        abort();
}

// The parts of the library that a pass needs, with so many cards.
struct registry_t {
    explicit registry_t(int64_t cards)
    {
        _fxm_config_default();
        if (_fxm_stats_init() != 0 || _fxm_fx_init() != 0 || _fxm_event_cb_init() != 0)
            abort();
        g_fini_flag.store(FXM_OFF);
        g_init_flag.store(FXM_ON);
        void *cbid = nullptr;
        fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_event, 0, &cbid);
        fxm_register_callback(FXM_EVT_CHANNELSTATECHANGE, on_event, 0, &cbid);
        std::vector<uint64_t> ids(static_cast<size_t>(cards));
        std::iota(ids.begin(), ids.end(), 0x020000000000);
        std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
        fxm_fx_guard_t guard;
        for (const uint64_t id : ids)
            id % 2 == 0 ? add_card<fxsv_class>(id) : add_card<fxio_class>(id);
        event_task = std::thread(_fxm_event_task, nullptr);
    }
    ~registry_t()
    {
        g_init_flag.store(FXM_OFF);
        g_fini_flag.store(FXM_ON);
        event_task.join();
        _fxm_event_cb_fini();
        _fxm_fx_fini();
        _fxm_stats_fini();
    }
    std::thread event_task;
};

template <typename Class> static void connect_cards(uint64_t recvtime) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const auto all = [](const fxm_seat_t &) { return true; };
    _fxm_each_card<Class>(all, [=](typename Class::node_t *node, fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        std::fill_n(&card.fcd_state[0][0], 4, 1u);
        std::fill_n(&card.fcd_recvtime[0][0], 4, recvtime);
        _fxm_update_seat<Class>(seat);
        return true;
    });
}

// A pass comes once a second, or when a link falls, behind whatever else the machine has done.
static void empty_caches()
{
    static std::vector<uint8_t> other_work(size_t{64} << 20);
    for (size_t i = 0; i < other_work.size(); i += 64)
        benchmark::DoNotOptimize(other_work[i] += 1);
}

// Times `pass` over and over, with all cards connected before each; it raises `events` events for each card.
template <typename Pass> static void time_pass(benchmark::State &state, bool expired, int64_t events, Pass pass)
{
    const int64_t cards = state.range(0);
    registry_t registry(cards);
    for (auto _ : state) {
        fxm_fx_guard_t guard;
        connect_cards<fxsv_class>(expired ? 0 : UINT64_MAX / 2);
        connect_cards<fxio_class>(expired ? 0 : UINT64_MAX / 2);
        empty_caches();
        delivered.store(0);
        const auto begun = std::chrono::steady_clock::now();
        pass();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
        while (delivered.load() != events * cards)
            std::this_thread::yield();
    }
    using benchmark::Counter;
    state.counters["per_card"] =
        Counter(static_cast<double>(cards), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

static void keepalive_nothing_expires(benchmark::State &state) { time_pass(state, false, 0, _devinfo_keepalive_check); }

static void keepalive_all_expire(benchmark::State &state) { time_pass(state, true, 2, _devinfo_keepalive_check); }

static void link_lost(benchmark::State &state)
{
    time_pass(state, false, 2, []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { _fxm_all_disconnect(0); });
}

// Both classes, each under a holding of its own.
static void list_of_all_ids(benchmark::State &state)
{
    time_pass(state, false, 0, [] {
        for (const auto list_ids : {fxm_get_fxsvids, fxm_get_fxioids}) {
            uint64_t *list = nullptr;
            uint32_t count = 0;
            if (list_ids(&list, &count) != FXM_API_SUCCESS)
                abort();
            fxm_free_idlist(list);
        }
    });
}

int main(int argc, char **argv)
{
    // No demand stands here that --strict could find missed.
    const bool quick = std::any_of(argv + 1, argv + argc, [](const char *arg) { return strcmp(arg, "--quick") == 0; });
    char time_option[] = "--benchmark_min_time=0.05";
    char *args[] = {argv[0], quick ? time_option : nullptr};
    int number = quick ? 2 : 1;
    benchmark::Initialize(&number, args);
    g_log_level.store(FXM_LOG_FATAL);
    const std::pair<const char *, void (*)(benchmark::State &)> passes[] = {
        {"keepalive_nothing_expires", keepalive_nothing_expires},
        {"keepalive_all_expire", keepalive_all_expire},
        {"link_lost", link_lost},
        {"list_of_all_ids", list_of_all_ids},
    };
    for (const auto &[name, run] : passes) {
        benchmark::RegisterBenchmark(name, run)->Arg(1000)->Arg(10000)->Arg(65536)->UseManualTime()->Unit(
            benchmark::kMicrosecond);
    }
    printf("Time is the time under the lock of the tables; behind each name the number of cards.\n");
    fflush(stdout);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

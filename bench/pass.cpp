// How long the passes over all cards hold the lock of the tables, from inside the library, and how long that keeps a query
// of the host waiting. No frame comes. Half of the cards are FXSV, half FXIO, on all four channels; they have come in no particular
// order. The event task delivers beside the pass, as in a running library.
#include <sched.h>

#include <algorithm>
#include <atomic>
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
#include "figures.h"
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
constexpr int64_t CARDS = 65536;
constexpr uint64_t FIRST_ID = 0x020000000000; // even ids are FXSV cards, odd ones FXIO cards
struct registry_t {
    registry_t()
    {
        _fxm_config_default();
        if (_fxm_stats_init() != 0 || _fxm_fx_init() != 0 || _fxm_event_cb_init() != 0)
            abort();
        g_fini_flag.store(FXM_OFF);
        g_init_flag.store(FXM_ON);
        void *cbid = nullptr;
        fxm_register_callback(FXM_EVT_UPDATEDEVINFO, on_event, 0, &cbid);
        fxm_register_callback(FXM_EVT_CHANNELSTATECHANGE, on_event, 0, &cbid);
        std::vector<uint64_t> ids(CARDS);
        std::iota(ids.begin(), ids.end(), FIRST_ID);
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

// Connects the first `ports` ports of every card of the class.
template <typename Class> static void connect_class(uint64_t recvtime, uint32_t ports) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    const auto all = [](const fxm_seat_t &) { return true; };
    _fxm_each_card<Class>(all, [=](typename Class::node_t *node, fxm_seat_t *seat) FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        fxm_card_data_t &card = Class::card(Class::record(node));
        std::fill_n(&card.fcd_state[0][0], 2 * ports, 1u);
        std::fill_n(&card.fcd_recvtime[0][0], 4, recvtime);
        _fxm_update_seat<Class>(seat);
        return true;
    });
}

constexpr uint64_t SILENT = 0;            // last heard so long ago that the next pass finds it
constexpr uint64_t HEARD = FXM_NEVER / 2; // last heard so late that no pass does

static void connect_cards(uint64_t recvtime, uint32_t ports = FXM_PORT_NUM) FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    connect_class<fxsv_class>(recvtime, ports);
    connect_class<fxio_class>(recvtime, ports);
}

// Keeps the compiler from leaving out the work behind a value.
static void use(uint64_t value)
{
    static std::atomic<uint64_t> used;
    used.store(value, std::memory_order_relaxed);
}

// A pass comes once a second, or when a link falls, behind whatever else the machine has done.
static void empty_caches()
{
    static std::vector<uint8_t> other_work(size_t{64} << 20);
    for (size_t i = 0; i < other_work.size(); i += 64)
        other_work[i] += 1;
    use(other_work[static_cast<size_t>(now_ns()) % other_work.size()]);
}

// The time of `pass` under the lock, in us, with cold caches and after `before`; it raises `events` events, which have been
// delivered when this returns.
template <typename Before, typename Pass> static double time_pass(int64_t events, Before before, Pass pass)
{
    delivered.store(0);
    double us = 0;
    {
        fxm_fx_guard_t guard;
        before();
        empty_caches();
        const int64_t begun = now_ns();
        pass();
        us = static_cast<double>(now_ns() - begun) / 1000;
    }
    while (delivered.load() != events)
        std::this_thread::yield();
    return us;
}

// ------------------------------------------------------------------------------------------------------------- limits

// What a pass must do without anything beside the map: go from node to node and look at four channels.
template <typename Class> static uint64_t walk_tree() FXM_REQUIRES(fxm_fx_tbl.fx_lock)
{
    uint64_t up = 0;
    for (fxm_rbnode_t *link = _fxm_rbtree_first(&Class::map()); link != nullptr; link = _fxm_rbtree_next(link)) {
        const fxm_card_data_t &card = Class::card(Class::record(Class::link_t::record(link)));
        for (uint32_t channel = 0; channel < 4; ++channel)
            up += card.fcd_state[channel / 2][channel % 2] != 0 && card.fcd_recvtime[channel / 2][channel % 2] != 0;
    }
    return up;
}

// The least that two events of each card cost: two allocations in a list, and their end.
static double time_two_allocations()
{
    struct event_t {
        event_t *next;
        uint64_t id;
        uint64_t type;
    };
    event_t *first = nullptr;
    event_t **last = &first;
    empty_caches();
    const int64_t begun = now_ns();
    for (uint64_t i = 0; i < 2 * CARDS; ++i) {
        *last = static_cast<event_t *>(malloc(sizeof(event_t)));
        **last = {nullptr, FIRST_ID + i / 2, i % 2};
        last = &(*last)->next;
    }
    const double us = static_cast<double>(now_ns() - begun) / 1000;
    while (first != nullptr) {
        event_t *event = first;
        first = event->next;
        free(event);
    }
    return us;
}

// A list of ids that stands ready: an allocation and a copy.
static double time_copy()
{
    static std::vector<uint64_t> ids(CARDS, FIRST_ID);
    empty_caches();
    const int64_t begun = now_ns();
    for (int half = 0; half < 2; ++half) {
        auto *list = static_cast<uint64_t *>(malloc(CARDS / 2 * sizeof(uint64_t)));
        memcpy(list, &ids[static_cast<size_t>(half) * CARDS / 2], CARDS / 2 * sizeof(uint64_t));
        use(list[static_cast<size_t>(begun) % (CARDS / 2)]);
        free(list);
    }
    return static_cast<double>(now_ns() - begun) / 1000;
}

// -------------------------------------------------------------------------------------------------------------- passes

static void list_all()
{
    for (const auto list_ids : {fxm_get_fxsvids, fxm_get_fxioids}) {
        uint64_t *list = nullptr;
        uint32_t count = 0;
        if (list_ids(&list, &count) != FXM_API_SUCCESS || count != CARDS / 2)
            abort();
        fxm_free_idlist(list);
    }
}

static void measure_passes(size_t rounds)
{
    std::vector<double> idle, walk, lost, expired, events, lists, copy;
    const auto heard = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { connect_cards(HEARD); };
    const auto silent = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { connect_cards(SILENT); };
    const auto fall = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { _fxm_all_disconnect(0); };
    const auto walk_trees = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        if (walk_tree<fxsv_class>() + walk_tree<fxio_class>() != 4 * CARDS)
            abort();
    };
    const auto nothing = [] {};
    for (size_t i = 0; i < rounds; ++i) {
        progress("pass, round", i, rounds);
        idle.push_back(time_pass(0, heard, _devinfo_keepalive_check));
        walk.push_back(time_pass(0, heard, walk_trees));
        lost.push_back(time_pass(2 * CARDS, heard, fall));
        events.push_back(time_two_allocations());
        expired.push_back(time_pass(2 * CARDS, silent, _devinfo_keepalive_check));
        lists.push_back(time_pass(0, nothing, list_all));
        copy.push_back(time_copy());
    }
    progress("", rounds, rounds);
    row("pass_idle", median(idle) / 1000, median(walk) / 1000, "ms", {goal_t::FIGURE_AT_MOST, 0.3});
    row("link_lost", median(lost) / CARDS, median(events) / CARDS, "us a card", {goal_t::FIGURE_AT_MOST, 0.3});
    row("all_expired", median(expired) / CARDS, median(events) / CARDS, "us a card", {goal_t::FIGURE_AT_MOST, 0.3});
    row("list_ids", median(lists) * 1000 / CARDS, median(copy) * 1000 / CARDS, "ns a card",
        {goal_t::FIGURE_AT_MOST, 20});
}

// --------------------------------------------------------------------------------------------------------------- waits

// Reads records as fast as it can and keeps the longest time that one took. It goes before other threads, so that the time
// is that of the lock and not that of a busy machine.
struct query_t {
    query_t()
    {
        thread = std::thread([this] {
            const sched_param first{.sched_priority = 1};
            (void)sched_setscheduler(0, SCHED_FIFO, &first);
            for (uint64_t i = 0; !stop; ++i) {
                fxm_fxsv_t record;
                const int64_t begun = now_ns();
                if (fxm_get_fxsv(FIRST_ID + i * 7919 % (CARDS / 2) * 2, &record) != FXM_API_SUCCESS)
                    abort();
                longest_ns = std::max(longest_ns.load(), now_ns() - begun);
                sleep_until(now_ns() + 20000); // a host does not keep a CPU busy with queries
            }
        });
    }
    double end() // ms
    {
        stop = true;
        thread.join();
        return static_cast<double>(longest_ns) / 1e6;
    }
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<int64_t> longest_ns{0};
};

// The longest wait beside so many passes, each under a holding of its own, and the longest pass.
template <typename Before, typename Pass>
static void time_waits(int64_t events, Before before, Pass pass, std::vector<double> *waits,
                       std::vector<double> *passes)
{
    double longest = 0;
    {
        fxm_fx_guard_t guard;
        before();
    }
    empty_caches();
    delivered.store(0);
    query_t query;
    for (size_t i = 0; i < (events == 0 ? 20u : 1u); ++i) {
        sleep_until(now_ns() + 5000000);
        fxm_fx_guard_t guard;
        const int64_t begun = now_ns();
        pass();
        longest = std::max(longest, static_cast<double>(now_ns() - begun) / 1e6);
    }
    while (delivered.load() != events)
        std::this_thread::yield();
    waits->push_back(query.end());
    passes->push_back(longest);
}

static void measure_waits(size_t rounds)
{
    std::vector<double> waits, passes, expire_waits, expire_passes;
    const auto heard_on_port_0 = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { connect_cards(HEARD, 1); };
    const auto silent = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) { connect_cards(SILENT); };
    const auto pass_and_fall = []() FXM_REQUIRES(fxm_fx_tbl.fx_lock) {
        _devinfo_keepalive_check();
        _fxm_all_disconnect(1);
    };
    for (size_t i = 0; i < rounds; ++i) {
        progress("waits, round", i, rounds);
        time_waits(0, heard_on_port_0, pass_and_fall, &waits, &passes);
        time_waits(2 * CARDS, silent, _devinfo_keepalive_check, &expire_waits, &expire_passes);
    }
    progress("", rounds, rounds);
    row("query_wait", median(waits), median(passes), "ms", {goal_t::FIGURE_AT_MOST, 2});
    row("query_wait_expire", median(expire_waits), median(expire_passes), "ms", {goal_t::FIGURE_AT_MOST, 15});
}

int main(int argc, char **argv)
{
    take_options(argc, argv);
    g_log_level.store(FXM_LOG_FATAL);
    registry_t registry;
    const size_t rounds = full_or_quick(21, 5);
    measure_passes(rounds);
    measure_waits(rounds);
    return demand_missed() ? 1 : 0;
}

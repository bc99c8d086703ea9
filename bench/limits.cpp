// What happens at the limits that fxm.h describes: more new cards than anybody has, a callback that is slower than its
// events, an id that both classes announce.
#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "setup.h"
#include "wire.h"

constexpr int64_t MS = 1000000;

static std::filesystem::path directory; // of the installation

// With one arena, that is all of the heap.
static double heap_bytes()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

static double ms_since(int64_t begun) { return static_cast<double>(now_ns() - begun) / 1e6; }

static uint32_t events_queued()
{
    log_t log(directory / "statslogfile");
    return memory(read_dump(&log), "evt_node").in_use;
}

static void *on(int32_t type, fxm_callback_t func)
{
    void *cbid = nullptr;
    if (fxm_register_callback(type, func, 0, &cbid) != FXM_API_SUCCESS)
        fail("no callback");
    return cbid;
}

// ---------------------------------------------------------------------------------------------------------- new cards

constexpr size_t NEW_CARDS = 100000;
constexpr double CARD_BYTES = (770 + 330) / 2., LOCK_BYTES = 100, EVENT_BYTES = 16; // as fxm.h says

static std::atomic<bool> held_back;
static std::atomic<size_t> new_cards, stray_events;
static std::vector<uint8_t> announced_once; // by place in the flood

static void on_new(uint64_t id, int32_t, uint64_t)
{
    while (held_back)
        sleep_until(now_ns() + MS);
    const uint64_t place = id - (id < FIRST_FXIO ? FIRST_FXSV : FIRST_FXIO);
    stray_events += place >= NEW_CARDS || announced_once[place]++ != 0;
    new_cards += 1;
}

static uint32_t cards_known()
{
    uint32_t known = 0;
    for (const auto ids : {fxm_get_fxsvids, fxm_get_fxioids}) {
        uint64_t *list = nullptr;
        uint32_t count = 1; // the library counts the cards and makes no list
        ids(&list, &count);
        fxm_free_idlist(list);
        known += count;
    }
    return known;
}

// Asks for a card 20,000 times a second, before all other threads where the system allows that: so its waits are for the
// lock and not for a CPU.
static void ask(std::atomic<bool> *stop, std::vector<double> *us)
{
    const sched_param first{.sched_priority = 1};
    (void)sched_setscheduler(0, SCHED_FIFO, &first);
    while (!*stop && us->size() < us->capacity()) {
        fxm_fxsv_t record;
        const int64_t begun = now_ns();
        (void)fxm_get_fxsv(FIRST_FXSV + us->size() * 7919 % (NEW_CARDS / 2) * 2, &record);
        us->push_back(static_cast<double>(now_ns() - begun) / 1000);
        sleep_until(now_ns() + MS / 20);
    }
}

struct announcing_t {
    int rounds = 0; // what the capture has lost comes with the next one
    double sent_ms = 0, known_ms = 0;
};

static announcing_t announce_all(announcements_t *cards)
{
    const wire_t wire("card0", 0);
    announcing_t result;
    const int64_t begun = now_ns();
    while (cards_known() < NEW_CARDS) {
        cards->send(wire);
        if (result.rounds++ == 0)
            result.sent_ms = ms_since(begun);
        uint32_t known = 0;
        while (known < cards_known()) {
            known = cards_known();
            sleep_until(now_ns() + 2 * MS);
        }
    }
    result.known_ms = ms_since(begun);
    return result;
}

static void measure_new_cards()
{
    announcements_t cards(NEW_CARDS);
    announced_once.assign(NEW_CARDS, 0);
    const double heap_before = heap_bytes();
    hold_to_cpu(1);
    start_library("devinfo_expire_time = 100000\n");
    on(FXM_EVT_NEWDEVINFO, on_new);
    held_back = true;
    std::vector<double> us;
    us.reserve(1 << 20);
    std::atomic<bool> stop{false};
    std::thread asker(ask, &stop, &us);
    hold_to_cpu(0);
    const double heap_empty = heap_bytes();
    const announcing_t done = announce_all(&cards);
    const double heap_queued = heap_bytes();
    stop = true;
    asker.join();
    const uint32_t queued = events_queued();
    const size_t early = new_cards;
    held_back = false;
    wait_until([] { return new_cards == NEW_CARDS; }, "the events of the new cards");
    wait_until([] { return events_queued() == 0; }, "an empty queue");
    const double heap_full = heap_bytes();
    const size_t asked = us.size();
    const summary_t wait = summarise(us);
    std::vector<double>().swap(us); // none of its memory counts below
    stop_library();
    const double heap_after = heap_bytes();

    printf("%zu new cards, sent in %.0f ms as fast as one CPU does it: all are known after %.0f ms and %d rounds\n",
           NEW_CARDS, done.sent_ms, done.known_ms, done.rounds);
    printf("  a query meanwhile: median %.2f us, p99 %.1f us, longest %.0f us of %zu\n", wait.median, wait.p99,
           wait.max, asked);
    printf("  %u events waited for a callback that did not return, %zu had come; then one came for each card, and %zu "
           "more\n",
           queued, early, stray_events.load());
    row("new_cards_time", done.known_ms, done.sent_ms, "ms", {goal_t::TOLD, 0});
    row("new_cards_wait", wait.max / 1000, NO_LIMIT, "ms", {goal_t::TOLD, 0});
    row("new_card_heap", (heap_full - heap_empty) / NEW_CARDS, CARD_BYTES, "B", {goal_t::RATIO_AT_MOST, 1.1});
    row("card_heap_kept", (heap_after - heap_before) / NEW_CARDS, LOCK_BYTES, "B", {goal_t::RATIO_AT_MOST, 1.1});
    row("event_heap", (heap_queued - heap_full) / queued, EVENT_BYTES, "B", {goal_t::RATIO_AT_MOST, 1.1});
    demand("events of new cards that came twice or for nobody", static_cast<double>(stray_events), 0, "");
    release_cpus();
}

// ------------------------------------------------------------------------------------------------------ slow callback

constexpr uint64_t RESTLESS = 0x020000300000; // behind fxm0; its content changes with each frame
constexpr int64_t CALLBACK_MS = 20;
constexpr uint64_t READ_CARDS = 4; // behind fxm1

static std::atomic<int64_t> callback_ms{CALLBACK_MS};
static std::atomic<size_t> updates;
static std::atomic<size_t> updates_before_connection; // 0: it has not come

static void on_update(uint64_t id, int32_t, uint64_t)
{
    if (id != RESTLESS)
        return;
    if (callback_ms != 0)
        sleep_until(now_ns() + callback_ms * MS);
    updates += 1;
}

static void on_connection(uint64_t, int32_t, uint64_t) { updates_before_connection = updates + 1; }

static void do_nothing(uint64_t, int32_t, uint64_t) {}

// Frames that all differ from the one before, ten each millisecond.
static void send_changes(size_t number)
{
    const wire_t wire("card0", 0);
    static uint16_t content;
    frame_t frame = fxio_frame(RESTLESS);
    int64_t next = now_ns();
    for (size_t i = 0; i < number; ++i) {
        if (i % 10 == 0)
            sleep_until(next += MS);
        content += 1;
        frame[AT_FLOW_ID] = static_cast<uint8_t>(content >> 8);
        frame[AT_LINK_STATUS] = static_cast<uint8_t>(content);
        wire.send(frame);
    }
}

static void read_for(int64_t ms, std::vector<double> *us)
{
    for (const int64_t until = now_ns() + ms * MS; now_ns() < until;) {
        uint32_t value = 0;
        const int64_t begun = now_ns();
        const int result = fxm_read_register(FIRST_FXSV + us->size() % READ_CARDS * 2, 0x1000, &value, nullptr, 0);
        if (result != FXM_API_SUCCESS)
            fail("fxm_read_register has returned %d", result);
        us->push_back(static_cast<double>(now_ns() - begun) / 1000);
    }
}

// The longest of a registration and its end, ms.
static void register_for(int32_t type, const std::atomic<bool> *stop, double *longest)
{
    while (!*stop) {
        for (void *cbid = nullptr; cbid == nullptr;) {
            int64_t begun = now_ns();
            cbid = on(type, do_nothing);
            *longest = std::max(*longest, ms_since(begun));
            begun = now_ns();
            fxm_unregister_callback(cbid);
            *longest = std::max(*longest, ms_since(begun));
        }
        sleep_until(now_ns() + 5 * MS);
    }
}

static void measure_stop()
{
    constexpr size_t changes = 200;
    callback_ms = CALLBACK_MS;
    const size_t before = updates;
    send_changes(changes);
    const uint32_t left = events_queued();
    const int64_t begun = now_ns();
    stop_library();
    const double took_ms = ms_since(begun);
    printf("  a stop with %u events in the queue takes %.0f ms and delivers all: %zu of %zu\n", left, took_ms,
           updates - before, changes);
    row("stop_backlog", took_ms, static_cast<double>(left) * CALLBACK_MS + 1100, "ms", {goal_t::RATIO_AT_MOST, 1.1});
    demand("events that a stop has not delivered", static_cast<double>(changes - (updates - before)), 0, "");
}

static void measure_slow_callback()
{
    const auto seconds = static_cast<int64_t>(full_or_quick(5, 3));
    const auto changes = static_cast<size_t>(seconds) * 10000;
    hold_to_cpu(1);
    start_cards(READ_CARDS, "--port0 card1");
    start_library_at("fxm0 fxm1", "devinfo_expire_time = 100000\n");
    std::vector<double> quiet_us, us;
    quiet_us.reserve(1 << 20);
    us.reserve(1 << 20);
    const auto all_known = [] { return cards_known() == READ_CARDS; };
    wait_until(all_known, "the cards that are read");
    on(FXM_EVT_UPDATEDEVINFO, on_update);
    on(FXM_EVT_CONNECTIONCHANGE, on_connection);
    read_for(1000, &quiet_us);
    const double heap_empty = heap_bytes();

    double same_kind_ms = 0, other_kind_ms = 0;
    std::atomic<bool> stop{false};
    std::thread threads[] = {std::thread([=] {
                                 hold_to_cpu(0);
                                 send_changes(changes);
                             }),
                             std::thread(register_for, FXM_EVT_UPDATEDEVINFO, &stop, &same_kind_ms),
                             std::thread(register_for, FXM_EVT_CHANNELSTATECHANGE, &stop, &other_kind_ms)};
    read_for(seconds * 500, &us);
    tell_cards("set %012llx down0=020000200000", static_cast<unsigned long long>(FIRST_FXSV));
    tell_cards("announce %012llx", static_cast<unsigned long long>(FIRST_FXSV));
    read_for(seconds * 500, &us);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    const double heap_queued = heap_bytes();
    const uint32_t queued = events_queued();
    const size_t delivered = updates;
    const bool other_kind_came = updates_before_connection != 0;
    callback_ms = 0;
    const int64_t begun = now_ns();
    wait_until([=] { return updates_before_connection != 0 && updates >= changes - 1; }, "the queue to be delivered");
    const double drain_ms = ms_since(begun);

    const summary_t quiet = summarise(quiet_us), busy = summarise(us);
    printf("\nA card whose content changes %zu times in %lld s, and a callback that takes %lld ms\n", changes,
           static_cast<long long>(seconds), static_cast<long long>(CALLBACK_MS));
    printf("  %zu events were delivered meanwhile, %u waited, in %.0f KiB; a fast callback takes %.0f ms for them\n",
           delivered, queued, (heap_queued - heap_empty) / 1024, drain_ms);
    printf("  %zu frames without an event\n", changes - updates - 1);
    printf("  an event of another kind, raised in the middle: %s, behind %zu of this kind\n",
           other_kind_came ? "came meanwhile" : "had to wait too", updates_before_connection.load() - 1);
    printf("  a read of another card: median %.1f us, p99 %.0f us; before %.1f us, %.0f us\n", busy.median, busy.p99,
           quiet.median, quiet.p99);
    row("backlog_read", busy.median, quiet.median, "us", {goal_t::RATIO_AT_MOST, 1.5});
    // The wait is for the callback under way and at most one more.
    row("backlog_register", same_kind_ms, 2 * CALLBACK_MS, "ms", {goal_t::RATIO_AT_MOST, 1.25});
    row("backlog_register_other", other_kind_ms, NO_LIMIT, "ms", {goal_t::TOLD, 0});
    measure_stop();
    stop_cards();
    release_cpus();
}

// ------------------------------------------------------------------------------------------------------- both classes

constexpr uint64_t BOTH = 0x020000400000;
static std::atomic<int> seen[FXM_EVT_CHANNELSTATECHANGE + 1];

static void count_event(uint64_t id, int32_t type, uint64_t) { seen[type] += id == BOTH; }

static int seen_in_all()
{
    int all = 0;
    for (const auto &kind : seen)
        all += kind;
    return all;
}

static void print_seen(const char *when)
{
    printf("  %s: %d events: %d new, %d update, %d connection, %d error, %d path, %d channel\n", when, seen_in_all(),
           seen[0].load(), seen[1].load(), seen[2].load(), seen[3].load(), seen[4].load(), seen[5].load());
}

static uint32_t channel_state(bool fxsv)
{
    fxm_fxsv_t server;
    fxm_fxio_t other;
    if (fxsv)
        return fxm_get_fxsv(BOTH, &server) == FXM_API_SUCCESS ? server.fsv_card.fcd_state[0][0] : 9;
    return fxm_get_fxio(BOTH, &other) == FXM_API_SUCCESS ? other.fio_card.fcd_state[0][0] : 9;
}

static int read_both()
{
    const fxm_retry_param_t once = {0, 10};
    uint32_t value = 0;
    return fxm_read_register(BOTH, 0x1000, &value, &once, 0);
}

static void look_at_both_classes()
{
    const size_t turns = 1000;
    start_library("devinfo_expire_time = 1000\n");
    for (int32_t type = FXM_EVT_NEWDEVINFO; type <= FXM_EVT_CHANNELSTATECHANGE; ++type)
        on(type, count_event);
    const wire_t wire("card0", 0);
    const frame_t fxsv = from(BOTH, fxsv_1g_frame());
    const frame_t fxio = fxio_frame(BOTH);
    for (size_t i = 0; i < turns; ++i) {
        wire.send(fxsv);
        wire.send(fxio);
    }
    wait_until([=] { return counter("FXM_STATS_R_TOTAL") == 2 * turns; }, "all frames");
    wait_until([] { return events_queued() == 0; }, "the events");
    printf("\nOne id in both classes, %zu frames of each in turns\n", turns);
    print_seen("while both announce it");
    const int changes = seen_in_all();
    demand("cards known but one of each class", std::abs(static_cast<double>(cards_known()) - 2), 0, "");
    demand("events besides that both are new", changes - seen[FXM_EVT_NEWDEVINFO], 0, "");
    printf("  a read goes to the FXSV record: %d (nobody answers)\n", read_both());
    // FXSV falls silent, FXIO goes on.
    wait_until(
        [&] {
            wire.send(fxio);
            sleep_until(now_ns() + 50 * MS);
            return channel_state(true) == 0;
        },
        "the FXSV channel to go down");
    wait_until([] { return events_queued() == 0; }, "the events");
    print_seen("when FXSV has been silent");
    printf("  channel of FXSV %u, of FXIO %u; a read: %d\n", channel_state(true), channel_state(false), read_both());
    demand("reads that do not use the FXSV record", read_both() != FXM_API_ENOLINK, 0, "");
    fxm_delete_fxsv(BOTH);
    printf("  without its FXSV record: channel of FXIO %u; a read: %d\n", channel_state(false), read_both());
    demand("reads that do not use the FXIO record then", read_both() != FXM_API_ETIMEDOUT, 0, "");
    stop_library();
}

int main(int argc, char **argv)
{
    bench_begin(argc, argv);
    mallopt(M_ARENA_MAX, 1);
    lay_cable("fxm1", "card1");
    directory = configure("");
    measure_new_cards();
    measure_slow_callback();
    look_at_both_classes();
    return bench_end();
}

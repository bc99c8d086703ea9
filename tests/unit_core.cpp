// Single modules: the ordered map and the roster against std::map, the order of the locks, the events.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "core/fxm_locks.h"
#include "core/fxm_rbtree.h"
#include "platform/fxm_platform.h"
#include "registry/fxm_roster.h"

struct entry_t {
    fxm_rbnode_t link;
    uint64_t key;
};

using of_entry = fxm_rbtree_of<&entry_t::link, &entry_t::key>;

static entry_t *entry_of(fxm_rbnode_t *link) { return of_entry::record(link); }

// The number of black nodes on every path, or -1 where a rule is broken.
static int black_height(const fxm_rbnode_t *node, const fxm_rbnode_t *parent)
{
    if (node == nullptr)
        return 1;
    if (node->parent != parent)
        return -1;
    if (node->color == 1 && parent != nullptr && parent->color == 1)
        return -1;
    const int left = black_height(node->left, node);
    const int right = black_height(node->right, node);
    if (left < 0 || left != right)
        return -1;
    return left + (node->color == 0 ? 1 : 0);
}

static void expect_same(const fxm_rbtree_t &tree, const std::map<uint64_t, entry_t *> &model)
{
    ASSERT_TRUE(tree.root == nullptr || tree.root->color == 0) << "the root is not black";
    ASSERT_GE(black_height(tree.root, nullptr), 1) << "not a red-black tree any more, " << model.size() << " entries";
    auto expected = model.begin();
    for (fxm_rbnode_t *link = _fxm_rbtree_first(&tree); link != nullptr; link = _fxm_rbtree_next(link), ++expected) {
        ASSERT_NE(expected, model.end());
        ASSERT_EQ(entry_of(link), expected->second) << "a record has moved or is out of order";
    }
    ASSERT_EQ(expected, model.end()) << "the walk ended early";
}

TEST(ordered_map, any_mix_of_puts_and_deletes_keeps_order_balance_and_addresses)
{
    std::mt19937_64 random(20261124);
    std::vector<entry_t> pool(400);
    std::map<uint64_t, entry_t *> model;
    fxm_rbtree_t tree;
    _fxm_rbtree_init(&tree, _fxm_rbtree_compare_u64, of_entry::get_key);
    std::vector<entry_t *> free_entries;
    for (entry_t &entry : pool)
        free_entries.push_back(&entry);

    for (int step = 0; step < 20000; ++step) {
        // Few distinct keys, some with the top bit set, so that duplicates and unsigned order both come up.
        const uint64_t key = (random() % 600) | (random() % 3 == 0 ? uint64_t{1} << 63 : 0);
        // Phases of growing and shrinking reach both the full and the empty map.
        if (random() % 100 < (step / 2000 % 2 == 0 ? 65u : 35u) && !free_entries.empty()) {
            entry_t *entry = free_entries.back();
            entry->key = key;
            const int expected = model.contains(key) ? EEXIST : 0;
            ASSERT_EQ(_fxm_rbtree_put(&tree, &entry->link), expected);
            if (expected == 0) {
                free_entries.pop_back();
                model[key] = entry;
            }
        } else if (!model.empty()) {
            auto victim = model.lower_bound(key);
            if (victim == model.end())
                victim = model.begin();
            fxm_rbnode_t *link = _fxm_rbtree_find(&tree, &victim->first);
            ASSERT_EQ(entry_of(link), victim->second);
            _fxm_rbtree_delete(&tree, link);
            free_entries.push_back(victim->second);
            model.erase(victim);
        }
        ASSERT_NO_FATAL_FAILURE(expect_same(tree, model)) << "step " << step;
    }

    static size_t destroyed;
    destroyed = 0;
    _fxm_rbtree_clear(&tree, [](fxm_rbnode_t *) { ++destroyed; });
    EXPECT_EQ(destroyed, model.size());
    EXPECT_EQ(_fxm_rbtree_first(&tree), nullptr);
}

// The ids of the seats for which `wanted` holds, in the order of the walk.
template <typename Wanted> static std::vector<uint64_t> walked(fxm_roster_t *roster, Wanted wanted)
{
    std::vector<uint64_t> ids;
    _fxm_roster_walk(roster, sizeof(uint64_t), wanted, [&](fxm_seat_t *seat) {
        ids.push_back(_fxm_node_id(seat->node));
        return true;
    });
    return ids;
}

TEST(roster, any_mix_of_arrivals_and_departures_keeps_look_ups_order_and_times)
{
    std::mt19937_64 random(20261125);
    fxm_roster_t roster;
    _fxm_roster_init(&roster);
    std::map<uint64_t, uint64_t> model; // the time of each id; its key serves as the node
    for (int step = 0; step < 60000; ++step) {
        // The first ids ascend and fill each stretch; later ones split stretches, and phases of shrinking empty them.
        const uint64_t id = step < 3000 ? uint64_t{1000000} + static_cast<uint64_t>(step) : random() % 100000;
        const uint64_t time = random() % 1000;
        if (step < 3000 || random() % 100 < (step / 10000 % 2 == 0 ? 60u : 30u)) {
            const auto [entry, is_new] = model.try_emplace(id, time);
            if (is_new) {
                ASSERT_NE(_fxm_roster_add(&roster, const_cast<uint64_t *>(&entry->first), {0, time & FXM_NEVER}),
                          nullptr);
            } else {
                _fxm_roster_find(&roster, id)->watch.oldest = (entry->second = time) & FXM_NEVER;
            }
        } else if (const auto victim = model.lower_bound(id); victim != model.end()) {
            _fxm_roster_remove(&roster, _fxm_roster_find(&roster, victim->first));
            model.erase(victim);
        }
        ASSERT_EQ(roster.count, model.size());
        const auto known = model.find(id);
        const fxm_seat_t *seat = _fxm_roster_find(&roster, id);
        ASSERT_EQ(seat != nullptr, known != model.end()) << "id " << id << " at step " << step;
        if (seat != nullptr) {
            ASSERT_EQ(seat->watch.oldest, known->second);
        }
        if (step % 500 != 0)
            continue;
        std::vector<uint64_t> all;
        std::vector<uint64_t> old;
        for (const auto &[key, heard] : model) {
            all.push_back(key);
            if (heard <= 10)
                old.push_back(key);
        }
        ASSERT_EQ(walked(&roster, [](const fxm_seat_t &) { return true; }), all) << "step " << step;
        ASSERT_EQ(walked(&roster, [](const fxm_seat_t &seat) { return seat.watch.oldest <= 10; }), old);
        ASSERT_EQ(_fxm_roster_any_heard_by(&roster, 10), !old.empty());
        std::vector<uint64_t> listed(model.size());
        _fxm_roster_ids(&roster, listed.data());
        ASSERT_EQ(listed, all);
    }
    _fxm_roster_clear(&roster);
    EXPECT_EQ(_fxm_roster_find(&roster, 1000000), nullptr);
    EXPECT_FALSE(_fxm_roster_any_heard_by(&roster, FXM_NEVER)) << "an empty roster has nothing to expire";
}

#ifdef FXM_CHECKED
TEST(lock_order_DeathTest, thread_that_breaks_it_is_stopped_with_both_stacks)
{
    fxm_mutex_t entry{FXM_LOCK_ENTRY};
    fxm_mutex_t wn{FXM_LOCK_WN};
    fxm_mutex_t fx{FXM_LOCK_FX};
    fxm_mutex_t stats{FXM_LOCK_STATS};
    const auto take = [](fxm_mutex_t *first, fxm_mutex_t *second) {
        fxm_mutex_guard_t outer(first);
        fxm_mutex_guard_t inner(second);
    };
    take(&entry, &entry);
    take(&entry, &wn);
    take(&fx, &stats);
    EXPECT_DEATH(take(&stats, &fx), "fx_lock is taken while g_stats_lock is held(.|\n)*here:(.|\n)*"
                                    "g_stats_lock was taken here:(.|\n)*(unit_core|_fxm_mutex_lock)");
    EXPECT_DEATH(take(&wn, &fx), "fx_lock is taken while wn_lock is held");
    fxm_mutex_guard_t across(&wn);
    _fxm_check_wait("a frame");
    EXPECT_DEATH(_fxm_check_callback("a callback"), "wn_lock is held across a callback");
    fxm_mutex_t cmp{FXM_LOCK_CMP};
    fxm_mutex_guard_t inside(&cmp);
    EXPECT_DEATH(Sleep(1), "cmp_lock is held across a sleep");
}
#endif

TEST(event, a_signal_is_kept_for_one_wait_and_counted_once)
{
    for (const bool waitable : {false, true}) {
        fxm_event_t event;
        ASSERT_EQ(waitable ? _fxm_event_init_waitable(&event) : _fxm_event_init(&event), 0);
        _fxm_event_set(&event);
        _fxm_event_set(&event);
        fxm_wait_source_t never;
        const auto taken = [&] {
            return waitable ? _fxm_wait_two(&event, &never, 1) == FXM_WAIT_FIRST : _fxm_event_timedwait(&event, 1) == 0;
        };
        EXPECT_TRUE(taken()) << "the signal before the wait was lost";
        EXPECT_FALSE(taken()) << "two signals released two waits";
        _fxm_event_destroy(&event);
    }
}

TEST(event, every_signal_of_a_handshake_releases_one_waiter)
{
    fxm_event_t ping;
    fxm_event_t pong;
    ASSERT_EQ(_fxm_event_init(&ping), 0);
    ASSERT_EQ(_fxm_event_init(&pong), 0);
    constexpr int rounds = 20000;
    int answered = 0;
    std::thread other([&] {
        while (answered < rounds && _fxm_event_timedwait(&ping, 30000) == 0) {
            ++answered;
            _fxm_event_set(&pong);
        }
    });
    int heard = 0;
    while (heard < rounds) {
        _fxm_event_set(&ping);
        if (_fxm_event_timedwait(&pong, 30000) != 0)
            break;
        ++heard;
    }
    other.join();
    EXPECT_EQ(heard, rounds) << "a signal was lost between two threads";
}

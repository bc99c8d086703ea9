// What cannot be shown from outside of fxmd: turns of the executor, numbers of events across kills and bad disks, the
// history on a full disk and in a damaged file, and how filters and ids are read.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>

#include "common/card_id.h"
#include "common/error.h"
#include "common/filter.h"
#include "daemon/executor.h"
#include "daemon/history.h"
#include "daemon/sequence.h"
#include "net.h"
#include "wait.h"

using namespace fxm;
namespace fs = std::filesystem;

// ------------------------------------------------------------------------------------------------------------- executor

// Holds tasks until it opens.
struct gate {
    void open() { promise.set_value(); }
    bool pass() const { return opened.wait_for(std::chrono::seconds(30)) == std::future_status::ready; }

    std::promise<void> promise;
    std::shared_future<void> opened = promise.get_future().share();
};

TEST(executor, tasks_of_one_card_begin_together_while_threads_are_idle)
{
    // A thread that has been called and does not run yet must not be counted as idle, which takes many rounds to meet.
    for (int round = 0; round < 200; ++round) {
        gate warm, second;
        std::promise<bool> met;
        executor threads(4, 2, 10);
        ASSERT_TRUE(threads.submit(1, [&] { warm.open(); }));
        ASSERT_TRUE(warm.pass());
        ASSERT_TRUE(threads.submit(1, [&] { met.set_value(second.pass()); }));
        ASSERT_TRUE(threads.submit(1, [&] { second.open(); }));
        ASSERT_TRUE(met.get_future().get()) << "round " << round;
    }
}

TEST(executor, cards_take_turns_in_order_within_their_limits)
{
    gate running, start, done;
    std::string order;
    {
        executor threads(1, 2, 3);
        threads.submit('z', [&] { running.open(), start.pass(); });
        ASSERT_TRUE(running.pass());
        for (const char *name : {"a1", "a2", "a3", "b1", "b2", "c1"})
            ASSERT_TRUE(threads.submit(static_cast<uint64_t>(name[0]), [&order, name] { order += name; }));
        EXPECT_FALSE(threads.submit('a', [] {})) << "a full queue took a task";
        for (int i = 0; i < 3; ++i)
            threads.submit('d', [&, i] { i == 2 ? done.open() : void(); });
        start.open();
        ASSERT_TRUE(done.pass());
    }
    EXPECT_EQ(order, "a1b1c1a2b2a3");

    std::atomic<int> at_once = 0, left = 2000; // of the first card; the others keep the threads busy
    std::atomic<bool> more = false;
    executor threads(16, 3, 2000);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(threads.submit(static_cast<uint64_t>(i % 4), [&, i] {
            if (i % 4 == 0 && ++at_once > 3)
                more = true;
            usleep(100);
            at_once -= i % 4 == 0, --left;
        }));
    }
    EXPECT_TRUE(poll_until([&] { return left == 0; })) << left;
    EXPECT_FALSE(more);
}

TEST(executor, close_leaves_nobody_waiting_and_an_exception_ends_its_task_alone)
{
    gate running, end;
    std::atomic<int> reports = 0, ran = 0, dropped = 0;
    executor threads(2, 1, 10, [&](const std::string &what) { reports += what == "thrown"; });
    threads.submit(1, [] { throw std::runtime_error("thrown"); });
    threads.submit(1, [&] { running.open(), end.pass(), ++ran; });
    ASSERT_TRUE(running.pass());
    const auto run = [&] { ++ran; };
    const auto drop = [&] { ++dropped; };
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(threads.submit(1, run, drop));
    std::thread closer([&] { threads.close(); });
    EXPECT_TRUE(poll_until([&] { return dropped == 5; })) << "they do not wait for the task that runs";
    EXPECT_FALSE(threads.submit(2, run, drop));
    end.open();
    closer.join();
    EXPECT_EQ(ran, 1) << "close waits for what runs, and begins nothing";
    EXPECT_EQ(dropped + reports, 6);
}

// --------------------------------------------------------------------------------------------------- numbers and history

// A small file system of its own, so that it can be full.
class small_disk : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_EQ(mount("units", dir.c_str(), "tmpfs", 0, "size=1m"), 0) << strerror(errno); }
    void TearDown() override
    {
        umount2(dir.c_str(), MNT_DETACH);
        fs::remove(dir);
    }
    void fill() const
    {
        std::ofstream file(dir / "filler", std::ios::binary);
        while (file.write(std::string(4096, 'x').data(), 4096).flush())
            ;
    }
    void append(int count)
    {
        for (int i = 0; i < count; ++i)
            events.append({event_type::change, 0x02, {}, {}, R"("card":"00:00:00:00:00:02","i":)" + std::to_string(i)});
    }

    const fs::path dir = [] {
        char name[] = "/tmp/fxm-units-XXXXXX";
        return fs::path(mkdtemp(name));
    }();
    logger log{log_level::warning};
    ring events{7};
};

TEST_F(small_disk, numbers_never_come_again)
{
    uint64_t last = 0;
    const auto run = [&](uint64_t used) { // ends as with a kill: nothing is written at the end
        sequence_store store(dir, &log);
        EXPECT_GE(store.start(), last);
        last = store.start();
        for (const uint64_t end = last + used; last < end; last += std::min<uint64_t>(20000, end - last))
            store.reserve(last, 0);
    };
    run(1);
    run(500000);
    fill();
    run(300000);
    EXPECT_TRUE(log.lines(0).empty()) << "a full disk needs no help of the clock";
    fs::resize_file(dir / "filler", 0);
    std::ofstream(dir / "sequence") << "00000000000000x00000\n";
    run(10);
    EXPECT_EQ(last >> 50, 1U) << "from the clock, and below 2^53";
    run(10);
    {
        sequence_store store(dir / "later", &log);
        fs::create_directory(dir / "later");
        store.reserve(store.start() + 1, 0);
        EXPECT_TRUE(fs::remove(dir / "later" / "sequence"));
        store.reserve(last = store.start() + 2, 0);
    }
    EXPECT_GT(sequence_store(dir / "later", &log).start(), last) << "a file that was away is there again";
}

TEST_F(small_disk, a_full_disk_stops_the_history_with_one_warning_until_there_is_room)
{
    history past(dir, {}, &events, &log, [] { return minute_sample{}; });
    past.set_retry_ms(1);
    past.start();
    append(100);
    ASSERT_TRUE(poll_until([&] { return past.status().events == 100; }));
    fill();
    append(20000);
    ASSERT_TRUE(poll_until([&] { return past.status().failing; }));
    append(ring::SIZE); // the ring forgets what waits
    ASSERT_EQ(mount("units", dir.c_str(), "tmpfs", MS_REMOUNT, "size=200m"), 0);
    ASSERT_TRUE(poll_until([&] { return !past.status().failing; }));
    past.stop();
    EXPECT_EQ(log.lines(0).size(), 2U) << "one when it fails, one when it is on again";

    uint64_t seq = 7;
    past.query_events({.type = "", .limit = 1000000}, [&](uint64_t next, std::string_view text) {
        const bool gap = text.starts_with(R"({"schema":"fxm/1","type":"gap","from":)" + std::to_string(seq + 1) + ',');
        ASSERT_TRUE(gap || next == seq + 1) << text << " follows " << seq;
        if (!gap && next >= events.first_seq()) {
            ASSERT_EQ(text, events.read(next - 1, 1).events.at(0)->text);
        }
        seq = next;
    });
    EXPECT_EQ(seq, events.last_seq());
}

TEST_F(small_disk, a_damaged_history_is_set_aside_and_a_removed_one_begins_anew)
{
    std::ofstream(dir / "history.db") << std::string(8192, 'x');
    history past(dir, {}, &events, &log, [] { return minute_sample{}; });
    past.set_retry_ms(1);
    past.start();
    append(10);
    ASSERT_TRUE(poll_until([&] { return past.status().events == 10; }));
    EXPECT_EQ(log.lines(0).size(), 1U);
    const std::string text = log.lines(0).at(0).text; // "the history was damaged and is now FILE; ..."
    const size_t name = text.find(dir.string());
    EXPECT_EQ(fs::file_size(text.substr(name, text.find(';') - name)), 8192U) << text;
    fs::remove(dir / "history.db");
    append(3);
    EXPECT_TRUE(poll_until([&] { return past.status().events == 3 && fs::exists(dir / "history.db"); }));
}

// ------------------------------------------------------------------------------------------------------ filters and ids

TEST(reading, ids_and_filters_take_what_they_say_and_nothing_else)
{
    for (const char *text : {"02:00:00:00:10:00", "02-00-00-00-10-00", "0200.0000.1000", "0x020000001000"})
        EXPECT_EQ(parse_id(text), 0x020000001000U) << text;
    for (const char *text : {"", "02:00:00:00:10", "02:00:00:00:10:00:", "02:00:00:00:10-00", "2:0:0:0:10:0",
                             "0200000010001", "02:00:00:00:10:0g", "0x", " 020000001000", "+20000001000", "::::::"})
        EXPECT_FALSE(parse_id(text)) << text;
    for (const char *text : {"", "0x", "-1", "08", "4294967296", "1 "})
        EXPECT_FALSE(parse_u32(text)) << text;

    facts card;
    card.id = 0x020000001000;
    card.vlan = 100;
    card.state = health::error;
    card.int_vector = 4;
    card.partner_count = 1;
    card.partners[0] = 0x020000002000;
    EXPECT_FALSE(filter::parse("vlan!=5").matches({})) << "no card";
    // The page has these cases, too.
    std::ifstream cases(FXM_FILTER_CASES);
    size_t count = 0;
    for (std::string line; std::getline(cases, line);) {
        const std::string text = line.substr(std::min<size_t>(2, line.size()));
        count += line[0] != '#' ? 1 : 0;
        if (line[0] == '!') {
            EXPECT_THROW(filter::parse(text), api_error) << line;
        } else if (line[0] != '#') {
            EXPECT_EQ(filter::parse(text).matches(card), line[0] == '+') << line;
        }
    }
    EXPECT_GT(count, 40U);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!enter_namespace() || unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0)
        return 1;
    return RUN_ALL_TESTS();
}

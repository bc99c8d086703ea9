#include "fabric.h"

#include <net/if.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

using namespace std::chrono_literals;

// A card that only the fixture knows: its announcement comes behind all frames sent before.
constexpr uint64_t FENCE = 0x02fe0000fe00;

bool wait_for(const std::function<bool()> &done, const std::string &what, const std::function<std::string()> &seen)
{
    // After a fatal failure, say of the start, nothing more will come.
    if (testing::Test::HasFatalFailure() ? done() : poll_until(done))
        return true;
    ADD_FAILURE() << "waited in vain for: " << what << (seen ? "\nseen:\n" + seen() : "");
    return false;
}

testing::AssertionResult same_frame(const frame_t &expected, const frame_t &actual)
{
    if (expected == actual)
        return testing::AssertionSuccess();
    const auto [differ, other] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    return testing::AssertionFailure() << "frames of " << expected.size() << " and " << actual.size()
                                       << " bytes differ from offset " << differ - expected.begin() << "\nexpected\n"
                                       << to_hex(expected) << "\nactual\n"
                                       << to_hex(actual);
}

// -------------------------------------------------------------------------------------------------------- the fixture

void fabric_t::SetUp()
{
    for (const std::string p : {"0", "1"}) {
        lay_cable("fxm" + p + " address 02:00:00:00:aa:0" + p, "card" + p + " address 02:00:00:00:cc:0" + p);
        ASSERT_FALSE(HasFailure());
        renew_wire(p == "1");
    }
    configure("");
}

void fabric_t::TearDown()
{
    if (manager.started())
        stop();
    stop_cards();
    if (HasFailure())
        fprintf(stderr, "the log ends with\n%s", log.tail(40).c_str());
    wire = {};
    for (const char *interface : {"fxm0", "fxm1"}) {
        if (if_nametoindex(interface) != 0) // a test may have deleted it
            ip(std::string("link del ") + interface);
    }
}

void fabric_t::configure(const std::string &lines)
{
    installation.configure(lines + "\n" +
                           (lines.find("ether_port") == std::string::npos ? "ether_port = fxm0 fxm1\n" : ""));
}

void fabric_t::on_event(uint64_t id, int32_t type, uint64_t arg)
{
    auto *self = reinterpret_cast<fabric_t *>(arg);
    const std::lock_guard guard(self->event_lock);
    if (id != FENCE)
        self->event_list.push_back({type, id});
    else if (type == FXM_EVT_NEWDEVINFO)
        self->fences_seen += 1;
}

void fabric_t::start(int32_t log_level)
{
    ASSERT_TRUE(manager.start(dir, log_level)) << "fxm_init_manager has returned " << manager.result() << "\n"
                                               << log.tail();
    for (int32_t type = 0; type < 6; ++type) {
        ASSERT_EQ(fxm_register_callback(type, on_event, reinterpret_cast<uintptr_t>(this), &cbid[type]),
                  FXM_API_SUCCESS);
    }
}

void fabric_t::run(int32_t log_level)
{
    ASSERT_NO_FATAL_FAILURE(start(log_level));
    ASSERT_EQ(fxm_start_manager(), FXM_API_SUCCESS);
}

int fabric_t::stop()
{
    EXPECT_TRUE(manager.started());
    EXPECT_EQ(fxm_fini_manager(), FXM_API_SUCCESS);
    for (int mtu = 60000; !manager.returned() && mtu < 65000; ++mtu) {
        for (const int port : {0, 1}) {
            if (is_running("card" + std::to_string(port)))
                send_fence(port);
        }
        set_mtu("lo", mtu);
        std::this_thread::sleep_for(1ms);
    }
    return manager.result();
}

// Always with a VLAN of its own, so that each is news.
void fabric_t::send_fence(int port)
{
    fence_vlan = static_cast<uint16_t>(fence_vlan % 90 + 1);
    wire[static_cast<size_t>(port)]->send(on_vlan(static_cast<uint16_t>(4000 + fence_vlan), from(FENCE, fxio_frame())));
}

void fabric_t::settle(int port)
{
    const auto seen = [&] {
        const std::lock_guard guard(event_lock);
        return fences_seen;
    };
    const uint64_t before = seen();
    send_fence(port);
    ASSERT_TRUE(wait_for([&] { return seen() > before; }, "the frames on port " + std::to_string(port),
                         [&] { return log.tail(); }));
    ASSERT_EQ(fxm_delete_fxio(FENCE), FXM_API_SUCCESS);
}

std::vector<event_t> fabric_t::events()
{
    const std::lock_guard guard(event_lock);
    return event_list;
}

void fabric_t::expect_events(const std::vector<event_t> &expected, int port)
{
    wait_for([&] { return events().size() >= expected.size(); }, std::to_string(expected.size()) + " events",
             [&] { return testing::PrintToString(events()) + "\n" + log.tail(); });
    ASSERT_NO_FATAL_FAILURE(settle(port));
    EXPECT_EQ(events(), expected);
    const std::lock_guard guard(event_lock);
    event_list.clear();
}

fxm_fxsv_t fabric_t::fxsv(uint64_t id)
{
    fxm_fxsv_t record{};
    EXPECT_EQ(fxm_get_fxsv(id, &record), FXM_API_SUCCESS) << std::hex << id;
    return record;
}

fxm_fxio_t fabric_t::fxio(uint64_t id)
{
    fxm_fxio_t record{};
    EXPECT_EQ(fxm_get_fxio(id, &record), FXM_API_SUCCESS) << std::hex << id;
    return record;
}

void fabric_t::start_cards(const std::string &options) { sim.start("--port0 card0 --port1 card1 " + options); }

void fabric_t::renew_wire(int port) { wire[static_cast<size_t>(port)] = std::make_unique<wire_t>(port); }

bool fabric_t::wait_for_line(const std::string &line, size_t count)
{
    return wait_for([&] { return log.count(line) >= count; }, std::to_string(count) + " times: " + line,
                    [&] { return std::to_string(log.count(line)) + " times, in the end\n" + log.tail(); });
}

dump_t fabric_t::dump_when(const std::function<bool(const dump_t &)> &good, const std::string &what)
{
    dump_t lines;
    wait_for(
        [&] {
            lines = dump();
            return good(lines);
        },
        what,
        [&] {
            std::string text;
            for (const std::string &line : lines)
                text += line + "\n";
            return text;
        });
    return lines;
}

// --------------------------------------------------------------------------------------------------------------- main

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    on_failure = [](const std::string &what) { ADD_FAILURE() << what; };
    return enter_namespace() ? RUN_ALL_TESTS() : 1;
}

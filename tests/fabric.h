// The fixture of the fabric tests: the real libfxm.so at one end of two veth pairs, simulated or hand-written cards at
// the other, in a network namespace that each test program makes for itself. Port p of the library is the interface
// fxm<p>, its cards' end is card<p>. The library is reached through fxm.h alone.
#ifndef FABRIC_H
#define FABRIC_H

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "frames.h"
#include "fxm.h"
#include "host.h"
#include "net.h"
#include "sim.h"
#include "wait.h"

// As poll_until, but a test that waits in vain fails, with what was waited for and what `seen` says then.
bool wait_for(const std::function<bool()> &done, const std::string &what,
              const std::function<std::string()> &seen = {});

testing::AssertionResult same_frame(const frame_t &expected, const frame_t &actual);

// MAC addresses of fxm0 and fxm1.
constexpr uint64_t PORT_MAC[2] = {0x02000000aa00, 0x02000000aa01};

// ------------------------------------------------------------------------------------------------------ the fixture

class fabric_t : public testing::Test
{
  protected:
    void SetUp() override;
    void TearDown() override;

    // Writes conf/fxm.conf: these lines and, where they do not set it, `ether_port = fxm0 fxm1`. For the next start.
    void configure(const std::string &lines);

    // Brings the library up and registers a callback for each kind of event; frames are dropped still.
    void start(int32_t log_level = FXM_LOG_TRACE);
    // Lets the frames in too.
    void run(int32_t log_level = FXM_LOG_TRACE);
    // Stops it, and returns the result of fxm_init_manager. As manager.stop(), but with frames on the ports and a change
    // at an interface meanwhile, so that the library's threads need not sit out their waits.
    int stop();

    // All that frames sent so far on this port bring about has happened when this returns, events included.
    void settle(int port);

    // Events since the last call of expect_events.
    std::vector<event_t> events();
    // These have come since then, in this order, and no other, once all frames sent on `port` are dealt with. Events
    // that frames do not bring about are waited for.
    void expect_events(const std::vector<event_t> &expected, int port = 0);

    // The record of a card that must be there.
    static fxm_fxsv_t fxsv(uint64_t id);
    static fxm_fxio_t fxio(uint64_t id);

    // Starts fxmsim on both wires; `options` are more of its options. Then one command each.
    void start_cards(const std::string &options = "");
    std::string cards(const std::string &command) { return sim.command(command); }
    void stop_cards() { sim.stop(); }

    void renew_wire(int port); // a raw socket remembers that its interface was down

    bool wait_for_line(const std::string &line, size_t count = 1); // in `log`, so many times at least

    // Asks for a status dump and reads it.
    dump_t dump(uint32_t verbose = 0) { return read_dump(&stats_log, verbose); }
    // The first one that is `good`. Frames and events are counted behind what they bring about, so a dump just after
    // settle() may lack the last of them.
    dump_t dump_when(const std::function<bool(const dump_t &)> &good, const std::string &what);

    installation_t installation;
    std::filesystem::path dir = installation.dir;
    manager_t manager;
    std::array<std::unique_ptr<wire_t>, 2> wire;
    log_t log = log_t(dir / "logfile");
    log_t sys_log = log_t(dir / "syslogfile");
    log_t stats_log = log_t(dir / "statslogfile");
    void *cbid[6] = {};

  private:
    static void on_event(uint64_t id, int32_t type, uint64_t arg);
    void send_fence(int port);

    std::mutex event_lock; // guards the next two; taken by the library's event thread
    std::vector<event_t> event_list;
    uint64_t fences_seen = 0;
    uint16_t fence_vlan = 0;

    sim_t sim;
};

#endif

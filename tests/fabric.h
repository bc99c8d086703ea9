// The fixture of the fabric tests: the real libfxm.so at one end of two veth pairs, simulated or hand-written cards at
// the other, in a network namespace that each test program makes for itself. Port p of the library is the interface
// fxm<p>, its cards' end is card<p>. The library is reached through fxm.h alone.
#ifndef FABRIC_H
#define FABRIC_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fxm.h"

// Polls until `done` holds. After half a minute it fails the test, saying what was waited for and what `seen` tells then.
bool wait_for(const std::function<bool()> &done, const std::string &what,
              const std::function<std::string()> &seen = {});

// Runs `ip` with each line of `commands`; fails the test if one fails.
void ip(const std::string &commands);

uint64_t now_ms(); // wall clock, as in the records

// ------------------------------------------------------------------------------------------------------------- frames

using frame_t = std::vector<uint8_t>;

// From hexadecimal digits; blanks between bytes do not count. Adjacent literals make a frame that explains itself:
//     hex("ff ff ff ff ff ff"  // 0 destination
//         "02 00 00 00 10 00") // 6 source
frame_t hex(std::string_view digits);
std::string to_hex(const frame_t &frame);

testing::AssertionResult same_frame(const frame_t &expected, const frame_t &actual);

// The frame with `mac` as its source.
frame_t from(uint64_t mac, frame_t frame);

// The frame on that VLAN (tagged layout).
frame_t on_vlan(uint16_t vlan, frame_t frame);

// Announcements to start from: the frame of a card that has nothing to tell, in the tagged layout, priority 4, VLAN 100,
// EtherType 0x88B6. A test changes the bytes that matter to it. Offsets: 18 subtype, 20 flow id, 21 ver, 22 flags,
// 23 host, 24 link status, 25..27 status bytes (27 is the interrupt vector), and then
//   FXSV  28 up port (20 bytes), 48 + 28 * i down port i: status (2), MAC of the FXIO card (6), registers (20)
//   FXIO  28 sub-state (2), 30 MAC of the FXSV card (6), 36 device, 38 vendor, 41 class code, 44 resource number
frame_t fxsv_1g_frame();  // 272 bytes, from 02:00:00:00:10:00
frame_t fxsv_40g_frame(); // 496 bytes, from 02:00:00:00:40:00, ver 1
frame_t fxio_frame();     // 44 bytes, 1G/10G, from 02:00:00:00:20:00
frame_t fxio_mr_frame();  // 46 bytes, multi-root, resource number 0x0102, from 02:00:00:00:21:00

constexpr uint64_t FXSV_1G = 0x020000001000; // ids of the cards that send them
constexpr uint64_t FXSV_40G = 0x020000004000;
constexpr uint64_t FXIO = 0x020000002000;
constexpr uint64_t FXIO_MR = 0x020000002100;

// MAC addresses of fxm0 and fxm1.
constexpr uint64_t PORT_MAC[2] = {0x02000000aa00, 0x02000000aa01};

// The cards' end of one pair: a raw socket that sends hand-written frames and sees what the library sends.
class wire_t
{
  public:
    explicit wire_t(int port); // on card<port>
    ~wire_t();
    wire_t(const wire_t &) = delete;
    wire_t &operator=(const wire_t &) = delete;

    void send(const frame_t &frame) const;

    // Takes the oldest frame of the library's that was not taken yet; waits for it, and is empty when none comes.
    frame_t receive();

    // Takes all that are there now.
    std::vector<frame_t> received();

  private:
    bool read_one(frame_t *frame) const;
    int port;
    int fd;
};

// --------------------------------------------------------------------------------------------------- logs and dumps

// One log file, read as it grows. A line is its level and its text: "INFO fxm_start_manager: (IN)"; in the logs of
// syslogfile and statslogfile the text alone.
class log_t
{
  public:
    log_t() = default;
    explicit log_t(std::filesystem::path file) : path(std::move(file)) {}

    const std::vector<std::string> &lines();
    size_t count(const std::string &line);      // lines that are this one
    size_t count_with(const std::string &text); // lines in which it occurs
    std::string tail(size_t number = 12);       // the last lines, for messages

  private:
    std::filesystem::path path;
    std::streamoff at = 0;
    std::string partial;
    std::vector<std::string> all;
};

using dump_t = std::vector<std::string>;

// The lines of one section of a status dump, without its title and its end line.
dump_t section(const dump_t &dump, const std::string &title);

// A counter of the "send/receive statistics", by its name, such as "FXM_STATS_R_DEV".
uint64_t frames_counted(const dump_t &dump, int port, const std::string &name);

struct account_t {
    uint32_t in_use, alloc, free;
};
account_t memory(const dump_t &dump, const std::string &account); // "fxsv", "idlist", ...

bool has_line(const dump_t &dump, const std::string &line);

// --------------------------------------------------------------------------------------------------------- the host

// fxm_init_manager on a thread of its own.
class manager_t
{
  public:
    manager_t() = default;
    ~manager_t();
    manager_t(const manager_t &) = delete;
    manager_t &operator=(const manager_t &) = delete;

    // Calls it. The library comes up meanwhile, or the call returns: result() says what.
    void launch(const std::string &dir, int32_t log_level);

    // Launches it and waits until the library answers; `dir` must have the log properties of the fixture. False: the
    // call has returned instead.
    bool start(const std::string &dir, int32_t log_level);

    bool started() const { return thread.joinable(); } // and its result was not taken yet
    bool returned() const { return done.load(); }

    int result(); // waits for it to return
    int stop();   // asks for the stop first

  private:
    std::thread thread;
    std::atomic<bool> done{false};
    int value = -1;
};

struct event_t {
    int32_t type;
    uint64_t id;
    bool operator==(const event_t &) const = default;
};
std::ostream &operator<<(std::ostream &out, const event_t &event);

// The event's kinds, all for one card, in order.
std::vector<event_t> events_of(uint64_t id, const std::vector<int32_t> &types);

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

    // Starts fxmsim on both wires; `options` are more of its options. Then one command each, see sim/README.md; returns
    // what follows "ok". An error fails the test.
    void start_cards(const std::string &options = "");
    std::string cards(const std::string &command);
    void stop_cards();

    bool wait_for_line(const std::string &line, size_t count = 1); // in `log`, so many times at least

    // Asks for a status dump and reads it.
    dump_t dump(uint32_t verbose = 0);
    // The first one that is `good`. Frames and events are counted behind what they bring about, so a dump just after
    // settle() may lack the last of them.
    dump_t dump_when(const std::function<bool(const dump_t &)> &good, const std::string &what);

    std::filesystem::path dir; // installation directory
    manager_t manager;
    std::array<std::unique_ptr<wire_t>, 2> wire;
    log_t log;       // logfile
    log_t sys_log;   // syslogfile
    log_t stats_log; // statslogfile
    void *cbid[6] = {};

  private:
    static void on_event(uint64_t id, int32_t type, uint64_t arg);
    void send_fence(int port);
    std::string read_answer(const std::string &command);

    std::mutex event_lock; // guards the next two; taken by the library's event thread
    std::vector<event_t> event_list;
    uint64_t fences_seen = 0;
    uint16_t fence_vlan = 0;

    pid_t sim = -1;
    int sim_in = -1;
    int sim_out = -1;
    std::string sim_text;
};

#endif

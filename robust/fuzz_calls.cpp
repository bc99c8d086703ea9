// The input is a sequence of calls of fxm.h with hostile arguments, on a running library with four simulated cards. The
// cards answer, stay silent or answer wrongly as the input says. The library is stopped and started in between, also in
// the middle of a call.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "events/fxm_event.h"
#include "fixture.h"
#include "functions.h"
#include "wire/fxm_frame.h"

// ---------------------------------------------------------------------------------------------------------- the system

static thread_local bool hurries; // its sleeps take no time

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *left)
{
    if (hurries)
        return 0;
    return syscall(SYS_clock_nanosleep, clock, flags, time, left) == 0 ? 0 : errno;
}

static std::atomic<uint32_t> links_up = 3; // a bit for each port
static std::atomic<bool> link_changed;

static uint32_t get_adapters(fxm_adapter_t *list, uint32_t *size)
{
    *size = FXM_PORT_NUM * sizeof(fxm_adapter_t);
    if (list == nullptr)
        return FXM_ADAPTER_OVERFLOW;
    for (uint32_t port = 0; port < FXM_PORT_NUM; ++port) {
        fxm_adapter_t *next = port + 1 < FXM_PORT_NUM ? &list[port + 1] : nullptr;
        const uint32_t status = (links_up >> port & 1) != 0 ? FXM_IF_OPER_UP : FXM_IF_OPER_DOWN;
        list[port] = {next, port + 1, 6, 6, {2, 0, 0, 0, 0, 0xF0}, status, {static_cast<char>('0' + port)}};
    }
    return 0;
}

static fxm_platform_calls_t system_calls;

// Waits in small pieces, so that a stop ends them soon. The link watcher's source has no descriptor here.
static uint32_t wait_two(fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms)
{
    constexpr uint32_t piece = 2;
    if (second->fd < 0 && link_changed.exchange(false))
        return FXM_WAIT_SECOND;
    return system_calls.wait_two(first, second, std::min(ms, piece));
}

// ----------------------------------------------------------------------------------------------------------- the cards

constexpr uint64_t CARDS[] = {FXSV_1G, FXSV_40G, FXIO, FXIO_MR};

// The command registers of the EEPROM: they show a status when read.
constexpr uint32_t ENGINE = _fxm_encode_address(0x5010);
constexpr uint32_t ENGINE_40G = 0x40;

static struct {
    std::mutex lock;
    frame_t manners; // of the next frames: what the card makes of each; then it answers
    size_t heard;
    uint32_t fill; // what a register holds that was never written
    std::map<uint32_t, uint32_t> registers;
    uint32_t stop_in; // frames until the library is stopped; 0: it is not
} cards;

static frame_t announcement_of(uint64_t id, uint16_t vlan)
{
    const auto kind = static_cast<uint32_t>(std::find(std::begin(CARDS), std::end(CARDS), id) - CARDS);
    return on_vlan(vlan, announce(kind, id));
}

// The address of a register as it is on the wire.
static uint32_t register_of(const frame_t &frame)
{
    return static_cast<uint32_t>(be16(frame.data(), be16_at{REGR_ADDR.at})) << 16 |
           be16(frame.data(), be16_at{REGR_ADDR.at + 2});
}
static_assert(REGR_ADDR.at == REGW_ADDR.at);

static void answer(uint32_t port, const frame_t &request, uint8_t manner)
{
    const auto stored = cards.registers.find(register_of(request));
    frame_t frame = completion(request, stored != cards.registers.end() ? stored->second : cards.fill);
    if (manner == 3)
        frame[COMP_TAG.at] ^= 1;
    if (manner == 4)
        frame[ETH_SRC.at] ^= 4;
    wire_put(manner == 5 ? port ^ 1 : port, frame);
    if (manner == 6)
        wire_put(port, frame);
}

static thread_local uint32_t sent; // frames, by this thread

// Runs on the thread that sends.
static int hear(uint32_t port, const frame_t &frame)
{
    sent += 1;
    const std::lock_guard guard(cards.lock);
    if (cards.stop_in > 0 && --cards.stop_in == 0)
        fxm_fini_manager();
    const uint8_t manner = cards.heard < cards.manners.size() ? cards.manners[cards.heard++] % 8 : 0;
    if (manner == 1)
        return ENOBUFS;
    if (manner == 2)
        return 0;
    const uint8_t *bytes = frame.data();
    const uint64_t id = mac48(bytes, ETH_DST) & ~uint64_t{1};
    switch (u8(bytes, FRAME_SUBTYPE)) {
    case FXM_SUBTYPE_REGR:
        answer(port, frame, manner);
        break;
    case FXM_SUBTYPE_REGW: {
        const uint32_t where = register_of(frame);
        if (where != ENGINE && where != ENGINE_40G)
            cards.registers[where] = le32(bytes, REGW_DATA);
        break;
    }
    case FXM_SUBTYPE_VLANSET:
        wire_put(port, announcement_of(id, be16(bytes, VLANSET_VLAN)));
        break;
    default:
        break;
    }
    return 0;
}

// --------------------------------------------------------------------------------------------------------- the library

static std::string directory;
static std::thread manager;
static int manager_result;
static std::optional<fxm_call_t> keeper; // one call that lasts as long as the library, so that a stop waits for it

static void start()
{
    manager = std::thread([] { manager_result = fxm_init_manager(directory.c_str(), FXM_LOG_FATAL); });
    while (fxm_start_manager() != FXM_API_SUCCESS)
        sched_yield();
    keeper.emplace();
    DEMAND(keeper->running);
}

// Ends within the time that the fuzzer allows an input.
static void stop()
{
    DEMAND(fxm_fini_manager() == FXM_API_SUCCESS);
    DEMAND(_fxm_add_event(FXM_EVT_NEWDEVINFO, 0) == 0); // wakes the event task, which else would wait for a second
    keeper.reset();
    manager.join();
    DEMAND(manager_result == FXM_API_SUCCESS);
    check_accounts_empty();
}

static void announce_card(uint64_t id, uint32_t port, uint16_t vlan)
{
    wire_put(port, announcement_of(id, vlan));
    while (!_fxm_stopping() && wire_waiting(port) > 0)
        sched_yield();
}

// Many announcements on both ports at once; nobody waits for them.
static void announce_burst(uint64_t id, uint8_t how)
{
    for (uint32_t i = 0; i < 1u << how % 8; ++i)
        wire_put(i & 1, announcement_of(id, static_cast<uint16_t>(how / 8 & i)));
}

// ------------------------------------------------------------------------------------------------------------- the calls

static uint32_t endless; // calls without an end of their own that the input may still make

// The retries of a call. One that would not end by itself is stopped at one of its first frames.
static const fxm_retry_param_t *retries(const choice_t &choose)
{
    static constexpr fxm_retry_param_t list[] = {
        {0, 1}, {2, 1}, {0, 0}, {UINT32_MAX, 0}, {UINT32_MAX, 1}, {0, UINT32_MAX}, {UINT32_MAX, UINT32_MAX}};
    if (in_callback)
        return &list[0];
    const uint32_t choice = choose.below(256);
    if (choice < 64)
        return nullptr;
    const fxm_retry_param_t *param = &list[choice % std::size(list)];
    if (param->retry_int == 0 || (param->retry_cnt <= 2 && param->retry_int == 1))
        return param;
    if (endless == 0)
        return nullptr;
    endless -= 1;
    const std::lock_guard guard(cards.lock);
    cards.stop_in = param->retry_int == 1 ? 1 + choice / 64 : 1;
    return param;
}

// Each call says whether the library runs; while `keeper` lasts, nobody can start another one. A refused call sends nothing.
static void call(fxm_api_row_t row, const choice_t &choose)
{
    const bool stopped = _fxm_stopping();
    const uint32_t before = sent;
    const int result = call_row(row, choose);
    DEMAND(result != FXM_API_EINVAL || sent == before);
    DEMAND(result == NOT_CALLED || in_every_state(row) || (result == FXM_API_ENOSYS ? _fxm_stopping() : !stopped));
}

// The registration, the card and the kind decide what the callback does.
static void on_event(uint64_t id, int32_t type, uint64_t arg)
{
    constexpr fxm_api_row_t rows[] = {FXM_ROW_GET_FXSV,     FXM_ROW_GET_FXIO,       FXM_ROW_UNREGISTER_CALLBACK,
                                      FXM_ROW_DELETE_FXSV,  FXM_ROW_READ_REGISTER,  FXM_ROW_WRITE_REGISTER,
                                      FXM_ROW_STOP_MONITOR, FXM_ROW_RESTART_MONITOR};
    const dice_t choose(static_cast<uint32_t>(arg * 6 + static_cast<uint32_t>(type) + (id >> 8)));
    in_callback = true;
    DEMAND(!registrations[arg].ended);
    call(choose.pick(rows), choose);
    DEMAND(!registrations[arg].closed);
}

// --------------------------------------------------------------------------------------------------------- the program

static void run(input_t *input)
{
    const uint32_t step = input->below(FXM_API_ROWS + 12);
    if (step < FXM_API_ROWS)
        return call(static_cast<fxm_api_row_t>(step), {[=](uint32_t limit) {
                        return (limit <= 256 ? input->byte() : input->number<uint32_t>()) % limit;
                    }});
    const uint64_t id = input->pick(CARDS);
    const uint8_t how = input->byte();
    switch (step - FXM_API_ROWS) {
    case 0:
        return announce_burst(id, how);
    case 1:
        links_up = how & 3;
        link_changed = true;
        return;
    case 2: {
        const std::lock_guard guard(cards.lock);
        cards.stop_in = endless > 0 ? how % 8 : 0;
        endless = 0;
        return;
    }
    case 3: {
        const frame_t manners = input->bytes(how % 16);
        const auto fill = input->number<uint32_t>();
        const std::lock_guard guard(cards.lock);
        cards.manners = manners;
        cards.heard = 0;
        cards.fill = fill;
        return cards.registers.clear();
    }
    default:
        return announce_card(id, step & 1, how);
    }
}

// As the next input must find the library.
static void clean_up()
{
    free_lists();
    if (_fxm_stopping()) {
        stop();
        wire_clear();
        start();
    }
    for (auto &place : live)
        end_registration(place);
    links_up = 3;
    link_changed = true;
    while (wire_waiting(0) + wire_waiting(1) > 0)
        sched_yield();
    check_tables();
    for (const uint64_t id : targets.prey) {
        fxm_restart_monitor(id);
        fxm_delete_fxsv(id);
        fxm_delete_fxio(id);
    }
    fxm_set_loglevel(FXM_LOG_FATAL);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_begin();
    wire_wake(true);
    wire_sent = hear;
    system_calls = fxm_platform;
    fxm_platform.get_adapters = get_adapters;
    fxm_platform.wait_two = wait_two;
    fxm_platform.notice_create = [](fxm_notice_t *) { return true; };
    fxm_platform.notice_arm = [](fxm_notice_t *) { return true; };
    const char *parent = getenv("TMPDIR");
    directory = std::string(parent != nullptr ? parent : "/tmp") + "/fxm-fuzz.XXXXXX";
    DEMAND(mkdtemp(directory.data()) != nullptr && std::filesystem::create_directory(directory + "/conf"));
    std::ofstream(directory + "/conf/fxm_log4c_win.properties") << "log4j.rootLogger=OFF\n";
    std::ofstream(directory + "/conf/fxm.conf")
        << "ether_port_ifindex = 1 2\ndevinfo_flag_check_interval = 1\nframe_retry_interval = 1\n"
           "frame_retry_count = 1\nframe_retry_interval_livecheck = 1\nframe_retry_count_livecheck = 1\n"
           "vlan_check_interval = 1\neeprom_retry_interval = 1\neeprom_retry_count = 1\n"
           "eeprom_check_interval = 0\neeprom_check_retry_count = 1\neeprom_rw_interval = 0\n"
           "eeprom_verify_count = 1\nforce_lock_try_count = 1\n";
    targets.cards.assign(std::begin(CARDS), std::end(CARDS));
    targets.prey = targets.cards;
    targets.prey.insert(targets.prey.end(), std::begin(STRANGERS), std::end(STRANGERS));
    targets.dir = directory.c_str();
    targets.callback = on_event;
    targets.retries = retries;
    targets.start_allowed = [] { return true; };
    targets.stop_due = [] { return !in_callback && std::exchange(endless, 0) > 0; };
    targets.started = [](int result) { DEMAND(result == FXM_API_EBUSY); };
    targets.failed = [](const std::string &what) { finding(what.c_str(), __FILE__, __LINE__); };
    start();
    atexit([] {
        stop();
        std::filesystem::remove_all(directory);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    hurries = true;
    endless = 1;
    input_t input{data, size};
    for (uint32_t steps = 0; input.left > 0 && steps < 64; ++steps)
        run(&input);
    {
        const std::lock_guard guard(cards.lock);
        cards.manners.clear();
        cards.registers.clear();
        cards.fill = cards.stop_in = 0;
    }
    clean_up();
    return 0;
}

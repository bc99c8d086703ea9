// The input is a sequence of calls of fxm.h with hostile arguments, on a running library with four simulated cards. The
// cards answer, stay silent or answer wrongly as the input says. The library is stopped and started in between, also in
// the middle of a call.
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "core/fxm_config.h"
#include "core/fxm_state.h"
#include "diag/fxm_stats.h"
#include "events/fxm_event.h"
#include "fixture.h"
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
constexpr uint64_t IDS[] = {FXSV_1G, FXSV_40G, FXIO, FXIO_MR, 0x02000000fffe, 0, UINT64_MAX};

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

// Runs on the thread that sends.
static int hear(uint32_t port, const frame_t &frame)
{
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

static void write_file(const std::string &name, const char *text)
{
    FILE *file = fopen((directory + "/conf/" + name).c_str(), "w");
    DEMAND(file != nullptr && fputs(text, file) >= 0 && fclose(file) == 0);
}

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

static uint64_t announcements_handled()
{
    fxm_mutex_guard_t guard(&g_stats_lock);
    uint64_t handled = 0;
    for (const auto &frames : g_stats.port_frames)
        handled += frames[FXM_STATS_R_DEV] + frames[FXM_STATS_R_DEV40];
    return handled;
}

static void announce_card(uint64_t id, uint32_t port, uint16_t vlan)
{
    const uint64_t before = announcements_handled();
    wire_put(port, announcement_of(id, vlan));
    while (!_fxm_stopping() && announcements_handled() == before)
        sched_yield();
}

// Many announcements on both ports at once; nobody waits for them.
static void announce_burst(uint64_t id, uint8_t how)
{
    for (uint32_t i = 0; i < 1u << how % 8; ++i)
        wire_put(i & 1, announcement_of(id, static_cast<uint16_t>(how / 8 & i)));
}

// ------------------------------------------------------------------------------------------------ what a call may give

constexpr uint32_t bits() { return 0; }
template <typename... Codes> constexpr uint32_t bits(int code, Codes... codes) { return 1u << code | bits(codes...); }

// By function, as fxm.h says; besides FXM_API_ENOSYS.
constexpr uint32_t OF_SUCCESS = bits(FXM_API_SUCCESS);
constexpr uint32_t OF_CHECKED = bits(FXM_API_SUCCESS, FXM_API_EINVAL);
constexpr uint32_t OF_RECORD = bits(FXM_API_SUCCESS, FXM_API_EINVAL, FXM_API_ENOENT);
constexpr uint32_t OF_DELETE = bits(FXM_API_SUCCESS, FXM_API_ENOENT);
constexpr uint32_t OF_LIST = bits(FXM_API_SUCCESS, FXM_API_EINVAL, FXM_API_ERANGE);
constexpr uint32_t OF_RESET = bits(FXM_API_SUCCESS, FXM_API_ENOENT, FXM_API_ENOLINK, FXM_API_EPROTO);
constexpr uint32_t OF_PAGE = OF_RESET | bits(FXM_API_EINVAL);
constexpr uint32_t OF_UNLOCK = OF_RESET | bits(FXM_API_ETIMEDOUT);
constexpr uint32_t OF_REGISTER = OF_PAGE | bits(FXM_API_ETIMEDOUT); // and fxm_set_vlanid
constexpr uint32_t OF_EEPROM = OF_REGISTER | bits(FXM_API_EBUSY);

// One call: made, judged, and its result given back.
template <typename Call> static int judge(uint32_t allowed, bool refused, Call call)
{
    const bool stopped = _fxm_stopping();
    const int result = call();
    if (result == FXM_API_ENOSYS) {
        DEMAND(_fxm_stopping());
        return result;
    }
    DEMAND(!stopped && result >= 0 && (allowed >> result & 1) != 0);
    DEMAND((result == FXM_API_EINVAL) == refused);
    return result;
}

// An operation on a card; nobody has announced some of the ids.
template <typename Call> static int judge_card(uint64_t id, uint32_t allowed, bool refused, Call call)
{
    const int result = judge(allowed, refused, call);
    const bool known = std::find(std::begin(CARDS), std::end(CARDS), id) != std::end(CARDS);
    DEMAND(known || refused || result == FXM_API_ENOENT || result == FXM_API_ENOSYS);
    return result;
}

// ----------------------------------------------------------------------------------------------------------- arguments

constexpr fxm_retry_param_t RETRIES[] = {
    {0, 1}, {2, 1}, {0, 0}, {UINT32_MAX, 0}, {UINT32_MAX, 1}, {0, UINT32_MAX}, {UINT32_MAX, UINT32_MAX}};
constexpr uint32_t ADDRESSES[] = {0, 0x40, 0x5010, 0x7FC, 0x800, 2, 0x3FFFFC, 0x400000, 0xFFFFFFFC, 0xFFFFFFFF};
static uint32_t endless; // calls without an end of their own that the input may still make

// The retries of a call. One that would not end by itself is stopped at one of its first frames.
static const fxm_retry_param_t *retries(input_t *input)
{
    const uint8_t choice = input->byte();
    if (choice < 64)
        return nullptr;
    const fxm_retry_param_t *param = &RETRIES[choice % std::size(RETRIES)];
    if (param->retry_int == 0 || (param->retry_cnt <= 2 && param->retry_int == 1))
        return param;
    if (endless == 0)
        return nullptr;
    endless -= 1;
    const std::lock_guard guard(cards.lock);
    cards.stop_in = param->retry_int == 1 ? 1 + choice / 64 : 1;
    return param;
}

static bool no_interval(const fxm_retry_param_t *param) { return param != nullptr && param->retry_int == 0; }

static uint32_t address(input_t *input)
{
    const uint8_t choice = input->byte();
    return choice < 128 ? choice * 4u : ADDRESSES[choice % std::size(ADDRESSES)];
}

// ------------------------------------------------------------------------------------------------------- calls, tables

static void get_record(uint64_t id, uint8_t how)
{
    fxm_fxsv_t fxsv;
    fxm_fxio_t fxio;
    memset(&fxsv, 0x5A, sizeof(fxsv));
    memset(&fxio, 0x5A, sizeof(fxio));
    const bool none = (how & 2) != 0;
    const int result = judge_card(id, OF_RECORD, none, [&] {
        return (how & 1) != 0 ? fxm_get_fxio(id, none ? nullptr : &fxio) : fxm_get_fxsv(id, none ? nullptr : &fxsv);
    });
    const uint64_t copied = (how & 1) != 0 ? fxio.fio_card.fcd_id : fxsv.fsv_card.fcd_id;
    DEMAND(copied == (result == FXM_API_SUCCESS ? id : 0x5A5A5A5A5A5A5A5A));
}

static void get_list(input_t *input)
{
    const uint8_t which = input->byte();
    const uint8_t how = input->byte();
    const auto value = input->number<uint16_t>();
    uint32_t count = how % 4 == 0 ? UINT32_MAX : how % 4;
    uint64_t untouched = 0;
    uint64_t *list = &untouched;
    uint64_t **list_arg = (how & 64) != 0 ? nullptr : &list;
    uint32_t *count_arg = (how & 128) != 0 ? nullptr : &count;
    const bool by_group = which % 6 >= 4;
    const bool refused = list_arg == nullptr || count_arg == nullptr ||
                         (by_group && (value < FXM_GROUP_FIRST || value > FXM_GROUP_LAST));
    const int result = judge(OF_LIST, refused, [&] {
        switch (which % 6) {
        case 0:
            return fxm_get_fxsvids(list_arg, count_arg);
        case 1:
            return fxm_get_fxioids(list_arg, count_arg);
        case 2:
            return fxm_get_update_fxsvids(value, list_arg, count_arg);
        case 3:
            return fxm_get_update_fxioids(UINT64_MAX - value, list_arg, count_arg);
        case 4:
            return fxm_get_group_fxsvids(value, list_arg, count_arg);
        default:
            return fxm_get_group_fxioids(value, list_arg, count_arg);
        }
    });
    if (result != FXM_API_SUCCESS) {
        DEMAND(list == &untouched);
        return;
    }
    DEMAND((list == nullptr) == (count == 0) && std::is_sorted(list, list + count));
    DEMAND(fxm_free_idlist(list) == FXM_API_SUCCESS);
}

// ---------------------------------------------------------------------------------------------------- calls, registers

static void read_word(uint64_t id, uint8_t how, input_t *input)
{
    const bool eeprom = (how & 1) != 0;
    const uint32_t addr = address(input);
    const fxm_retry_param_t *param = retries(input);
    uint32_t data = 0x5A5A5A5A;
    uint32_t *out = (how & 2) != 0 ? nullptr : &data;
    const bool outside = addr % 4 != 0 || (eeprom && addr >= FXM_EEPROM_SIZE);
    const int result =
        judge_card(id, eeprom ? OF_EEPROM : OF_REGISTER, outside || out == nullptr || no_interval(param), [&] {
            return eeprom ? fxm_read_eeprom(id, addr, out, param, how >> 2)
                          : fxm_read_register(id, addr, out, param, how >> 2);
        });
    DEMAND(eeprom || result == FXM_API_SUCCESS || data == 0x5A5A5A5A);
}

static void write_word(uint64_t id, uint8_t how, input_t *input)
{
    const uint32_t addr = address(input);
    const fxm_retry_param_t *param = retries(input);
    const auto data = input->number<uint32_t>();
    const bool eeprom = how % 3 == 2;
    const bool refused = addr % 4 != 0 || (eeprom && addr >= FXM_EEPROM_SIZE) || no_interval(param);
    judge_card(id, eeprom ? OF_EEPROM : OF_REGISTER, refused, [&] {
        if (eeprom)
            return fxm_write_eeprom(id, addr, data, param, how >> 2);
        return how % 3 == 1 ? fxm_modify_register(id, addr, data, ~data << 8, param, how >> 2)
                            : fxm_write_register(id, addr, data, param, how >> 2);
    });
}

static void dump(uint64_t id, uint8_t how, input_t *input)
{
    const bool eeprom = (how & 1) != 0;
    const uint32_t begin = address(input);
    // A few words, or as far as addresses go; then the buffer is too small.
    const uint8_t length = input->byte();
    const uint32_t end = length < 200 ? begin + length % 20 : address(input);
    const fxm_retry_param_t *param = retries(input);
    std::vector<uint32_t> buffer(length % 7);
    uint64_t size = buffer.size() * 4;
    const uint64_t room = size;
    uint64_t *size_arg = (how & 2) != 0 ? nullptr : &size;
    uint32_t *buffer_arg = buffer.empty() || (how & 4) != 0 ? nullptr : buffer.data();
    const bool refused = size_arg == nullptr || buffer_arg == nullptr || begin % 4 != 0 || end % 4 != 0 ||
                         end <= begin || end - begin > room || no_interval(param) || (eeprom && end > FXM_EEPROM_SIZE);
    const int result = judge_card(id, eeprom ? OF_EEPROM : OF_REGISTER, refused, [&] {
        return eeprom ? fxm_dump_eeprom(id, begin, end, buffer_arg, size_arg, param, how >> 3)
                      : fxm_dump_register(id, begin, end, buffer_arg, size_arg, param, how >> 3);
    });
    if (size_arg == nullptr || result == FXM_API_ENOSYS)
        return;
    DEMAND(result == FXM_API_SUCCESS ? size == end - begin : refused ? size == 0 : size < end - begin);
}

static void command(uint64_t id, uint8_t how, input_t *input)
{
    const auto value = input->number<uint16_t>();
    const fxm_retry_param_t *param = how % 4 == 0 ? retries(input) : nullptr;
    switch (how % 4) {
    case 0:
        judge_card(id, OF_REGISTER, value < FXM_VLAN_FIRST || value > FXM_VLAN_LAST || no_interval(param),
                   [&] { return fxm_set_vlanid(id, value, param, how >> 2); });
        break;
    case 1:
        judge_card(id, OF_RESET, false,
                   [&] { return fxm_send_resetframe(id, static_cast<uint8_t>(value), &RETRIES[2], how); });
        break;
    case 2: {
        const std::vector<uint8_t> page(FXM_MMS_PAGE_SIZE);
        const void *data = (how & 64) != 0 ? nullptr : page.data();
        judge_card(id, OF_PAGE, value >= FXM_MMS_PAGES || data == nullptr,
                   [&] { return fxm_write_mmspage(id, value, data, how >> 2); });
        break;
    }
    default:
        judge_card(id, OF_UNLOCK, false, [&] { return fxm_unlock_eeprom(id); });
    }
}

// ---------------------------------------------------------------------------------------------------- calls, callbacks

constexpr size_t HANDLES = 16;
static void *handles[HANDLES]; // live ones, or ended ones
static size_t handles_used;

static void on_event(uint64_t id, int32_t, uint64_t arg)
{
    uint32_t data = 0;
    switch (arg % 8) {
    case 0:
        return get_record(id, static_cast<uint8_t>(arg >> 8));
    case 1:
        (void)fxm_unregister_callback(handles[(arg >> 8) % HANDLES]);
        return;
    case 2:
        (void)fxm_delete_fxsv(id);
        return;
    case 3:
        (void)fxm_read_register(id, 0, &data, &RETRIES[0], FXM_FLAG_LIVECHECK);
        return;
    case 4:
        (void)fxm_stop_monitor(id);
        return;
    case 5:
        (void)fxm_restart_monitor(id);
        return;
    default:
        (void)fxm_write_register(id, 8, 1, &RETRIES[0], FXM_FLAG_VERIFY);
    }
}

static void register_one(input_t *input)
{
    const uint8_t how = input->byte();
    const auto type = static_cast<int32_t>(how % 16) - 1;
    void **cbid = (how & 16) != 0 || handles_used == HANDLES ? nullptr : &handles[handles_used];
    const fxm_callback_t func = (how & 32) != 0 ? nullptr : on_event;
    const bool refused = type < 0 || type > FXM_EVT_CHANNELSTATECHANGE || cbid == nullptr || func == nullptr;
    const auto arg = input->number<uint16_t>();
    if (judge(OF_CHECKED, refused, [&] { return fxm_register_callback(type, func, arg, cbid); }) == FXM_API_SUCCESS)
        handles_used += 1;
}

static void unregister_one(input_t *input)
{
    const uint8_t how = input->byte();
    void *cbid = how < 128 ? handles[how % HANDLES] : reinterpret_cast<void *>(uintptr_t{how} * 0x400000);
    const int result = fxm_unregister_callback(cbid);
    DEMAND(result == FXM_API_SUCCESS || result == FXM_API_EINVAL || (result == FXM_API_ENOSYS && _fxm_stopping()));
    judge(OF_CHECKED, true, [=] { return fxm_unregister_callback(cbid); }); // it has ended by now
}

// --------------------------------------------------------------------------------------------------------- the program

static void rest(uint64_t id, uint8_t how, input_t *input)
{
    const auto level = static_cast<int8_t>(how);
    switch (input->byte() % 8) {
    case 0:
        judge(OF_CHECKED, level < FXM_LOG_CONFIGURED || level > FXM_LOG_TRACE, [=] { return fxm_set_loglevel(level); });
        break;
    case 1:
        judge(OF_SUCCESS, false, [=] { return fxm_stdump(how & 1); });
        break;
    case 2:
        DEMAND(fxm_init_manager(directory.c_str(), level) == FXM_API_EBUSY &&
               fxm_free_idlist(nullptr) == FXM_API_SUCCESS);
        break;
    case 3:
        links_up = how & 3;
        link_changed = true;
        break;
    case 4: {
        const std::lock_guard guard(cards.lock);
        cards.stop_in = endless > 0 ? how % 8 : 0;
        endless = 0;
        break;
    }
    case 5:
        if (endless > 0)
            (void)fxm_fini_manager();
        endless = 0;
        break;
    case 6:
        judge(OF_SUCCESS, false, [=] { return (how & 1) != 0 ? fxm_stop_monitor(id) : fxm_restart_monitor(id); });
        break;
    default:
        judge_card(id, OF_DELETE, false, [=] { return (how & 1) != 0 ? fxm_delete_fxio(id) : fxm_delete_fxsv(id); });
    }
}

static void run(input_t *input)
{
    const uint8_t step = input->byte();
    const uint8_t how = input->byte();
    const uint64_t id = IDS[(step >> 4) % std::size(IDS)];
    switch (step % 16) {
    case 1:
        return announce_burst(CARDS[step >> 4 & 3], how);
    case 0:
        return announce_card(CARDS[step >> 4 & 3], step >> 6 & 1, how);
    case 2:
        return get_record(id, how);
    case 3:
        return get_list(input);
    case 4:
    case 5:
        return read_word(id, how, input);
    case 6:
    case 7:
        return write_word(id, how, input);
    case 8:
        return dump(id, how, input);
    case 9:
        return command(id, how, input);
    case 10:
        return register_one(input);
    case 11:
        return unregister_one(input);
    case 12: {
        const frame_t manners = input->bytes(how % 16);
        const auto fill = input->number<uint32_t>();
        const std::lock_guard guard(cards.lock);
        cards.manners = manners;
        cards.heard = 0;
        cards.fill = fill;
        return cards.registers.clear();
    }
    default:
        return rest(id, how, input);
    }
}

// As the next input must find the library.
static void clean_up()
{
    if (_fxm_stopping()) {
        stop();
        wire_clear();
        start();
    }
    for (void *&cbid : handles) {
        (void)fxm_unregister_callback(cbid);
        cbid = nullptr;
    }
    handles_used = 0;
    links_up = 3;
    link_changed = true;
    while (wire_waiting(0) + wire_waiting(1) > 0)
        sched_yield();
    check_tables();
    for (const uint64_t id : IDS) {
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
    DEMAND(mkdtemp(directory.data()) != nullptr && mkdir((directory + "/conf").c_str(), 0700) == 0);
    write_file("fxm_log4c_win.properties", "log4j.rootLogger=OFF\n");
    write_file("fxm.conf",
               "ether_port_ifindex = 1 2\ndevinfo_flag_check_interval = 1\nframe_retry_interval = 1\n"
               "frame_retry_count = 1\nframe_retry_interval_livecheck = 1\nframe_retry_count_livecheck = 1\n"
               "vlan_check_interval = 1\neeprom_retry_interval = 1\neeprom_retry_count = 1\n"
               "eeprom_check_interval = 0\neeprom_check_retry_count = 1\neeprom_rw_interval = 0\n"
               "eeprom_verify_count = 1\nforce_lock_try_count = 1\n");
    start();
    atexit([] {
        stop();
        for (const char *name : {"/conf/fxm.conf", "/conf/fxm_log4c_win.properties", "/conf", ""})
            (void)remove((directory + name).c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    hurries = true;
    endless = 1;
    {
        const std::lock_guard guard(cards.lock);
        cards.manners.clear();
        cards.registers.clear();
        cards.fill = cards.stop_in = 0;
    }
    input_t input{data, size};
    for (uint32_t steps = 0; input.left > 0 && steps < 64; ++steps)
        run(&input);
    {
        const std::lock_guard guard(cards.lock);
        cards.stop_in = 0;
        cards.manners.clear();
    }
    clean_up();
    return 0;
}

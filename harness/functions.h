// The table of all exported functions, for the storm, the fuzzer of calls, the runs and the faults: which arguments each
// one is called with, right and hostile ones, and what it may return and write then. It stands alone: it needs neither
// network nor book.
#ifndef HARNESS_FUNCTIONS_H
#define HARNESS_FUNCTIONS_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "diag/fxm_stats.h"
#include "fxm.h"
#include "wait.h"

// Where choices come from: the dice of a thread, or the input of the fuzzer.
struct choice_t {
    std::function<uint32_t(uint32_t limit)> below; // a number from 0 to limit - 1; 0 is the ordinary choice

    bool one_in(uint32_t number) const { return below(number) == number - 1; }
    template <typename List> auto &pick(List &list) const
    {
        return list[below(static_cast<uint32_t>(std::size(list)))];
    }
};

// The dice of one thread. They depend on the seed alone.
struct dice_t : choice_t {
    explicit dice_t(uint32_t seed)
        : choice_t{
              [engine = std::mt19937(seed)](uint32_t limit) mutable { return static_cast<uint32_t>(engine()) % limit; }}
    {
    }
};

// What the calls choose from, and how the program starts and stops the library. Deletes and the end of monitoring nearly
// always hit one of `prey`.
struct targets_t {
    std::vector<uint64_t> cards, prey;
    const char *dir;         // the installation directory of a start
    fxm_callback_t callback; // gets an index below REGISTRATIONS as its argument
    std::function<const fxm_retry_param_t *(const choice_t &)> retries;
    std::function<bool()> start_allowed;             // asked before a call that may start the library,
    std::function<bool()> stop_due;                  // and before one that stops it
    std::function<void(int)> started;                // told what such a start has returned
    std::function<void(const std::string &)> failed; // told of each result and output that is not as promised
};
inline targets_t targets;

inline std::atomic<bool> memory_short{false}; // some allocations of the library fail, and so may calls

inline void expect(bool holds, fxm_api_row_t row, int result, const std::string &what)
{
    if (!holds)
        targets.failed(std::string(fxm_row_names[row]) + " has returned " + std::to_string(result) + ": " + what);
}

constexpr uint64_t STRANGERS[] = {0x02eeeeee0000, 0, UINT64_MAX}; // nobody announces them

constexpr int NOT_CALLED = -1; // there was nothing to call for

// ---------------------------------------------------------------------------------------------------------- the results

template <typename... Codes> constexpr uint32_t any_of(Codes... codes) { return (0u | ... | (1u << codes)); }

constexpr uint32_t OK = any_of(FXM_API_SUCCESS);
constexpr uint32_t REFUSED = any_of(FXM_API_EINVAL);
constexpr uint32_t FOUND = any_of(FXM_API_SUCCESS, FXM_API_ENOENT);
constexpr uint32_t SENT = FOUND | any_of(FXM_API_ENOLINK, FXM_API_EPROTO);
constexpr uint32_t ANSWERED = SENT | any_of(FXM_API_ETIMEDOUT);
constexpr uint32_t LOCKED = ANSWERED | any_of(FXM_API_EBUSY);

// One that works in every state never returns FXM_API_ENOSYS.
constexpr bool in_every_state(fxm_api_row_t row)
{
    return row == FXM_ROW_INIT_MANAGER || row == FXM_ROW_FINI_MANAGER || row == FXM_ROW_FREE_IDLIST;
}

// A call whose arguments are `refused` returns FXM_API_EINVAL; `promised` are the results of all others.
template <typename Call> int judge(fxm_api_row_t row, uint32_t promised, bool refused, Call call)
{
    if (refused)
        promised = REFUSED | (row == FXM_ROW_INIT_MANAGER ? any_of(FXM_API_EBUSY) : 0);
    const uint32_t starved = memory_short.load(std::memory_order_relaxed) ? any_of(FXM_API_ENOMEM, FXM_API_EPROTO) : 0;
    const int result = call();
    const uint32_t allowed = promised | starved | (in_every_state(row) ? 0 : any_of(FXM_API_ENOSYS));
    expect(result >= 0 && result <= FXM_API_ENOSYS && (any_of(result) & allowed) != 0, row, result,
           refused ? "the arguments are wrong" : "not a result for these arguments");
    return result;
}

// As judge; a card that nobody has announced is not found.
template <typename Call> int judge_card(fxm_api_row_t row, uint64_t id, uint32_t promised, bool refused, Call call)
{
    const bool stranger = std::find(std::begin(STRANGERS), std::end(STRANGERS), id) != std::end(STRANGERS);
    return judge(row, stranger && promised != OK ? any_of(FXM_API_ENOENT) : promised, refused, call);
}

// -------------------------------------------------------------------------------------------------------- the arguments

constexpr uint32_t ADDRESSES[] = {0, 0x40, 0x5010, 0x7FC, 0x7FE, 0x800, 2, 0x3FFFFC, 0x400000, 0xFFFFFFFC, 0xFFFFFFFF};
constexpr uint32_t REGISTERS = 0x100; // few, so that the threads meet
constexpr uint32_t UNTOUCHED = 0x5A5A5A5A;

inline uint64_t any_card(const choice_t &choose)
{
    return choose.one_in(50) ? choose.pick(STRANGERS) : choose.pick(targets.cards);
}

inline uint64_t unlucky_card(const choice_t &choose)
{
    return choose.one_in(40) ? any_card(choose) : choose.pick(targets.prey);
}

inline uint32_t address(const choice_t &choose, bool eeprom)
{
    return choose.one_in(8) ? choose.pick(ADDRESSES) : 4 * choose.below((eeprom ? FXM_EEPROM_SIZE : REGISTERS) / 4);
}

inline uint16_t vlan(const choice_t &choose)
{
    constexpr uint16_t odd[] = {0, 1, 15, 16, 4094, 4095, 0xFFFF};
    return choose.one_in(8) ? choose.pick(odd) : static_cast<uint16_t>(100 + choose.below(3));
}

// What all operations on a card take.
struct operation_t {
    explicit operation_t(const choice_t &choose)
        : id(any_card(choose)), flags(choose.below(256)), retry(targets.retries(choose)),
          no_wait(retry != nullptr && retry->retry_int == 0)
    {
    }
    uint64_t id;
    uint32_t flags;
    const fxm_retry_param_t *retry;
    bool no_wait;
};

// ------------------------------------------------------------------------------------------------------- cards and lists

inline int get_record(fxm_api_row_t row, const choice_t &choose)
{
    const uint64_t id = any_card(choose);
    const bool none = choose.one_in(8);
    const auto get = [&](auto function, auto record) {
        memset(&record, 0x5A, sizeof(record));
        const int result = judge_card(row, id, FOUND, none, [&] { return function(id, none ? nullptr : &record); });
        uint64_t copied; // the id comes first
        memcpy(&copied, &record, sizeof(copied));
        expect(copied == (result == FXM_API_SUCCESS ? id : uint64_t{UNTOUCHED} << 32 | UNTOUCHED), row, result,
               "record");
        return result;
    };
    return row == FXM_ROW_GET_FXSV ? get(fxm_get_fxsv, fxm_fxsv_t()) : get(fxm_get_fxio, fxm_fxio_t());
}

inline int use_card(fxm_api_row_t row, const choice_t &choose)
{
    const bool unlock = row == FXM_ROW_UNLOCK_EEPROM, restart = row == FXM_ROW_RESTART_MONITOR;
    const uint64_t id = unlock || (restart && choose.one_in(2)) ? any_card(choose) : unlucky_card(choose);
    const uint32_t promised = unlock ? ANSWERED : restart || row == FXM_ROW_STOP_MONITOR ? OK : FOUND;
    const auto function = unlock                        ? fxm_unlock_eeprom
                          : restart                     ? fxm_restart_monitor
                          : row == FXM_ROW_STOP_MONITOR ? fxm_stop_monitor
                          : row == FXM_ROW_DELETE_FXSV  ? fxm_delete_fxsv
                                                        : fxm_delete_fxio;
    return judge_card(row, id, promised, false, [=] { return function(id); });
}

inline std::atomic<uint64_t *> lists[16]; // held for a while, perhaps over a stop

inline int held_lists()
{
    const auto held = [](const auto &list) { return list.load() != nullptr; };
    return static_cast<int>(std::count_if(std::begin(lists), std::end(lists), held));
}

inline void free_lists()
{
    for (auto &list : lists)
        fxm_free_idlist(list.exchange(nullptr));
}

inline int free_list(fxm_api_row_t row, const choice_t &choose)
{
    return judge(row, OK, false, [&] { return fxm_free_idlist(choose.pick(lists).exchange(nullptr)); });
}

inline int get_list(fxm_api_row_t row, const choice_t &choose)
{
    constexpr uint32_t limits[] = {0, 3, 1, 2, UINT32_MAX};
    const uint32_t most = choose.pick(limits);
    const uint16_t group = vlan(choose);
    const uint64_t time = choose.one_in(8) ? UINT64_MAX : choose.one_in(8) ? 0 : now_ms() - choose.below(1000);
    uint64_t untouched = 0, *list = &untouched;
    uint32_t count = most;
    uint64_t **list_out = choose.one_in(12) ? nullptr : &list;
    uint32_t *count_out = choose.one_in(12) ? nullptr : &count;
    const bool fxio = row >= FXM_ROW_GET_FXIOIDS;
    const bool by_time = row == FXM_ROW_GET_UPDATE_FXSVIDS || row == FXM_ROW_GET_UPDATE_FXIOIDS;
    const bool by_group = row == FXM_ROW_GET_GROUP_FXSVIDS || row == FXM_ROW_GET_GROUP_FXIOIDS;
    const bool refused = list_out == nullptr || count_out == nullptr ||
                         (by_group && (group < FXM_GROUP_FIRST || group > FXM_GROUP_LAST));
    const int result = judge(row, OK | any_of(FXM_API_ERANGE), refused, [&] {
        if (by_time)
            return (fxio ? fxm_get_update_fxioids : fxm_get_update_fxsvids)(time, list_out, count_out);
        if (by_group)
            return (fxio ? fxm_get_group_fxioids : fxm_get_group_fxsvids)(group, list_out, count_out);
        return (fxio ? fxm_get_fxioids : fxm_get_fxsvids)(list_out, count_out);
    });
    if (result != FXM_API_SUCCESS) {
        expect(list == &untouched && (result == FXM_API_ERANGE ? count > most : count == most), row, result, "list");
        return result;
    }
    expect((list == nullptr) == (count == 0) && (most == 0 || count <= most) && std::is_sorted(list, list + count), row,
           result, "a list of " + std::to_string(count) + " ids, at most " + std::to_string(most) + " asked for");
    if (list != nullptr && choose.one_in(16))
        list = lists[choose.below(16)].exchange(list);
    fxm_free_idlist(list);
    return result;
}

// --------------------------------------------------------------------------------------------------- operations on cards

inline int use_word(fxm_api_row_t row, const choice_t &choose)
{
    const bool eeprom = row == FXM_ROW_READ_EEPROM || row == FXM_ROW_WRITE_EEPROM;
    const bool reads = row == FXM_ROW_READ_EEPROM || row == FXM_ROW_READ_REGISTER;
    const operation_t op(choose);
    const uint32_t addr = address(choose, eeprom);
    uint32_t data = reads ? UNTOUCHED : choose.below(UINT32_MAX);
    uint32_t *out = reads && choose.one_in(12) ? nullptr : &data;
    const bool refused = addr % 4 != 0 || (eeprom && addr >= FXM_EEPROM_SIZE) || out == nullptr || op.no_wait;
    const int result = judge_card(row, op.id, eeprom ? LOCKED : ANSWERED, refused, [&] {
        if (reads)
            return (eeprom ? fxm_read_eeprom : fxm_read_register)(op.id, addr, out, op.retry, op.flags);
        if (row == FXM_ROW_MODIFY_REGISTER)
            return fxm_modify_register(op.id, addr, data, ~data << 8, op.retry, op.flags);
        return (eeprom ? fxm_write_eeprom : fxm_write_register)(op.id, addr, data, op.retry, op.flags);
    });
    expect(!reads || result == FXM_API_SUCCESS || data == UNTOUCHED, row, result, "the word is written");
    return result;
}

inline int dump_words(fxm_api_row_t row, const choice_t &choose)
{
    const bool eeprom = row == FXM_ROW_DUMP_EEPROM;
    const operation_t op(choose);
    const uint32_t begin = address(choose, eeprom);
    const uint32_t words = 1 + choose.below(choose.one_in(50) ? 512 : 4);
    const uint32_t end = choose.one_in(8) ? address(choose, eeprom) : begin + 4 * words;
    std::vector<uint32_t> buffer(choose.one_in(8) ? choose.below(4) : words); // its end is guarded
    const uint64_t room = 4 * buffer.size() - (buffer.empty() || !choose.one_in(8) ? 0 : 1);
    uint64_t size = room;
    uint64_t *size_out = choose.one_in(20) ? nullptr : &size;
    uint32_t *out = buffer.empty() || choose.one_in(20) ? nullptr : buffer.data();
    const bool refused = size_out == nullptr || out == nullptr || begin % 4 != 0 || end % 4 != 0 || end <= begin ||
                         end - begin > room || op.no_wait || (eeprom && end > FXM_EEPROM_SIZE);
    const int result = judge_card(row, op.id, eeprom ? LOCKED : ANSWERED, refused, [&] {
        return eeprom ? fxm_dump_eeprom(op.id, begin, end, out, size_out, op.retry, op.flags)
                      : fxm_dump_register(op.id, begin, end, out, size_out, op.retry, op.flags);
    });
    const uint64_t wanted = end - begin; // where it is refused, this may be anything
    const bool right = result == FXM_API_SUCCESS ? size == wanted : refused ? size == 0 : size < wanted;
    expect(right || size_out == nullptr || result == FXM_API_ENOSYS, row, result, "bytes: " + std::to_string(size));
    return result;
}

inline int command(fxm_api_row_t row, const choice_t &choose)
{
    static constexpr uint8_t bytes[FXM_MMS_PAGE_SIZE] = {};
    const operation_t op(choose);
    const uint16_t to = vlan(choose);
    const uint32_t page = choose.one_in(12) ? FXM_MMS_PAGES : choose.below(FXM_MMS_PAGES);
    const void *data = choose.one_in(12) ? nullptr : bytes;
    if (row == FXM_ROW_SET_VLANID)
        return judge_card(row, op.id, ANSWERED, to < FXM_VLAN_FIRST || to > FXM_VLAN_LAST || op.no_wait,
                          [=] { return fxm_set_vlanid(op.id, to, op.retry, op.flags); });
    if (row == FXM_ROW_WRITE_MMSPAGE)
        return judge_card(row, op.id, SENT, page >= FXM_MMS_PAGES || data == nullptr,
                          [=] { return fxm_write_mmspage(op.id, page, data, op.flags); });
    return judge_card(row, op.id, SENT, false, [=] { return fxm_send_resetframe(op.id, 1, op.retry, op.flags); });
}

// ------------------------------------------------------------------------------------------------------------ callbacks

// A registration. `ended`: no call through it may begin. `closed`: none may be under way.
constexpr uint32_t REGISTRATIONS = 1 << 16;
struct registration_t {
    std::atomic<void *> handle;
    std::atomic<bool> ended, closed;
};
inline registration_t registrations[REGISTRATIONS];
inline std::atomic<uint32_t> next_registration{0};
inline std::atomic<uint32_t> live[24]; // numbers of registrations, and 1; 0 none
inline thread_local bool in_callback = false;

// Ends the registration of a place, if there is one. A stop may have ended it. A second time, each is unknown.
inline int end_registration(std::atomic<uint32_t> &place)
{
    const uint32_t number = place.exchange(0);
    if (number == 0)
        return NOT_CALLED;
    registration_t &over = registrations[number - 1];
    void *handle = over.handle.load(std::memory_order_relaxed);
    const auto end = [=] { return fxm_unregister_callback(handle); };
    const int result = judge(FXM_ROW_UNREGISTER_CALLBACK, OK | REFUSED, false, end);
    if (result == FXM_API_SUCCESS) {
        over.ended.store(true, std::memory_order_relaxed);
        over.closed.store(!in_callback, std::memory_order_relaxed);
    }
    judge(FXM_ROW_UNREGISTER_CALLBACK, 0, true, end);
    return result;
}

inline int listen(fxm_api_row_t row, const choice_t &choose)
{
    constexpr int32_t unknown[] = {-1, FXM_EVT_CHANNELSTATECHANGE + 1, INT32_MAX, INT32_MIN};
    const int32_t type = choose.one_in(12) ? choose.pick(unknown) : static_cast<int32_t>(choose.below(6));
    const fxm_callback_t func = choose.one_in(12) ? nullptr : targets.callback;
    void *handle = nullptr;
    void **out = choose.one_in(12) ? nullptr : &handle;
    const bool refused = type < 0 || type > FXM_EVT_CHANNELSTATECHANGE || func == nullptr || out == nullptr;
    // The number comes round after so long that its last registration has ended, with a stop if not before.
    const uint32_t number = refused ? 0 : next_registration.fetch_add(1, std::memory_order_relaxed) % REGISTRATIONS;
    registration_t &made = registrations[number];
    if (!refused) {
        made.ended.store(false, std::memory_order_relaxed);
        made.closed.store(false, std::memory_order_relaxed);
    }
    const int result = judge(row, OK, refused, [=] { return fxm_register_callback(type, func, number, out); });
    expect((result == FXM_API_SUCCESS) == (handle != nullptr), row, result, "handle");
    if (result != FXM_API_SUCCESS)
        return result;
    made.handle.store(handle, std::memory_order_relaxed);
    std::atomic<uint32_t> old{choose.pick(live).exchange(number + 1)};
    end_registration(old);
    return result;
}

inline int unlisten(fxm_api_row_t row, const choice_t &choose)
{
    if (!choose.one_in(8))
        return end_registration(live[choose.below(24)]);
    constexpr uint32_t never_given[] = {0, 1, 0x1000, 0x40000000, 0xFFFFFFFF};
    const uintptr_t handle = choose.pick(never_given);
    return judge(row, 0, true, [=] { return fxm_unregister_callback(reinterpret_cast<void *>(handle)); });
}

// ------------------------------------------------------------------------------------------------------------ the manager

inline int init(fxm_api_row_t row, const choice_t &choose)
{
    const char *dir = choose.one_in(12) ? "/nonexistent/fxm" : targets.dir;
    const int32_t level = choose.one_in(12) ? FXM_LOG_TRACE + 1 : FXM_LOG_ERROR;
    if (!targets.start_allowed())
        return NOT_CALLED;
    const int result = judge(row, OK | any_of(FXM_API_EBUSY), dir != targets.dir || level != FXM_LOG_ERROR,
                             [=] { return fxm_init_manager(dir, level); });
    targets.started(result);
    return result;
}

inline int set_level(fxm_api_row_t row, const choice_t &choose)
{
    const int32_t level = static_cast<int32_t>(choose.below(9)) - 2;
    const bool refused = level < FXM_LOG_CONFIGURED || level > FXM_LOG_TRACE;
    return judge(row, OK, refused, [=] { return fxm_set_loglevel(level); });
}

inline int manage(fxm_api_row_t row, const choice_t &choose)
{
    if (row == FXM_ROW_START_MANAGER)
        return judge(row, OK, false, fxm_start_manager);
    if (row == FXM_ROW_FINI_MANAGER)
        return targets.stop_due() ? judge(row, OK, false, fxm_fini_manager) : NOT_CALLED;
    if (!choose.one_in(4)) // a dump is long
        return NOT_CALLED;
    return judge(row, OK, false, [&] { return fxm_stdump(choose.one_in(8) ? 1 : 0); });
}

// ------------------------------------------------------------------------------------------------------------- the table

// In the order of the rows.
constexpr int (*functions[])(fxm_api_row_t row, const choice_t &choose) = {
    get_list,   get_list,  get_list,  get_list,   get_list, get_list, get_record, get_record,
    use_card,   use_card,  command,   command,    command,  use_word, use_word,   use_word,
    dump_words, use_word,  use_word,  dump_words, use_card, use_card, use_card,   listen,
    unlisten,   free_list, set_level, init,       manage,   manage,   manage};
static_assert(std::size(functions) == FXM_API_ROWS);

// Calls the function of this row and judges its result and its outputs.
inline int call_row(fxm_api_row_t row, const choice_t &choose) { return functions[row](row, choose); }

// Without a running library, each function says so. Only for the time when nobody starts it.
inline void expect_stopped(const choice_t &choose)
{
    for (uint32_t number = 0; number < FXM_API_ROWS; ++number) {
        const auto row = static_cast<fxm_api_row_t>(number);
        const int result = call_row(row, choose);
        expect(in_every_state(row) || result == FXM_API_ENOSYS || result == NOT_CALLED, row, result, "after a stop");
    }
}

#endif

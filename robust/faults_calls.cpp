// Stand-ins for what can fail. The program defines the functions, and the shared libraries find them here before those of
// the system. Long waits are cut short, so that a run takes some milliseconds.
#include "faults_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "platform/fxm_platform.h"

fault_t fault;
std::atomic<bool> armed{false};
std::atomic<uint32_t> reached[KINDS];
std::atomic<int32_t> blocks[KINDS + 1];
thread_local bool inside = false;
std::atomic<uint64_t> clock_ahead{0};
thread_local bool has_clock_ahead = false;

static constexpr fault_row_t rows[CALLS] = {
#define FAULT_ROW(type, name, params, args, bad, error, follows, message) {#name, follows, message},
#define FAULT_ROW_OTHER(name, follows, message)                           {#name, follows, message},
    FAULT_CALLS(FAULT_ROW) FAULT_OTHERS(FAULT_ROW_OTHER)};

std::string kind_name(uint32_t kind)
{
    static const char *const origins[] = {".fxm", ".pcap", ".log", ".system"};
    return std::string(row_of(kind).name) + origins[origin_of(kind)];
}

uint32_t kind_named(const char *name)
{
    uint32_t kind = 0;
    while (kind < KINDS && kind_name(kind) != name)
        ++kind;
    return kind;
}

const fault_row_t &row_of(uint32_t kind) { return rows[call_of(kind)]; }

// ------------------------------------------------------------------------------------------------------------ who calls

// The stand-ins lie in a section of their own: they are part of the program, but not of the library.
extern "C" const char __start_stand_ins, __stop_stand_ins;
#define STAND_IN __attribute__((section("stand_ins"), noinline))

origin_t whose(const void *code)
{
    static constexpr struct {
        const char *part;
        origin_t origin;
    } known[] = {{"/libpcap", PCAP}, {"/libdbus", PCAP}, {"/liblog4cxx", LOG}, {"/libapr", LOG}, {"/libexpat", LOG}};
    dl_find_object object;
    if ((code >= &__start_stand_ins && code < &__stop_stand_ins) ||
        _dl_find_object(const_cast<void *>(code), &object) != 0)
        return SYSTEM;
    const char *name = object.dlfo_link_map->l_name;
    for (const auto &[part, origin] : known)
        if (strstr(name, part) != nullptr)
            return origin;
    return *name == '\0' ? FXM : SYSTEM;
}

static thread_local bool no_socket; // libpcap gets none

// Counts a call, and says whether it is to fail.
static bool fails(uint32_t kind)
{
    if (no_socket && kind == kind_of(CALL_socket, PCAP))
        return true;
    if (!armed.load(std::memory_order_relaxed) || !inside)
        return false;
    const uint32_t n = reached[kind].fetch_add(1) + 1;
    return kind == fault.kind && (n == fault.n || (fault.ever && n > fault.n));
}
#define CALLED_BY(call) kind_of(CALL_##call, whose(__builtin_return_address(0)))

// ------------------------------------------------------------------------------------------------------------- the heap

extern "C" void *__libc_malloc(size_t);
extern "C" void __libc_free(void *);

// In front of each block. None that is aligned further is ever asked for.
struct block_t {
    size_t size;
    uint32_t kind, mark; // KINDS: taken outside
};
static_assert(sizeof(block_t) == 16);
constexpr uint32_t IN_USE = 0x600DB10C;

static void *take(size_t size, uint32_t kind)
{
    auto *block = fails(kind) ? nullptr : static_cast<block_t *>(__libc_malloc(size + sizeof(block_t)));
    if (block == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    *block = {size, inside ? kind : KINDS, IN_USE};
    blocks[block->kind].fetch_add(1, std::memory_order_relaxed);
    return block + 1;
}

extern "C" {
STAND_IN void *malloc(size_t size) { return take(size, CALLED_BY(malloc)); }
STAND_IN void *calloc(size_t number, size_t size)
{
    void *memory = take(number * size, CALLED_BY(malloc)); // nobody here overflows
    return memory == nullptr ? nullptr : memset(memory, 0, number * size);
}
STAND_IN void free(void *memory)
{
    if (memory == nullptr)
        return;
    block_t *block = static_cast<block_t *>(memory) - 1;
    if (block->mark != IN_USE)
        abort(); // released twice, or never taken
    blocks[block->kind].fetch_sub(1, std::memory_order_relaxed);
    block->mark = 0;
    __libc_free(block);
}
STAND_IN void *realloc(void *old, size_t size)
{
    void *memory = take(size, CALLED_BY(malloc));
    if (memory == nullptr || old == nullptr)
        return memory;
    memcpy(memory, old, std::min(size, static_cast<block_t *>(old)[-1].size));
    free(old);
    return memory;
}
}

STAND_IN void *operator new(size_t size)
{
    void *memory = take(size, CALLED_BY(new));
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
STAND_IN void operator delete(void *memory) noexcept { free(memory); }
STAND_IN void operator delete(void *memory, size_t) noexcept { free(memory); }

// --------------------------------------------------------------------------------------------------------- the functions

// The time `until` on the monotonic clock, or `ms` from now if it is between `least` and `most` ms away.
static const timespec *earlier(const timespec *until, int64_t ms, int64_t least, int64_t most)
{
    static thread_local timespec soon;
    static const auto clock = reinterpret_cast<int (*)(int, timespec *)>(dlsym(RTLD_NEXT, "clock_gettime"));
    clock(CLOCK_MONOTONIC, &soon);
    const int64_t now = soon.tv_sec * 1000000000 + soon.tv_nsec, end = now + ms * 1000000;
    const int64_t left = (until->tv_sec * 1000000000 + until->tv_nsec - now) / 1000000;
    soon = {end / 1000000000, end % 1000000000};
    return inside && left > least && left < most ? &soon : until;
}

// A wait of about a second only looks for a stop. The answer of a card is waited for as long as it takes, and so is the
// time of the next status dump.
static const timespec *futex_end(long number, long operation, const timespec *until)
{
    const bool timed = number == SYS_futex && operation == FUTEX_WAIT_BITSET_PRIVATE && until != nullptr;
    return timed ? earlier(until, 20, 500, 2000) : until;
}

// An activation that fails takes back what it has made, so it must begin.
static int without_socket(int (*activate)(void *), void *handle)
{
    no_socket = true;
    const int result = activate(handle);
    no_socket = false;
    return result;
}

using thread_t = void *(*)(void *);
struct start_t {
    thread_t function;
    void *arg;
};
static void *hand_over(thread_t function, void *arg)
{
    auto *start = static_cast<start_t *>(__libc_malloc(sizeof(start_t)));
    *start = {function, arg};
    return start;
}
static void *begin_inside(void *arg)
{
    const start_t start = *static_cast<start_t *>(arg);
    __libc_free(arg);
    inside = true;
    return start.function(start.arg);
}

// A label gives the name, because the headers declare the functions with other words.
#define FAULT_STAND_IN(type, name, params, args, bad, error, follows, message)                                         \
    extern "C" type in_##name params __asm__(#name);                                                                   \
    extern "C" STAND_IN type in_##name params                                                                          \
    {                                                                                                                  \
        static const auto next = reinterpret_cast<type(*) params>(dlsym(RTLD_NEXT, #name));                            \
        if (!fails(CALLED_BY(name)))                                                                                   \
            return next args;                                                                                          \
        if ((error) != 0)                                                                                              \
            errno = (error);                                                                                           \
        return bad;                                                                                                    \
    }
FAULT_CALLS(FAULT_STAND_IN)

// ------------------------------------------------------------------------------------------------------ the platform layer

static fxm_platform_calls_t given;
static thread_local uint32_t arm_error;
static bool fails_in_platform(fault_call_t call) { return fails(kind_of(call, FXM)); }

void faults_begin()
{
    given = fxm_platform;
    fxm_platform.allocate = [](size_t size) { return take(size, kind_of(CALL_allocate, FXM)); };
    fxm_platform.mutex_make = [](pthread_mutex_t *handle, bool initialise) {
        return !fails_in_platform(CALL_mutex_make) && given.mutex_make(handle, initialise);
    };
    fxm_platform.event_make = [](int *fd, bool waitable) {
        return !fails_in_platform(CALL_event_make) && given.event_make(fd, waitable);
    };
    fxm_platform.notice_arm = [](fxm_notice_t *notice) {
        const bool armed_well = !fails_in_platform(CALL_notice_arm);
        arm_error = armed_well ? 0 : EIO;
        return armed_well && given.notice_arm(notice);
    };
    fxm_platform.last_error = [] { return arm_error != 0 ? std::exchange(arm_error, 0) : given.last_error(); };
    fxm_platform.wait_two = [](fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms) {
        second->look_again = std::min(second->look_again, 10u);
        return given.wait_two(first, second, std::min(ms, 20u));
    };
    fxm_platform.wall_clock_ms = [] { return given.wall_clock_ms() + (has_clock_ahead ? clock_ahead.load() : 0); };
}

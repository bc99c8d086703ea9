// The calls that can fail, and the fault of a case: the n-th call of a kind fails, or that one and all after it. A kind is
// a function and who calls it: "socket.pcap" is what libpcap asks of socket. The program defines the functions, and the
// shared libraries find them there before those of the system.
#ifndef FAULTS_CALLS_H
#define FAULTS_CALLS_H

#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <new>
#include <utility>

#include "functions.h"
#include "platform/fxm_platform.h"

// A failure in a start may be an answer of fxm_init_manager, and one in a run may stop the library.
enum : uint32_t {
    REFUSES_ONCE = 1,  // a single failure may keep the library from starting
    REFUSES_EVER = 2,  // all that follow too may
    STOPS = 4,         // it may stop the running library with FXM_API_EPROTO
    NO_ENTRY = 8,      // a refused start may answer FXM_API_ENOENT
    NO_MEMORY = 16,    // or FXM_API_ENOMEM
    BAD_ARGUMENT = 32, // or FXM_API_EINVAL
    SILENT = 64,       // a refused start may leave no message: there is no log yet
};

// Functions of the system and of libpcap, the long waits cut short so that a run takes some milliseconds: type, name,
// parameters, arguments, the answer of a failure, its errno value, what may follow, and what the log then says.
// clang-format off
#define FAULT_CALLS(X) \
    X(int, socket, (int a, int b, int c), (a, b, c), -1, EMFILE, REFUSES_EVER | STOPS, "") \
    X(int, bind, (int a, const void *b, unsigned c), (a, b, c), -1, EACCES, REFUSES_EVER | STOPS, "") \
    X(int, setsockopt, (int a, int b, int c, const void *d, unsigned e), (a, b, c, d, e), -1, ENOMEM, REFUSES_EVER | STOPS, "") \
    X(int, getsockopt, (int a, int b, int c, void *d, void *e), (a, b, c, d, e), -1, ENOBUFS, REFUSES_EVER | STOPS, "") \
    X(ssize_t, send, (int a, const void *b, size_t c, int d), (a, b, c, d), -1, ENOBUFS, REFUSES_EVER, "") \
    X(ssize_t, recv, (int a, void *b, size_t c, int d), (a, b, c, d), -1, ENOMEM, REFUSES_EVER | STOPS, "") \
    X(int, ioctl, (int a, unsigned long b, void *c), (a, b, c), -1, EPERM, REFUSES_EVER | STOPS, "") \
    X(void *, mmap, (void *a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f), MAP_FAILED, ENOMEM, REFUSES_EVER, "") \
    X(int, eventfd, (unsigned a, int b), (a, b), -1, EMFILE, REFUSES_ONCE | REFUSES_EVER, "") \
    X(int, poll, (void *a, unsigned long b, int c), (a, b, c), -1, ENOMEM, STOPS, "returned WAIT_FAILED. lasterr=") \
    X(int, open, (const char *a, int b, int c), (a, b, c), -1, EMFILE, 0, "") \
    X(FILE *, fopen, (const char *a, const char *b), (a, b), nullptr, EMFILE, REFUSES_ONCE | REFUSES_EVER, "file open error: ") \
    X(DIR *, opendir, (const char *a), (a), nullptr, EMFILE, REFUSES_EVER, "") \
    X(int, stat, (const char *a, void *b), (a, b), -1, EIO, REFUSES_ONCE | REFUSES_EVER | NO_ENTRY | BAD_ARGUMENT | SILENT, "") \
    X(ssize_t, read, (int a, void *b, size_t c), (a, b, c), -1, EIO, 0, "") \
    X(ssize_t, write, (int a, const void *b, size_t c), (a, b, c), -1, ENOSPC, 0, "") \
    X(int, fcntl, (int a, int b, long c), (a, b, c), -1, EINVAL, 0, "") \
    X(int, getifaddrs, (void *a), (a), -1, ENOMEM, REFUSES_EVER, "Failed to pcap_findalldevs()") \
    X(unsigned, if_nametoindex, (const char *a), (a), 0, ENODEV, REFUSES_EVER | NO_ENTRY, "Failed to _fxm_socket_open()") \
    X(int, pthread_mutexattr_init, (void *a), (a), ENOMEM, 0, REFUSES_ONCE | REFUSES_EVER, "Failed to _fxm_mutex_init()") \
    X(int, pthread_mutexattr_settype, (void *a, int b), (a, b), ENOMEM, 0, REFUSES_ONCE | REFUSES_EVER, "Failed to _fxm_mutex_init()") \
    X(int, pthread_mutex_init, (void *a, const void *b), (a, b), ENOMEM, 0, REFUSES_ONCE | REFUSES_EVER, "Failed to _fxm_mutex_init()") \
    X(int, clock_gettime, (int a, timespec *b), (a, b), -1, EINVAL, 0, "") \
    X(int, setpriority, (int a, unsigned b, int c), (a, b, c), -1, EACCES, 0, "") \
    X(int, pcap_findalldevs, (void *a, char *b), (a, b), (*b = 0, -1), EPERM, REFUSES_EVER, "Failed to pcap_findalldevs()") \
    X(void *, pcap_create, (const char *a, char *b), (a, b), (*b = 0, nullptr), ENOMEM, REFUSES_EVER, "Failed to pcap_open_live()") \
    X(int, pcap_set_snaplen, (void *a, int b), (a, b), -4, 0, 0, "") \
    X(int, pcap_set_promisc, (void *a, int b), (a, b), -4, 0, 0, "") \
    X(int, pcap_set_timeout, (void *a, int b), (a, b), -4, 0, 0, "") \
    X(int, pcap_set_immediate_mode, (void *a, int b), (a, b), -4, 0, 0, "") \
    X(int, pcap_setnonblock, (void *a, int b, char *c), (a, b, c), -1, EIO, 0, "") \
    X(int, pcap_fileno, (void *a), (a), -1, EBADF, 0, "") \
    X(int, pcap_get_selectable_fd, (void *a), (a), -1, EBADF, 0, "") \
    X(int, pcap_dispatch, (void *a, int b, void *c, void *d), (a, b, c, d), -1, ENETDOWN, STOPS, "Failed to pcap_next_ex()") \
    X(int, pcap_sendpacket, (void *a, const void *b, int c), (a, b, c), -1, EIO, 0, "") \
    X(int, pcap_activate, (void *a), (a), without_socket(next, a), 0, REFUSES_EVER, "Failed to pcap_open_live()") \
    X(int, pcap_set_buffer_size, (void *a, int), (a, 1 << 20), -4, 0, 0, "") \
    X(int, close, (int a), (a), (next(a), errno = EIO, -1), 0, 0, "") \
    X(char *, fgets, (char *a, int b, FILE *c), (a, b, c), (c->_flags |= 0x20, nullptr), EIO, REFUSES_ONCE | REFUSES_EVER, "file open error: ") \
    X(int, pthread_create, (pthread_t *a, const pthread_attr_t *b, thread_t c, void *d), (a, b, inside ? begin_inside : c, inside ? hand_over(c, d) : d), EAGAIN, 0, REFUSES_ONCE | REFUSES_EVER, "Failed to _fxm_thread_create(") \
    X(int, clock_nanosleep, (int a, int b, const timespec *c, timespec *d), (a, b, earlier(c, 5, 5, 1 << 30), d), EINVAL, 0, 0, "") \
    X(long, syscall, (long a, long b, long c, long d, const timespec *e, long f, long g), (a, b, c, d, futex_end(a, c, e), f, g), -1, ENOSYS, STOPS, "Failed to _fxm_event_timedwait()")

// The heap, and the stand-ins of the platform layer.
#define FAULT_OTHERS(X) \
    X(malloc, REFUSES_ONCE | REFUSES_EVER | STOPS, "") \
    X(new, 0, "") \
    X(allocate, REFUSES_EVER | NO_MEMORY, "Failed to malloc()") \
    X(mutex_make, REFUSES_ONCE | REFUSES_EVER, "Failed to _fxm_mutex_init") \
    X(event_make, REFUSES_ONCE | REFUSES_EVER, "event") \
    X(notice_arm, STOPS, "Failed to NotifyAddrChange(). err = ")
// clang-format on

enum fault_call_t : uint32_t {
#define FAULT_ENUM(type, name, ...) CALL_##name,
#define FAULT_ENUM_OTHER(name, ...) CALL_##name,
    FAULT_CALLS(FAULT_ENUM) FAULT_OTHERS(FAULT_ENUM_OTHER) CALLS
};

// Who calls: the library, libpcap, log4cxx, or the libraries of C and C++, each with what it brings.
enum origin_t : uint32_t { FXM, PCAP, LOG, SYSTEM, ORIGINS };
constexpr uint32_t KINDS = uint32_t{CALLS} * ORIGINS;

static uint32_t kind_of(fault_call_t call, origin_t origin) { return uint32_t{call} * ORIGINS + origin; }
static fault_call_t call_of(uint32_t kind) { return static_cast<fault_call_t>(kind / ORIGINS); }
static origin_t origin_of(uint32_t kind) { return static_cast<origin_t>(kind % ORIGINS); }
struct fault_row_t {
    const char *name;
    uint32_t follows;
    const char *message;
};

static constexpr fault_row_t rows[CALLS] = {
#define FAULT_ROW(type, name, params, args, bad, error, follows, message) {#name, follows, message},
#define FAULT_ROW_OTHER(name, follows, message)                           {#name, follows, message},
    FAULT_CALLS(FAULT_ROW) FAULT_OTHERS(FAULT_ROW_OTHER)};
static const fault_row_t &row_of(uint32_t kind) { return rows[call_of(kind)]; }

static std::string kind_name(uint32_t kind)
{
    static const char *const origins[] = {".fxm", ".pcap", ".log", ".system"};
    return std::string(row_of(kind).name) + origins[origin_of(kind)];
}

// KINDS: there is none.
static uint32_t kind_named(const char *name)
{
    uint32_t kind = 0;
    while (kind < KINDS && kind_name(kind) != name)
        ++kind;
    return kind;
}

// Calls count, and fail, only while `armed` is set, and only on the threads of the library and those inside one of its
// functions. A thread that is made inside is inside.
static struct {
    uint32_t kind = KINDS; // KINDS: none
    uint32_t n = 0;
    bool ever = false;
} fault;
static std::atomic<bool> armed{false};
static std::atomic<uint32_t> reached[KINDS];
static std::atomic<int32_t> blocks[KINDS + 1]; // of the heap, by who has taken them; the last are from outside
static thread_local bool inside = false;
static std::atomic<uint64_t> clock_ahead{0}; // ms, of the wall clock of those threads that have
static thread_local bool has_clock_ahead = false;

// ------------------------------------------------------------------------------------------------------------ who calls

// The stand-ins lie in a section of their own: they are part of the program, but not of the library.
extern "C" const char __start_stand_ins, __stop_stand_ins;
#define STAND_IN __attribute__((section("stand_ins"), noinline))

static origin_t whose(const void *code)
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

// Before any thread: sets the stand-ins.
static void faults_begin()
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

#endif

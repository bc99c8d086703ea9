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

#include "platform/fxm_platform.h"

fault_t fault;
std::atomic<bool> armed{false};
std::atomic<uint32_t> reached[KINDS];
std::atomic<int32_t> live[KINDS];
thread_local bool inside = false;
std::atomic<uint64_t> clock_ahead{0};
thread_local bool has_clock_ahead = false;

struct call_row_t {
    const char *name;
    uint32_t follows;
    const char *message;
};
static constexpr call_row_t rows[CALLS] = {
#define FAULT_ROW(type, name, params, args, bad, error, follows, message) {#name, follows, message},
#define FAULT_ROW_OTHER(name, follows, message)                           {#name, follows, message},
    FAULT_CALLS(FAULT_ROW) FAULT_OTHERS(FAULT_ROW_OTHER)};

std::string kind_name(uint32_t kind)
{
    static const char *const origins[] = {".fxm", ".pcap", ".log", ".system"};
    return std::string(rows[call_of(kind)].name) + origins[origin_of(kind)];
}

uint32_t follows(uint32_t kind) { return rows[call_of(kind)].follows; }
const char *message(uint32_t kind) { return rows[call_of(kind)].message; }

// ------------------------------------------------------------------------------------------------------------ who calls

static struct {
    uintptr_t begin, end;
    origin_t origin;
} modules[16];
static uint32_t module_count = 0;

// The stand-ins lie in a section of their own: they are part of the program, but not of the library.
extern "C" const char __start_stand_ins, __stop_stand_ins;
#define STAND_IN __attribute__((section("stand_ins"), noinline))

static int add_module(dl_phdr_info *info, size_t, void *)
{
    static constexpr struct {
        const char *part;
        origin_t origin;
    } known[] = {{"/libpcap", PCAP}, {"/libdbus", PCAP}, {"/liblog4cxx", LOG}, {"/libapr", LOG}, {"/libexpat", LOG}};
    origin_t origin = *info->dlpi_name == '\0' && info->dlpi_addr != 0 && module_count == 0 ? FXM : SYSTEM;
    for (const auto &[part, of] : known)
        origin = strstr(info->dlpi_name, part) != nullptr ? of : origin;
    for (uint32_t i = 0; origin != SYSTEM && i < info->dlpi_phnum && module_count < std::size(modules); ++i) {
        const ElfW(Phdr) &segment = info->dlpi_phdr[i];
        const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0)
            modules[module_count++] = {begin, begin + segment.p_memsz, origin};
    }
    return 0;
}

origin_t whose(const void *code)
{
    if (code >= &__start_stand_ins && code < &__stop_stand_ins)
        return SYSTEM;
    const auto address = reinterpret_cast<uintptr_t>(code);
    for (uint32_t i = 0; i < module_count; ++i) {
        if (address >= modules[i].begin && address < modules[i].end)
            return modules[i].origin;
    }
    return SYSTEM;
}

// Counts a call, and says whether it is to fail.
static thread_local bool no_socket; // libpcap gets none

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

template <typename Function> static Function *real(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

// ------------------------------------------------------------------------------------------------------- plain failures

// A label gives the name, because the headers declare the functions with other words.
#define FAULT_STAND_IN(type, name, params, args, bad, error, follows, message)                                         \
    extern "C" type in_##name params __asm__(#name);                                                                   \
    extern "C" STAND_IN type in_##name params                                                                          \
    {                                                                                                                  \
        static const auto next = real<type params>(#name);                                                             \
        if (!fails(CALLED_BY(name)))                                                                                   \
            return next args;                                                                                          \
        if ((error) != 0)                                                                                              \
            errno = (error);                                                                                           \
        return bad;                                                                                                    \
    }
FAULT_CALLS(FAULT_STAND_IN)

// ------------------------------------------------------------------------------------------------------------- the heap

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_memalign(size_t, size_t);
extern "C" void __libc_free(void *);

// In front of each block.
struct block_t {
    uint32_t kind, size_low; // KINDS: taken outside
    uint32_t offset, mark;   // from what the heap gave
};
static_assert(sizeof(block_t) == 16);
constexpr uint32_t IN_USE = 0x600DB10C;

static void *take(size_t size, uint32_t kind, size_t alignment = sizeof(block_t))
{
    alignment = std::max(alignment, sizeof(block_t));
    void *memory = size > PTRDIFF_MAX - alignment ? nullptr
                   : alignment == sizeof(block_t) ? __libc_malloc(size + alignment)
                                                  : __libc_memalign(alignment, size + alignment);
    if (memory == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    char *given = static_cast<char *>(memory) + alignment;
    kind = inside ? kind : KINDS;
    reinterpret_cast<block_t *>(given)[-1] = {kind, static_cast<uint32_t>(size), static_cast<uint32_t>(alignment),
                                              IN_USE};
    if (kind < KINDS)
        live[kind].fetch_add(1, std::memory_order_relaxed);
    return given;
}

static void *take_or_fail(size_t size, uint32_t kind, size_t alignment = sizeof(block_t))
{
    if (!fails(kind))
        return take(size, kind, alignment);
    errno = ENOMEM;
    return nullptr;
}

extern "C" {
STAND_IN void *malloc(size_t size) { return take_or_fail(size, CALLED_BY(malloc)); }
STAND_IN void *calloc(size_t number, size_t size)
{
    size_t all = 0;
    void *memory = __builtin_mul_overflow(number, size, &all) ? nullptr : take_or_fail(all, CALLED_BY(malloc));
    return memory == nullptr ? nullptr : memset(memory, 0, all);
}
STAND_IN void free(void *memory)
{
    if (memory == nullptr)
        return;
    block_t &block = static_cast<block_t *>(memory)[-1];
    if (block.mark != IN_USE)
        abort(); // released twice, or never taken
    if (block.kind < KINDS)
        live[block.kind].fetch_sub(1, std::memory_order_relaxed);
    block.mark = 0;
    __libc_free(static_cast<char *>(memory) - block.offset);
}
STAND_IN void *realloc(void *old, size_t size)
{
    void *memory = take_or_fail(size, CALLED_BY(malloc));
    if (memory != nullptr && old != nullptr) {
        memcpy(memory, old, std::min<size_t>(size, static_cast<block_t *>(old)[-1].size_low));
        free(old);
    }
    return memory;
}
STAND_IN void *aligned_alloc(size_t alignment, size_t size) { return take_or_fail(size, CALLED_BY(malloc), alignment); }
STAND_IN void *memalign(size_t alignment, size_t size) { return take_or_fail(size, CALLED_BY(malloc), alignment); }
STAND_IN int posix_memalign(void **out, size_t alignment, size_t size)
{
    void *memory = take_or_fail(size, CALLED_BY(malloc), alignment);
    *out = memory != nullptr ? memory : *out;
    return memory != nullptr ? 0 : ENOMEM;
}
STAND_IN size_t malloc_usable_size(void *memory)
{
    return memory == nullptr ? 0 : static_cast<block_t *>(memory)[-1].size_low;
}
}

STAND_IN void *operator new(size_t size)
{
    void *memory = take_or_fail(size, CALLED_BY(new));
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
STAND_IN void operator delete(void *memory) noexcept { free(memory); }
STAND_IN void operator delete(void *memory, size_t) noexcept { free(memory); }

// ------------------------------------------------------------------------------------------------------- not so plain ones

constexpr int64_t SHORT = 5000000; // ns: what a longer sleep takes

static int64_t ns_of(const timespec &time) { return time.tv_sec * 1000000000 + time.tv_nsec; }
static timespec short_time()
{
    timespec now{};
    static const auto next = real<int(int, timespec *)>("clock_gettime");
    next(CLOCK_MONOTONIC, &now);
    const int64_t end = ns_of(now) + SHORT;
    return {end / 1000000000, end % 1000000000};
}

extern "C" {
STAND_IN int close(int fd)
{
    static const auto next = real<int(int)>("close");
    const bool bad = fails(CALLED_BY(close));
    const int result = next(fd); // the descriptor is gone all the same
    errno = bad ? EIO : errno;
    return bad ? -1 : result;
}
STAND_IN char *fgets(char *line, int size, FILE *file)
{
    static const auto next = real<char *(char *, int, FILE *)>("fgets");
    if (!fails(CALLED_BY(fgets)))
        return next(line, size, file);
    file->_flags |= 0x20; // what ferror looks at
    errno = EIO;
    return nullptr;
}

struct start_t {
    void *(*function)(void *);
    void *arg;
};
static void *begin_inside(void *arg)
{
    const start_t start = *static_cast<start_t *>(arg);
    free(arg);
    inside = true;
    return start.function(start.arg);
}
int in_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*function)(void *),
                      void *arg) __asm__("pthread_create");
STAND_IN int in_pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*function)(void *), void *arg)
{
    static const auto next =
        real<int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>("pthread_create");
    if (fails(CALLED_BY(pthread_create)))
        return EAGAIN;
    if (!inside)
        return next(thread, attr, function, arg);
    auto *start = static_cast<start_t *>(take(sizeof(start_t), KINDS));
    *start = {function, arg};
    const int err = next(thread, attr, begin_inside, start);
    if (err != 0)
        free(start);
    return err;
}
int in_clock_nanosleep(int clock, int flags, const timespec *until, timespec *left) __asm__("clock_nanosleep");
STAND_IN int in_clock_nanosleep(int clock, int flags, const timespec *until, timespec *left)
{
    static const auto next = real<int(int, int, const timespec *, timespec *)>("clock_nanosleep");
    if (fails(CALLED_BY(clock_nanosleep)))
        return EINVAL;
    const timespec soon = short_time();
    const bool cut = inside && (flags & TIMER_ABSTIME) != 0 && ns_of(*until) > ns_of(soon);
    return next(clock, flags, cut ? &soon : until, left);
}
// A wait of about a second, which only looks for a stop, is cut short. The answer of a card and the period of the dumps are
// waited for as they are.
long in_syscall(long number, long a, long b, long c, long d, long e, long f) __asm__("syscall");
STAND_IN long in_syscall(long number, long a, long b, long c, long d, long e, long f)
{
    static const auto next = real<long(long, long, long, long, long, long, long)>("syscall");
    if (number != SYS_futex)
        return next(number, a, b, c, d, e, f);
    if (fails(CALLED_BY(futex))) {
        errno = ENOSYS;
        return -1;
    }
    const timespec soon = short_time();
    const auto *until = reinterpret_cast<const timespec *>(d);
    const bool cut = inside && b == FUTEX_WAIT_BITSET_PRIVATE && until != nullptr &&
                     ns_of(*until) - ns_of(soon) > 500000000 && ns_of(*until) - ns_of(soon) < 2000000000;
    return next(number, a, b, c, cut ? reinterpret_cast<long>(&soon) : d, e, f);
}
// An activation that fails takes back what it has made, so it must begin.
int in_pcap_activate(void *handle) __asm__("pcap_activate");
STAND_IN int in_pcap_activate(void *handle)
{
    static const auto next = real<int(void *)>("pcap_activate");
    no_socket = fails(CALLED_BY(pcap_activate));
    const int result = next(handle);
    no_socket = false;
    return result;
}
// A small ring is quickly made.
int in_pcap_set_buffer_size(void *handle, int size) __asm__("pcap_set_buffer_size");
STAND_IN int in_pcap_set_buffer_size(void *handle, int)
{
    static const auto next = real<int(void *, int)>("pcap_set_buffer_size");
    return fails(CALLED_BY(pcap_set_buffer_size)) ? -4 : next(handle, 1 << 20);
}
}

// ------------------------------------------------------------------------------------------------------ the platform layer

static fxm_platform_calls_t given;
static thread_local uint32_t reason; // of this thread's last failure of the platform layer, 0: that of the layer
static bool fails_in_platform(fault_call_t call)
{
    const bool bad = fails(kind_of(call, FXM));
    reason = bad ? EIO : 0;
    return bad;
}

void faults_begin()
{
    dl_iterate_phdr(add_module, nullptr);
    given = fxm_platform;
    fxm_platform.allocate = [](size_t size) { return take_or_fail(size, kind_of(CALL_allocate, FXM)); };
    fxm_platform.mutex_make = [](pthread_mutex_t *handle, bool initialise) {
        return !fails_in_platform(CALL_mutex_make) && given.mutex_make(handle, initialise);
    };
    fxm_platform.event_make = [](int *fd, bool waitable) {
        return !fails_in_platform(CALL_event_make) && given.event_make(fd, waitable);
    };
    fxm_platform.wait_two = [](fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms) {
        if (fails_in_platform(CALL_wait_two))
            return FXM_WAIT_FAILED;
        second->look_again = std::min(second->look_again, 10u);
        return given.wait_two(first, second, std::min(ms, 20u));
    };
    fxm_platform.get_adapters = [](fxm_adapter_t *list, uint32_t *size) {
        return fails_in_platform(CALL_get_adapters) ? uint32_t{EIO} : given.get_adapters(list, size);
    };
    fxm_platform.notice_create = [](fxm_notice_t *notice) {
        return !fails_in_platform(CALL_notice_create) && given.notice_create(notice);
    };
    fxm_platform.notice_arm = [](fxm_notice_t *notice) {
        return !fails_in_platform(CALL_notice_arm) && given.notice_arm(notice);
    };
    fxm_platform.last_error = [] { return reason != 0 ? reason : given.last_error(); };
    fxm_platform.wall_clock_ms = [] {
        return fails_in_platform(CALL_wall_clock) ? 0
                                                  : given.wall_clock_ms() + (has_clock_ahead ? clock_ahead.load() : 0);
    };
}

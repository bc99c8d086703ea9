// Locks, events, threads, clock, file tests and the two-source wait on Linux. Called by every thread of the library.
#include "platform/fxm_platform.h"

#include <linux/futex.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "platform/fxm_platform_net.h"

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the futex word is the atomic itself");

static thread_local uint32_t last_error;

void _fxm_set_last_error(int err) { last_error = static_cast<uint32_t>(err); }

static uint32_t _last_error() { return last_error; }

// ------------------------------------------------------------------------------------------------------------- locks

static void _fxm_cpu_pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

static bool _mutex_make(pthread_mutex_t *handle, bool initialise)
{
    if (!initialise)
        return true;
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0)
        return false;
    const bool made =
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE) == 0 && pthread_mutex_init(handle, &attr) == 0;
    pthread_mutexattr_destroy(&attr);
    return made;
}

int _fxm_mutex_init_st(fxm_mutex_t *mutex) { return fxm_platform.mutex_make(&mutex->handle, false) ? 0 : EPROTO; }

int _fxm_mutex_init(fxm_mutex_t *mutex)
{
    if (!fxm_platform.mutex_make(&mutex->handle, true))
        return EPROTO;
    mutex->owned = true;
    return 0;
}

void _fxm_mutex_destroy(fxm_mutex_t *mutex)
{
    if (!mutex->owned)
        return;
    mutex->owned = false;
    pthread_mutex_destroy(&mutex->handle);
}

// Most locks are held for a fraction of a microsecond, and to sleep and be woken costs many. So a thread that finds a lock
// taken tries again a few times, each after a longer pause, about a microsecond in all.
static bool _lock_soon(pthread_mutex_t *handle)
{
    static const bool alone = sysconf(_SC_NPROCESSORS_ONLN) < 2; // then the holder cannot run meanwhile
    for (int pause = 4; !alone && pause <= 64; pause *= 2) {
        for (int i = 0; i < pause; ++i)
            _fxm_cpu_pause();
        if (pthread_mutex_trylock(handle) == 0)
            return true;
    }
    return false;
}

static int _take(fxm_mutex_t *mutex)
{
    if (pthread_mutex_trylock(&mutex->handle) == 0 || _lock_soon(&mutex->handle))
        return 0;
    return pthread_mutex_lock(&mutex->handle) == 0 ? 0 : EPROTO;
}

#ifdef FXM_HOLDS
fxm_hold_t fxm_holds[FXM_HOLD_KINDS];

// The locks of a kind that the thread holds, and since when it has held one.
static thread_local struct {
    uint32_t depth;
    uint64_t since;
} held[FXM_HOLD_KINDS];

// Relaxed: a maximum orders nothing.
static void _raise(std::atomic<uint64_t> *longest, uint64_t ns)
{
    uint64_t known = longest->load(std::memory_order_relaxed);
    while (known < ns && !longest->compare_exchange_weak(known, ns, std::memory_order_relaxed)) {
    }
}

static int _take_measured(fxm_mutex_t *mutex)
{
    const uint64_t begun = _fxm_monotonic_ns();
    const int err = _take(mutex);
    auto &own = held[mutex->kind];
    if (err == 0 && own.depth++ == 0) {
        own.since = _fxm_monotonic_ns();
        _raise(&fxm_holds[mutex->kind].wait, own.since - begun);
    }
    return err;
}

static void _end_hold(const fxm_mutex_t *mutex)
{
    auto &own = held[mutex->kind];
    if (--own.depth == 0)
        _raise(&fxm_holds[mutex->kind].hold, _fxm_monotonic_ns() - own.since);
}
#else
static int _take_measured(fxm_mutex_t *mutex) { return _take(mutex); }
static void _end_hold(const fxm_mutex_t *) {}
#endif

// The analysis knows nothing of the system's locks, so it cannot see that these two do what they say.
FXM_NO_ANALYSIS int _fxm_mutex_lock(fxm_mutex_t *mutex)
{
    _fxm_check_lock(mutex, mutex->kind);
    return _take_measured(mutex);
}

FXM_NO_ANALYSIS void _fxm_mutex_unlock(fxm_mutex_t *mutex)
{
    _fxm_check_unlock(mutex);
    _end_hold(mutex);
    pthread_mutex_unlock(&mutex->handle);
}

// ------------------------------------------------------------------------------------------------------------ events

timespec _fxm_monotonic_in(uint32_t ms)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    now.tv_sec += static_cast<time_t>(ms / 1000);
    now.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (now.tv_nsec >= 1000000000L) {
        now.tv_nsec -= 1000000000L;
        now.tv_sec += 1;
    }
    return now;
}

int64_t _fxm_ms_until(const timespec *deadline)
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t ns =
        (static_cast<int64_t>(deadline->tv_sec) - now.tv_sec) * 1000000000 + deadline->tv_nsec - now.tv_nsec;
    return ns <= 0 ? 0 : (ns + 999999) / 1000000;
}

static bool _event_make(int *fd, bool waitable)
{
    *fd = waitable ? eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC) : -1;
    return !waitable || *fd >= 0;
}

static int _event_init(fxm_event_t *event, bool waitable)
{
    int fd = -1;
    if (!fxm_platform.event_make(&fd, waitable))
        return EPROTO;
    event->signalled.store(0);
    event->fd.store(fd);
    return 0;
}

int _fxm_event_init(fxm_event_t *event) { return _event_init(event, false); }

int _fxm_event_init_waitable(fxm_event_t *event) { return _event_init(event, true); }

void _fxm_event_destroy(fxm_event_t *event)
{
    const int fd = event->fd.exchange(-1);
    if (fd >= 0)
        close(fd);
}

void _fxm_event_set(fxm_event_t *event)
{
    const int fd = event->fd.load();
    if (fd >= 0) {
        event->signalled.store(1);
        const uint64_t one = 1;
        // The write fails only when the counter is full, and then the event is signalled already.
        [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof(one));
        return;
    }
    // Sequentially consistent with the waiter, which counts itself and then tests the word: either the waiter sees the
    // signal, or this thread sees the waiter.
    if (event->signalled.exchange(1) == 0 && event->waiters.load() != 0)
        syscall(SYS_futex, &event->signalled, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// Takes the signal of an event that has a descriptor. The hint is cleared first, so that a signal that comes between the
// two steps sets it again.
static bool _waitable_take(fxm_event_t *event)
{
    event->signalled.store(0);
    uint64_t count = 0;
    return read(event->fd.load(), &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count));
}

int _fxm_event_timedwait(fxm_event_t *event, uint32_t ms)
{
    _fxm_check_wait("a wait for an event");
    const timespec deadline = _fxm_monotonic_in(ms);
    event->waiters.fetch_add(1);
    int result = 0;
    while (event->signalled.exchange(0) == 0) {
        const long rc = syscall(SYS_futex, &event->signalled, FUTEX_WAIT_BITSET_PRIVATE, 0, &deadline, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
        if (rc == 0 || errno == EAGAIN || errno == EINTR)
            continue;
        // A signal may have come since the time-out. It must not be left for the next wait.
        if (event->signalled.exchange(0) == 0)
            result = errno == ETIMEDOUT ? ETIMEDOUT : EPROTO;
        break;
    }
    event->waiters.fetch_sub(1);
    return result;
}

// ----------------------------------------------------------------------------------------------------------- threads

static bool _thread_make(pthread_t *handle, fxm_thread_start_t start, void *arg)
{
    return pthread_create(handle, nullptr, start, arg) == 0;
}

int _fxm_thread_create(fxm_thread_t *thread, fxm_thread_start_t start, void *arg)
{
    thread->running = fxm_platform.thread_make(&thread->handle, start, arg);
    return thread->running ? 0 : EPROTO;
}

void _fxm_thread_join(fxm_thread_t *thread)
{
    if (!thread->running)
        return;
    pthread_join(thread->handle, nullptr);
    thread->running = false;
}

void _fxm_thread_prompt()
{
    constexpr int nice = -5; // lower ones cost the threads that wait for the answers more than they gain
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), nice);
}

// ------------------------------------------------------------------------------------------------- clock, files, heap

void Sleep(uint32_t ms)
{
    _fxm_check_wait("a sleep");
    const timespec deadline = _fxm_monotonic_in(ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

uint64_t _fxm_monotonic_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

static uint64_t _wall_clock_ms()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint64_t _fxm_get_time_ms() { return fxm_platform.wall_clock_ms(); }

void *_fxm_allocate(size_t size) { return fxm_platform.allocate(size); }

static bool _has_mode(const char *path, mode_t mode)
{
    struct stat info {
    };
    return path != nullptr && stat(path, &info) == 0 && (info.st_mode & S_IFMT) == mode;
}

int _fxm_file_exist(const char *path) { return _has_mode(path, S_IFREG) ? 0 : ENOENT; }

int _fxm_dir_exist(const char *path) { return _has_mode(path, S_IFDIR) ? 0 : EINVAL; }

bool _fxm_path_below(const char *dir, const char *name, char (&path)[FXM_PATH_SIZE])
{
    if (dir == nullptr || dir[0] == '\0')
        dir = "C:/Program Files/QOR/FXM";
    const int length = snprintf(path, sizeof(path), "%s/%s", dir, name);
    return length >= 0 && static_cast<size_t>(length) < sizeof(path);
}

// --------------------------------------------------------------------------------------------------- two-source wait

static uint32_t _wait_two(fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms)
{
    if (first->signalled.load() != 0 && _waitable_take(first))
        return FXM_WAIT_FIRST;
    if (second->ready)
        return FXM_WAIT_SECOND;

    const bool looks_again = second->look_again != 0 && second->look_again < ms;
    if (looks_again)
        ms = second->look_again;
    const timespec deadline = _fxm_monotonic_in(ms);
    for (int64_t left = ms;; left = _fxm_ms_until(&deadline)) {
        // poll ignores a negative descriptor, so the wait for a source that is not armed is for the event alone.
        pollfd fds[2] = {{first->fd.load(), POLLIN, 0}, {second->fd, POLLIN, 0}};
        const int rc = poll(fds, 2, static_cast<int>(left > INT_MAX ? INT_MAX : left));
        if (rc < 0 && errno != EINTR) {
            _fxm_set_last_error(errno);
            return FXM_WAIT_FAILED;
        }
        // When several threads poll one event, the thread whose read succeeds has taken it.
        if (rc > 0 && fds[0].revents != 0 && _waitable_take(first))
            return FXM_WAIT_FIRST;
        // An error on the descriptor also ends the wait; the owner's read reports it.
        if (rc > 0 && fds[1].revents != 0 && (second->take == nullptr || second->take(second)))
            return FXM_WAIT_SECOND;
        // A poll that found nothing has waited for all of the time, whatever the clock says.
        if (rc == 0 || left == 0)
            return looks_again ? FXM_WAIT_SECOND : FXM_WAIT_TIMEOUT;
    }
}

uint32_t _fxm_wait_two(fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms)
{
    _fxm_check_wait("a wait for two sources");
    return fxm_platform.wait_two(first, second, ms);
}

uint32_t _fxm_last_error() { return fxm_platform.last_error(); }

uint32_t _fxm_get_adapters(fxm_adapter_t *list, uint32_t *size) { return fxm_platform.get_adapters(list, size); }

bool _fxm_notice_create(fxm_notice_t *notice) { return fxm_platform.notice_create(notice); }

bool _fxm_notice_arm(fxm_notice_t *notice) { return fxm_platform.notice_arm(notice); }

int _fxm_capture_mintocopy(pcap *handle) { return fxm_platform.capture_mintocopy(handle); }

FXM_PLATFORM_CONST fxm_platform_calls_t fxm_platform = {
    _mutex_make,
    _event_make,
    _thread_make,
    _wall_clock_ms,
    malloc,
    _wait_two,
    _last_error,
    _fxm_netlink_adapters,
    _fxm_netlink_notice_create,
    _fxm_netlink_notice_arm,
    _fxm_pcap_mintocopy,
};

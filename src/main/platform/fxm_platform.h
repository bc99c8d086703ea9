// The operating system, as the library sees it: locks, events, threads, clock, files, memory, the two-source wait, the
// list of adapters and the notice of a changed link. This is the bottom layer. It knows nothing about cards and logs
// nothing. No other file includes a system header for these services. A failing service gives EPROTO.
//
// The operations have the names and the shape of the Windows services that fxm was first written for, because the log
// lines of the library name those services and operators know them by these names. The library waits for one of two
// sources, as WaitForMultipleObjects does, reads an adapter list into a buffer whose size it asks for first, as with
// GetAdaptersAddresses, and arms a notice for one change at a time, as with NotifyAddrChange.
#ifndef FXM_PLATFORM_H
#define FXM_PLATFORM_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/fxm_annotations.h"
#include "platform/fxm_check.h"

// ------------------------------------------------------------------------------------------------------------- locks

// A lock is re-entrant for the thread that holds it. A process-wide lock (_fxm_mutex_init_st) is initialised at compile
// time and works as long as the library is loaded, because host threads count their calls under one before the first
// start and after a stop. Making and closing such a lock must therefore not touch it. A lock in a table or a node is
// made and destroyed with it.
struct FXM_CAPABILITY("lock") fxm_mutex_t {
    constexpr explicit fxm_mutex_t(fxm_lock_kind_t lock_kind) : kind(lock_kind) {}
    pthread_mutex_t handle = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    bool owned = false; // made by _fxm_mutex_init and not yet destroyed
    fxm_lock_kind_t kind;
};

[[nodiscard]] int _fxm_mutex_init_st(fxm_mutex_t *mutex);
[[nodiscard]] int _fxm_mutex_init(fxm_mutex_t *mutex);
void _fxm_mutex_destroy(fxm_mutex_t *mutex);
int _fxm_mutex_lock(fxm_mutex_t *mutex) FXM_ACQUIRE(mutex);
void _fxm_mutex_unlock(fxm_mutex_t *mutex) FXM_RELEASE(mutex);

struct FXM_SCOPED_CAPABILITY fxm_mutex_guard_t {
    explicit fxm_mutex_guard_t(fxm_mutex_t *guarded) FXM_ACQUIRE(guarded) : mutex(guarded) { _fxm_mutex_lock(mutex); }
    ~fxm_mutex_guard_t() FXM_RELEASE() { _fxm_mutex_unlock(mutex); }
    fxm_mutex_guard_t(const fxm_mutex_guard_t &) = delete;
    fxm_mutex_guard_t &operator=(const fxm_mutex_guard_t &) = delete;
    fxm_mutex_t *mutex;
};

// ------------------------------------------------------------------------------------------------------------ events

// An event is auto-reset. A signal without a waiter stays until the next wait takes it; a second signal before that is
// lost. Of several waiters one is released. An event is one word and a futex, so a Completion wakes its waiter with one
// system call, and a late signal to a destroyed event does no harm. Only an event that shares a wait with another source
// has a descriptor.
struct fxm_event_t {
    std::atomic<uint32_t> signalled{0}; // the futex word; with a descriptor, a hint that spares a system call
    std::atomic<uint32_t> waiters{0};
    std::atomic<int> fd{-1};
};

[[nodiscard]] int _fxm_event_init(fxm_event_t *event);
[[nodiscard]] int _fxm_event_init_waitable(fxm_event_t *event); // with a descriptor, for _fxm_wait_two
void _fxm_event_destroy(fxm_event_t *event);
void _fxm_event_set(fxm_event_t *event);
int _fxm_event_timedwait(fxm_event_t *event, uint32_t ms); // 0, ETIMEDOUT, EPROTO

// ----------------------------------------------------------------------------------------------------------- threads

struct fxm_thread_t {
    pthread_t handle{};
    bool running = false;
};

typedef void *(*fxm_thread_start_t)(void *arg);

[[nodiscard]] int _fxm_thread_create(fxm_thread_t *thread, fxm_thread_start_t start, void *arg); // 0 or EPROTO
void _fxm_thread_join(fxm_thread_t *thread);
void _fxm_thread_prompt(); // the calling thread is to run before others that are ready; where the system lets it

// ------------------------------------------------------------------------------------------------- clock, files, heap

void Sleep(uint32_t ms);                             // on the monotonic clock
uint64_t _fxm_monotonic_ns();                        // monotonic clock, for intervals only
uint64_t _fxm_get_time_ms();                         // wall clock, milliseconds since 1970-01-01 UTC
[[nodiscard]] void *_fxm_allocate(size_t size);      // malloc
[[nodiscard]] int _fxm_file_exist(const char *path); // 0 a regular file, else ENOENT
[[nodiscard]] int _fxm_dir_exist(const char *path);  // 0 a directory, else EINVAL

// Makes the path of `name` below the installation directory `dir`; null or an empty string selects the default
// directory. Returns false when the path is too long.
constexpr size_t FXM_PATH_SIZE = 512;
[[nodiscard]] bool _fxm_path_below(const char *dir, const char *name, char (&path)[FXM_PATH_SIZE]);

// --------------------------------------------------------------------------------------------------- two-source wait

constexpr uint32_t FXM_WAIT_FIRST = 0;
constexpr uint32_t FXM_WAIT_SECOND = 1;
constexpr uint32_t FXM_WAIT_TIMEOUT = 258;
constexpr uint32_t FXM_WAIT_FAILED = 0xFFFFFFFF;

// The second source of a wait: a descriptor, and what its owner knows without asking the system. Only the thread that
// waits uses it. A wait checks the first source, then `ready`, and only then sleeps.
struct fxm_wait_source_t {
    int fd = -1;
    bool ready = false;
    bool (*take)(fxm_wait_source_t *source) = nullptr; // called when fd is readable; false: not a signal after all
    uint32_t look_again = 0; // ms after which it counts as signalled though fd is silent; 0 never
};

// Waits for either source, at most `ms`. Gives FXM_WAIT_FIRST (and resets the event), FXM_WAIT_SECOND, FXM_WAIT_TIMEOUT
// or FXM_WAIT_FAILED, with the reason in _fxm_last_error.
[[nodiscard]] uint32_t _fxm_wait_two(fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms);
uint32_t _fxm_last_error(); // of the calling thread's last failed platform call

// ---------------------------------------------------------------------------------------------------------- adapters

constexpr uint32_t FXM_ADAPTER_OVERFLOW = 111; // the buffer is too small; *size is what is needed
constexpr uint32_t FXM_IF_TYPE_LOOPBACK = 24;
constexpr uint32_t FXM_IF_OPER_UP = 1;
constexpr uint32_t FXM_IF_OPER_DOWN = 2;

struct fxm_adapter_t {
    fxm_adapter_t *Next;
    uint32_t IfIndex;
    uint32_t IfType; // 24 loopback, 6 Ethernet
    uint32_t PhysicalAddressLength;
    uint8_t PhysicalAddress[32];
    uint32_t OperStatus; // 1 up: set up, and operational, or with carrier where the driver tells no more
    char AdapterName[16];
};

// Fills `list`, a buffer of *size bytes, with all adapters of the machine. Gives 0, FXM_ADAPTER_OVERFLOW with the size
// needed in *size, or another system error. It never gives an incomplete list. With a null list and *size 0 it only
// gives the size.
[[nodiscard]] uint32_t _fxm_get_adapters(fxm_adapter_t *list, uint32_t *size);
uint32_t _fxm_adapter_index(const char *name); // interface index, 0 when there is no such interface

// ------------------------------------------------------------------------------------------------ notice of a change

constexpr uint32_t FXM_ERROR_IO_PENDING = 997;

// A manual-reset event with a one-shot notice of a changed link or address. Its source are the kernel's messages. The
// socket keeps those that arrive while the notice is not armed, and they signal as soon as it is armed and waited for,
// so no change is missed.
struct fxm_notice_t {
    fxm_wait_source_t source; // its descriptor is -1 while the notice is not armed
    int netlink_fd = -1;
};

[[nodiscard]] bool _fxm_notice_create(fxm_notice_t *notice); // not signalled, not armed
void _fxm_notice_close(fxm_notice_t *notice);
// Its normal answer is false, with FXM_ERROR_IO_PENDING as the last error.
[[nodiscard]] bool _fxm_notice_arm(fxm_notice_t *notice);
void _fxm_notice_reset(fxm_notice_t *notice);

// Keeps a notice that could not be acted upon: the next wait for it ends within FXM_NOTICE_AGAIN ms, as if another
// message had come. This lasts until the next reset.
constexpr uint32_t FXM_NOTICE_AGAIN = 500;
void _fxm_notice_keep(fxm_notice_t *notice);

// ------------------------------------------------------------------------------------------------------------ capture

struct pcap;

// Makes the capture deliver every single frame at once, and makes a read that finds no frame return at once. A blocking
// handle would hang past its time-out, and past a stop, once its interface has been set down. Sends do not block either.
// 0 or -1.
[[nodiscard]] int _fxm_capture_mintocopy(pcap *handle);
int _fxm_capture_event(pcap *handle); // the descriptor to wait on

// Keeps the capture from programs that the host executes. libpcap leaves its socket open for them.
void _fxm_capture_close_on_exec(pcap *handle);

// Waits at most `ms` until a frame may be sent again. Gives the time that is left, 0 when it has run out.
[[nodiscard]] uint32_t _fxm_capture_wait_room(pcap *handle, uint32_t ms);

// Prepares the next wait after a read. A read that has not emptied the capture (`more`) counts as a signal, without a
// system call; with a full ring the kernel's poll could even sleep while frames wait. After the interface went down, its
// deletion no longer makes the descriptor readable, and only a read finds out. The capture then counts as signalled every
// FXM_CAPTURE_DOWN_LOOK ms.
constexpr uint32_t FXM_CAPTURE_DOWN_LOOK = 100;
void _fxm_capture_read_done(pcap *handle, fxm_wait_source_t *source, bool more);

// ---------------------------------------------------------------------------------------------------------- stand-ins

// The calls that a test may replace before it starts the library, to play a failing or strange system. The library
// itself never writes to the table.
struct fxm_platform_calls_t {
    bool (*mutex_make)(pthread_mutex_t *handle, bool initialise);
    bool (*event_make)(int *fd, bool waitable);
    bool (*thread_make)(pthread_t *handle, fxm_thread_start_t start, void *arg);
    uint64_t (*wall_clock_ms)();
    void *(*allocate)(size_t size);
    uint32_t (*wait_two)(fxm_event_t *first, fxm_wait_source_t *second, uint32_t ms);
    uint32_t (*last_error)();
    uint32_t (*get_adapters)(fxm_adapter_t *list, uint32_t *size);
    bool (*notice_create)(fxm_notice_t *notice);
    bool (*notice_arm)(fxm_notice_t *notice);
    int (*capture_mintocopy)(pcap *handle);
};
// FXM_PLATFORM_REPLACEABLE is set for the tests' form of the library; in libfxm.so the table is constant.
#ifdef FXM_PLATFORM_REPLACEABLE
#define FXM_PLATFORM_CONST
#else
#define FXM_PLATFORM_CONST const
#endif
extern FXM_PLATFORM_CONST fxm_platform_calls_t fxm_platform;

#endif

// The calls that can fail, and the fault of a case: the n-th call of a kind fails, or that one and all after it. A kind is
// a function and who calls it: "socket.pcap" is what libpcap asks of socket.
#ifndef FAULTS_CALLS_H
#define FAULTS_CALLS_H

#include <atomic>
#include <cstdint>
#include <string>

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

inline uint32_t kind_of(fault_call_t call, origin_t origin) { return uint32_t{call} * ORIGINS + origin; }
inline fault_call_t call_of(uint32_t kind) { return static_cast<fault_call_t>(kind / ORIGINS); }
inline origin_t origin_of(uint32_t kind) { return static_cast<origin_t>(kind % ORIGINS); }
std::string kind_name(uint32_t kind);
uint32_t kind_named(const char *name); // KINDS: there is none
struct fault_row_t {
    const char *name;
    uint32_t follows;
    const char *message;
};
const fault_row_t &row_of(uint32_t kind);

origin_t whose(const void *code);

// Calls count, and fail, only while `armed` is set, and only on the threads of the library and those inside one of its
// functions. A thread that is made inside is inside.
struct fault_t {
    uint32_t kind = KINDS; // KINDS: none
    uint32_t n = 0;
    bool ever = false;
};
extern fault_t fault;
extern std::atomic<bool> armed;
extern std::atomic<uint32_t> reached[KINDS];
extern std::atomic<int32_t> blocks[KINDS + 1]; // of the heap by who has taken them; the last are from outside
extern thread_local bool inside;
extern std::atomic<uint64_t> clock_ahead; // ms, of the wall clock of those threads that have
extern thread_local bool has_clock_ahead;
void faults_begin(); // before any thread: sets the stand-ins

#endif

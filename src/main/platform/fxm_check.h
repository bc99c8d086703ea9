// Checks at run time, in builds with FXM_CHECKED (debug and sanitizers): assertions, and the order of the locks. A check
// that fails names what is wrong and where, with the stacks of both locks, and ends the process. Besides, with FXM_HOLDS,
// the longest wait and hold of each kind of lock, for the soak; libfxm.so has none of it.
#ifndef FXM_CHECK_H
#define FXM_CHECK_H

#include <atomic>
#include <cstddef>
#include <cstdint>

struct fxm_mutex_t;

// A kind of lock, by its place in the order. The kinds and their rules are in core/fxm_locks.h.
enum fxm_lock_kind_t : uint8_t;

struct fxm_lock_rule_t {
    const char *name;
    uint32_t under;        // bits of the kinds that a thread may hold when it takes this one
    bool reentrant;        // a thread that holds it may take it again
    bool across_waits;     // may be held while a thread waits or sends a frame to a card
    bool across_callbacks; // may be held while a function of the host runs
};
extern const fxm_lock_rule_t fxm_lock_rules[];

#ifdef FXM_CHECKED

[[noreturn]] void _fxm_check_failed(const char *condition, const char *file, int line);
#define fxm_assert(condition) ((condition) ? void() : _fxm_check_failed(#condition, __FILE__, __LINE__))

// The calling thread is about to take a lock, or has given it back.
void _fxm_check_lock(const fxm_mutex_t *mutex, fxm_lock_kind_t kind);
void _fxm_check_unlock(const fxm_mutex_t *mutex);

bool _fxm_check_holds(const fxm_mutex_t *mutex);
void _fxm_check_wait(const char *what);     // before a wait, or a frame to a card
void _fxm_check_callback(const char *what); // before a function of the host

#else

#define fxm_assert(condition) static_cast<void>(sizeof(condition))
inline void _fxm_check_lock(const fxm_mutex_t *, fxm_lock_kind_t) {}
inline void _fxm_check_unlock(const fxm_mutex_t *) {}
inline bool _fxm_check_holds(const fxm_mutex_t *) { return true; }
inline void _fxm_check_wait(const char *) {}
inline void _fxm_check_callback(const char *) {}

#endif

// Times of a kind of lock, in ns: the longest wait of a thread for one, and the longest time that a thread has held one,
// from the outermost taking to the last giving back. The table is in the form of the platform layer that measures.
struct fxm_hold_t {
    std::atomic<uint64_t> wait, hold;
};
constexpr size_t FXM_HOLD_KINDS = 16; // at least as many as there are kinds
extern fxm_hold_t fxm_holds[FXM_HOLD_KINDS];

#endif

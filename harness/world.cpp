#include "world.h"

#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/fxm_locks.h"
#include "platform/fxm_platform.h"

#define REAL(name)    __real_##name
#define WRAPPED(name) __wrap_##name

extern "C" {
int REAL(pthread_mutex_lock)(pthread_mutex_t *mutex);
int REAL(pthread_mutex_trylock)(pthread_mutex_t *mutex);
int REAL(pthread_mutex_unlock)(pthread_mutex_t *mutex);
int REAL(pthread_create)(pthread_t *handle, const pthread_attr_t *attr, void *(*start)(void *), void *arg);
int REAL(pthread_join)(pthread_t handle, void **value);
long REAL(syscall)(long number, ...);
int REAL(clock_gettime)(clockid_t clock, timespec *time);
int REAL(clock_nanosleep)(clockid_t clock, int flags, const timespec *time, timespec *left);
int REAL(poll)(pollfd *fds, nfds_t number, int ms);
ssize_t REAL(write)(int fd, const void *bytes, size_t size);
int REAL(sched_yield)();
}

constexpr uint64_t NO_DEADLINE = UINT64_MAX;
constexpr uint64_t STEP_COST = 200; // ns
constexpr uint64_t MOST_STEPS = 20'000'000;
constexpr uint64_t WALL_AHEAD = 1'700'000'000'000 * MS; // of the wall clock

enum wait_t : uint8_t { RUNS, STALLED, SLEEPS, LOCK, FUTEX, POLL, JOIN, ENDED };
static const char *const wait_names[] = {"runs",     "is stalled", "sleeps", "waits for",
                                         "waits on", "polls",      "joins",  "has ended"};

struct thread_t {
    uint32_t index;
    std::string name;
    uint32_t weight;
    std::function<void()> body;
    pthread_t handle{};
    std::atomic<uint32_t> baton{0};
    wait_t wait = RUNS;
    const void *on = nullptr; // lock, futex word, or the thread that is joined
    uint64_t deadline = NO_DEADLINE;
    bool timed_out = false;
    pollfd *fds = nullptr;
    nfds_t fds_number = 0;
};

static struct {
    std::vector<std::unique_ptr<thread_t>> threads;
    std::multimap<uint64_t, std::function<void()>> events;
    uint64_t now = 1000 * MS, due = NO_DEADLINE; // due: not later than the next deadline or event
    uint64_t random = 0, hash = 0, steps = 0, stalled = 0, stalled_until = 0;
    world_manner_t manner;
    uint32_t library_threads = 0;
    bool trace = false, inside = false, fds_changed = false; // inside: an event or the quiet hook runs
} world;
static thread_local thread_t *me; // null outside the world
void (*world_quiet)();

// ------------------------------------------------------------------------------------------------- seed, trace, findings

uint64_t world_random()
{
    uint64_t z = world.random += 0x9E3779B97F4A7C15;
    z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
    z = (z ^ z >> 27) * 0x94D049BB133111EB;
    return z ^ z >> 31;
}

bool world_has_me() { return me != nullptr; }
uint64_t world_now() { return world.now; }
uint64_t world_steps() { return world.steps; }
uint64_t world_hash() { return world.hash; }
uint64_t world_stalled() { return world.stalled; }
uint64_t world_stalled_until() { return world.stalled_until; }
void world_set_manner(const world_manner_t &manner) { world.manner = manner; }

static void mix(uint64_t value) { world.hash = (world.hash ^ value) * 0x100000001B3 + (world.hash >> 47); }

static void print_line(FILE *file, const char *format, va_list args)
{
    fprintf(file, "%12.6f  %-10s ", static_cast<double>(world.now) / 1e9, world.inside ? "wire" : me->name.c_str());
    vfprintf(file, format, args);
    fputc('\n', file);
}

void world_note(const char *format, ...)
{
    mix(world.now);
    va_list args;
    va_start(args, format);
    if (world.trace)
        print_line(stdout, format, args);
    va_end(args);
}

// A lock by its kind: the library's locks begin with their handle.
static const char *lock_name(const void *lock)
{
    return fxm_lock_rules[static_cast<const fxm_mutex_t *>(lock)->kind].name;
}

static std::string on_what(const thread_t &thread)
{
    if (thread.wait == LOCK) {
        const auto owner = static_cast<uint32_t>(static_cast<const pthread_mutex_t *>(thread.on)->__data.__owner);
        return std::string(lock_name(thread.on)) + (owner != 0 ? ", held by " + world.threads[owner - 1]->name : "");
    }
    return thread.wait == JOIN ? static_cast<const thread_t *>(thread.on)->name : thread.wait == FUTEX ? "a futex" : "";
}

void world_report()
{
    for (const auto &thread : world.threads) {
        if (thread->wait == ENDED)
            continue;
        fprintf(stderr, "    %-10s %s %s", thread->name.c_str(), wait_names[thread->wait], on_what(*thread).c_str());
        if (thread->deadline != NO_DEADLINE)
            fprintf(stderr, ", until %.6f", static_cast<double>(thread->deadline) / 1e9);
        fprintf(stderr, "%s\n", thread.get() == me ? "  <- here" : "");
    }
}

void world_finding(const char *format, ...)
{
    fflush(stdout);
    va_list args;
    va_start(args, format);
    fputs("finding: ", stderr);
    print_line(stderr, format, args);
    va_end(args);
    abort();
}

// --------------------------------------------------------------------------------------------------------- the scheduler

static void run(thread_t &thread, bool timed_out)
{
    thread.wait = RUNS;
    thread.timed_out = timed_out;
    thread.deadline = NO_DEADLINE;
}

static void wake_all(wait_t wait, const void *on)
{
    for (const auto &thread : world.threads) {
        if (thread->wait == wait && thread->on == on)
            run(*thread, false);
    }
}

// Runs what is due. Of what is due at once, the events come first or the threads, as the seed says.
static void run_due()
{
    const auto events = [] {
        while (!world.events.empty() && world.events.begin()->first <= world.now) {
            auto event = world.events.extract(world.events.begin());
            world.inside = true;
            event.mapped()();
            world.inside = false;
        }
    };
    const bool first = world_one_in(2);
    if (first)
        events();
    for (const auto &thread : world.threads) {
        if (thread->deadline <= world.now)
            run(*thread, true);
    }
    if (!first)
        events();
    world.due = world.events.empty() ? NO_DEADLINE : world.events.begin()->first;
    for (const auto &thread : world.threads)
        world.due = std::min(world.due, thread->deadline);
}

static void run_polls()
{
    world.fds_changed = false;
    for (const auto &thread : world.threads) {
        if (thread->wait == POLL && REAL(poll)(thread->fds, thread->fds_number, 0) != 0)
            run(*thread, false);
    }
}

// Who runs next. Goes on with the clock while nobody can.
static thread_t *pick()
{
    for (;;) {
        if (world.now >= world.due)
            run_due();
        if (world.fds_changed)
            run_polls();
        uint32_t weights = 0, stalled = 0;
        for (const auto &thread : world.threads) {
            weights += thread->wait == RUNS ? thread->weight : 0;
            stalled += thread->wait == STALLED ? 1 : 0;
        }
        if (weights > 0) {
            uint32_t chosen = world_below(weights);
            for (const auto &thread : world.threads) {
                if (thread->wait != RUNS)
                    continue;
                if (chosen < thread->weight)
                    return thread.get();
                chosen -= thread->weight;
            }
        }
        if (world_quiet != nullptr && stalled == 0) {
            world.inside = true;
            world_quiet();
            world.inside = false;
        }
        if (world.due == NO_DEADLINE)
            world_finding("deadlock: nobody can run, and nothing is due");
        world.now = std::max(world.now, world.due);
    }
}

static void pass_to(thread_t *next)
{
    next->baton.store(1);
    REAL(syscall)(SYS_futex, &next->baton, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

static void take_baton()
{
    while (me->baton.exchange(0) == 0)
        REAL(syscall)(SYS_futex, &me->baton, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
}

static void switch_thread()
{
    thread_t *next = pick();
    mix(next->index);
    if (next == me)
        return;
    pass_to(next);
    take_baton();
}

// True: the deadline has come.
static bool block(wait_t wait, const void *on, uint64_t deadline)
{
    me->wait = wait;
    me->on = on;
    me->deadline = deadline;
    me->timed_out = false;
    world.due = std::min(world.due, deadline);
    if (world.trace)
        world_note("%s %s", wait_names[wait], on_what(*me).c_str());
    switch_thread();
    return me->timed_out;
}

void world_step()
{
    if (world.inside)
        return;
    if (++world.steps > MOST_STEPS)
        world_finding("no end after %" PRIu64 " steps", world.steps);
    world.now += STEP_COST;
    mix(world.now);
    if (world_one_in(world.manner.stalls)) {
        // A host may rest for longer than a stop takes. A receiver may not: an answer would be read when its tag has rested.
        const bool is_host = me->name == "host";
        const uint64_t rest = world_below(!world_one_in(4) ? 300 : is_host && world_one_in(8) ? 3000000 : 30000) * US;
        world.stalled += rest;
        world.stalled_until = std::max(world.stalled_until, world.now + rest);
        block(STALLED, nullptr, world.now + rest);
    } else if (world.now >= world.due || world_one_in(world.manner.switches)) {
        switch_thread();
    }
}

void world_at(uint64_t time, std::function<void()> act)
{
    world.events.emplace(time, std::move(act));
    world.due = std::min(world.due, time);
}

void world_sleep(uint64_t ns) { block(SLEEPS, nullptr, world.now + ns); }

void world_fds_changed() { world.fds_changed = true; }

// ----------------------------------------------------------------------------------------------------------- the threads

static thread_t *add_thread(std::string name, std::function<void()> body)
{
    auto thread = std::make_unique<thread_t>();
    thread->index = static_cast<uint32_t>(world.threads.size());
    thread->name = std::move(name);
    thread->weight = 1u << world_below(6);
    thread->body = std::move(body);
    world.threads.push_back(std::move(thread));
    return world.threads.back().get();
}

static void *run_thread(void *arg)
{
    me = static_cast<thread_t *>(arg);
    take_baton();
    me->body();
    world_note("ends");
    me->wait = ENDED;
    wake_all(JOIN, me);
    pass_to(pick());
    return nullptr;
}

static void start_thread(thread_t *thread)
{
    if (REAL(pthread_create)(&thread->handle, nullptr, run_thread, thread) != 0)
        world_finding("no thread could be made");
    world_note("starts %s", thread->name.c_str());
    world_step();
}

void world_begin(uint64_t seed, bool trace)
{
    world.random = seed;
    world.trace = trace;
    me = add_thread("main", nullptr);
}

uint32_t world_spawn(const char *name, std::function<void()> body)
{
    thread_t *thread = add_thread(name, std::move(body));
    start_thread(thread);
    return thread->index;
}

void world_join(uint32_t index)
{
    thread_t *thread = world.threads[index].get();
    world_step();
    while (thread->wait != ENDED)
        block(JOIN, thread, NO_DEADLINE);
    REAL(pthread_join)(thread->handle, nullptr);
}

// ------------------------------------------------------------------------------------ in the place of the system's calls

static uint64_t ns_of(const timespec &time)
{
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

// A lock of the world is a recursive one, as all of the library's are. Its owner and count stand where the C library has
// them; the system's own word stays 0. Others (std::mutex) are held within one step only.
static bool is_stepped(const pthread_mutex_t *mutex) { return mutex->__data.__kind == PTHREAD_MUTEX_RECURSIVE_NP; }

static bool take_lock(pthread_mutex_t *mutex)
{
    auto &data = mutex->__data;
    const int owner = static_cast<int>(me->index) + 1;
    if (data.__count != 0 && data.__owner != owner)
        return false;
    data.__owner = owner;
    data.__count += 1;
    return true;
}

static long wait_futex(const uint32_t *word, uint32_t expected, uint64_t deadline)
{
    world_step();
    if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != expected) {
        errno = EAGAIN;
        return -1;
    }
    if (world_one_in(world.manner.wakes)) {
        errno = EINTR;
        return -1;
    }
    if (!block(FUTEX, word, deadline))
        return 0;
    errno = ETIMEDOUT;
    return -1;
}

// Of several waiters the seed chooses whom to wake.
static long wake_futex(const uint32_t *word, uint32_t number)
{
    std::vector<thread_t *> waiting;
    for (const auto &thread : world.threads) {
        if (thread->wait == FUTEX && thread->on == word)
            waiting.push_back(thread.get());
    }
    long woken = 0;
    for (; !waiting.empty() && woken < static_cast<long>(number); ++woken) {
        const auto chosen = waiting.begin() + world_below(static_cast<uint32_t>(waiting.size()));
        run(**chosen, false);
        waiting.erase(chosen);
    }
    world_step();
    return woken;
}

extern "C" {
int WRAPPED(pthread_mutex_lock)(pthread_mutex_t *mutex)
{
    if (me == nullptr)
        return REAL(pthread_mutex_lock)(mutex);
    if (!is_stepped(mutex))
        return 0;
    if (world.inside)
        world_finding("%s is taken where nobody may wait", lock_name(mutex));
    world_step();
    while (!take_lock(mutex))
        block(LOCK, mutex, NO_DEADLINE);
    return 0;
}

int WRAPPED(pthread_mutex_trylock)(pthread_mutex_t *mutex)
{
    if (me == nullptr)
        return REAL(pthread_mutex_trylock)(mutex);
    world_step();
    return take_lock(mutex) ? 0 : EBUSY;
}

int WRAPPED(pthread_mutex_unlock)(pthread_mutex_t *mutex)
{
    if (me == nullptr)
        return REAL(pthread_mutex_unlock)(mutex);
    if (!is_stepped(mutex))
        return 0;
    auto &data = mutex->__data;
    if (data.__count == 0 || data.__owner != static_cast<int>(me->index) + 1)
        world_finding("%s is given back by a thread that does not hold it", lock_name(mutex));
    if (--data.__count == 0) {
        data.__owner = 0;
        wake_all(LOCK, mutex);
    }
    world_step();
    return 0;
}

int WRAPPED(pthread_create)(pthread_t *handle, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    if (me == nullptr)
        return REAL(pthread_create)(handle, attr, start, arg);
    static const char *const names[] = {"recv0", "recv1", "event", "link", "stats"}; // as the library starts them
    thread_t *thread = add_thread(names[world.library_threads++ % std::size(names)], [=] { (void)start(arg); });
    start_thread(thread);
    *handle = thread->handle;
    return 0;
}

int WRAPPED(pthread_join)(pthread_t handle, void **value)
{
    for (auto thread = world.threads.rbegin(); me != nullptr && thread != world.threads.rend(); ++thread) {
        if (pthread_equal((*thread)->handle, handle) == 0)
            continue;
        world_join((*thread)->index);
        return 0;
    }
    return REAL(pthread_join)(handle, value);
}

long WRAPPED(syscall)(long number, ...)
{
    va_list list;
    va_start(list, number);
    long args[6];
    for (long &arg : args)
        arg = va_arg(list, long);
    va_end(list);
    if (me == nullptr || number != SYS_futex)
        return REAL(syscall)(number, args[0], args[1], args[2], args[3], args[4], args[5]);
    const auto *word = reinterpret_cast<const uint32_t *>(args[0]);
    const auto *time = reinterpret_cast<const timespec *>(args[3]);
    switch (args[1] & FUTEX_CMD_MASK) {
    case FUTEX_WAIT:
        return wait_futex(word, static_cast<uint32_t>(args[2]),
                          time == nullptr ? NO_DEADLINE : world.now + ns_of(*time));
    case FUTEX_WAIT_BITSET:
        return wait_futex(word, static_cast<uint32_t>(args[2]), time == nullptr ? NO_DEADLINE : ns_of(*time));
    case FUTEX_WAKE:
        return wake_futex(word, static_cast<uint32_t>(args[2]));
    default:
        world_finding("futex operation %ld is not known here", args[1]);
    }
}

int WRAPPED(clock_gettime)(clockid_t clock, timespec *time)
{
    if (me == nullptr)
        return REAL(clock_gettime)(clock, time);
    const uint64_t now = world.now + (clock == CLOCK_REALTIME ? WALL_AHEAD : 0);
    time->tv_sec = static_cast<time_t>(now / 1'000'000'000);
    time->tv_nsec = static_cast<long>(now % 1'000'000'000);
    return 0;
}

int WRAPPED(clock_nanosleep)(clockid_t clock, int flags, const timespec *time, timespec *left)
{
    if (me == nullptr)
        return REAL(clock_nanosleep)(clock, flags, time, left);
    block(SLEEPS, nullptr, ns_of(*time) + ((flags & TIMER_ABSTIME) != 0 ? 0 : world.now));
    return 0;
}

int WRAPPED(poll)(pollfd *fds, nfds_t number, int ms)
{
    if (me == nullptr)
        return REAL(poll)(fds, number, ms);
    world_step();
    int ready = REAL(poll)(fds, number, 0);
    if (ready != 0 || ms == 0)
        return ready;
    me->fds = fds;
    me->fds_number = number;
    block(POLL, nullptr, ms < 0 ? NO_DEADLINE : world.now + static_cast<uint64_t>(ms) * MS);
    return REAL(poll)(fds, number, 0);
}

ssize_t WRAPPED(write)(int fd, const void *bytes, size_t size)
{
    const ssize_t written = REAL(write)(fd, bytes, size);
    world.fds_changed = true;
    if (me != nullptr)
        world_step();
    return written;
}

int WRAPPED(sched_yield)()
{
    if (me == nullptr)
        return REAL(sched_yield)();
    world_step();
    switch_thread();
    return 0;
}
}

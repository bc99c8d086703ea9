// The checks at run time. Each thread keeps a record of the locks that it holds; nothing is shared.
#include "platform/fxm_check.h"

#ifdef FXM_CHECKED

#include <dlfcn.h>
#include <execinfo.h>

#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

constexpr size_t MOST_LOCKS = 16;
constexpr int STACK_DEPTH = 24;

struct held_t {
    const fxm_mutex_t *mutex;
    fxm_lock_kind_t kind;
    void *stack[STACK_DEPTH];
    int depth;
};

static thread_local struct {
    held_t lock[MOST_LOCKS]; // in the order in which they were taken
    size_t number;
} held;

// Prints one line for each frame: function, file and line where addr2line is installed, else object and offset. One call
// of addr2line serves a run of frames of one object.
static void _print_stack(const char *title, void *const *stack, int depth)
{
    fprintf(stderr, "  %s\n", title);
    for (int i = 1; i < depth;) { // 0 is the check itself
        Dl_info first{};
        std::string offsets;
        for (; i < depth; ++i) {
            Dl_info info{};
            dladdr(stack[i], &info);
            if (!offsets.empty() && info.dli_fbase != first.dli_fbase)
                break;
            first = info;
            char offset[32];
            snprintf(offset, sizeof(offset), " 0x%" PRIxPTR,
                     reinterpret_cast<uintptr_t>(stack[i]) - reinterpret_cast<uintptr_t>(info.dli_fbase) - 1);
            offsets += offset;
        }
        const char *object = first.dli_fname != nullptr ? first.dli_fname : "?";
        char command[2048];
        snprintf(command, sizeof(command), "addr2line -Cfpe '%s'%s 2>/dev/null", object, offsets.c_str());
        FILE *output = popen(command, "r");
        bool any = false;
        char line[1024];
        while (output != nullptr && fgets(line, sizeof(line), output) != nullptr) {
            fprintf(stderr, "    %s", line);
            any = true;
        }
        if (output != nullptr)
            pclose(output);
        if (!any)
            fprintf(stderr, "    %s:%s\n", object, offsets.c_str());
    }
}

[[noreturn]] static void _fail(const held_t *other)
{
    void *stack[STACK_DEPTH];
    const int depth = backtrace(stack, STACK_DEPTH);
    _print_stack("here:", stack, depth);
    if (other != nullptr) {
        char title[128];
        snprintf(title, sizeof(title), "%s was taken here:", fxm_lock_rules[other->kind].name);
        _print_stack(title, other->stack, other->depth);
    }
    abort();
}

void _fxm_check_failed(const char *condition, const char *file, int line)
{
    fprintf(stderr, "fxm: %s:%d: this does not hold: %s\n", file, line, condition);
    _fail(nullptr);
}

void _fxm_check_lock(const fxm_mutex_t *mutex, fxm_lock_kind_t kind)
{
    const fxm_lock_rule_t &rule = fxm_lock_rules[kind];
    for (size_t i = 0; i < held.number; ++i) {
        const held_t &other = held.lock[i];
        if (other.mutex == mutex ? rule.reentrant : (rule.under >> other.kind & 1) != 0)
            continue;
        fprintf(stderr, "fxm: lock order: %s is taken while %s is held\n", rule.name, fxm_lock_rules[other.kind].name);
        _fail(&other);
    }
    fxm_assert(held.number < MOST_LOCKS);
    held_t &taken = held.lock[held.number++];
    taken.mutex = mutex;
    taken.kind = kind;
    taken.depth = backtrace(taken.stack, STACK_DEPTH);
}

void _fxm_check_unlock(const fxm_mutex_t *mutex)
{
    size_t i = held.number;
    while (i > 0 && held.lock[i - 1].mutex != mutex)
        --i;
    fxm_assert(i > 0); // given back by the thread that took it
    for (--held.number; i <= held.number; ++i)
        held.lock[i - 1] = held.lock[i];
}

bool _fxm_check_holds(const fxm_mutex_t *mutex)
{
    for (size_t i = 0; i < held.number; ++i) {
        if (held.lock[i].mutex == mutex)
            return true;
    }
    return false;
}

static void _check_across(const char *what, bool fxm_lock_rule_t::*allowed)
{
    for (size_t i = 0; i < held.number; ++i) {
        const fxm_lock_rule_t &rule = fxm_lock_rules[held.lock[i].kind];
        if (rule.*allowed)
            continue;
        fprintf(stderr, "fxm: lock order: %s is held across %s\n", rule.name, what);
        _fail(&held.lock[i]);
    }
}

void _fxm_check_wait(const char *what) { _check_across(what, &fxm_lock_rule_t::across_waits); }

void _fxm_check_callback(const char *what) { _check_across(what, &fxm_lock_rule_t::across_callbacks); }

#endif

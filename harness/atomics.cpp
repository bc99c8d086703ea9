// What the compiler calls for -fsanitize=thread, without the sanitizer: each atomic is a step of the world.
#include <cstdint>

#include "world.h"

// An atomic is a step before its access. A relaxed one is not: nothing depends on its order.
static void step_for(int order)
{
    if (world_has_me() && order != __ATOMIC_RELAXED)
        world_step();
}

#define PLAIN(name)                                                                                                    \
    void __tsan_##name##1(void *) {}                                                                                   \
    void __tsan_##name##2(void *) {}                                                                                   \
    void __tsan_##name##4(void *) {}                                                                                   \
    void __tsan_##name##8(void *) {}                                                                                   \
    void __tsan_##name##16(void *) {}

#define CHANGE(type, bits, name)                                                                                       \
    type __tsan_atomic##bits##_##name(volatile type *at, type value, int order)                                        \
    {                                                                                                                  \
        step_for(order);                                                                                               \
        return __atomic_##name(at, value, __ATOMIC_SEQ_CST);                                                           \
    }

#define EXCHANGE(type, bits, kind)                                                                                     \
    int __tsan_atomic##bits##_compare_exchange_##kind(volatile type *at, type *expected, type value, int order, int)   \
    {                                                                                                                  \
        step_for(order);                                                                                               \
        return __atomic_compare_exchange_n(at, expected, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);            \
    }

#define ATOMIC(type, bits)                                                                                             \
    type __tsan_atomic##bits##_load(const volatile type *at, int order)                                                \
    {                                                                                                                  \
        step_for(order);                                                                                               \
        return __atomic_load_n(at, __ATOMIC_SEQ_CST);                                                                  \
    }                                                                                                                  \
    void __tsan_atomic##bits##_store(volatile type *at, type value, int order)                                         \
    {                                                                                                                  \
        step_for(order);                                                                                               \
        __atomic_store_n(at, value, __ATOMIC_SEQ_CST);                                                                 \
    }                                                                                                                  \
    type __tsan_atomic##bits##_exchange(volatile type *at, type value, int order)                                      \
    {                                                                                                                  \
        step_for(order);                                                                                               \
        return __atomic_exchange_n(at, value, __ATOMIC_SEQ_CST);                                                       \
    }                                                                                                                  \
    CHANGE(type, bits, fetch_add)                                                                                      \
    CHANGE(type, bits, fetch_sub)                                                                                      \
    CHANGE(type, bits, fetch_or)                                                                                       \
    EXCHANGE(type, bits, strong)                                                                                       \
    EXCHANGE(type, bits, weak)

extern "C" {
void __tsan_init() {}
void __tsan_read_range(void *, unsigned long) {}
void __tsan_write_range(void *, unsigned long) {}
void __tsan_vptr_update(void **, void *) {}
PLAIN(read)
PLAIN(write)
PLAIN(unaligned_read)
PLAIN(unaligned_write)
ATOMIC(uint8_t, 8)
ATOMIC(uint32_t, 32)
ATOMIC(uint64_t, 64)
}

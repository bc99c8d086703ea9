// What the compiler checks about locks: clang's thread-safety analysis (-Wthread-safety). Other compilers see nothing.
// A lock's declaration says what the lock guards, a function says which locks its caller must hold or must not hold.
#ifndef FXM_ANNOTATIONS_H
#define FXM_ANNOTATIONS_H

#if defined(__clang__)
#define FXM_ATTRIBUTE(x) __attribute__((x))
#else
#define FXM_ATTRIBUTE(x)
#endif

#define FXM_CAPABILITY(name)    FXM_ATTRIBUTE(capability(name))                 // a type that is a lock
#define FXM_SCOPED_CAPABILITY   FXM_ATTRIBUTE(scoped_lockable)                  // a guard: it holds while it lives
#define FXM_GUARDED_BY(lock)    FXM_ATTRIBUTE(guarded_by(lock))                 // a variable or a field
#define FXM_PT_GUARDED_BY(lock) FXM_ATTRIBUTE(pt_guarded_by(lock))              // what a pointer leads to
#define FXM_REQUIRES(...)       FXM_ATTRIBUTE(requires_capability(__VA_ARGS__)) // the caller holds it
#define FXM_EXCLUDES(...)       FXM_ATTRIBUTE(locks_excluded(__VA_ARGS__))      // the caller does not hold it
#define FXM_ACQUIRE(...)        FXM_ATTRIBUTE(acquire_capability(__VA_ARGS__))  // takes it
#define FXM_RELEASE(...)        FXM_ATTRIBUTE(release_capability(__VA_ARGS__))  // gives it back
#define FXM_NO_ANALYSIS         FXM_ATTRIBUTE(no_thread_safety_analysis)        // with the reason beside it

#endif

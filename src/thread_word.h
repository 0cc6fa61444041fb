// The thread word of a record: the low 32 bits of pthread_self(), read from the thread's own
// control block without a call where that is provably the same value.
// Thread contract: lock-free and async-signal-safe; the one-time check may race harmlessly.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>

// 0 not checked yet, 1 the thread pointer's self field is pthread_self(), 2 it is not.
extern std::atomic<uint8_t> thread_self_field_state;

// pthread_self() through the call, deciding thread_self_field_state on the first use.
uint32_t thread_word_checked();

// On x86-64 glibc, pthread_self() returns the `self` field of the thread control block, the
// word at %fs:16, with one load. Reading that word here gives the same value without the call
// through the PLT. Whether the C library keeps `self` there is checked once, against
// pthread_self() itself, on the first record of the process; the layout belongs to the C
// library, not to a thread, so one match proves it for every thread. Any other C library or
// architecture takes the call.
inline uint32_t record_thread_word() {
#if defined(__x86_64__) && defined(__GLIBC__)
  if (__builtin_expect(thread_self_field_state.load(std::memory_order_relaxed) == 1, 1)) {
    uintptr_t self;
    __asm__("mov %%fs:16, %0" : "=r"(self));
    return static_cast<uint32_t>(self);
  }
#endif
  return thread_word_checked();
}

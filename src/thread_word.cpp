// The one-time check behind record_thread_word (thread_word.h).
// Thread contract: any thread, any time, also in signal handlers; concurrent first checks all
// compute the same answer, so their relaxed stores agree.
#include "thread_word.h"

std::atomic<uint8_t> thread_self_field_state{0};

uint32_t thread_word_checked() {
  const pthread_t self = pthread_self();
#if defined(__x86_64__) && defined(__GLIBC__)
  if (thread_self_field_state.load(std::memory_order_relaxed) == 0) {
    uintptr_t field;
    __asm__("mov %%fs:16, %0" : "=r"(field));
    thread_self_field_state.store(field == static_cast<uintptr_t>(self) ? 1 : 2,
                                  std::memory_order_relaxed);
  }
#endif
  return static_cast<uint32_t>(self);
}

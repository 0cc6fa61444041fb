// Heap records of the library: zero-filled, constructed in place, freed with free(3), so that
// libquarry.so needs no C++ runtime library (only libc and POSIX threads). Thread contract:
// the calls are malloc's; never used on the record or dump paths.
#pragma once

#include <stdlib.h>

#include <new>

// A value-initialised T in zeroed memory, or null when memory runs out.
template <class T>
T* new_record() {
  void* memory = calloc(1, sizeof(T));
  return memory != nullptr ? new (memory) T() : nullptr;
}

// Destroys and frees what new_record made; null is allowed.
template <class T>
void delete_record(T* record) {
  if (record == nullptr) return;
  record->~T();
  free(record);
}

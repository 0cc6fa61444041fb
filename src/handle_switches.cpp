// The exported switches: tracing per handle, dumping at exit per buffer.
// Thread contract: single-byte atomic stores and loads without a lock (relaxed: a writer or the
// exit handler only has to see a change from its next look); safe from any thread. The
// control file is not rewritten here; its next rewrite records the handles' switches.
#include "buffer.h"

extern "C" QUARRY_EXPORT void quarry_set_enabled(quarry_handle* hdl, bool on) {
  hdl->enabled.store(on ? 1 : 0, std::memory_order_relaxed);
}

extern "C" QUARRY_EXPORT bool quarry_is_enabled(quarry_handle* hdl) {
  return hdl->enabled.load(std::memory_order_relaxed) != 0;
}

// The flag belongs to the buffer, so it changes for every handle of that buffer.
extern "C" QUARRY_EXPORT void quarry_set_dump_on_exit(quarry_handle* hdl, bool on) {
  hdl->cb->dump_on_exit.store(on ? 1 : 0, std::memory_order_relaxed);
}

extern "C" QUARRY_EXPORT bool quarry_get_dump_on_exit(quarry_handle* hdl) {
  return hdl->cb->dump_on_exit.load(std::memory_order_relaxed) != 0;
}

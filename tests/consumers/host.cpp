// A C++ host built against an installed quarry: the public header as C++, QUARRY_TRACE with and
// without values, and, when built with QUARRY_CONSUMER_KELP, live configuration through kelp
// (which proves the static quarry::kelp resolves libquarry.so's kelp_attach_fd).
#include <quarry/quarry.h>

#include <cstdio>
#include <string>
#ifdef QUARRY_CONSUMER_KELP
#include <kelp/kelp.h>
#endif

int main() {
  static_assert(QUARRY_VERSION >= QUARRY_VERSION_NUMBER(1, 0, 0), "version macros");
  quarry_handle* handle = nullptr;
  quarry_set_process_name("cxx_host");
  if (quarry_open_internal(&handle, "main", 1 << 16, 4, "main.dec", "1", nullptr) != 0) return 1;
  const std::string text = "from C++";
  QUARRY_TRACE(handle, 0, "");
  QUARRY_TRACE(handle, 1, "dDs", 7, 8ull, text.c_str());
#ifdef QUARRY_CONSUMER_KELP
  kelp_loop* loop = kelp_create();
  if (loop == nullptr || quarry_enable_configuration(handle, loop) != 0) return 2;
#endif
  if (quarry_dump(handle) != 0) return 3;
  std::printf("cxx_host: traced and dumped\n");
  return 0;
}

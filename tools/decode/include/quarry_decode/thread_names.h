// Thread names of one trace file or stream, from its THREAD lines, looked up by the thread
// word of a record. Thread contract: lookups fill a private cache, so one instance must not be
// used from several threads at once.
#pragma once

#include <stdint.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "quarry_decode/trace_header.h"

namespace quarry_decode {

class ThreadNames {
 public:
  ThreadNames() = default;
  explicit ThreadNames(const std::vector<ThreadLine>& lines);

  // The name of the thread whose record thread word is `word`, or null. A later line for the
  // same ID wins (a thread named twice, or an ID reused by a new thread). A line cut at 63
  // characters may have lost the end of its ID: it names a thread whose ID, printed as signed
  // decimal, begins with the digits that survived, when no complete line names it.
  const std::string* find(uint32_t word) const;

 private:
  std::unordered_map<uint32_t, std::string> exact_;
  std::vector<std::pair<std::string, std::string>> cut_;  // surviving ID digits, name
  mutable std::unordered_map<uint32_t, const std::string*> cut_cache_;
};

}  // namespace quarry_decode

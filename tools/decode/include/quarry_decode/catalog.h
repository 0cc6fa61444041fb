// What each trace point ID of one trace file or stream means: the handle whose decode
// reference covers the ID, and the trace point its decode file gives for the index. Thread
// contract: immutable after construction; lookups are safe from any thread.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "quarry_decode/decode_file.h"
#include "quarry_decode/trace_header.h"

namespace quarry_decode {

struct HandleInfo {
  DecodeRef ref;
  std::shared_ptr<const DecodeFile> file;  // null when the decode file was not found
};

// One ID covered by a handle. `point` is null when the decode file lacks the index (or is
// missing); `display` is "handle:name", or "handle:#index" without a trace point.
struct PointInfo {
  const HandleInfo* handle = nullptr;
  const TracePoint* point = nullptr;
  uint32_t id = 0;
  uint32_t index = 0;
  std::string display;
};

class Catalog {
 public:
  Catalog() : by_id_(kIdCount, -1) {}
  // Loads the decode file of every reference through `cache`. Where ranges overlap, the
  // earlier reference wins.
  Catalog(const TraceHeader& header, DecodeFileCache& cache);
  Catalog(Catalog&&) = default;
  Catalog& operator=(Catalog&&) = default;
  Catalog(const Catalog&) = delete;
  Catalog& operator=(const Catalog&) = delete;

  // The meaning of a record's 16-bit ID, or null when no handle's range holds it.
  const PointInfo* lookup(uint32_t id) const {
    int32_t at = id < kIdCount ? by_id_[id] : -1;
    return at < 0 ? nullptr : &entries_[static_cast<size_t>(at)];
  }
  // Whether the header named any handle; without one, every ID is shown raw.
  bool has_refs() const { return !handles_.empty(); }
  const std::vector<HandleInfo>& handles() const { return handles_; }

  static constexpr uint32_t kIdCount = 0x10000;

 private:
  // PointInfo points into handles_: moving a vector keeps its elements where they are, so a
  // moved catalog stays valid; copying is deleted.
  std::vector<HandleInfo> handles_;
  std::vector<PointInfo> entries_;
  std::vector<int32_t> by_id_;
};

}  // namespace quarry_decode

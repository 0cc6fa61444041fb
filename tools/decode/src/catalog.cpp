// Building the ID table of one trace header from its decode references. Runs once per input
// on the decoding thread; the result is immutable.
#include "quarry_decode/catalog.h"

namespace quarry_decode {

Catalog::Catalog(const TraceHeader& header, DecodeFileCache& cache) : by_id_(kIdCount, -1) {
  handles_.reserve(header.decode_refs.size());
  for (const DecodeRef& ref : header.decode_refs) {
    HandleInfo info;
    info.ref = ref;
    info.file = cache.get(ref.decode_file);
    handles_.push_back(std::move(info));
  }
  size_t covered = 0;
  for (const HandleInfo& handle : handles_) {
    int64_t first = handle.ref.first_id < 0 ? 0 : handle.ref.first_id;
    int64_t last = handle.ref.last_id >= kIdCount ? kIdCount - 1 : handle.ref.last_id;
    if (last >= first) covered += static_cast<size_t>(last - first + 1);
  }
  entries_.reserve(covered);
  for (const HandleInfo& handle : handles_) {
    int64_t first = handle.ref.first_id < 0 ? 0 : handle.ref.first_id;
    int64_t last = handle.ref.last_id >= kIdCount ? kIdCount - 1 : handle.ref.last_id;
    for (int64_t id = first; id <= last; ++id) {
      if (by_id_[static_cast<size_t>(id)] >= 0) continue;  // an earlier reference holds it
      PointInfo entry;
      entry.handle = &handle;
      entry.id = static_cast<uint32_t>(id);
      entry.index = static_cast<uint32_t>(id - handle.ref.first_id);
      entry.point = handle.file ? handle.file->find(entry.index) : nullptr;
      entry.display = handle.ref.handle + ":" +
                      (entry.point ? entry.point->name : "#" + std::to_string(entry.index));
      by_id_[static_cast<size_t>(id)] = static_cast<int32_t>(entries_.size());
      entries_.push_back(std::move(entry));
    }
  }
}

}  // namespace quarry_decode

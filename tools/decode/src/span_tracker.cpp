// Span matching over records in time order. One tracker per output, on one thread.
#include "span_tracker.h"

#include "quarry_decode/catalog.h"
#include "quarry_decode/source.h"

namespace quarry_decode {

void SpanTracker::on_record(Record& record) {
  const TracePoint* point = record.info != nullptr && !record.raw ? record.info->point : nullptr;
  if (point == nullptr || point->span_role == TracePoint::SpanRole::kNone) return;
  const uint64_t key =
      static_cast<uint64_t>(static_cast<uint32_t>(record.source->header.process_id)) << 32 |
      record.thread;
  std::vector<Open>& stack = open_[key];
  if (point->span_role == TracePoint::SpanRole::kBegin) {
    record.span_id = next_id_++;
    stack.push_back(Open{&point->span, record.source, record.mono_ns, record.span_id});
    return;
  }
  // The innermost open span of this name; spans opened after it and never closed (their end
  // was lost) stay open below nothing and are reported at the end.
  for (size_t i = stack.size(); i-- > 0;) {
    if (*stack[i].name != point->span) continue;
    record.span_matched = true;
    record.span_begin_ns = stack[i].begin_ns;
    record.span_id = stack[i].id;
    stack.erase(stack.begin() + static_cast<std::ptrdiff_t>(i));
    return;
  }
  ++unmatched_ends_[record.source];
}

void SpanTracker::finish() {
  for (auto& entry : unmatched_ends_) {
    const_cast<SourceInfo*>(entry.first)->stats.span_ends_unmatched += entry.second;
  }
  for (auto& entry : open_) {
    for (const Open& open : entry.second) ++const_cast<SourceInfo*>(open.source)->stats.spans_open;
  }
  unmatched_ends_.clear();
  open_.clear();
}

}  // namespace quarry_decode

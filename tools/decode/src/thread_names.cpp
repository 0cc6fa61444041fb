// Thread-name lookup from THREAD lines, including lines cut at 63 characters. Not shared
// between threads (the lookup caches prefix matches).
#include "quarry_decode/thread_names.h"

namespace quarry_decode {

ThreadNames::ThreadNames(const std::vector<ThreadLine>& lines) {
  for (const ThreadLine& line : lines) {
    if (line.id_valid) {
      exact_[static_cast<uint32_t>(line.id)] = line.name;
    } else if (!line.id_text.empty() && line.id_text != "-") {
      cut_.emplace_back(line.id_text, line.name);
    }
  }
}

const std::string* ThreadNames::find(uint32_t word) const {
  auto exact = exact_.find(word);
  if (exact != exact_.end()) return &exact->second;
  if (cut_.empty()) return nullptr;
  auto cached = cut_cache_.find(word);
  if (cached != cut_cache_.end()) return cached->second;
  // A cut line kept only the first digits of its ID. Several threads may share them; the
  // latest line is taken, as for complete lines.
  const std::string digits = std::to_string(static_cast<int32_t>(word));
  const std::string* name = nullptr;
  for (const auto& cut : cut_) {
    if (digits.compare(0, cut.first.size(), cut.first) == 0) name = &cut.second;
  }
  cut_cache_.emplace(word, name);
  return name;
}

}  // namespace quarry_decode

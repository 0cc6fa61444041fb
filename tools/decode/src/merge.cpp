// Collecting and sorting the records of several inputs. One merger per run, one thread.
#include "merge.h"

#include <algorithm>
#include <memory>

#include "quarry_decode/source.h"
#include "record_filter.h"

namespace quarry_decode {

class Merger::Collector : public RecordSink {
 public:
  Collector(Merger& merger, uint32_t input) : merger_(merger), input_(input) {}
  void on_record(const Record& record) override { merger_.add(input_, record); }

 private:
  Merger& merger_;
  uint32_t input_;
};

RecordSink& Merger::input(uint32_t input) {
  collectors_.push_back(std::make_unique<Collector>(*this, input));
  return *collectors_.back();
}

void Merger::add(uint32_t input, const Record& record) {
  Stored stored{record, args_.size()};
  for (uint32_t i = 0; i < record.arg_count; ++i) {
    ArgValue arg = record.args[i];
    if (arg.type == 's') {
      // Until replay, the view's data pointer holds nothing valid: only its length is kept,
      // and the text sits at the offset stored in `number`.
      arg.number = strings_.size();
      strings_.append(arg.text.data(), arg.text.size());
    }
    args_.push_back(arg);
  }
  // Inputs of one process were given one clock mapping (TimeBase::share_mapping), so their
  // wall-clock key orders records exactly as their shared monotonic clock does; different
  // processes compare on the wall clock.
  keys_.push_back(
      Key{time_key(record), record.sequence, input, static_cast<uint32_t>(records_.size())});
  records_.push_back(stored);
}

void Merger::replay(RecordSink& sink) {
  for (ArgValue& arg : args_) {
    if (arg.type == 's') {
      arg.text = std::string_view(strings_.data() + arg.number, arg.text.size());
      arg.number = 0;
    }
  }
  std::sort(keys_.begin(), keys_.end(), [](const Key& a, const Key& b) {
    if (a.time != b.time) return a.time < b.time;
    if (a.sequence != b.sequence) return a.sequence < b.sequence;
    if (a.input != b.input) return a.input < b.input;
    return a.index < b.index;
  });
  for (const Key& key : keys_) {
    Stored& stored = records_[key.index];
    stored.record.args = args_.data() + stored.first_arg;
    sink.on_record(stored.record);
  }
}

}  // namespace quarry_decode

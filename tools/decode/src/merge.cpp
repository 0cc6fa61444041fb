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
  records_.push_back(Stored{record.source, record.info, record.timestamp, record.offset,
                            args_.size(), record.thread, record.length, record.arg_count,
                            static_cast<uint16_t>(record.id), record.raw});
  for (uint32_t i = 0; i < record.arg_count; ++i) {
    const ArgValue& arg = record.args[i];
    if (arg.type == 's') {
      args_.push_back(Arg{strings_.size(), static_cast<uint32_t>(arg.text.size()), 's'});
      strings_.append(arg.text.data(), arg.text.size());
    } else {
      args_.push_back(Arg{arg.number, 0, arg.type});
    }
  }
  // Inputs of one process were given one clock mapping (TimeBase::share_mapping), so their
  // wall-clock key orders records exactly as their shared monotonic clock does; different
  // processes compare on the wall clock.
  keys_.push_back(
      Key{time_key(record), record.sequence, input, static_cast<uint32_t>(records_.size() - 1)});
}

void Merger::replay(RecordSink& sink) {
  std::sort(keys_.begin(), keys_.end(), [](const Key& a, const Key& b) {
    if (a.time != b.time) return a.time < b.time;
    if (a.sequence != b.sequence) return a.sequence < b.sequence;
    if (a.input != b.input) return a.input < b.input;
    return a.index < b.index;
  });
  std::vector<ArgValue> args;
  for (const Key& key : keys_) {
    const Stored& stored = records_[key.index];
    args.clear();
    for (uint64_t i = stored.first_arg; i < stored.first_arg + stored.arg_count; ++i) {
      ArgValue arg;
      arg.type = args_[i].type;
      if (arg.type == 's') {
        arg.text = std::string_view(strings_.data() + args_[i].number, args_[i].length);
      } else {
        arg.number = args_[i].number;
      }
      args.push_back(arg);
    }
    const uint64_t mask = stored.source->header.ts_idx_mask;
    Record record;
    record.source = stored.source;
    record.info = stored.info;
    record.id = stored.id;
    record.timestamp = stored.timestamp;
    record.mono_ns = stored.timestamp & ~mask;
    record.sequence = stored.timestamp & mask;
    record.thread = stored.thread;
    record.raw = stored.raw;
    record.args = args.data();
    record.arg_count = stored.arg_count;
    record.offset = stored.offset;
    record.length = stored.length;
    sink.on_record(record);
  }
}

}  // namespace quarry_decode

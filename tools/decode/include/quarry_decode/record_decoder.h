// Decoding records from 32-bit words: one record at a header word (RecordDecoder) and a walk
// over a run of words that resynchronises on header words after damage (RecordWalker).
// Thread contract: one decoder and one walker per decoding thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "quarry_decode/record.h"
#include "quarry_decode/source.h"

namespace quarry_decode {

constexpr uint32_t kHeaderMarker = 0xFF000000u;
constexpr uint32_t kEscapeBit = 0x80000000u;
inline bool is_header_word(uint32_t word) {
  return (word >> 24) == 0xFF;
}

class RecordDecoder {
 public:
  enum class Result { kOk, kReject, kNeedMore };

  // How records of one input are checked beyond their signature.
  struct Checks {
    // No record may be later than this CLOCK_MONOTONIC time (0: no bound). Trace files give
    // their dump time plus a margin; a pipe stream's header bounds nothing.
    uint64_t upper_bound_ns = 0;
    // The word after a record must be a header word (or the end of the data). True for trace
    // files, where records lie back to back; a pipe stream only ever loses whole records or
    // the end of one, so a good record there stands on its own.
    bool successor_is_header = true;
  };

  RecordDecoder(const SourceInfo& source, Checks checks);

  // Decodes the record whose header word is words[0]. `available` words are readable; when
  // `final` is set no more will come, otherwise a record that needs more words gives
  // kNeedMore. On kOk, *out holds the record, its arguments borrowed from this decoder and
  // from `words`.
  Result decode(const uint32_t* words, size_t available, bool final, Record* out);

  // The position of words[0] in the whole data, so that what one decode learned about a run of
  // string words serves the next (the walker sets it before each decode). A caller that decodes
  // at more than one place with one decoder must set it before each decode: the learned runs are
  // kept by position and would otherwise be applied to the wrong words.
  void set_position(uint64_t position) { position_ = position; }

  // A string longer than this is taken for damage: it bounds the words a reader must hold for
  // one record, whatever the input.
  static constexpr size_t kMaxStringWords = size_t{1} << 22;

 private:
  Result decode_signed(const uint32_t* words, size_t available, bool final, Record* out);
  Result decode_raw(const uint32_t* words, size_t available, bool final, Record* out);
  bool set_time(uint64_t timestamp, Record* out) const;

  const SourceInfo& source_;
  uint64_t mask_;
  uint64_t lower_bound_ns_;
  Checks checks_;
  std::vector<ArgValue> args_;
  uint64_t position_ = 0;
  // Words [nul_free_from_, nul_free_to_) of the data hold no zero byte: a string scan that
  // starts inside skips to its end, so false headers inside one long string cost linear time.
  uint64_t nul_free_from_ = 0, nul_free_to_ = 0;
};

// Receives decoded records in data order.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  virtual void on_record(const Record& record) = 0;
};

// Walks words in order, decoding every record it can and counting what it cannot into the
// source's stats. Words that are not header words are skipped up to the next header word; a
// record that does not fit its signature is rejected and the walk resumes at the word after
// its header word.
class RecordWalker {
 public:
  // `starts_at_seam`: the first words may be the tail of a record whose beginning was
  // overwritten (a wrapped buffer); they are counted as seam words, not as damage.
  RecordWalker(SourceInfo& source, RecordDecoder::Checks checks, bool starts_at_seam);

  // Walks words[0, count). With `final` set the words end the data; otherwise the walk stops
  // before a record that is not complete yet. Returns the number of words consumed; the next
  // call must begin with the first word not consumed.
  size_t walk(const uint32_t* words, size_t count, bool final, RecordSink& sink);

  // The next words follow a gap in the data (a truncated file): they may begin inside a record
  // and are treated like the seam of a wrapped buffer.
  void restart_at_seam() { at_seam_ = true; }

  // Pipe streams: stop before the words "VERSION " (a new stream's header, as when saved
  // streams were concatenated), so that the caller can start a new input there. When the word
  // after "VERS" has not arrived yet (and `final` is not set) the walk stops too.
  void stop_at_text_header(bool stop) { stop_at_text_header_ = stop; }
  static bool is_text_header(const uint32_t* words, size_t count, bool final);

  // Closes the damage range at the end of the data.
  void finish();

 private:
  void damaged();
  void good(const Record& record);

  SourceInfo& source_;
  RecordDecoder decoder_;
  bool at_seam_;
  bool stop_at_text_header_ = false;
  bool any_good_ = false;
  bool damage_open_ = false;
  uint64_t last_good_ns_ = 0;
  uint64_t offset_ = 0;
};

}  // namespace quarry_decode

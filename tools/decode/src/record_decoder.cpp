// Record decoding and the resynchronising walk. The decoder checks every record against its
// signature before accepting it, so that a string word that happens to look like a header (its
// bytes are never escaped) cannot derail the walk. One decoder and walker per thread.
#include "quarry_decode/record_decoder.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "string bytes are read in the little-endian order of the traced x86-64 hosts");

namespace quarry_decode {
namespace {

// Index of the first zero byte of a word in memory order, or 4 when there is none.
inline unsigned first_zero_byte(uint32_t word) {
  uint32_t zero = (word - 0x01010101u) & ~word & 0x80808080u;
  return zero == 0 ? 4u : static_cast<unsigned>(__builtin_ctz(zero)) / 8u;
}

constexpr size_t kFixedWords = 4;  // header, two timestamp words, thread word

}  // namespace

RecordDecoder::RecordDecoder(const SourceInfo& source, Checks checks)
    : source_(source),
      mask_(source.header.ts_idx_mask),
      lower_bound_ns_(source.header.creation_time & ~source.header.ts_idx_mask),
      checks_(checks) {
  args_.reserve(64);
}

bool RecordDecoder::set_time(uint64_t timestamp, Record* out) const {
  out->timestamp = timestamp;
  out->mono_ns = timestamp & ~mask_;
  out->sequence = timestamp & mask_;
  // A record is written after its buffer was created, and before the dump that saved it (give
  // or take records written while the dump ran). Words that merely look like a record rarely
  // hold such a time.
  if (out->mono_ns < lower_bound_ns_) return false;
  if (checks_.upper_bound_ns != 0 && out->mono_ns > checks_.upper_bound_ns) return false;
  return true;
}

RecordDecoder::Result RecordDecoder::decode(const uint32_t* words, size_t available, bool final,
                                            Record* out) {
  const uint32_t id = words[0] & 0xFFFFu;
  const PointInfo* info = source_.catalog.lookup(id);
  // IDs are handed out only inside the handles' ranges: any other ID is not a record of this
  // buffer (unless the header named no handle at all).
  if (info == nullptr && source_.catalog.has_refs()) return Result::kReject;
  out->source = &source_;
  out->info = info;
  out->id = id;
  if (info != nullptr && info->point != nullptr) return decode_signed(words, available, final, out);
  return decode_raw(words, available, final, out);
}

RecordDecoder::Result RecordDecoder::decode_signed(const uint32_t* words, size_t available,
                                                   bool final, Record* out) {
  const TracePoint& point = *out->info->point;
  const Result short_data = final ? Result::kReject : Result::kNeedMore;
  if (available < kFixedWords) return short_data;

  // First pass: where the numeric words and strings lie, and the record's length.
  uint32_t numeric_at[kMaxNumericWords];
  uint32_t string_at[kMaxSignatureLength];
  uint32_t string_length[kMaxSignatureLength];
  uint32_t numeric = 0, strings = 0;
  size_t p = kFixedWords;
  for (char type : point.signature) {
    if (type == 'd') {
      if (p >= available) return short_data;
      numeric_at[numeric++] = static_cast<uint32_t>(p++);
    } else if (type == 'D') {
      if (p + 1 >= available) return short_data;
      numeric_at[numeric++] = static_cast<uint32_t>(p++);
      numeric_at[numeric++] = static_cast<uint32_t>(p++);
    } else {
      const size_t start = p;
      if (position_ + p >= nul_free_from_ && position_ + p < nul_free_to_) {
        p = static_cast<size_t>(nul_free_to_ - position_);
      }
      for (;;) {
        if (p - start > kMaxStringWords) return Result::kReject;
        if (p >= available) {
          nul_free_from_ = position_ + start;
          nul_free_to_ = position_ + available;
          return short_data;
        }
        const uint32_t word = words[p++];
        const unsigned zero = first_zero_byte(word);
        if (zero == 4) continue;
        if (p - 1 > start) {
          nul_free_from_ = position_ + start;
          nul_free_to_ = position_ + p - 1;
        }
        // The bytes after the NUL fill the word with zeros.
        if (zero < 3 && (word >> (8 * (zero + 1))) != 0) return Result::kReject;
        string_at[strings] = static_cast<uint32_t>(start);
        string_length[strings++] = static_cast<uint32_t>((p - 1 - start) * 4 + zero);
        break;
      }
    }
  }
  uint32_t flags = (words[0] >> 16) & 0xFFu;
  const uint32_t escapable = 3 + numeric;
  if (numeric >= 6) {
    if (p >= available) return short_data;
    uint32_t stored = words[p++];
    if (is_header_word(stored)) return Result::kReject;
    // The escape word went through the escape rule without a flag of its own. A stored
    // 0x7Fxxxxxx may be a 0xFFxxxxxx, which needs flag bit 31, which exists only with 29
    // numeric words; that flag's word (the last numeric word) is then itself escaped and reads
    // 0x7Fxxxxxx. When both read so, the escaped reading is taken: a value of 0xFF000000 or
    // more (a small negative number) is far more common than one of 0x7F000000..0x7FFFFFFF.
    if (escapable == 32 && (stored >> 24) == 0x7F &&
        (words[numeric_at[numeric - 1]] >> 24) == 0x7F) {
      stored ^= kEscapeBit;
    }
    if ((stored & 0xFFu) != flags) return Result::kReject;
    flags = stored;
  }
  if (escapable < 32 && (flags >> escapable) != 0) return Result::kReject;
  if (checks_.successor_is_header) {
    if (p >= available && !final) return Result::kNeedMore;  // the next word decides
    if (p < available && !is_header_word(words[p])) return Result::kReject;
  }

  // Escapable words: restored where flagged. A flagged word reads 0x7Fxxxxxx; an unflagged one
  // never reads 0xFFxxxxxx (the writer would have escaped it, so it is a newer record's
  // header in the middle of this one).
  auto restore = [flags](uint32_t stored, uint32_t bit, bool* ok) {
    if ((flags >> bit) & 1u) {
      if ((stored >> 24) != 0x7F) *ok = false;
      return stored ^ kEscapeBit;
    }
    if (is_header_word(stored)) *ok = false;
    return stored;
  };
  bool ok = true;
  const uint64_t high = restore(words[1], 0, &ok);
  const uint64_t low = restore(words[2], 1, &ok);
  out->thread = restore(words[3], 2, &ok);
  uint32_t values[kMaxNumericWords];
  for (uint32_t i = 0; i < numeric; ++i) values[i] = restore(words[numeric_at[i]], 3 + i, &ok);
  if (!ok) return Result::kReject;
  if (!set_time(high << 32 | low, out)) return Result::kReject;

  args_.clear();
  uint32_t n = 0, s = 0;
  for (char type : point.signature) {
    ArgValue arg;
    arg.type = type;
    if (type == 'd') {
      arg.number = values[n++];
    } else if (type == 'D') {
      arg.number = static_cast<uint64_t>(values[n]) << 32 | values[n + 1];
      n += 2;
    } else {
      arg.text =
          std::string_view(reinterpret_cast<const char*>(words + string_at[s]), string_length[s]);
      ++s;
    }
    args_.push_back(arg);
  }
  out->raw = false;
  out->args = args_.data();
  out->arg_count = static_cast<uint32_t>(args_.size());
  out->length = static_cast<uint32_t>(p);
  return Result::kOk;
}

// Without a signature the length is not known: the record is taken to run up to the next
// header word. Only the fixed words can be checked and restored (header flags 0 to 2); the
// rest is shown as stored.
RecordDecoder::Result RecordDecoder::decode_raw(const uint32_t* words, size_t available, bool final,
                                                Record* out) {
  size_t p = 1;
  while (p < available && !is_header_word(words[p])) ++p;
  if (p > RecordDecoder::kMaxStringWords) return Result::kReject;
  if (p == available && !final) return Result::kNeedMore;
  if (p < kFixedWords) return Result::kReject;
  const uint32_t flags = (words[0] >> 16) & 0xFFu;
  uint32_t fixed[3];
  for (uint32_t bit = 0; bit < 3; ++bit) {
    uint32_t stored = words[1 + bit];
    if ((flags >> bit) & 1u) {
      if ((stored >> 24) != 0x7F) return Result::kReject;
      stored ^= kEscapeBit;
    }
    fixed[bit] = stored;
  }
  if (!set_time(static_cast<uint64_t>(fixed[0]) << 32 | fixed[1], out)) return Result::kReject;
  out->thread = fixed[2];
  args_.clear();
  for (size_t i = kFixedWords; i < p; ++i) {
    ArgValue arg;
    arg.type = 'w';
    arg.number = words[i];
    args_.push_back(arg);
  }
  out->raw = true;
  out->args = args_.data();
  out->arg_count = static_cast<uint32_t>(args_.size());
  out->length = static_cast<uint32_t>(p);
  return Result::kOk;
}

RecordWalker::RecordWalker(SourceInfo& source, RecordDecoder::Checks checks, bool starts_at_seam)
    : source_(source), decoder_(source, checks), at_seam_(starts_at_seam) {}

void RecordWalker::damaged() {
  if (damage_open_) return;
  damage_open_ = true;
  DecodeStats& stats = source_.stats;
  if (!stats.damage) {
    stats.damage = true;
    if (any_good_) {
      stats.damage_from_ns = last_good_ns_;
    } else {
      stats.damage_from_start = true;
    }
  }
}

void RecordWalker::good(const Record& record) {
  DecodeStats& stats = source_.stats;
  if (stats.records == 0 || record.mono_ns < stats.first_mono_ns)
    stats.first_mono_ns = record.mono_ns;
  if (stats.records == 0 || record.mono_ns > stats.last_mono_ns)
    stats.last_mono_ns = record.mono_ns;
  ++stats.records;
  stats.record_words += record.length;
  if (record.raw) ++stats.raw_records;
  if (damage_open_) {
    stats.damage_to_ns = record.mono_ns;
    damage_open_ = false;
  }
  last_good_ns_ = record.mono_ns;
  any_good_ = true;
  at_seam_ = false;
}

bool RecordWalker::is_text_header(const uint32_t* words, size_t count, bool final) {
  static constexpr uint32_t kVers = 0x53524556u, kIon = 0x204E4F49u;  // "VERS", "ION "
  return count > 0 && words[0] == kVers && (count > 1 ? words[1] == kIon : !final);
}

size_t RecordWalker::walk(const uint32_t* words, size_t count, bool final, RecordSink& sink) {
  DecodeStats& stats = source_.stats;
  size_t i = 0;
  Record record;
  while (i < count) {
    if (!is_header_word(words[i])) {
      if (stop_at_text_header_ && is_text_header(words + i, count - i, final)) break;
      size_t j = i + 1;
      while (j < count && !is_header_word(words[j]) &&
             !(stop_at_text_header_ && is_text_header(words + j, count - j, final))) {
        ++j;
      }
      stats.skipped_words += j - i;
      if (at_seam_) {
        stats.seam_words += j - i;
      } else {
        damaged();
      }
      i = j;
      continue;
    }
    decoder_.set_position(offset_ + i);
    RecordDecoder::Result result = decoder_.decode(words + i, count - i, final, &record);
    if (result == RecordDecoder::Result::kNeedMore) break;
    if (result == RecordDecoder::Result::kReject) {
      // A false header inside the partly overwritten record at the seam is part of the seam;
      // anywhere else it is a record that could not be decoded.
      ++stats.skipped_words;
      if (at_seam_) {
        ++stats.seam_words;
      } else {
        ++stats.rejected;
        damaged();
      }
      ++i;
      continue;
    }
    record.offset = offset_ + i;
    good(record);
    sink.on_record(record);
    i += record.length;
  }
  offset_ += i;
  return i;
}

void RecordWalker::finish() {
  if (damage_open_) {
    source_.stats.damage_to_end = true;
    damage_open_ = false;
  }
}

}  // namespace quarry_decode

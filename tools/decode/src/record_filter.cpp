// Record filters and the parsing of times and durations. One filter per output, one thread.
#include "record_filter.h"

#include <fnmatch.h>
#include <stdint.h>
#include <time.h>

#include "quarry_decode/catalog.h"
#include "quarry_decode/source.h"

namespace quarry_decode {
namespace {

// "<digits>[.<digits>]" as nanoseconds times `unit_ns`. Returns the characters used, 0 for
// none or for a value beyond 64 bits.
size_t parse_decimal(const std::string& text, size_t at, int64_t unit_ns, int64_t* out) {
  size_t i = at;
  int64_t whole = 0;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    if (whole > (INT64_MAX / unit_ns - 9) / 10) return 0;
    whole = whole * 10 + (text[i++] - '0');
  }
  if (i == at) return 0;
  int64_t value = whole * unit_ns;
  if (i < text.size() && text[i] == '.') {
    ++i;
    for (int64_t scale = unit_ns / 10; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
      value += (text[i] - '0') * scale;
      scale /= 10;
    }
  }
  *out = value;
  return i - at;
}

// Two digits at text[at].
bool two_digits(const std::string& text, size_t at, int* out) {
  if (at + 2 > text.size() || text[at] < '0' || text[at] > '9' || text[at + 1] < '0' ||
      text[at + 1] > '9') {
    return false;
  }
  *out = (text[at] - '0') * 10 + (text[at + 1] - '0');
  return true;
}

// "YYYY-MM-DD HH:MM[:SS[.frac]][Z]" (or a 'T' between date and time).
bool parse_wall(const std::string& text, bool utc, int64_t* ns) {
  struct tm parts {};
  int century, year, month, day, hour, minute, second = 0;
  if (!two_digits(text, 0, &century) || !two_digits(text, 2, &year) || text.size() < 16 ||
      text[4] != '-' || !two_digits(text, 5, &month) || text[7] != '-' ||
      !two_digits(text, 8, &day) || (text[10] != ' ' && text[10] != 'T') ||
      !two_digits(text, 11, &hour) || text[13] != ':' || !two_digits(text, 14, &minute)) {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59) return false;
  size_t at = 16;
  int64_t fraction = 0;
  if (at < text.size() && text[at] == ':') {
    if (!two_digits(text, at + 1, &second) || second > 60) return false;
    at += 3;
    if (at < text.size() && text[at] == '.') {
      int64_t ignored;
      size_t used = parse_decimal("0" + text.substr(at), 0, 1000000000, &ignored);
      fraction = ignored;
      at += used - 1;
    }
  }
  if (at < text.size() && text[at] == 'Z') {
    utc = true;
    ++at;
  }
  if (at != text.size()) return false;
  parts.tm_year = century * 100 + year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  const time_t seconds = utc ? timegm(&parts) : mktime(&parts);
  if (seconds == static_cast<time_t>(-1) && parts.tm_year != 69) return false;
  *ns = static_cast<int64_t>(seconds) * 1000000000 + fraction;
  return true;
}

// Sums and differences of times taken from files wrap instead of overflowing.
int64_t wrapping_add(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

bool glob(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
}

}  // namespace

std::string parse_duration(const std::string& text, int64_t* ns) {
  static const struct {
    const char* suffix;
    int64_t unit;
  } kUnits[] = {{"ns", 1},          {"us", 1000},         {"ms", 1000000}, {"s", 1000000000},
                {"m", 60000000000}, {"h", 3600000000000}, {"", 1000000000}};
  for (const auto& unit : kUnits) {
    const std::string suffix = unit.suffix;
    if (text.size() <= suffix.size() ||
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0) {
      continue;
    }
    const std::string number = text.substr(0, text.size() - suffix.size());
    if (parse_decimal(number, 0, unit.unit, ns) == number.size()) return "";
  }
  return "'" + text + "' is not a duration (such as 2.5s, 300ms, 10us, 5m or 1h)";
}

std::string parse_time(const std::string& text, bool utc, TimeSpec* out) {
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    std::string error = parse_duration(text.substr(1), &out->ns);
    out->kind = text[0] == '+' ? TimeSpec::Kind::kAfterStart : TimeSpec::Kind::kBeforeDump;
    return error.empty() ? "" : error;
  }
  if (parse_wall(text, utc, &out->ns)) {
    out->kind = TimeSpec::Kind::kWall;
    return "";
  }
  if (!text.empty() && parse_decimal(text, 0, 1000000000, &out->ns) == text.size()) {
    out->kind = TimeSpec::Kind::kMonotonic;
    return "";
  }
  return "'" + text +
         "' is not a time (YYYY-MM-DD HH:MM:SS[.frac], monotonic seconds, +DURATION after the "
         "first record or -DURATION before the dump)";
}

int64_t time_key(const Record& record) {
  const TimeBase& time = record.source->time;
  return time.has_wall() ? time.wall_ns(record.mono_ns) : static_cast<int64_t>(record.mono_ns);
}

// A bound in the source's time key. Wall-clock times on an input without a wall clock and
// times before the dump on an input without a dump time cannot be placed: noted, not applied.
bool RecordFilter::time_bound(const Record& record, const TimeSpec& spec, int64_t* out) {
  const SourceInfo& source = *record.source;
  const TimeBase& time = source.time;
  switch (spec.kind) {
    case TimeSpec::Kind::kNone:
      return false;
    case TimeSpec::Kind::kWall:
      if (!time.has_wall()) {
        notes_.push_back(source.name + ": no wall clock in the header; wall-clock times ignored");
        return false;
      }
      *out = spec.ns;
      return true;
    case TimeSpec::Kind::kMonotonic:
      *out = time.has_wall() ? time.wall_ns(static_cast<uint64_t>(spec.ns)) : spec.ns;
      return true;
    case TimeSpec::Kind::kAfterStart:
      *out = wrapping_add(start_key_, spec.ns);
      return true;
    case TimeSpec::Kind::kBeforeDump:
      if (!time.has_omega()) {
        notes_.push_back(source.name +
                         ": no dump time in the header; times before the dump ignored");
        return false;
      }
      *out = wrapping_add(time.has_wall() ? time.wall_ns(time.omega_mono_ns())
                                          : static_cast<int64_t>(time.omega_mono_ns()),
                          -spec.ns);
      return true;
  }
  return false;
}

const RecordFilter::Bounds& RecordFilter::bounds_for(const Record& record) {
  auto found = bounds_.find(record.source);
  if (found != bounds_.end()) return found->second;
  Bounds bounds;
  bounds.has_begin = time_bound(record, options_.begin, &bounds.begin);
  bounds.has_end = time_bound(record, options_.end, &bounds.end);
  return bounds_.emplace(record.source, bounds).first->second;
}

bool RecordFilter::accept(const Record& record) {
  if (!have_start_) {
    have_start_ = true;
    start_key_ = time_key(record);
  }
  const PointInfo* info = record.info;
  if (!options_.handles.empty()) {
    bool any = false;
    for (const std::string& pattern : options_.handles)
      any = any || (info != nullptr && glob(pattern, info->handle->ref.handle));
    if (!any) return false;
  }
  if (!options_.points.empty()) {
    bool any = false;
    for (const std::string& pattern : options_.points) {
      any = any ||
            (info != nullptr && info->point != nullptr && glob(pattern, info->point->name)) ||
            (info != nullptr && glob(pattern, info->display));
    }
    if (!any) return false;
  }
  if (!options_.threads.empty()) {
    const std::string* name = record.source->threads.find(record.thread);
    const std::string id = std::to_string(static_cast<int32_t>(record.thread));
    bool any = false;
    for (const std::string& wanted : options_.threads)
      any = any || wanted == id || (name != nullptr && *name == wanted);
    if (!any) return false;
  }
  const Bounds& bounds = bounds_for(record);
  if (bounds.has_begin || bounds.has_end) {
    const int64_t key = time_key(record);
    if (bounds.has_begin && key < bounds.begin) return false;
    if (bounds.has_end && key > bounds.end) return false;
  }
  return true;
}

std::vector<std::string> RecordFilter::take_notes() {
  std::vector<std::string> notes;
  notes.swap(notes_);
  return notes;
}

}  // namespace quarry_decode

// Recovering persistent rings into trace files: liveness check, write position from the
// records, the trace header a dump would have written, directory walks. Runs on the calling
// thread; shares no state.
#include "quarry_decode/recover.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "quarry_decode/error.h"
#include "quarry_decode/record_decoder.h"
#include "quarry_decode/trace_header.h"
#include "quarry_decode/trace_reader.h"

namespace quarry_decode {
namespace {

const char kRunPrefix[] = "quarry.ring.";
// A record the dead process was still writing may show a timestamp newer than every record
// that decodes; one this far beyond them is a string word that merely looks like a header.
constexpr uint64_t kInFlightWindowNs = 10ull * 1000000000ull;

bool read_file(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  *out = text.str();
  return !in.bad();
}

std::string first_line(const std::string& path) {
  std::string text;
  if (!read_file(path, &text)) return "";
  return text.substr(0, text.find('\n'));
}

// Field 22 of /proc/<pid>/stat (start time in ticks since boot); "" when there is no such
// process. Fields are counted after the last ')', since the command name may hold anything.
std::string start_time_of(const std::string& pid) {
  std::string stat = first_line("/proc/" + pid + "/stat");
  size_t p = stat.rfind(')');
  if (p == std::string::npos) return "";
  for (int field = 2; field < 22 && p != std::string::npos; ++field) p = stat.find(' ', p + 1);
  if (p == std::string::npos) return "";
  return stat.substr(p + 1, stat.find(' ', p + 1) - p - 1);
}

bool is_dir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string with_slash(std::string path) {
  if (path.empty() || path.back() != '/') path += '/';
  return path;
}

std::string hex(uint64_t value) {
  char text[24];
  snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(value));
  return text;
}

// The words file the header names; when it is missing (a death inside a growth), the newest
// generation present.
std::string words_file(const std::string& dir, const std::string& generation) {
  std::string named = dir + "words." + generation;
  if (access(named.c_str(), R_OK) == 0) return named;
  long best = -1;
  for (const std::string& name : entries(dir)) {
    if (name.compare(0, 6, "words.") != 0 || name.find_first_not_of("0123456789", 6) != name.npos)
      continue;
    best = std::max(best, atol(name.c_str() + 6));
  }
  if (best < 0) throw DecodeError("no words file (words.<generation>) in " + dir);
  return dir + "words." + std::to_string(best);
}

struct Candidate {
  uint64_t timestamp;
  size_t position;
  size_t length;
};

// A header word of an ID no handle of the buffer uses, which every decoder rejects.
uint32_t unused_id(const TraceHeader& header) {
  for (uint32_t id = 0xFFFF; id > 0; --id) {
    bool used = false;
    for (const DecodeRef& ref : header.decode_refs) used |= ref.first_id <= id && id <= ref.last_id;
    if (!used) return kHeaderMarker | id;
  }
  return 0;
}

// Records the process had reserved but not finished (their header word is the last word
// written) leave a gap between two good records, and the record before the gap would fail a
// reader's check that a header follows it. Walking the records from the oldest, each such gap
// becomes `filler` followed by zeros: the unfinished record is dropped, its neighbours decode.
// The stretch from the write position to the first good record is the ring's seam, left as is.
void drop_unfinished(std::vector<uint32_t>& words, size_t n, size_t position,
                     const std::map<size_t, size_t>& length_at, uint32_t filler) {
  if (length_at.empty() || filler == 0) return;
  auto next_good = [&](size_t from) {  // in doubled positions, from <= result
    auto it = length_at.lower_bound(from % n);
    if (it != length_at.end()) return from - from % n + it->first;
    return from - from % n + n + length_at.begin()->first;
  };
  size_t i = next_good(position);
  const size_t end = position + n;
  while (i < end) {
    auto it = length_at.find(i % n);
    size_t g;  // the next good record, where the gap that starts at i ends (always past i)
    if (it != length_at.end()) {
      // A good record never holds another record's header word (string words aside): one
      // that does was decoded from a stale header over a record being written, and the
      // header inside starts the next true record.
      const size_t inner = next_good(i + 1);
      if (inner >= i + it->second || inner >= end) {
        i += it->second;
        continue;
      }
      g = inner;
    } else {
      g = std::min(next_good(i), end);
    }
    for (size_t k = i; k < g; ++k) words[k % n] = k == i ? filler : 0;
    i = g;
  }
  for (size_t k = 0; k < n; ++k) words[n + k] = words[k];
}

}  // namespace

std::string recover_ring(const std::string& ring_dir, DecodeFileCache& cache) {
  const std::string dir = with_slash(ring_dir);
  std::string text;
  if (!read_file(dir + "header", &text)) {
    throw DecodeError("no readable header in " + dir + " (the process died before writing it?)");
  }
  HeaderScanner scanner;
  HeaderExtent extent = scanner.scan(text);
  if (!extent.complete) throw DecodeError("the header in " + dir + " has no end");
  TraceHeader header = parse_trace_header(std::string_view(text).substr(0, extent.text_end));
  std::map<std::string, std::string> ring_keys;
  for (const auto& item : header.unknown_items) ring_keys[item.first] = item.second;

  // The same process still running means the rings are live: a dump is the way to read them.
  const std::string pid = ring_keys["RING_PID"];
  const bool same_boot = !ring_keys["RING_BOOT_ID"].empty() &&
                         ring_keys["RING_BOOT_ID"] == first_line("/proc/sys/kernel/random/boot_id");
  if (same_boot && !pid.empty() && start_time_of(pid) == ring_keys["RING_START_TIME"]) {
    throw DecodeError("process " + pid +
                      " is still running: its rings are live (dump them instead)");
  }

  std::string bytes;
  const std::string words_path = words_file(dir, ring_keys["RING_GENERATION"]);
  if (!read_file(words_path, &bytes)) throw DecodeError("cannot read " + words_path);
  const size_t n = bytes.size() / 4;
  if (bytes.size() % 4 != 0 || n < 1024 || (n & (n - 1)) != 0 || n > (1u << 29)) {
    throw DecodeError(words_path + " is no ring (" + std::to_string(bytes.size()) + " bytes)");
  }
  // The ring twice in a row, so that a record crossing the end decodes like any other.
  std::vector<uint32_t> words(2 * n);
  memcpy(words.data(), bytes.data(), n * 4);
  memcpy(words.data() + n, bytes.data(), n * 4);

  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t now_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
  SourceInfo source(words_path, header, cache);
  RecordDecoder::Checks checks;
  checks.upper_bound_ns = same_boot ? now_ns : 0;  // no record is later than now
  checks.successor_is_header = false;              // what follows the newest record may be torn
  RecordDecoder decoder(source, checks);

  // Every header word that decodes is a candidate for the newest record; the others are kept
  // with the timestamp they show, to drop records still being written.
  std::vector<Candidate> good, torn;
  Record record;
  for (size_t i = 0; i < n; ++i) {
    if (!is_header_word(words[i])) continue;
    // The decoder remembers runs of string words by position, to skip them on the next try:
    // it must be told where each header word lies, or it applies one record's run to another.
    decoder.set_position(i);
    if (decoder.decode(words.data() + i, n, true, &record) == RecordDecoder::Result::kOk) {
      good.push_back({record.timestamp, i, record.length});
      continue;
    }
    const uint32_t flags = words[i] >> 16;
    const uint64_t high = words[i + 1] ^ ((flags & 1u) ? kEscapeBit : 0u);
    const uint64_t low = words[i + 2] ^ ((flags & 2u) ? kEscapeBit : 0u);
    torn.push_back({high << 32 | low, i, 0});
  }

  size_t position = 0;
  std::map<size_t, size_t> length_at;  // good records by position
  for (const Candidate& c : good) length_at[c.position] = c.length;
  if (!good.empty()) {
    const Candidate newest = *std::max_element(
        good.begin(), good.end(),
        [](const Candidate& a, const Candidate& b) { return a.timestamp < b.timestamp; });
    position = (newest.position + newest.length) % n;
    for (const Candidate& c : torn) {
      if (c.timestamp > newest.timestamp && c.timestamp - newest.timestamp <= kInFlightWindowNs)
        words[c.position] = 0;
    }
  }
  drop_unfinished(words, n, position, length_at, unused_id(source.header));
  // A ring that never wrapped holds zeros from the write position on (the file started as
  // zeros); anything there is older data, to be read from the write position round.
  bool wrapped = false;
  for (size_t i = position; i < n && !wrapped; ++i) wrapped = words[i] != 0;
  const uint64_t word_count = wrapped ? n + position : position;

  std::string out = text.substr(0, extent.text_end - 1);  // without the empty line
  if (same_boot) {
    // The clock pair of now ties the monotonic timestamps to wall-clock time as a dump's does.
    struct timeval wall;
    gettimeofday(&wall, nullptr);
    out += "WALL_TIME_Z_SEC " + hex(wall.tv_sec) + "\nWALL_TIME_Z_USEC " + hex(wall.tv_usec) +
           "\nCLOCK_TIME_Z_SEC " + hex(now.tv_sec) + "\nCLOCK_TIME_Z_NSEC " + hex(now.tv_nsec) +
           "\n";
  }
  // ENTRY_COUNT and the wraparound times died with the process; WRAPAROUND_COUNT only says
  // whether the ring wrapped at all.
  out += "WRAPAROUND_COUNT " + std::string(wrapped ? "1" : "0") + "\nBUFFER_SIZE " + hex(n) +
         "\nWORD_COUNT " + hex(word_count) + "\nRECOVERED 1\nNO_HANDLER 1\n\n";
  out.resize((out.size() + 3) / 4 * 4, ' ');
  out.append(reinterpret_cast<const char*>(words.data()), (wrapped ? n : position) * 4);
  return out;
}

std::vector<RecoveredRun> recover(const std::string& path, DecodeFileCache& cache) {
  // Which run directories: the path itself, those of a buffer directory, or those one level
  // below (a process directory).
  std::vector<std::string> runs;
  const std::string base = with_slash(path);
  auto runs_in = [&](const std::string& dir) {
    for (const std::string& name : entries(dir)) {
      if (name.compare(0, sizeof kRunPrefix - 1, kRunPrefix) == 0 && is_dir(dir + name))
        runs.push_back(dir + name + "/");
    }
  };
  std::string own = path;
  while (own.size() > 1 && own.back() == '/') own.pop_back();
  const std::string leaf = own.substr(own.rfind('/') + 1);
  if (leaf.compare(0, sizeof kRunPrefix - 1, kRunPrefix) == 0 && is_dir(own)) {
    runs.push_back(base);
  } else {
    runs_in(base);
    if (runs.empty()) {
      for (const std::string& name : entries(base)) {
        if (is_dir(base + name)) runs_in(base + name + "/");
      }
    }
  }
  if (runs.empty()) {
    throw DecodeError(path + ": no persistent rings (quarry.ring.*) here or in its subdirectories");
  }

  std::vector<RecoveredRun> results;
  for (const std::string& run : runs) {
    RecoveredRun result;
    result.ring_dir = run;
    try {
      std::string bytes = recover_ring(run, cache);
      std::string trimmed = run.substr(0, run.size() - 1);
      const size_t slash = trimmed.rfind('/');
      const std::string buffer_dir = trimmed.substr(0, slash + 1);
      const std::string id = trimmed.substr(slash + 1 + sizeof kRunPrefix - 1);
      result.trace_file = buffer_dir + "quarry.recovered." + id + ".trc";
      // Whole or not at all: a reader never meets half a recovered file.
      const std::string temporary = result.trace_file + ".tmp";
      std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
      file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      file.close();
      if (!file || rename(temporary.c_str(), result.trace_file.c_str()) != 0) {
        unlink(temporary.c_str());
        throw DecodeError("cannot write " + result.trace_file + ": " + strerror(errno));
      }
    } catch (const DecodeError& e) {
      result.trace_file.clear();
      result.error = e.what();
    }
    results.push_back(result);
  }
  return results;
}

int run_recover(const std::vector<std::string>& paths, const std::vector<std::string>& decode_dirs,
                FILE* out, FILE* err) {
  DecodeFileCache cache(decode_search_path(decode_dirs));
  int status = 0;
  for (const std::string& path : paths) {
    try {
      for (const RecoveredRun& run : recover(path, cache)) {
        if (run.error.empty()) {
          fprintf(out, "recovered %s -> %s\n", run.ring_dir.c_str(), run.trace_file.c_str());
        } else {
          fprintf(err, "quarry-decode: %s: %s\n", run.ring_dir.c_str(), run.error.c_str());
          status = 1;
        }
      }
    } catch (const DecodeError& e) {
      fprintf(err, "quarry-decode: %s\n", e.what());
      status = 1;
    }
  }
  return status;
}

}  // namespace quarry_decode

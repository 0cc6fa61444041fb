// Recovery of persistent rings: the words file and header of a process that died without a
// dump become an ordinary trace file. Thread contract: reads and writes the file system only;
// no shared state, so runs of different directories may be recovered on different threads.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include "quarry_decode/decode_file.h"

namespace quarry_decode {

// One run directory (quarry.ring.<pid> or quarry.ring.<pid>.<n>) met by recover().
struct RecoveredRun {
  std::string ring_dir;    // the run directory, as found
  std::string trace_file;  // the trace file written; empty when the run was not recovered
  std::string error;       // why not: a live process, no header, a damaged words file
};

// The trace file bytes of one run directory: its header with the recovered counters and the
// keys "RECOVERED 1" and "NO_HANDLER 1", then its words. The write position is the end of the
// newest record that decodes (by timestamp); records the process was still writing when it
// died, newer than that one but not decodable, lose their header word. Decode files are
// looked up through `cache` to know record lengths (without them records run to the next
// header word). Throws DecodeError for the rings of a live process (same boot, same pid, same
// start time), a missing or unreadable header, or a words file that is no ring.
std::string recover_ring(const std::string& ring_dir, DecodeFileCache& cache);

// Recovers every run below `path`: a run directory, a buffer directory (its runs) or a process
// directory (the runs of each buffer directory). Each run's file is written, whole or not at
// all, as quarry.recovered.<pid>[.<n>].trc in the run's buffer directory; the run directory is
// left as it is. Throws DecodeError when `path` holds no run directory at all.
std::vector<RecoveredRun> recover(const std::string& path, DecodeFileCache& cache);

// quarry-decode --recover PATH...: recovers each path, one line per run on `out`
// ("recovered RUN_DIR -> FILE") and on `err` for runs left alone. Returns the exit status:
// 0 when every run found was recovered, 1 otherwise.
int run_recover(const std::vector<std::string>& paths, const std::vector<std::string>& decode_dirs,
                FILE* out, FILE* err);

}  // namespace quarry_decode

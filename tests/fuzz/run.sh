#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang in their own build directory and runs each for a
# bounded time, starting from the committed seed corpus. Any finding (a crash, a sanitizer
# report, a leak, a time-out) fails the script; its reproducer is left in the build directory.
# Keep each reproducer in tests/fuzz/regressions/<harness>/ once the fault is fixed: it is
# replayed first on every run.
#
#   tests/fuzz/run.sh [SECONDS_PER_HARNESS]      (default 60; FUZZ_BUILD=dir to relocate)
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds="${1:-60}"
build="${FUZZ_BUILD:-build-fuzz}"
harnesses=(ctrl_file setup_file trace_file pipe_stream)

cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARRY_BUILD_FUZZERS=ON -DQUARRY_BUILD_TESTS=OFF \
  -DQUARRY_BUILD_BENCH=OFF ${FUZZ_CMAKE_FLAGS:-}
cmake --build "$build" -j"${JOBS:-2}" --target "${harnesses[@]/%/_fuzz}"

status=0
for name in "${harnesses[@]}"; do
  corpus="$build/corpus/$name"  # grows while fuzzing; the committed seeds stay as they are
  mkdir -p "$corpus" "$build/findings/$name"
  # Every earlier finding is kept as a regression input and replayed first.
  regressions=()
  [ -d "tests/fuzz/regressions/$name" ] && regressions=("tests/fuzz/regressions/$name")
  echo "== $name: ${seconds}s =="
  if ! "$build/tests/fuzz/${name}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$build/findings/$name/" -print_final_stats=1 -close_fd_mask=3 \
      "$corpus" "tests/fuzz/corpus/$name" "${regressions[@]}" > "$build/findings/$name.log" 2>&1; then
    tail -n 60 "$build/findings/$name.log"
    echo "== $name: finding in $build/findings/$name/ =="
    status=1
  else
    grep -E "stat::number_of_executed_units|stat::new_units_added" "$build/findings/$name.log" || true
  fi
done
exit $status

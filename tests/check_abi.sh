#!/usr/bin/env bash
# Compares the built libquarry.so with the committed ABI baseline.
# Usage: check_abi.sh <baseline.abi> <libquarry.so> <public header dir>
# Fails on anything abidiff reports once added names are left out: a removed or changed export,
# a changed public type (such as quarry_hashtable_iterator), or an abidiff error. Changes of
# types that only the library defines (the opaque records) are filtered by the header
# directory. Added exports pass, listed here as a reminder to regenerate the baseline
# (`make abi-baseline`). Exits 77 (skipped) without abidiff or without debug information.
set -u
baseline="$1" library="$2" headers="$3"
if ! command -v abidiff >/dev/null; then
  echo "skipped: abidiff not found (apt-get install abigail-tools)"
  exit 77
fi
if ! readelf -S "$library" | grep -q '\.debug_info'; then
  echo "skipped: $library has no debug information (build RelWithDebInfo or Debug)"
  exit 77
fi
abidiff --no-added-syms --headers-dir2 "$headers" "$baseline" "$library"
rc=$?
if [ "$rc" -ne 0 ]; then
  echo "ABI differs from $baseline (abidiff status $rc): an incompatible change, or regenerate"
  echo "the baseline with 'make abi-baseline' if the change is intended and the major version moves"
  exit 1
fi
added=$(abidiff --headers-dir2 "$headers" "$baseline" "$library" | grep -E '^  \[A\]' || true)
if [ -n "$added" ]; then
  echo "compatible additions not yet in the baseline (run 'make abi-baseline' and commit):"
  echo "$added"
fi
exit 0

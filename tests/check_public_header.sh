#!/usr/bin/env bash
# Compiles tests/public_header_strict.c with every C and C++ compiler found, at each language
# level a user may pick, with warnings as errors. Usage: check_public_header.sh <source dir>.
# Exits 77 (skipped) when a compiler is missing, after checking with the ones that are there.
set -u
src="$1"
missing=""
failed=0
while read -r compiler lang std; do
  if ! command -v "$compiler" >/dev/null; then
    missing="$missing $compiler"
    continue
  fi
  if ! "$compiler" -x "$lang" "-std=$std" -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
      -I "$src/include" -I "$src/kelp/include" "$src/tests/public_header_strict.c"; then
    echo "FAILED: $compiler -x $lang -std=$std"
    failed=1
  fi
done <<'TABLE'
gcc c c99
gcc c c11
clang c c99
clang c c11
g++ c++ c++17
clang++ c++ c++17
TABLE
[ "$failed" = 0 ] || exit 1
if [ -n "$missing" ]; then
  echo "skipped:$missing not found (install clang to check the header with it)"
  exit 77
fi

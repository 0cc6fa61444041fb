#!/usr/bin/env bash
# Builds and runs a C host (the README's, taken from README.md with its compile command) and a
# C++ host against quarry the ways a user would: installed into a temporary prefix and found
# with find_package and with pkg-config, built from the source tree with add_subdirectory, and
# from the files of the .deb that cpack makes. Each host's dump is read back with the installed
# quarry-decode. Usage: tests/consumers/run.sh [build dir, default build] (the build must be
# complete). Ways whose tools are missing (pkg-config, cpack/dpkg-deb) are skipped, said so.
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-build}" && pwd)
tmp=$(mktemp -d "${TMPDIR:-/tmp}/quarry-consumers-XXXXXX")
trap 'rm -rf "$tmp"' EXIT
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

# The README's host and its one-line compile command, exactly as written there.
awk '/^```c$/ {on = 1; next} on && /^```$/ {exit} on' "$src/README.md" > "$tmp/host.c"
readme_cc=$(grep -m1 '^cc -o host host.c' "$src/README.md")
[ -s "$tmp/host.c" ] && [ -n "$readme_cc" ] || { echo "README host or compile line not found"; exit 1; }

# run_hosts <way> <dir holding c_host/host and cxx_host> <bin dir of quarry-decode>
run_hosts() {
  local way=$1 dir=$2 bin=$3 exe
  for exe in "$dir"/c_host "$dir"/host "$dir"/cxx_host; do
    [ -x "$exe" ] || continue
    local traces="$tmp/traces/$way/$(basename "$exe")/"
    QUARRY_PATH="$traces" "$exe" > /dev/null
    local trc
    trc=$(find "$traces" -name '*.trc' | head -n 1)
    [ -n "$trc" ] || { echo "FAILED: $way: $(basename "$exe") wrote no trace file"; exit 1; }
    "$bin/quarry-decode" --summary "$trc" > /dev/null 2> "$tmp/decode.err" ||
      { cat "$tmp/decode.err"; echo "FAILED: $way: quarry-decode $trc"; exit 1; }
  done
  echo "ok: $way"
}

# cmake_hosts <way> <cmake arguments...>: configures, builds and runs tests/consumers.
cmake_hosts() {
  local way=$1
  shift
  cmake -S "$src/tests/consumers" -B "$tmp/$way" -DREADME_HOST="$tmp/host.c" "${launcher[@]}" "$@" > "$tmp/$way.log"
  cmake --build "$tmp/$way" -j2 >> "$tmp/$way.log" || { cat "$tmp/$way.log"; exit 1; }
}

# pkgconfig_hosts <way> <pkg-config dir> <bin dir>: the README's command and the C++ host.
pkgconfig_hosts() {
  local way=$1 pcdir=$2 bin=$3
  if ! command -v pkg-config >/dev/null; then
    echo "skipped: $way (pkg-config not found; apt-get install pkg-config)"
    return
  fi
  mkdir -p "$tmp/$way" && cp "$tmp/host.c" "$tmp/$way/"
  (cd "$tmp/$way" && PKG_CONFIG_PATH="$pcdir" eval "$readme_cc")
  local flags
  flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs quarry)
  c++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -o "$tmp/$way/cxx_host" \
    "$src/tests/consumers/host.cpp" $flags -Wl,-rpath,"$pcdir/../../lib"
  run_hosts "$way" "$tmp/$way" "$bin"
}

prefix="$tmp/prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
cmake_hosts find_package -DCMAKE_PREFIX_PATH="$prefix"
run_hosts find_package "$tmp/find_package" "$prefix/bin"
pkgconfig_hosts pkg-config "$prefix/lib/pkgconfig" "$prefix/bin"
cmake_hosts add_subdirectory -DQUARRY_SOURCE_DIR="$src"
run_hosts add_subdirectory "$tmp/add_subdirectory" "$prefix/bin"

if ! command -v cpack >/dev/null || ! command -v dpkg-deb >/dev/null; then
  echo "skipped: .deb (cpack or dpkg-deb not found; apt-get install dpkg-dev)"
  exit 0
fi
(cd "$build" && cpack -G DEB -B "$tmp/cpack" > "$tmp/cpack.log") || { cat "$tmp/cpack.log"; exit 1; }
deb=$(ls "$tmp"/cpack/quarry_*.deb)
dpkg-deb -c "$deb" | sed -E 's/ -> .*//' | awk '{print $NF}' | sed 's|^\./|/|' > "$tmp/deb-files"
for path in /usr/lib/libquarry.so.1 /usr/lib/libquarry.so /usr/lib/libquarry-kelp.a \
    /usr/include/quarry/quarry.h /usr/include/kelp/kelp.h /usr/lib/cmake/quarry/quarryConfig.cmake \
    /usr/lib/pkgconfig/quarry.pc /usr/bin/quarry-decode; do
  grep -qx -- "$path" "$tmp/deb-files" || { echo "FAILED: $path missing from $deb"; exit 1; }
done
if command -v scdoc >/dev/null; then
  grep -q '^/usr/share/man/man7/quarry.7' "$tmp/deb-files" || { echo "FAILED: man pages missing from $deb"; exit 1; }
fi
echo "$(basename "$deb"): Depends: $(dpkg-deb -f "$deb" Depends)"
dpkg-deb -x "$deb" "$tmp/deb"
cmake_hosts deb_find_package -DCMAKE_PREFIX_PATH="$tmp/deb/usr"
run_hosts deb_find_package "$tmp/deb_find_package" "$tmp/deb/usr/bin"
pkgconfig_hosts deb_pkg-config "$tmp/deb/usr/lib/pkgconfig" "$tmp/deb/usr/bin"

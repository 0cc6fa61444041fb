#!/usr/bin/env bash
# Runs `ctest "$@"` in a private mount namespace whose /dev/shm is an empty tmpfs, then fails if
# the suite created the default trace directory /dev/shm/quarry/ in it. Processes outside the
# run cannot disturb the check (they see the real /dev/shm), and the suite never writes there.
# Without a usable mount namespace (neither root nor user namespaces) it runs ctest plainly and
# says that the check was skipped.
set -u
# A backstop for tests that set no QUARRY_PATH of their own (CMake gives each one, see
# cmake/QuarryTestEnv.cmake): one private directory for the run.
QUARRY_PATH=$(mktemp -d "${TMPDIR:-/tmp}/quarry-ctest-XXXXXX")/
export QUARRY_PATH
trap 'rm -rf "$QUARRY_PATH"' EXIT
inner='mount -t tmpfs -o mode=1777 quarry-tests /dev/shm || exit 1
ctest "$@"
rc=$?
if [ -e /dev/shm/quarry ]; then
  echo "FAILED: the tests wrote to the default trace directory /dev/shm/quarry/:"
  find /dev/shm/quarry | head -n 40
  exit 1
fi
echo "The default trace directory /dev/shm/quarry/ stayed untouched."
exit "$rc"'
for flags in -m -rm; do
  if unshare $flags sh -c 'mount -t tmpfs quarry-probe /dev/shm' 2>/dev/null; then
    unshare $flags sh -c "$inner" sh "$@"
    exit $?
  fi
done
echo "Skipped the check of the default trace directory: no mount namespace here" \
  "(needs root or unprivileged user namespaces)."
ctest "$@"

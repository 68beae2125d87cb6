#!/usr/bin/env bash
# Checks the formatting of the files changed since the tree-wide formatting commit, builds and
# runs the whole test suite, then again under ThreadSanitizer and under
# AddressSanitizer+UndefinedBehaviorSanitizer; a full run starts with the fuzz targets, each for a
# bounded time. Installs the Debian packages it needs first. Arguments: the presets to run
# (default: default tsan asan windows, after the format check and the fuzz run; `windows` is the
# MinGW-w64 cross-build with its tests under Wine).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
presets=("${@:-default tsan asan windows}")
if [ $# -eq 0 ]; then
  scripts/check-format.sh
  echo "=== fuzz: 30 s per target ==="
  scripts/fuzz.sh 30
fi
for preset in ${presets[*]}; do
  start=$SECONDS
  echo "=== ${preset}: configure and build ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
  echo "=== ${preset}: tests ==="
  if [ "$preset" = windows ]; then
    # One Wine server for the whole run: left to itself it exits between test processes, and a
    # test that starts while it goes down dies with "recvmsg: Connection reset by peer" (the
    # preset also runs a test that failed once a second time, for that reason only).
    export WINEPREFIX="$PWD/build/windows/wineprefix"
    mkdir -p "$WINEPREFIX"
    /usr/lib/wine/wineserver -p || true
    # Start the session's own processes (services, device drivers) here, with no output: started
    # by a test they would inherit its output pipe and keep it open after the test has exited, and
    # CTest would wait for that pipe until its timeout.
    timeout 300 /usr/lib/wine/wine64 wineboot </dev/null >/dev/null 2>&1 || true
    ctest --preset "$preset" || { /usr/lib/wine/wineserver -k; exit 1; }
    /usr/lib/wine/wineserver -k || true
  else
    ctest --preset "$preset"
  fi
  echo "=== ${preset}: $((SECONDS - start)) s ==="
done

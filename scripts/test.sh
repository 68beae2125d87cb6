#!/usr/bin/env bash
# Builds and runs the whole test suite, then again under ThreadSanitizer and under
# AddressSanitizer+UndefinedBehaviorSanitizer. Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
presets=("${@:-default tsan asan}")
for preset in ${presets[*]}; do
  echo "=== ${preset}: configure and build ==="
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
  echo "=== ${preset}: tests ==="
  ctest --preset "$preset"
done

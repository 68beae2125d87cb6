#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer) and runs each for a
# bounded time from its corpus in fuzz/corpus/. Fails on any crash, leak, timeout or sanitizer
# report. Usage: scripts/fuzz.sh [seconds per target, default 30]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j 2 --target fuzz_cache_name fuzz_adopt_read
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
artifacts="$PWD/build/fuzz/artifacts"
mkdir -p "$artifacts"
status=0
for target in cache_name adopt_read; do
  echo "=== fuzz_${target}: ${seconds}s ==="
  # New inputs go to a scratch copy of the corpus, so the repository's stays small.
  cp -r "fuzz/corpus/${target}" "$work/${target}"
  if ! (cd "$work" && TMPDIR="$work" "$OLDPWD/build/fuzz/fuzz/fuzz_${target}" -max_total_time="$seconds" \
          -timeout=10 -rss_limit_mb=2048 -max_len=4096 -artifact_prefix="$artifacts/${target}-" "$work/${target}"); then
    echo "fuzz_${target}: FAILED; the reproducer is in $artifacts" >&2
    status=1
  fi
done
exit "$status"

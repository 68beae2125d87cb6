#!/usr/bin/env bash
# Checks that the C and C++ files changed since the tree-wide formatting commit (or since the
# commit given as the first argument) follow .clang-format. Prints the offending files and exits 1.
set -euo pipefail
cd "$(dirname "$0")/.."
base="${1:-$(git log -1 --format=%H --grep='^Format the whole tree with clang-format' || true)}"
if [ -n "$base" ]; then
  mapfile -t files < <({ git diff --name-only "$base" --; git ls-files --others --exclude-standard; } |
    sort -u)
else
  mapfile -t files < <(git ls-files)
fi
bad=()
for f in "${files[@]}"; do
  case "$f" in *.c | *.cc | *.cpp | *.h) ;; *) continue ;; esac
  [ -f "$f" ] || continue
  clang-format --dry-run -Werror "$f" >/dev/null 2>&1 || bad+=("$f")
done
if ((${#bad[@]})); then
  echo "check-format: not formatted (run clang-format -i on them):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "check-format: ${#files[@]} changed files checked${base:+ since ${base:0:9}}"

#!/usr/bin/env bash
# The main job: builds MC and runs the mcache demo, an interactive compositing session simulated
# against the real cache (memory budget, disk cache, compute cache through a C plug-in), ending
# with a summary. Extra arguments go to `mcache demo` (try --help). Installs the Debian packages
# it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target mcache mc_example_histogram_plugin
build/default/tools/mcache demo "$@"

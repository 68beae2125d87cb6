#!/usr/bin/env bash
# The main job: builds MC and runs the example host, which starts the platform layer with its
# standalone services and prints what it found. Installs the Debian packages it needs first.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target mc_example_host
build/default/examples/mc_example_host "$@"

#!/usr/bin/env bash
# Installs the Debian packages MC builds and tests with, only those missing.
set -euo pipefail
packages=(g++ cmake ninja-build pkgconf
  libboost-dev libspdlog-dev libfmt-dev libtomlplusplus-dev libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev libtbb-dev
  clang-14 libclang-rt-14-dev
  libhiredis-dev redis-server clang-format
  g++-mingw-w64-x86-64-posix wine64)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

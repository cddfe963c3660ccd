#!/usr/bin/env bash
# Installs what a fresh machine lacks to build and test ota, the simulator and the
# publisher. Safe to run again.
set -euo pipefail
packages=(
  cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev libssl-dev zlib1g-dev
  libsodium-dev libdeflate-dev libdeflate-tools libclang-rt-14-dev
  mtools dosfstools gzip pigz curl nginx-light mandoc gnuplot-nox
  libp11-kit-dev softhsm2
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

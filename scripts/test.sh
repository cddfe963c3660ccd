#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds everything, runs the unit and
# end-to-end tests, then runs them again in a build with AddressSanitizer and
# UndefinedBehaviorSanitizer (the device program itself is never instrumented), and runs
# every fuzz target for a short while.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

echo "== build (release)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$jobs"
bash scripts/check-binary.sh build/bin/ota
echo "== tests (release)"
ctest --test-dir build --output-on-failure -j "$jobs"

if [ "${OTA_SKIP_SANITIZE:-0}" != 1 ]; then
  echo "== build (sanitizers)"
  cmake -S . -B build-san -G Ninja -DCMAKE_BUILD_TYPE=Debug -DOTA_SANITIZE=ON >/dev/null
  cmake --build build-san -j "$jobs"
  echo "== tests (sanitizers)"
  ctest --test-dir build-san --output-on-failure -j "$jobs"
fi

if [ "${OTA_SKIP_FUZZ:-0}" != 1 ]; then
  echo "== fuzzing (each target briefly; a finding fails the run)"
  bash scripts/fuzz.sh
fi

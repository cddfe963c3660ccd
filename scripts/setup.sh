#!/usr/bin/env bash
# Installs, with apt-get, the Debian packages this machine lacks to build and test ota, the
# simulator and the publisher, and says which and why before it does. Safe to run again: when
# everything is there it only asks dpkg and installs nothing.
#
#   scripts/setup.sh [PACKAGE=WHY]...    also install these (bench/run.sh names its own)
#   scripts/setup.sh --list              print what it would install and why, install nothing
#
# OTA_SKIP_SETUP=1 skips it (for a machine set up by other means, or without root). The
# build then fails with CMake's own message if something is missing.
set -euo pipefail

if [ "${OTA_SKIP_SETUP:-0}" = 1 ]; then
  exit 0
fi

names=()
reasons=()
need() {  # need PACKAGE WHY
  names+=("$1")
  reasons+=("$2")
}

# Building.
need cmake             "configures the build"
need ninja-build       "runs the build"
need g++               "compiles the device program and the host programs"
need libssl-dev        "OpenSSL: the publisher signs and hashes, the simulator and tests check"
need zlib1g-dev        "zlib: the publisher compresses, the tests cross-check our gunzip"
need dpkg-dev          "dpkg-shlibdeps: the host package's library dependencies"
need file              "CPack tells executables from other files before dpkg-shlibdeps"
# Testing.
need libgtest-dev      "GoogleTest: the unit and end-to-end tests"
need libgmock-dev      "GoogleTest's matchers, used by the tests"
need mtools            "the simulator reads and writes the EFI partition image"
need dosfstools        "the simulator makes and checks the EFI partition image"
need gzip              "the gzip tests compress with gzip"
need pigz              "the gzip tests compress with pigz (zopfli, independent blocks)"
need curl              "the HTTP test fetches through curl, as a device configured so does"
need nginx-light       "the HTTP test serves an update source on 127.0.0.1"
need softhsm2          "a real PKCS#11 token (SoftHSM2) for the tests that sign through one"
need libp11-kit-dev    "the PKCS#11 interface header the publisher signs through tokens with"
need gnuplot-nox       "tavi-sim fleet draws its rollout picture with gnuplot"
need mandoc            "the manual pages are checked with mandoc -Tlint"
need man-db            "the manual pages are checked with man"
# Fuzzing (scripts/test.sh runs every fuzz target briefly).
need clang             "libFuzzer targets are built with clang"
need libclang-rt-14-dev "libFuzzer and the sanitizer runtimes for clang"

for extra in "$@"; do
  if [ "$extra" = --list ]; then
    continue
  fi
  need "${extra%%=*}" "${extra#*=}"
done

if [ "${1:-}" = --list ]; then
  for i in "${!names[@]}"; do
    printf '  %-20s %s\n' "${names[$i]}" "${reasons[$i]}"
  done
  exit 0
fi

missing=()
for i in "${!names[@]}"; do
  if ! dpkg-query -W -f='${Status}' "${names[$i]}" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$i")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing with apt-get (OTA_SKIP_SETUP=1 skips this):"
for i in "${missing[@]}"; do
  printf '  %-20s %s\n' "${names[$i]}" "${reasons[$i]}"
done
if [ "$(id -u)" -ne 0 ]; then
  echo "setup: installing packages needs root; run this as root, or install them and set OTA_SKIP_SETUP=1" >&2
  exit 1
fi
packages=()
for i in "${missing[@]}"; do
  packages+=("${names[$i]}")
done
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp /tmp/ota-setup-XXXXXX.log)
if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${packages[@]}"; } >"$log" 2>&1; then
  tail -20 "$log" >&2
  echo "setup: apt-get failed; its whole output is in $log" >&2
  exit 1
fi
rm -f "$log"
echo "setup: installed ${packages[*]}"

#!/usr/bin/env bash
# scripts/check-binary.sh passes the device program the build made, and fails a copy that is
# one byte over the size budget, so the budget is enforced rather than printed. A copy of
# exactly the budget still passes.
#
#   check_binary_test.sh SOURCE_DIR BUILD_DIR
set -uo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 SOURCE_DIR BUILD_DIR" >&2
  exit 2
fi
check=$(realpath "$1")/scripts/check-binary.sh
build=$(realpath "$2")
budget=49152

scratch=$(mktemp -d "${TMPDIR:-/tmp}/ota-check-binary-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

size=$(stat -c %s "$build/bin/ota")
if ! out=$(bash "$check" "$build/bin/ota" 2>&1); then
  fail "the built device program does not pass: $out"
elif [[ ! $out =~ ^"check-binary: $build/bin/ota is static, $size bytes stripped (budget $budget, $((budget - size)) to spare); text "[0-9]+", data "[0-9]+", bss "[0-9]+$ ]]; then
  fail "unexpected report: $out"
fi

# A copy padded to SIZE bytes, with the unstripped file where the check looks for symbols.
padded() {
  mkdir -p "$scratch/$1/bin"
  cp "$build/ota.debug" "$scratch/$1/ota.debug"
  cp "$build/bin/ota" "$scratch/$1/bin/ota"
  truncate -s "$1" "$scratch/$1/bin/ota"
  echo "$scratch/$1/bin/ota"
}
if [ "$size" -lt "$budget" ]; then
  bin=$(padded "$budget")
  out=$(bash "$check" "$bin" 2>&1) || fail "a program of exactly $budget bytes fails: $out"
fi
bin=$(padded $((budget + 1)))
if out=$(bash "$check" "$bin" 2>&1); then
  fail "a program of $((budget + 1)) bytes passes: $out"
elif [ "$out" != "check-binary: $bin is $((budget + 1)) bytes stripped, over its budget of $budget bytes by 1" ]; then
  fail "unexpected report for a program over its budget: $out"
fi

if [ "$failures" -ne 0 ]; then
  exit 1
fi
echo "check-binary: passes $size bytes and $budget bytes, fails $((budget + 1)) bytes"

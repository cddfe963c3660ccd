#!/usr/bin/env bash
# The device program must stay one static ELF with no C library and nothing left for a
# loader to resolve, and within its size budget: it is copied onto every device and into
# every system image, next to programs that have to fit the same small partitions.
#
#   scripts/check-binary.sh [BIN]     (default build/bin/ota; BIN's ../../ota.debug is the
#                                      unstripped file the symbols are read from)
set -euo pipefail
# The stripped program's budget in bytes. Raising it is a decision, not a side effect of a
# change: say why in the commit that does.
budget=49152
bin=${1:-build/bin/ota}
debug=$(dirname "$(dirname "$bin")")/ota.debug
fail() { echo "check-binary: $*" >&2; exit 1; }
[ -x "$bin" ] || fail "$bin is missing"
readelf -h "$bin" | grep -q 'Advanced Micro Devices X86-64' || fail "$bin is not an x86-64 ELF"
readelf -d "$bin" 2>&1 | grep -q 'There is no dynamic section' || fail "$bin has a dynamic section"
if readelf -l "$bin" | grep -q INTERP; then fail "$bin asks for an interpreter"; fi
if readelf -S "$bin" | grep -q '\.symtab'; then fail "$bin is not stripped"; fi
undefined=$(nm -u "$debug")
[ -z "$undefined" ] || fail "undefined symbols in $debug: $undefined"
size=$(stat -c %s "$bin")
[ "$size" -le "$budget" ] || fail "$bin is $size bytes stripped, over its budget of $budget bytes by $((size - budget))"
echo "check-binary: $bin is static, $size bytes stripped (budget $budget, $((budget - size)) to spare);" \
  "$(size "$debug" | tail -1 | awk '{print "text " $1 ", data " $2 ", bss " $3}')"

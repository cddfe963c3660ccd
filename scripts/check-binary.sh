#!/usr/bin/env bash
# The device program must stay one static ELF with no C library and nothing left for a
# loader to resolve.
set -euo pipefail
bin=${1:-build/bin/ota}
debug=$(dirname "$(dirname "$bin")")/ota.debug
fail() { echo "check-binary: $*" >&2; exit 1; }
[ -x "$bin" ] || fail "$bin is missing"
readelf -h "$bin" | grep -q 'Advanced Micro Devices X86-64' || fail "$bin is not an x86-64 ELF"
readelf -d "$bin" 2>&1 | grep -q 'There is no dynamic section' || fail "$bin has a dynamic section"
if readelf -l "$bin" | grep -q INTERP; then fail "$bin asks for an interpreter"; fi
undefined=$(nm -u "$debug")
[ -z "$undefined" ] || fail "undefined symbols in $debug: $undefined"
echo "check-binary: $bin is static, $(stat -c %s "$bin") bytes stripped; $(size "$debug" | tail -1 | awk '{print "text " $1 ", data " $2 ", bss " $3}')"

#!/usr/bin/env bash
# The simulated device update demo: a fresh tavi device in the simulator, an update source
# published on the spot, and the story of a package update and a system update, each
# through a restart. Every step shows what ota printed and what the kernel saw.
#
#   scripts/demo.sh [WORKDIR]     (default: a new directory under /tmp, kept afterwards)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

if [ "${OTA_DEMO_NO_BUILD:-0}" != 1 ]; then
  bash scripts/setup.sh
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j "$(nproc)" --target ota_device tavi-sim ota-publish >/dev/null
fi
bin=$top/build/bin
work=${1:-$(mktemp -d /tmp/ota-demo-XXXXXX)}
mkdir -p "$work"
dev=$work/device
src=$work/source
keys=$work/keys
files=$work/files
rm -rf "$dev" "$src" "$keys" "$files"
mkdir -p "$src/system" "$keys" "$files"

url=http://updates.tavi.example/aktuell
sysurl=http://updates.tavi.example/system

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
show() { printf '\033[2m$ %s\033[0m\n' "$*"; }
ota() {
  show "ota $*"
  local rc=0
  "$bin/tavi-sim" run "$dev" -- "$@" || rc=$?
  printf '\033[2m(exit status %s)\033[0m\n' "$rc"
}
events_since() {
  # The kernel's events after line $1 of the event log, as a person would read them.
  tail -n +"$(($1 + 1))" "$dev/events.log" | awk -F'\t' '
    $2 == "spawn" || $2 == "reboot" || $2 == "mount" || $2 == "umount" || $2 == "boot" ||
    $2 == "kernel" || $2 == "notify" || $2 == "end_task" || $2 == "loader" {
      line = sprintf("  [%9ss] %-8s", $1, $2)
      for (i = 4; i <= NF; i++) line = line " " $i
      print line
    }'
}
mark() { wc -l <"$dev/events.log"; }

say "A release engineer makes keys and publishes version 2 with two packages"
"$bin/ota-publish" keygen --out "$keys/release" >/dev/null
"$bin/ota-publish" keygen --out "$keys/spare" >/dev/null
head -c 20000 /dev/urandom >"$files/core-2.tpk"
head -c 8000 /dev/urandom >"$files/editor-2.tpk"
show "ota-publish catalog --version 2 --package core:... --package editor:..."
"$bin/ota-publish" catalog --key "$keys/release.key" --out "$src/aktuell" --version 2 \
  --package "core:base-system:$files/core-2.tpk:tavi-x86_64" \
  --package "editor:text-editor:$files/editor-2.tpk:tavi-any"

say "A fresh device at version 1 that trusts the release key"
"$bin/tavi-sim" init "$dev" --esp sda1 --proc-version "tavi 20260101 build 0000000 (stand-in)" >/dev/null
"$bin/tavi-sim" add "$dev" repo "$url" "$src/aktuell"
"$bin/tavi-sim" add "$dev" repo "$sysurl" "$src/system"
"$bin/tavi-sim" add "$dev" task 2 desktop 25
"$bin/tavi-sim" add "$dev" task 3 taskbar 25
printf 'quelle=%s\nname=demo-1\nauto=nein\n' "$url" >"$dev/root/etc/ota.conf"
cp "$keys/release.pub" "$dev/root/system/schluessel.pub"
cp "$keys/spare.pub" "$dev/root/system/ersatz.pub"
printf '00000001\n' >"$dev/root/system/FASSUNG"
printf '20260101\n' >"$dev/root/system/SYSVERSION"
"$bin/ota-publish" kernel --build 20260101 --commit 0000000 --out "$files/tavi-20260101.mb" >/dev/null
mcopy -o -i "$dev/disks/sda1.img" "$files/tavi-20260101.mb" ::/tavi.mb
ota show

say "Package update: search, apply"
ota search
m=$(mark)
ota apply
events_since "$m"

say "Restart: the start-up check sees the desktop come up and confirms the trial"
m=$(mark)
show "tavi-sim boot (restart the machine)"
"$bin/tavi-sim" boot "$dev" --virtual 600 || true
events_since "$m"
ota show

say "A system build is published: new kernel, one new program, release notes"
printf 'Faster start, a new clock program.\n' >"$files/notes.txt"
printf '#!/bin/sh\necho clock 2\n' >"$files/clock"
"$bin/ota-publish" kernel --build 20260301 --commit a1b2c3d4e5 --out "$files/tavi-20260301.mb" >/dev/null
show "ota-publish system --build 20260301 --commit a1b2c3d4e5 --kernel ... --file clock=... --notes ..."
"$bin/ota-publish" system --key "$keys/release.key" --out "$src/system/stable" --build 20260301 \
  --commit a1b2c3d4e5 --kernel "$files/tavi-20260301.mb" --gzip-kernel --notes "$files/notes.txt" \
  --file "clock=$files/clock:gz"
ota system search

say "System update: staged in slot B, boot menu entry B made the default"
m=$(mark)
ota system apply
events_since "$m"
show "tavi-sim esp ls"
"$bin/tavi-sim" esp "$dev" ls
show "tavi-sim esp cat limine.conf"
"$bin/tavi-sim" esp "$dev" cat limine.conf

say "Restart into slot B: the start-up check confirms, slot B is promoted to slot A"
m=$(mark)
show "tavi-sim boot (restart the machine)"
"$bin/tavi-sim" boot "$dev" --virtual 600 || true
events_since "$m"
ota system status
show "tavi-sim esp cat limine.conf"
"$bin/tavi-sim" esp "$dev" cat limine.conf
show "cat /proc/version"
cat "$dev/root/proc/version"

say "Done. The device is in $dev (events.log holds every kernel event)."

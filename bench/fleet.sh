#!/usr/bin/env bash
# The fleet benchmark: a release of three packages and a system build rehearsed on
# FLEET_DEVICES devices (default 1000) for FLEET_ROUNDS rounds (default 24), with power
# cuts in 2% of the commands and 5% of the downloads breaking off. Prints the wall-clock
# time, the CPU time, the peak memory of the whole run (GNU time), the load of the
# machine, and the traffic per device and round from the run's summary.
#
#   bench/fleet.sh [BUILD_DIR]        (default: build; needs root, nginx, curl, gnuplot)
#
# FLEET_JOBS sets --jobs (default: the number of CPUs); FLEET_KEEP=1 keeps the work
# directory and prints it.
set -euo pipefail
build=$(realpath "${1:-build}")
devices=${FLEET_DEVICES:-1000}
rounds=${FLEET_ROUNDS:-24}
jobs=${FLEET_JOBS:-$(nproc)}
publish="$build/bin/ota-publish"
sim="$build/bin/tavi-sim"
for tool in "$publish" "$sim" /usr/bin/time; do
  [ -x "$tool" ] || { echo "fleet.sh: $tool is missing (build the project, install GNU time)" >&2; exit 1; }
done
work=$(mktemp -d /tmp/fleet-bench-XXXXXX)
[ "${FLEET_KEEP:-0}" = 1 ] || trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir keys files

# The release: version 12 of three packages (one for another platform) and system build
# 20260301 with a 2 MiB kernel, release notes and three overlay files.
"$publish" keygen --out keys/release >/dev/null
"$publish" keygen --out keys/spare >/dev/null
head -c 2097152 /dev/urandom >files/core-12.tpk
head -c 524288 /dev/urandom >files/editor-12.tpk
head -c 65536 /dev/urandom >files/fonts-12.tpk
head -c 65536 /dev/urandom >files/firmware-rpi-12.tpk
"$publish" catalog --key keys/release.key --out pakete --version 12 \
  --package core:12.0:files/core-12.tpk:tavi-x86_64 \
  --package editor:2.4.1:files/editor-12.tpk:tavi-x86_64 \
  --package fonts:1.1:files/fonts-12.tpk:tavi-any \
  --package firmware-rpi:1.0:files/firmware-rpi-12.tpk:tavi-arm64 >/dev/null
"$publish" kernel --build 20260301 --commit 5e1ea5e0c0ffee --size 2097152 --out files/tavi.mb >/dev/null
printf 'Faster start, new clock.\n' >files/notes.txt
head -c 200000 /dev/urandom >files/taskbar
printf 'clock-format=24h\n' >files/clock.conf
printf '#!/bin/sh\nexec /bin/clock\n' >files/clock-start
"$publish" system --key keys/release.key --out system --build 20260301 --commit 5e1ea5e0c0ffee \
  --min-from 20260101 --kernel files/tavi.mb --notes files/notes.txt \
  --file taskbar=files/taskbar:gz --file /etc/clock.conf=files/clock.conf \
  --file /apps/clock/start=files/clock-start >/dev/null

echo "fleet.sh: $devices devices x $rounds rounds, --jobs $jobs, $(nproc) CPUs"
echo "fleet.sh: load before: $(cut -d' ' -f1-3 /proc/loadavg)"
/usr/bin/time -v -o time.txt "$sim" fleet --source pakete --system-source system \
  --trusted keys/release.pub --spare keys/spare.pub --devices "$devices" --rounds "$rounds" \
  --power-cut 0.02 --fetch-fail 0.05 --seed 1 --jobs "$jobs" --out out || status=$?
echo "fleet.sh: load after: $(cut -d' ' -f1-3 /proc/loadavg)"
grep -E 'Elapsed|User time|System time|Maximum resident' time.txt | sed 's/^\t*/fleet.sh: /'
grep -E '^Served by nginx' out/summary.md | sed 's/^/fleet.sh: /'
sed -n '/^## Outcomes/,/^On the release/p' out/summary.md
sed -n '/^| File /,/^| all /p' out/summary.md
[ "${FLEET_KEEP:-0}" = 1 ] && echo "fleet.sh: kept $work"
exit "${status:-0}"

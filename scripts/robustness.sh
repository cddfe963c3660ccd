#!/usr/bin/env bash
# The full power-loss matrix: every road that changes a device (docs/robustness.md,
# "Power loss", lists them), each ended at every one of its system calls, with every
# write kept and with only synced data kept; after each cut the simulated machine starts
# again and is judged. The default test run (ctest) tries a fixed sample of the same cut
# points; this script tries them all, in OTA_ROBUSTNESS_JOBS processes side by side
# (default 2, one per core).
#
#   scripts/robustness.sh [REPORT]    (default build/robustness-power.tsv)
#
# REPORT gets one line per cut point: road, durability, index, the call that was not
# made, the outcome, the state, how it got there, and whether a later update went
# through. The script prints a table per road and durability (tried, survived at once,
# survived after a step, did not survive), every cut point that did not survive, and the
# time it took; it exits non-zero when a cut point outside the known cases did not survive.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${OTA_ROBUSTNESS_NO_BUILD:-0}" != 1 ]; then
  cmake -S . -B build -G Ninja >/dev/null
  cmake --build build -j 2 --target e2e_tests >/dev/null
fi
report=$(realpath -m "${1:-build/robustness-power.tsv}")
jobs=${OTA_ROBUSTNESS_JOBS:-2}
mkdir -p "$(dirname "$report")"
rm -f "$report" "$report".part* "$report".log*

start=$(date +%s)
pids=()
for ((i = 0; i < jobs; i++)); do
  GTEST_TOTAL_SHARDS=$jobs GTEST_SHARD_INDEX=$i TAVI_POWER_FULL=1 TAVI_POWER_REPORT="$report.part$i" \
    build/bin/e2e_tests --gtest_filter='Roads/PowerLossMatrix.*' >"$report.log$i" 2>&1 &
  pids+=($!)
done
rc=0
for pid in "${pids[@]}"; do wait "$pid" || rc=$?; done
end=$(date +%s)
cat "$report".part* >"$report" 2>/dev/null || true
cat "$report".log* >"$report.log"
rm -f "$report".part* "$report".log[0-9]*

grep '^power loss' "$report.log" || true
echo
echo "road | durability | tried | survived at once | survived after a step | did not survive"
awk -F'\t' '{
  key = $1 " | " $2
  if (!(key in tried)) order[n++] = key
  tried[key]++
  if ($5 == "survived" && $7 == "") once[key]++
  else if ($5 == "survived") step[key]++
  else lost[key]++
} END {
  for (i = 0; i < n; i++) { k = order[i]; printf "%s | %d | %d | %d | %d\n", k, tried[k], once[k], step[k], lost[k] }
}' "$report"
echo
echo "cut points that did not survive:"
awk -F'\t' '$5 != "survived" { printf "  %s, %s, call %s (%s): %s: %s\n", $1, $2, $3, $4, $5, $6 }' "$report"
echo
echo "full matrix: $((end - start)) s of real time; report in $report, test output in $report.log"
exit "$rc"

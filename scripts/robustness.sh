#!/usr/bin/env bash
# The full power-loss matrix: `ota apply`, `ota system apply` and the start-up check after
# the restart into slot B, each ended at every one of its system calls, with every write
# kept and with only synced data kept; after each cut the simulated machine starts again
# and is judged (docs/robustness.md, "Power loss"). The default test run (ctest) tries a
# fixed sample of the same cut points; this script tries them all.
#
#   scripts/robustness.sh [REPORT]    (default build/robustness-power.tsv)
#
# REPORT gets one line per cut point: step, durability, index, the call that was not
# made, the outcome, the state, how it got there, and whether a later update went
# through. The script prints a summary per step and durability and the time it took, and
# exits non-zero when a cut point outside the known cases did not survive.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${OTA_ROBUSTNESS_NO_BUILD:-0}" != 1 ]; then
  cmake -S . -B build -G Ninja >/dev/null
  cmake --build build -j 2 --target e2e_tests >/dev/null
fi
report=$(realpath -m "${1:-build/robustness-power.tsv}")
mkdir -p "$(dirname "$report")"
rm -f "$report"

start=$(date +%s)
rc=0
TAVI_POWER_FULL=1 TAVI_POWER_REPORT="$report" build/bin/e2e_tests --gtest_filter='Steps/PowerLossMatrix.*' \
  >"$report.log" 2>&1 || rc=$?
end=$(date +%s)

grep '^power loss' "$report.log" || true
echo
echo "outcomes (step, durability, outcome: count):"
awk -F'\t' '{
  outcome = $5
  if ($5 == "survived" && $7 != "") outcome = "survived after a second step"
  n[$1 " | " $2 " | " outcome]++
} END { for (k in n) printf "  %-75s %d\n", k, n[k] }' "$report" | sort
echo
echo "cut points that did not survive:"
awk -F'\t' '$5 != "survived" { printf "  %s, %s, call %s (%s): %s: %s\n", $1, $2, $3, $4, $5, $6 }' "$report"
echo
echo "full matrix: $((end - start)) s; report in $report, test output in $report.log"
exit "$rc"

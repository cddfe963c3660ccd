#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan and UBSan) and runs each for a while, starting
# from its seed corpus and dictionary. Exits non-zero when a target finds a crash, a
# failed check, a leak or a slow input, or when the build fails.
#
# Environment:
#   OTA_FUZZ_SECONDS   seconds per target (default 20)
#   OTA_FUZZ_PARALLEL  targets run at the same time (default 2)
#   OTA_FUZZ_TARGETS   names of the targets to run (default all), e.g. "fuzz_menu fuzz_gunzip"
#   OTA_FUZZ_TIMEOUT   seconds after which one input counts as a hang (default 5; the
#                      sanitized build is several times slower than the device build, and
#                      CI machines are shared)
#   OTA_FUZZ_WORK      directory that keeps each target's grown corpus, its log and any
#                      crash input (default build-fuzz/fuzz-work); kept between runs, so
#                      a later run goes on from where the last one stopped
#   OTA_FUZZ_BUILD     build directory (default build-fuzz)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${OTA_FUZZ_SECONDS:-20}
parallel=${OTA_FUZZ_PARALLEL:-2}
timeout=${OTA_FUZZ_TIMEOUT:-5}
build=$(realpath -m "${OTA_FUZZ_BUILD:-build-fuzz}")
work=$(realpath -m "${OTA_FUZZ_WORK:-$build/fuzz-work}")

if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DOTA_FUZZ=ON -DOTA_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" -j2 --target fuzz_all

targets=${OTA_FUZZ_TARGETS:-$(cd "$build/fuzz" && ls fuzz_* | sort)}

# The largest input each target is given: about the largest file its reader takes, kept
# smaller where a larger input only slows the search down.
max_len() {
  case $1 in
    fuzz_validators) echo 512 ;;
    fuzz_ed25519 | fuzz_pending) echo 1024 ;;
    fuzz_settings_set) echo 2048 ;;
    fuzz_overlay_journal) echo 9000 ;;
    fuzz_gunzip) echo 16384 ;;
    # The catalog readers: a whole catalog of 32,767 bytes and the few bytes in front of it
    # that choose the target's settings.
    fuzz_catalog | fuzz_key_chain | fuzz_blocked | fuzz_manifest) echo 34000 ;;
    *) echo 8192 ;;
  esac
}

run_one() {
  local t=$1
  local dir=$work/$t
  mkdir -p "$dir/corpus" "$dir/crashes"
  local args=(-max_total_time="$seconds" -timeout="$timeout" -rss_limit_mb=2048 -max_len="$(max_len "$t")"
              -print_final_stats=1 -artifact_prefix="$dir/crashes/")
  [ -f "tests/fuzz/$t.dict" ] && args+=(-dict="$PWD/tests/fuzz/$t.dict")
  local seeds=()
  [ -d "tests/fuzz/corpus/$t" ] && seeds+=("$PWD/tests/fuzz/corpus/$t")
  local status=0
  "$build/fuzz/$t" "${args[@]}" "$dir/corpus" "${seeds[@]}" >"$dir/log" 2>&1 || status=$?
  local runs
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -1)
  if [ "$status" -ne 0 ]; then
    echo "FAIL $t (exit $status) after ${runs:-?} executions; see $dir/log and $dir/crashes/"
    grep -E "fuzz check failed|ERROR: |SUMMARY: " "$dir/log" | head -5 | sed 's/^/     /'
    return 1
  fi
  local slowest
  slowest=$(sed -n 's/^stat::slowest_unit_time_sec: *//p' "$dir/log" | tail -1)
  printf '%-24s %12s executions in %ss, corpus %s inputs, slowest input %s s\n' "$t" "${runs:-?}" \
    "$seconds" "$(ls "$dir/corpus" | wc -l)" "${slowest:-?}"
}

failed=0
pids=()
names=()
for t in $targets; do
  run_one "$t" &
  pids+=($!)
  names+=("$t")
  if [ "${#pids[@]}" -ge "$parallel" ]; then
    wait "${pids[0]}" || failed=1
    pids=("${pids[@]:1}")
    names=("${names[@]:1}")
  fi
done
for p in "${pids[@]}"; do
  wait "$p" || failed=1
done
if [ "$failed" -ne 0 ]; then
  echo "fuzz: a target failed"
  exit 1
fi
echo "fuzz: all targets ran without a finding"

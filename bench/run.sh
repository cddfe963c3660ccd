#!/usr/bin/env bash
# Every benchmark in one run, each beside the tool people would use instead, and a table
# of ratios at the end (written to build-bench/results.md as well).
#
#   bench/run.sh            (OTA_BENCH_FILE_MIB=1024 sets the size of the hashed file;
#                            OTA_BENCH_RUNS=10 the runs of each whole-process figure)
#
# Figures are medians over repeated runs on this machine; ratios compare ours with the
# anchor measured in the same run. Nothing here is a pass/fail test.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
file_mib=${OTA_BENCH_FILE_MIB:-1024}
runs=${OTA_BENCH_RUNS:-10}

bash scripts/setup.sh
command -v hyperfine >/dev/null || { apt-get install -y -qq hyperfine >/dev/null; }
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOTA_BENCH=ON -DOTA_TESTS=OFF >/dev/null
cmake --build build-bench -j "$(nproc)" >/dev/null
bin=$top/build-bench/bin
out=$top/build-bench/results.md
work=$(mktemp -d /tmp/ota-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT

rows=()
row() { rows+=("| $1 | $2 | $3 | $4 |"); }
median_of() { python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['results'][${2:-0}]['median'])" "$1"; }
ratio() { python3 -c "import sys; print(f'{float(sys.argv[1]) / float(sys.argv[2]):.2f}')" "$1" "$2"; }
secs() { python3 -c "import sys; print(f'{float(sys.argv[1]):.3f} s')" "$1"; }
hf() {  # hyperfine, medians to a JSON file: hf NAME [--prepare CMD] -- CMD...
  local name=$1
  shift
  hyperfine -N --runs "$runs" --warmup 1 --export-json "$work/$name.json" "$@" >/dev/null 2>&1
}

echo "== micro-benchmarks (Google Benchmark, same process)"
"$bin/ota_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
  --benchmark_out="$work/micro.json" --benchmark_out_format=json \
  --benchmark_filter='Sha256|Ed25519|Gunzip|CatalogWalk' >/dev/null 2>"$work/micro.err"
micro() {  # the median of a benchmark's time per iteration, or its bytes per second
  python3 - "$work/micro.json" "$1" "$2" <<'EOF'
import json, sys
data = json.load(open(sys.argv[1]))
for b in data["benchmarks"]:
    if b["name"] == sys.argv[2] + "_median":
        print(b[sys.argv[3]])
        break
EOF
}
for size in 65536 1048576; do
  ours=$(micro "BM_Sha256_Ours_ShaExtensions/$size" bytes_per_second)
  openssl=$(micro "BM_Sha256_OpenSsl/$size" bytes_per_second)
  row "SHA-256 in memory, $size bytes" "$(python3 -c "print(f'{$ours/1e6:.0f} MB/s')")" \
    "OpenSSL EVP_Digest $(python3 -c "print(f'{$openssl/1e6:.0f} MB/s')")" "$(ratio "$ours" "$openssl")x throughput"
done
ours=$(micro "BM_Ed25519Verify_Ours/64" cpu_time)
openssl=$(micro "BM_Ed25519Verify_OpenSsl/64" cpu_time)
sodium=$(micro "BM_Ed25519Verify_Libsodium/64" cpu_time)
row "Ed25519 verify, 64-byte message" "$(python3 -c "print(f'{$ours/1e3:.1f} us')")" \
  "OpenSSL $(python3 -c "print(f'{$openssl/1e3:.1f} us')"), libsodium $(python3 -c "print(f'{$sodium/1e3:.1f} us')")" \
  "$(ratio "$ours" "$openssl")x OpenSSL's time, $(ratio "$ours" "$sodium")x libsodium's"
for kind in 0 1; do
  ours=$(micro "BM_CatalogWalk_InOrder/$kind" cpu_time)
  top=$(micro "BM_CatalogWalk_FromTheTop/$kind" cpu_time)
  what=$([ "$kind" = 0 ] && echo "277 package lines" || echo "4677 shortest package lines")
  row "walk of a 32 KiB catalog, $what" "$(python3 -c "print(f'{$ours:.1f} us')")" \
    "every lookup from the top $(python3 -c "print(f'{$top:.0f} us')")" "$(python3 -c "print(f'{$top / $ours:.0f}')")x faster"
done
if python3 -c "import json,sys; sys.exit(0 if any(b['name'].startswith('BM_Gunzip_Ota') for b in json.load(open('$work/micro.json'))['benchmarks']) else 1)"; then
  ours=$(micro BM_Gunzip_Ota bytes_per_second)
  zlib=$(micro BM_Gunzip_Zlib bytes_per_second)
  deflate=$(micro BM_Gunzip_Libdeflate bytes_per_second 2>/dev/null || echo 0)
  row "gunzip in memory (mixed corpus)" "$(python3 -c "print(f'{$ours/1e6:.0f} MB/s')")" \
    "zlib $(python3 -c "print(f'{$zlib/1e6:.0f} MB/s')"), libdeflate $(python3 -c "print(f'{$deflate/1e6:.0f} MB/s')")" \
    "$(ratio "$ours" "$zlib")x zlib, $(ratio "$ours" "${deflate/#0/1}")x libdeflate"
fi

echo "== SHA-256 of a ${file_mib} MiB file (whole process)"
big=$work/big.bin
head -c $((file_mib * 1048576)) /dev/urandom >"$big"
hf sha --command-name ours "$bin/sha256_tool $big" --command-name openssl "openssl dgst -sha256 $big" \
  --command-name sha256sum "sha256sum $big"
ours=$(median_of "$work/sha.json" 0)
openssl=$(median_of "$work/sha.json" 1)
coreutils=$(median_of "$work/sha.json" 2)
row "SHA-256 of a ${file_mib} MiB file, whole process" "$(secs "$ours")" \
  "openssl dgst $(secs "$openssl"), sha256sum $(secs "$coreutils")" "$(ratio "$openssl" "$ours")x OpenSSL's throughput"
rm -f "$big"

echo "== gunzip of a mixed corpus (whole process)"
corpus=$work/corpus
python3 - "$corpus" <<'EOF'
import os, random, sys
random.seed(7)
words = [w.encode() for w in "update device kernel catalog signature package version trial restart system menu entry overlay journal".split()]
with open(sys.argv[1], "wb") as f:
    for block in range(400):
        kind = block % 4
        if kind == 0:
            f.write(b" ".join(random.choice(words) for _ in range(60000)))
        elif kind == 1:
            f.write(bytes((i * 7 + block) % 251 for i in range(200000)))
        elif kind == 2:
            f.write(os.urandom(100000))
        else:
            f.write(b"\x00" * 150000 + bytes(random.getrandbits(8) for _ in range(50000)))
EOF
gzip -6 -k -f "$corpus"
hf gunzip --command-name ours "$bin/gunzip_tool $corpus.gz /dev/null" \
  --command-name libdeflate "libdeflate-gunzip -c $corpus.gz" --command-name pigz "pigz -dc $corpus.gz"
ours=$(median_of "$work/gunzip.json" 0)
deflate=$(median_of "$work/gunzip.json" 1)
pigz=$(median_of "$work/gunzip.json" 2)
mb=$(python3 -c "import os; print(os.path.getsize('$corpus') / 1e6)")
row "gunzip of ${mb%.*} MB, whole process" "$(secs "$ours")" \
  "libdeflate-gunzip $(secs "$deflate"), pigz -dc $(secs "$pigz")" \
  "$(ratio "$deflate" "$ours")x libdeflate's throughput, $(ratio "$pigz" "$ours")x pigz's"

echo "== ota apply of 10 packages of 10 MB in the simulator"
dev=$work/device
src=$work/source
mkdir -p "$src" "$work/pkgs" "$work/copy"
"$bin/ota-publish" keygen --out "$work/key" >/dev/null
args=()
for i in $(seq 1 10); do
  head -c 10000000 /dev/urandom >"$work/pkgs/p$i.tpk"
  args+=(--package "p$i:bench:$work/pkgs/p$i.tpk:tavi-x86_64")
done
"$bin/ota-publish" catalog --key "$work/key.key" --out "$src/aktuell" --version 2 "${args[@]}" >/dev/null
"$bin/tavi-sim" init "$dev" --esp sda1 --binary "$bin/ota" >/dev/null
"$bin/tavi-sim" add "$dev" repo http://bench.example/aktuell "$src/aktuell"
printf 'quelle=http://bench.example/aktuell\n' >"$dev/root/etc/ota.conf"
cp "$work/key.pub" "$dev/root/system/schluessel.pub"
reset_device="rm -rf $dev/root/tmp/ota $dev/root/system/tpk $dev/root/system/FASSUNG $dev/root/system/ERPROBUNG $dev/root/system/AKTUELL"
hf apply --prepare "sh -c '$reset_device'" --command-name ours "$bin/tavi-sim run $dev -- apply" \
  --prepare "rm -rf $work/copy/*" --command-name anchor \
  "sh -c 'for f in $work/pkgs/*.tpk; do sha256sum \$f >/dev/null; cp \$f $work/copy/; done'"
ours=$(median_of "$work/apply.json" 0)
anchor=$(median_of "$work/apply.json" 1)
row "ota apply, 10 x 10 MB, in the simulator" "$(secs "$ours")" "sha256sum and cp of the files $(secs "$anchor")" \
  "$(ratio "$ours" "$anchor")x the anchor's time"
apply_rss=$(awk -F'\t' '$2 == "start" && $5 == "apply" {p = $3} $2 == "exit" && $3 == p {split($5, a, "="); m = a[2]} END {print m}' "$dev/events.log")

echo "== ota show (whole process)"
hf show --command-name simulator "$bin/tavi-sim run $dev -- show" --command-name chroot "chroot $dev/root /bin/ota show"
sim=$(median_of "$work/show.json" 0)
native=$(median_of "$work/show.json" 1)
row "ota show, whole process" "$(secs "$native") (chroot)" "through tavi-sim $(secs "$sim")" \
  "simulator adds $(python3 -c "print(f'{($sim - $native) * 1000:.1f} ms')")"

echo "== ota system apply (peak memory)"
"$bin/ota-publish" kernel --build 20260301 --commit a1b2c3d4e5 --size 4000000 --out "$work/kernel.mb" >/dev/null
head -c 2000000 /dev/urandom >"$work/prog"
mkdir -p "$src/system"
"$bin/ota-publish" system --key "$work/key.key" --out "$src/system/stable" --build 20260301 --commit a1b2c3d4e5 \
  --kernel "$work/kernel.mb" --gzip-kernel --file "prog=$work/prog:gz" >/dev/null
"$bin/tavi-sim" add "$dev" repo http://bench.example/system "$src/system"
sh -c "$reset_device"
"$bin/tavi-sim" run "$dev" -- system apply >/dev/null
system_rss=$(awk -F'\t' '$2 == "start" && $5 == "system" {p = $3} $2 == "exit" && $3 == p {split($5, a, "="); m = a[2]} END {print m}' "$dev/events.log")

size_bytes=$(stat -c %s "$bin/ota")
row "ota binary, stripped" "$size_bytes bytes" "budget 65536 bytes" "$(ratio "$size_bytes" 65536)x the budget"
row "ota apply, peak resident memory" "${apply_rss} KiB" "budget 256 KiB" "$(ratio "$apply_rss" 256)x the budget"
row "ota system apply, peak resident memory" "${system_rss} KiB" "budget 256 KiB" "$(ratio "$system_rss" 256)x the budget"

{
  echo "Measured $(date -u +%Y-%m-%d) on $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores."
  echo
  echo "| what | ours | anchor | ratio |"
  echo "|---|---|---|---|"
  printf '%s\n' "${rows[@]}"
} | tee "$out"

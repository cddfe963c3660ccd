#!/usr/bin/env bash
# Every benchmark in one run, each beside the tool people would use instead, as tables
# written to build-bench/results.md.
#
#   bench/run.sh              measure and print the tables
#   bench/run.sh --write-doc  also put them into docs/performance.md, between its
#                             "bench/run.sh: begin" and "end" marks
#
# Environment: OTA_BENCH_FILE_MIB=1024 sets the size of the hashed file, OTA_BENCH_RUNS=10
# the runs of each whole-process figure, OTA_BENCH_NEW_CORPUS=1 makes the gunzip corpus
# afresh (it is kept in build-bench/ between runs, since making it takes a while).
#
# Whole-process figures are medians over interleaved runs (bench/measure.py): wall-clock
# time, and the user and system time the kernel charged to the process and its threads
# and children. On a machine shared with other work the wall time grows with the load and
# the processor time much less, so the tables give both, and the load average seen while
# measuring. Nothing here is a pass/fail test.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
write_doc=0
case "${1:-}" in
  --write-doc) write_doc=1 ;;
  "") ;;
  *) echo "usage: bench/run.sh [--write-doc]" >&2; exit 2 ;;
esac
file_mib=${OTA_BENCH_FILE_MIB:-1024}
runs=${OTA_BENCH_RUNS:-10}
# The size budget has one home, the check every build runs.
budget_bytes=$(sed -n 's/^budget=\([0-9]*\)$/\1/p' scripts/check-binary.sh)
memory_budget_kib=256

# What only the benchmarks need, besides what scripts/setup.sh installs for the build.
bash scripts/setup.sh \
  "libbenchmark-dev=Google Benchmark, the micro-benchmarks' harness" \
  "libsodium-dev=libsodium, compared with our Ed25519 verification" \
  "libdeflate-dev=libdeflate, compared with our gunzip in the same process" \
  "libdeflate-tools=libdeflate-gunzip, compared with our gunzip as a whole process" \
  "python3=runs and reads the measurements (bench/measure.py)" \
  "tar=packs the gunzip corpus from files installed on this machine"
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOTA_BENCH=ON -DOTA_TESTS=OFF >/dev/null
cmake --build build-bench -j 2 >/dev/null
bin=$top/build-bench/bin
out=$top/build-bench/results.md
work=$(mktemp -d /tmp/ota-bench-XXXXXX)
loads=$work/loads
# The one-minute load average every five seconds while measuring.
(while :; do cut -d' ' -f1 /proc/loadavg >>"$loads"; sleep 5; done) &
sampler=$!
trap 'kill "$sampler" 2>/dev/null || true; rm -rf "$work"' EXIT
started=$(date -u '+%Y-%m-%d %H:%M UTC')
load_before=$(cut -d' ' -f1-3 /proc/loadavg)

py() { python3 -c "$@"; }
micro_rows=()
whole_rows=()
other_rows=()
micro_row() { micro_rows+=("| $1 | $2 | $3 | $4 |"); }
measure() {  # measure NAME [--prepare NAME=CMD]... NAME=CMD...: medians into $work/NAME.json
  local name=$1
  shift
  python3 bench/measure.py "$work/$name.json" "$runs" "$@"
}
# whole_rows_of NAME WHAT LABEL=KEY...: one table row per command, the first one ours;
# the last column is ours' user + system time divided by the command's.
whole_rows_of() {
  local name=$1 what=$2
  shift 2
  local row
  while IFS= read -r row; do whole_rows+=("$row"); done < <(python3 - "$work/$name.json" "$what" "$@" <<'EOF'
import json, sys
data = json.load(open(sys.argv[1]))
what = sys.argv[2]
pairs = [a.split("=", 1) for a in sys.argv[3:]]
ours = data[pairs[0][1]]["median_cpu"]
for i, (label, key) in enumerate(pairs):
    d = data[key]
    ratio = "1" if i == 0 else f"{ours / d['median_cpu']:.2f}x"
    print(f"| {what if i == 0 else ''} | {label} | {d['median_wall']:.3f} s | {d['median_user']:.3f} s "
          f"| {d['median_system']:.3f} s | {d['median_cpu']:.3f} s | {ratio} |")
EOF
  )
}

echo "== gunzip corpus: a tar of /usr/bin and /usr/share/doc, gzip -6"
corpus=$top/build-bench/corpus/usr.tar
if [ "${OTA_BENCH_NEW_CORPUS:-0}" = 1 ] || [ ! -f "$corpus.gz" ]; then
  mkdir -p "$(dirname "$corpus")"
  tar --sort=name -cf "$corpus" -C / usr/bin usr/share/doc 2>/dev/null || [ -s "$corpus" ]
  gzip -6 -f "$corpus"
fi
corpus_plain=$(gzip -l "$corpus.gz" | awk 'NR == 2 { print $2 }')
corpus_packed=$(stat -c %s "$corpus.gz")
# gzip -l reports the size modulo 4 GiB; the corpus stays well below that.
corpus_what="gunzip of $((corpus_plain / 1000000)) MB of /usr/bin and /usr/share/doc ($((corpus_packed / 1000000)) MB, gzip -6)"

echo "== micro-benchmarks (Google Benchmark, same process)"
OTA_GUNZIP_INPUT=$corpus.gz "$bin/ota_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
  --benchmark_out="$work/micro.json" --benchmark_out_format=json \
  --benchmark_filter='Sha256|Ed25519|Gunzip|CatalogWalk' >/dev/null 2>"$work/micro.err" ||
  { cat "$work/micro.err" >&2; exit 1; }
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
ratio() { py "import sys; print(f'{float(sys.argv[1]) / float(sys.argv[2]):.2f}')" "$1" "$2"; }
for size in 65536 1048576; do
  ours=$(micro "BM_Sha256_Ours_ShaExtensions/$size" bytes_per_second)
  openssl=$(micro "BM_Sha256_OpenSsl/$size" bytes_per_second)
  micro_row "SHA-256 in memory, $size bytes" "$(py "print(f'{$ours/1e6:.0f} MB/s')")" \
    "OpenSSL EVP_Digest $(py "print(f'{$openssl/1e6:.0f} MB/s')")" "$(ratio "$ours" "$openssl")x throughput"
done
ours=$(micro "BM_Ed25519Verify_Ours/64" cpu_time)
openssl=$(micro "BM_Ed25519Verify_OpenSsl/64" cpu_time)
sodium=$(micro "BM_Ed25519Verify_Libsodium/64" cpu_time)
micro_row "Ed25519 verify, 64-byte message" "$(py "print(f'{$ours/1e3:.1f} us')")" \
  "OpenSSL $(py "print(f'{$openssl/1e3:.1f} us')"), libsodium $(py "print(f'{$sodium/1e3:.1f} us')")" \
  "$(ratio "$ours" "$openssl")x OpenSSL's time, $(ratio "$ours" "$sodium")x libsodium's"
for kind in 0 1; do
  ours=$(micro "BM_CatalogWalk_InOrder/$kind" cpu_time)
  scan=$(micro "BM_CatalogWalk_FromTheTop/$kind" cpu_time)
  what=$([ "$kind" = 0 ] && echo "277 package lines" || echo "4677 shortest package lines")
  micro_row "walk of a 32 KiB catalog, $what" "$(py "print(f'{$ours:.1f} us')")" \
    "every lookup from the top $(py "print(f'{$scan:.0f} us')")" "$(py "print(f'{$scan / $ours:.0f}')")x faster"
done
ours=$(micro BM_Gunzip_Ota bytes_per_second)
zlib=$(micro BM_Gunzip_Zlib bytes_per_second)
deflate=$(micro BM_Gunzip_Libdeflate bytes_per_second)
micro_row "gunzip in memory, the /usr corpus" "$(py "print(f'{$ours/1e6:.0f} MB/s')")" \
  "zlib $(py "print(f'{$zlib/1e6:.0f} MB/s')"), libdeflate $(py "print(f'{$deflate/1e6:.0f} MB/s')")" \
  "$(ratio "$ours" "$zlib")x zlib, $(ratio "$ours" "$deflate")x libdeflate"

echo "== gunzip of the corpus (whole process)"
measure gunzip ours="$bin/gunzip_tool $corpus.gz /dev/null" libdeflate="libdeflate-gunzip -c $corpus.gz" \
  pigz="pigz -dc $corpus.gz" gzip="gzip -dc $corpus.gz"
whole_rows_of gunzip "$corpus_what" "ours, \`gunzip_tool\`=ours" "\`libdeflate-gunzip -c\`=libdeflate" \
  "\`pigz -dc\`=pigz" "\`gzip -dc\`=gzip"

echo "== gunzip of a synthetic corpus (whole process)"
synthetic=$work/synthetic
python3 - "$synthetic" <<'EOF'
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
gzip -6 -f "$synthetic"
mb=$(( $(stat -c %s "$synthetic.gz") / 1000000 ))
plain_mb=$(( $(gzip -l "$synthetic.gz" | awk 'NR == 2 { print $2 }') / 1000000 ))
measure synthetic ours="$bin/gunzip_tool $synthetic.gz /dev/null" libdeflate="libdeflate-gunzip -c $synthetic.gz" \
  pigz="pigz -dc $synthetic.gz"
whole_rows_of synthetic "extra: gunzip of $plain_mb MB of a synthetic corpus ($mb MB; long repeats, random and stored blocks)" \
  "ours, \`gunzip_tool\`=ours" "\`libdeflate-gunzip -c\`=libdeflate" "\`pigz -dc\`=pigz"
rm -f "$synthetic.gz"

echo "== SHA-256 of a ${file_mib} MiB file (whole process)"
big=$work/big.bin
head -c $((file_mib * 1048576)) /dev/urandom >"$big"
measure sha ours="$bin/sha256_tool $big" openssl="openssl dgst -sha256 $big" sha256sum="sha256sum $big"
whole_rows_of sha "SHA-256 of a ${file_mib} MiB file" "ours, \`sha256_tool\`=ours" "\`openssl dgst -sha256\`=openssl" \
  "\`sha256sum\`=sha256sum"
rm -f "$big"

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
measure apply --prepare "ours=sh -c '$reset_device'" ours="$bin/tavi-sim run $dev -- apply" \
  --prepare "anchor=sh -c 'rm -rf $work/copy/*'" \
  anchor="sh -c 'for f in $work/pkgs/*.tpk; do sha256sum \$f >/dev/null; cp \$f $work/copy/; done'"
whole_rows_of apply "ota apply, 10 packages of 10 MB, in the simulator" "ours, \`tavi-sim run DEV -- apply\`=ours" \
  "\`sha256sum\` and \`cp\` of the same files=anchor"
apply_rss=$(awk -F'\t' '$2 == "start" && $5 == "apply" {p = $3} $2 == "exit" && $3 == p {split($5, a, "="); m = a[2]} END {print m}' "$dev/events.log")

echo "== ota show (whole process)"
measure show native="chroot $dev/root /bin/ota show" simulator="$bin/tavi-sim run $dev -- show"
whole_rows_of show "ota show" "ours, \`chroot DEV/root /bin/ota show\`=native" "the same through \`tavi-sim run\`=simulator"

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
other_rows+=("| ota binary, stripped | $size_bytes bytes | budget $budget_bytes bytes | $((budget_bytes - size_bytes)) bytes to spare |")
other_rows+=("| ota apply, peak resident memory | ${apply_rss} KiB | budget $memory_budget_kib KiB | $(ratio "$apply_rss" "$memory_budget_kib")x the budget |")
other_rows+=("| ota system apply, peak resident memory | ${system_rss} KiB | budget $memory_budget_kib KiB | $(ratio "$system_rss" "$memory_budget_kib")x the budget |")

kill "$sampler" 2>/dev/null || true
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
load_range=$(sort -n "$loads" | sed -n '1p;$p' | paste -sd' ')
{
  echo "Measured $started on $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores;"
  echo "$runs runs of each whole-process figure. Load average (1, 5, 15 minutes) $load_before at the"
  echo "start and $load_after at the end; the one-minute figure, sampled every 5 s, stayed between"
  echo "${load_range% *} and ${load_range#* } (the benchmark itself accounts for about 1 of it)."
  echo
  echo "In the same process (Google Benchmark, medians of 5 repetitions, per second of processor time):"
  echo
  echo "| what | ours | anchor | ratio |"
  echo "|---|---|---|---|"
  printf '%s\n' "${micro_rows[@]}"
  echo
  echo "Whole processes (medians; user and system are the processor time charged to the process,"
  echo "its threads and its children; the last column is our user + system time divided by"
  echo "that row's, so below 1 means ours used less):"
  echo
  echo "| what | program | wall | user | system | user + system | ours / this |"
  echo "|---|---|---|---|---|---|---|"
  printf '%s\n' "${whole_rows[@]}"
  echo
  echo "Size and memory:"
  echo
  echo "| what | ours | budget | against the budget |"
  echo "|---|---|---|---|"
  printf '%s\n' "${other_rows[@]}"
} | tee "$out"

if [ "$write_doc" = 1 ]; then
  python3 - docs/performance.md "$out" <<'EOF'
import sys
doc_path, table_path = sys.argv[1], sys.argv[2]
doc = open(doc_path).read()
begin, end = "<!-- bench/run.sh: begin -->\n", "<!-- bench/run.sh: end -->\n"
if begin not in doc or end not in doc:
    sys.exit(f"{doc_path} lacks the marks {begin.strip()} and {end.strip()}")
head, rest = doc.split(begin, 1)
_, tail = rest.split(end, 1)
open(doc_path, "w").write(head + begin + open(table_path).read() + end + tail)
EOF
  echo "bench: the tables are in docs/performance.md"
fi

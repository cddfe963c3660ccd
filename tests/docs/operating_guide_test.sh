#!/usr/bin/env bash
# The operating guide's commands, run as written. Every ```sh block of the guide is taken
# in order; each command (continuation lines joined) runs with ota-publish and tavi-sim on
# PATH in one scratch directory, and any non-zero exit fails the test with the guide's line
# number. Input files the guide only names (anything under build/ or release/ that no
# command made) are created as small placeholders first (a kernel image, *.mb, as a
# stand-in kernel from `ota-publish kernel`). Lines that deploy to a server or
# build the project (rsync, scp, ssh, curl, cmake) are skipped and listed.
#
# Then simulated devices take what the guide published, to show that devices do what the
# guide says they do: they accept a release, remember a withdrawn version and refuse it
# afterwards, follow a key change and the spare key, and stage a system build.
#
#   operating_guide_test.sh GUIDE BINDIR
#
# GUIDE is docs/operating.md; BINDIR holds ota-publish, tavi-sim and ota. The scratch
# directory is removed afterwards unless OTA_DOCS_KEEP=1.
set -uo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 GUIDE BINDIR" >&2
  exit 2
fi
guide=$(realpath "$1")
bindir=$(realpath "$2")
for tool in ota-publish tavi-sim ota; do
  if [ ! -x "$bindir/$tool" ]; then
    echo "FAIL: $bindir/$tool is missing; build the project first" >&2
    exit 1
  fi
done
export PATH="$bindir:$PATH"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/operating-guide-XXXXXX")
if [ "${OTA_DOCS_KEEP:-0}" = 1 ]; then
  echo "scratch directory kept: $scratch"
else
  trap 'rm -rf "$scratch"' EXIT
fi
cd "$scratch" || exit 1

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# --- The guide's commands, as written ---------------------------------------------

# One record per command: "CMD", the sh block's number, the guide's line number and the
# command with its continuation lines joined, TAB-separated. A ```text block that follows a
# sh block with nothing but blank lines between holds lines that block must print; each
# becomes an "EXPECT" record of that block.
records=$(awk '
  BEGIN { OFS = "\t" }
  /^```sh[ \t]*$/ { mode = "sh"; block++; have = 0; next }
  /^```text[ \t]*$/ { mode = (follows == block && block > 0) ? "text" : "other"; next }
  /^```/ {
    if (mode == "sh" && !have) print "EMPTY", block, NR, ""
    if (mode == "sh") follows = block; else follows = 0
    mode = ""; next
  }
  mode == "" { if ($0 !~ /^[ \t]*$/) follows = 0; next }
  mode == "text" { print "EXPECT", block, NR, $0; next }
  mode != "sh" { next }
  {
    line = $0
    if (pending) { text = text " " line } else { start = NR; text = line }
    if (line ~ /\\[ \t]*$/) { sub(/\\[ \t]*$/, "", text); pending = 1; next }
    pending = 0
    if (text ~ /^[ \t]*(#.*)?$/) next
    print "CMD", block, start, text
    have = 1
  }
  END { if (mode != "") print "UNCLOSED", block, NR, "" }
' "$guide")

# Creates the input files a command names but no earlier command made.
make_placeholders() {
  local cmd=$1 word previous="" path
  for word in $cmd; do
    if [ "$previous" != "--out" ]; then
      while read -r path; do
        [ -z "$path" ] && continue
        if [ ! -e "$path" ]; then
          mkdir -p "$(dirname "$path")"
          if [[ "$path" == *.mb ]]; then
            # A kernel image must carry the multiboot1 header the boot loader needs, or
            # the publisher refuses it; the stand-in carries one as a real kernel does.
            ota-publish kernel --build 1 --commit placeholder --out "$path" >/dev/null
          else
            printf 'placeholder for %s, made by the operating guide test\n' "$path" >"$path"
          fi
          echo "  (placeholder $path)"
        fi
      done < <(grep -oE '(^|[=:])(build|release)/[A-Za-z0-9._+~/-]+' <<<"$word" | sed -E 's/^[=:]//')
    fi
    previous=$word
  done
}

# Keeps a copy of every source directory each time it offers a new version or build, so
# that devices can be shown an older catalog after a newer one. A source built unsigned is
# copied again once its signature is there.
snapshot_sources() {
  local listing dir key
  while read -r listing; do
    dir=$(dirname "$listing")
    key=$(awk -F'\t' '$1 == "fassung" { print "version-" $2; exit } $1 == "system" { print "build-" $2; exit }' "$listing")
    [ -z "$key" ] && continue
    key="$(echo "${dir#./}" | tr '/' '_')@$key"
    if [ -d "snap/$key" ] && { [ -e "snap/$key/VERZEICHNIS.sig" ] || [ ! -e "$dir/VERZEICHNIS.sig" ]; }; then
      continue
    fi
    rm -rf "snap/$key"
    mkdir -p snap && cp -a "$dir" "snap/$key"
  done < <(find . -path ./snap -prune -o -path ./.guide-output -prune -o -path '*/root' -prune -o -name VERZEICHNIS -print)
}

# A command that hangs fails the test instead of holding it; every command of the guide
# takes seconds at most.
limit=${OTA_DOCS_COMMAND_LIMIT:-120}
ran=0
skipped=0
expected=0
mkdir -p .guide-output
while IFS=$'\t' read -r kind block number cmd; do
  case "$kind" in
    EMPTY) fail "the \`\`\`sh block ending at line $number of the guide holds no command"; continue ;;
    UNCLOSED) fail "a code block of the guide is never closed"; continue ;;
    EXPECT)
      expected=$((expected + 1))
      if ! grep -qxF -- "$cmd" ".guide-output/$block" 2>/dev/null; then
        fail "line $number of the guide: the block before it never printed \"$cmd\""
        sed 's/^/    /' ".guide-output/$block" >&2 2>/dev/null
      fi
      continue
      ;;
  esac
  first=$(awk '{ print $1 }' <<<"$cmd")
  case "$first" in
    rsync | scp | ssh | curl | cmake)
      echo "skip (line $number): $cmd"
      skipped=$((skipped + 1))
      continue
      ;;
  esac
  echo "run  (line $number): $cmd"
  make_placeholders "$cmd"
  status=0
  timeout -k 5 "$limit" bash -c "$cmd" </dev/null >.guide-output/last 2>&1 || status=$?
  if [ "$status" = 124 ] || [ "$status" = 137 ]; then
    fail "line $number of the guide did not finish within $limit s: $cmd"
    sed 's/^/    /' .guide-output/last >&2
    break
  fi
  if [ "$status" != 0 ]; then
    fail "line $number of the guide exits $status: $cmd"
    sed 's/^/    /' .guide-output/last >&2
    break
  fi
  cat .guide-output/last >>".guide-output/$block"
  snapshot_sources
  ran=$((ran + 1))
done <<<"$records"

echo "guide: $ran command(s) ran, $skipped skipped, $expected output line(s) checked"
if [ "$ran" -lt 20 ] || [ "$expected" -lt 5 ]; then
  fail "only $ran command(s) and $expected output line(s) of the guide were found; the guide or its extraction lost them"
fi
if [ "$failures" -ne 0 ]; then
  echo "operating guide test: FAILED ($failures)" >&2
  exit 1
fi

# --- What devices do with what the guide published ------------------------------

url=https://updates.example/tavi/aktuell
sysurl=https://updates.example/tavi/system/stable

snap() {
  if [ ! -d "snap/$1" ]; then
    fail "the guide never published $1 (snapshots: $(ls snap | tr '\n' ' '))"
    return 1
  fi
  echo "$scratch/snap/$1"
}

# new_device NAME PACKAGE-SOURCE SYSTEM-SOURCE TRUSTED [SPARE]: a fresh device at version 1
# and system build 20241001 that trusts TRUSTED, with automatic search off.
new_device() {
  local dev=devices/$1
  tavi-sim init "$dev" --esp sda1 >/dev/null || return 1
  [ -n "$2" ] && tavi-sim add "$dev" repo "$url" "$2"
  [ -n "$3" ] && tavi-sim add "$dev" repo "$sysurl" "$3"
  cp "$4" "$dev/root/system/schluessel.pub"
  [ -n "${5:-}" ] && cp "$5" "$dev/root/system/ersatz.pub"
  printf '00000001\n' >"$dev/root/system/FASSUNG"
  printf '20241001\n' >"$dev/root/system/SYSVERSION"
  printf 'quelle=%s\nauto=nein\n' "$url" >"$dev/root/etc/ota.conf"
}

# device_run NAME EXPECTED-STATUS WORDS...: runs ota in the device; the status must match.
# Its standard output and error are left in $out.
device_run() {
  local name=$1 expected=$2 status=0
  shift 2
  out=$(timeout -k 5 "$limit" tavi-sim run "devices/$name" -- "$@" 2>&1) || status=$?
  if [ "$status" != "$expected" ]; then
    fail "device $name: \`ota $*\` exited $status, expected $expected"
    printf '%s\n' "$out" | sed 's/^/    /' >&2
    return 1
  fi
}

expect_line() {
  if ! grep -qxF -- "$2" <<<"$out"; then
    fail "$1: no line \"$2\" in:"
    printf '%s\n' "$out" | sed 's/^/    /' >&2
  fi
}

expect_file() {
  local actual
  actual=$(cat "devices/$2" 2>/dev/null)
  if [ "$actual" != "$3" ]; then
    fail "$1: devices/$2 holds \"$actual\", expected \"$3\""
  fi
}

expect_same() {
  if ! cmp -s "devices/$2" "$3"; then fail "$1: devices/$2 differs from $3"; fi
}

keys=$scratch/keys
v12=$(snap out_pakete@version-12) || exit 1
v13=$(snap out_pakete@version-13) || exit 1
v14=$(snap out_pakete@version-14) || exit 1
v15=$(snap out_pakete@version-15) || exit 1
system=$(snap out_system@build-20250110) || exit 1

# A package release: offered, its tavi packages listed, installed by apply.
new_device release "$v12" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run release 0 search; then
  expect_line "search of version 12" "ota: NEW VERSION available"
  expect_line "search of version 12" "ota: package editor 2.4.1 tavi-x86_64"
  expect_line "search of version 12" "ota: package fonts 1.0 tavi-any"
  expect_line "search of version 12" "ota: hidden, for other platforms: 1"
fi
if device_run release 0 apply; then
  expect_line "apply of version 12" "ota: READY FOR RESTART -- it will NOT"
  expect_file "apply of version 12" release/root/system/FASSUNG "00000012"
fi

# A withdrawn version: the device learns it from version 13 and refuses version 12 for
# good, even when the older catalog is served again.
new_device withdrawn "$v13" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run withdrawn 0 search; then
  expect_line "search of version 13" "ota: blocked versions: 12"
  expect_file "search of version 13" withdrawn/root/system/GESPERRT "00000012"
fi
tavi-sim set devices/withdrawn repo "$url" "$v12"
if device_run withdrawn 1 search; then
  expect_line "version 12 replayed" "ota: VERSION BLOCKED -- REJECTED, offered 12"
fi

# A key change: a device at generation 0 takes release-2, and stores it only with the
# catalog verified.
new_device rotated "$v14" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run rotated 0 search; then
  expect_line "key change to generation 1" "ota: KEY CHANGE accepted, new generation 1"
  expect_same "key change to generation 1" rotated/root/system/schluessel.pub "$keys/release-2.pub"
  expect_file "key change to generation 1" rotated/root/system/SCHLUESSELGEN "00000001"
fi

# The spare key: a device at generation 0 walks both steps, the second signed by the spare
# key; a device without the spare key refuses the catalog and keeps its key.
new_device spare "$v15" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run spare 0 search; then
  expect_line "spare-key step" "ota: KEY CHANGE accepted, new generation 2"
  expect_same "spare-key step" spare/root/system/schluessel.pub "$keys/release-3.pub"
fi
new_device nospare "$v15" "" "$keys/release-1.pub"
if device_run nospare 1 search; then
  expect_line "no spare key" "ota: KEY CHANGE: the chain is BROKEN -- REJECTED"
  expect_same "no spare key" nospare/root/system/schluessel.pub "$keys/release-1.pub"
fi

# Keys in a token: a device at generation 0 walks three key changes, the last one to the
# key in the token, and takes version 16, signed in the token; version 17, built unsigned
# and signed through the token afterwards, is installed like any other.
v16=$(snap out_pakete@version-16) || exit 1
v17=$(snap out_pakete@version-17) || exit 1
new_device token "$v16" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run token 0 search; then
  expect_line "token key change" "ota: KEY CHANGE accepted, new generation 3"
  expect_same "token key change" token/root/system/schluessel.pub "$keys/token-1.pub"
  expect_file "token key change" token/root/system/SCHLUESSELGEN "00000003"
fi
new_device offline "$v17" "" "$keys/release-1.pub" "$keys/spare.pub"
if device_run offline 0 apply; then
  expect_line "offline-signed version 17" "ota: READY FOR RESTART -- it will NOT"
  expect_file "offline-signed version 17" offline/root/system/FASSUNG "00000017"
fi

# A system release: offered to a device at min_from, too old for one below it, and staged
# in slot B with its overlay files, gzip variants and trust roots.
new_device system "" "$system" "$keys/release-1.pub" "$keys/spare.pub"
if device_run system 0 system search; then
  expect_line "system search" "system: update available"
fi
if device_run system 0 system apply; then
  expect_line "system apply" "system: trust roots updated"
  expect_line "system apply" "system: overlay files verified: 4"
  expect_line "system apply" "system: staged in slot B, restart to install"
  expect_same "system apply" system/rootsctl/applied.pem "$scratch/release/roots.pem"
fi
new_device tooold "" "$system" "$keys/release-1.pub" "$keys/spare.pub"
printf '20240901\n' >devices/tooold/root/system/SYSVERSION
if device_run tooold 2 system search; then
  expect_line "device below min_from" "ota: this system is too old for an incremental update (min_from): 20241001"
fi

if [ "$failures" -ne 0 ]; then
  echo "operating guide test: FAILED ($failures)" >&2
  exit 1
fi
echo "operating guide test: passed ($ran guide commands, device checks included)"

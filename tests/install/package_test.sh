#!/usr/bin/env bash
# The Debian packages, as a person who installs them gets them: CPack makes both packages
# from the build, their control fields, contents, copyright and changelog are checked, the
# host package's dependencies are compared with the libraries its programs load, and both
# packages are unpacked into a scratch root (dpkg -x) from which the installed programs
# publish an update source and update a simulated device, with nothing from the build tree.
#
#   package_test.sh SOURCE_DIR BUILD_DIR VERSION REVISION MAINTAINER
#
# The simulator needs root, like the end-to-end tests. The scratch directory is removed
# afterwards unless OTA_INSTALL_KEEP=1.
set -uo pipefail

if [ $# -ne 5 ]; then
  echo "usage: $0 SOURCE_DIR BUILD_DIR VERSION REVISION MAINTAINER" >&2
  exit 2
fi
source_dir=$(realpath "$1")
build=$(realpath "$2")
version=$3
revision=$4
maintainer=$5
package_version=$version-$revision
arch=$(dpkg --print-architecture)

source "$(dirname "$0")/checks.sh" ota-package

# --- Making the packages ------------------------------------------------------------

if ! cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages" >"$scratch/cpack.log" 2>&1; then
  cat "$scratch/cpack.log" >&2
  echo "FAIL: cpack could not make the packages" >&2
  exit 1
fi
tools=$scratch/packages/tavi-ota-tools_${package_version}_$arch.deb
device=$scratch/packages/tavi-ota-device_${package_version}_$arch.deb
same "the packages made" "$(printf '%s\n' "$(basename "$device")" "$(basename "$tools")")" \
  "$(cd "$scratch/packages" && ls -1 ./*.deb | sed 's|^\./||')"
if [ ! -f "$tools" ] || [ ! -f "$device" ]; then
  exit 1
fi

# --- Control fields -----------------------------------------------------------------

same "tavi-ota-tools control fields" "Package: tavi-ota-tools
Source: tavi-ota
Version: $package_version
Architecture: $arch
Section: devel
Priority: optional
Maintainer: $maintainer
Recommends: tavi-ota-device (= $package_version)
Suggests: curl, nginx-light | nginx, gnuplot-nox | gnuplot, softhsm2
Description: release tool and device simulator for the tavi update client
 ota is the over-the-air update client of tavi, a small x86-64 operating
 system. This package holds the two programs around it:
 .
 ota-publish builds, signs and checks update sources: Ed25519 keys, signed
 package catalogs, key changes, withdrawn versions, system manifests with
 gzip variants.
 .
 tavi-sim runs the unchanged device program on Linux as the tavi kernel
 would, with its EFI partition, boot loader, restarts and fault injection,
 so that an update source can be tried before a device sees it. It needs
 root (chroot and ptrace)." \
  "$(dpkg-deb -f "$tools" Package Source Version Architecture Section Priority Maintainer Recommends Suggests \
       Description)"
same "tavi-ota-device control fields" "Package: tavi-ota-device
Source: tavi-ota
Version: $package_version
Architecture: $arch
Section: misc
Priority: optional
Maintainer: $maintainer
Description: update client program for tavi devices
 ota is the over-the-air update client of tavi, a small x86-64 operating
 system: signed package updates and A/B system image updates with trials,
 a watchdog and rollback.
 .
 This package holds the device program, one static executable without a C
 library, in /usr/lib/tavi/ota, from where a device image takes it as
 /bin/ota and where tavi-sim finds it. It is not meant to be run on the
 machine it is installed on." \
  "$(dpkg-deb -f "$device" Package Source Version Architecture Section Priority Maintainer Description)"
same "tavi-ota-device's dependencies" "" "$(dpkg-deb -f "$device" Depends Pre-Depends Recommends)"

# --- Contents -----------------------------------------------------------------------

contents() { dpkg-deb -c "$1" | awk '{ print $1, $2, $6 }'; }
same "tavi-ota-tools contents" "drwxr-xr-x root/root ./usr/
drwxr-xr-x root/root ./usr/bin/
-rwxr-xr-x root/root ./usr/bin/ota-publish
-rwxr-xr-x root/root ./usr/bin/tavi-sim
drwxr-xr-x root/root ./usr/share/
drwxr-xr-x root/root ./usr/share/doc/
drwxr-xr-x root/root ./usr/share/doc/tavi-ota-tools/
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/changelog.Debian.gz
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/copyright
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/fleet.md
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/formats.md
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/operating.md
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/ota-guide.md
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-tools/simulator.md
drwxr-xr-x root/root ./usr/share/lintian/
drwxr-xr-x root/root ./usr/share/lintian/overrides/
-rw-r--r-- root/root ./usr/share/lintian/overrides/tavi-ota-tools
drwxr-xr-x root/root ./usr/share/man/
drwxr-xr-x root/root ./usr/share/man/man1/
-rw-r--r-- root/root ./usr/share/man/man1/ota-publish.1.gz
-rw-r--r-- root/root ./usr/share/man/man1/tavi-sim.1.gz" "$(contents "$tools")"
same "tavi-ota-device contents" "drwxr-xr-x root/root ./usr/
drwxr-xr-x root/root ./usr/lib/
drwxr-xr-x root/root ./usr/lib/tavi/
-rwxr-xr-x root/root ./usr/lib/tavi/ota
drwxr-xr-x root/root ./usr/share/
drwxr-xr-x root/root ./usr/share/doc/
drwxr-xr-x root/root ./usr/share/doc/tavi-ota-device/
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-device/changelog.Debian.gz
-rw-r--r-- root/root ./usr/share/doc/tavi-ota-device/copyright
drwxr-xr-x root/root ./usr/share/lintian/
drwxr-xr-x root/root ./usr/share/lintian/overrides/
-rw-r--r-- root/root ./usr/share/lintian/overrides/tavi-ota-device
drwxr-xr-x root/root ./usr/share/man/
drwxr-xr-x root/root ./usr/share/man/man1/
-rw-r--r-- root/root ./usr/share/man/man1/ota.1.gz" "$(contents "$device")"

# --- Unpacked into a scratch root ---------------------------------------------------

root=$scratch/root
mkdir -p "$root"
dpkg -x "$tools" "$root" || fail "dpkg -x $tools"
dpkg -x "$device" "$root" || fail "dpkg -x $device"
bin=$root/usr/bin

# The device program is the file the build made, byte for byte: packaging never strips or
# otherwise touches it.
cmp -s "$root/usr/lib/tavi/ota" "$build/bin/ota" || fail "the packaged device program differs from $build/bin/ota"

# The host programs are stripped, and every library they load comes from a package the
# host package depends on (what dpkg-shlibdeps found), besides the programs tavi-sim runs.
depends=$(dpkg-deb -f "$tools" Depends)
depends_on() {  # depends_on PACKAGE: PACKAGE is one of the host package's dependencies
  local item
  while read -r item; do
    [ "${item%% *}" = "$1" ] && return 0
  done < <(tr ',' '\n' <<<"$depends" | sed 's/^ *//')
  return 1
}
libraries=0
for program in ota-publish tavi-sim; do
  if readelf -S "$bin/$program" | grep -q '\.symtab'; then fail "$program is not stripped"; fi
  for library in $(readelf -d "$bin/$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    libraries=$((libraries + 1))
    path=$(ldconfig -p | awk -v l="$library" '$1 == l && /x86-64/ { print $NF; exit }')
    owner=$(dpkg -S "$(realpath "$path")" 2>/dev/null | head -1 | cut -d: -f1)
    [ -n "$owner" ] || owner=$(dpkg -S "$path" 2>/dev/null | head -1 | cut -d: -f1)
    if [ -z "$owner" ]; then
      fail "$program loads $library, which no installed package holds"
    elif ! depends_on "$owner"; then
      fail "$program loads $library from $owner, which is not among the dependencies: $depends"
    fi
  done
  if grep -qF "$build" "$bin/$program"; then fail "$program names the build directory $build"; fi
done
[ "$libraries" -gt 0 ] || fail "readelf found no library that the host programs load"
for tool in dosfstools mtools; do
  depends_on "$tool" || fail "tavi-sim runs $tool's programs, but it is not among the dependencies: $depends"
done

# Copyright: machine-readable, MIT, with the licence text of LICENSE.
for package in tavi-ota-tools tavi-ota-device; do
  copyright=$root/usr/share/doc/$package/copyright
  same "$package copyright header" "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ota" "$(head -2 "$copyright")"
  same "$package licence of every file" "Files: *
Copyright: 2026 The tavi ota developers
License: MIT" "$(sed -n '/^Files: \*$/,/^$/p' "$copyright" | sed '/^$/d')"
  same "$package licence text" "$(tail -n +5 "$source_dir/LICENSE")" \
    "$(awk '/^License: MIT$/ { n++; next } n == 2' "$copyright" | sed 's/^ //; s/^\.$//')"
  changelog_version=$(zcat "$root/usr/share/doc/$package/changelog.Debian.gz" | dpkg-parsechangelog -l - -S Version)
  same "$package changelog's version" "$package_version" "$changelog_version"
done

# Versions: the project's version, then the commit when built from a checkout.
for program in ota-publish tavi-sim; do
  line=$("$bin/$program" --version)
  if [[ ! $line =~ ^$program\ ${version//./\\.}(\ \(commit\ ([0-9a-f]{12})(,\ modified)?\))?$ ]]; then
    fail "$program --version printed \"$line\""
  elif [ -n "${BASH_REMATCH[2]}" ] && ! git -C "$source_dir" cat-file -e "${BASH_REMATCH[2]}^{commit}" 2>/dev/null; then
    fail "$program --version names a commit this checkout does not have: $line"
  fi
  same "$program --version against the build's" "$("$build/bin/$program" --version)" "$line"
done

# The manual pages render without a warning from where they were installed.
for page in ota ota-publish tavi-sim; do
  warnings=$(MANWIDTH=80 man -l "$root/usr/share/man/man1/$page.1.gz" 2>&1 >/dev/null)
  same "warnings of man -l $page.1.gz" "" "$warnings"
  same "installed $page.1" "$(cat "$source_dir/docs/$page.1")" "$(zcat "$root/usr/share/man/man1/$page.1.gz")"
done

# --- The installed programs at work -------------------------------------------------

work=$scratch/work
mkdir -p "$work/source"
cd "$work" || exit 1
run() {  # run WHAT EXPECTED_STATUS COMMAND...: the output is kept in $out
  local what=$1 expected=$2
  shift 2
  out=$("$@" 2>&1)
  local status=$?
  [ "$status" = "$expected" ] || fail "$what: exit status $status, expected $expected; output: $out"
}
run "ota-publish keygen" 0 "$bin/ota-publish" keygen --out release
head -c 5000 /dev/zero | tr '\0' 'p' >core.tpk
run "ota-publish catalog" 0 "$bin/ota-publish" catalog --key release.key --out source/aktuell --version 2 \
  --package "core:base-system:core.tpk:tavi-x86_64"
run "ota-publish check" 0 "$bin/ota-publish" check source/aktuell --trusted release.pub
same "the last line of ota-publish check" "check: ACCEPTED -- a device would take this source" "$(tail -1 <<<"$out")"

# No --binary: the installed tavi-sim takes the installed device program.
run "tavi-sim init" 0 "$bin/tavi-sim" init dev --esp sda1
cmp -s dev/root/bin/ota "$root/usr/lib/tavi/ota" || fail "tavi-sim init did not copy the installed device program"
run "tavi-sim add repo" 0 "$bin/tavi-sim" add dev repo http://updates.example/aktuell "$work/source/aktuell"
printf 'quelle=http://updates.example/aktuell\n' >dev/root/etc/ota.conf
cp release.pub dev/root/system/schluessel.pub
printf '00000001\n' >dev/root/system/FASSUNG
run "ota search" 0 "$bin/tavi-sim" run dev -- search
same "ota search" "ota: source http://updates.example/aktuell
ota: version here 1
ota: version there 2
ota: NEW VERSION available
ota: platform tavi-x86_64
ota: package core base-system tavi-x86_64" "$out"
run "ota apply" 0 "$bin/tavi-sim" run dev -- apply
same "the end of ota apply" "ota: hash ok core.tpk
ota: applying with tpk core
ota: READY FOR RESTART -- it will NOT
     restart by itself. \`reboot\`." "$(tail -4 <<<"$out")"
same "the version the device has after apply" "00000002" "$(cat dev/root/system/FASSUNG)"

end_on_failures
echo "both packages made, unpacked and used: $(basename "$tools"), $(basename "$device")"

#!/usr/bin/env bash
# `cmake --install BUILD --prefix P` puts every file where the README says, as the build
# made it, and the installed tavi-sim finds the installed device program on its own.
#
#   install_test.sh SOURCE_DIR BUILD_DIR
#
# The simulator needs root, like the end-to-end tests. The scratch directory is removed
# afterwards unless OTA_INSTALL_KEEP=1.
set -uo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 SOURCE_DIR BUILD_DIR" >&2
  exit 2
fi
source_dir=$(realpath "$1")
build=$(realpath "$2")

source "$(dirname "$0")/checks.sh" ota-install

prefix=$scratch/prefix
if ! cmake --install "$build" --prefix "$prefix" >"$scratch/install.log" 2>&1; then
  cat "$scratch/install.log" >&2
  echo "FAIL: cmake --install failed" >&2
  exit 1
fi

same "the installed files" "755 bin
755 bin/ota-publish
755 bin/tavi-sim
755 lib
755 lib/tavi
755 lib/tavi/ota
755 share
755 share/doc
755 share/doc/tavi-ota-device
644 share/doc/tavi-ota-device/changelog.Debian.gz
644 share/doc/tavi-ota-device/copyright
755 share/doc/tavi-ota-tools
644 share/doc/tavi-ota-tools/changelog.Debian.gz
644 share/doc/tavi-ota-tools/copyright
644 share/doc/tavi-ota-tools/fleet.md
644 share/doc/tavi-ota-tools/formats.md
644 share/doc/tavi-ota-tools/operating.md
644 share/doc/tavi-ota-tools/ota-guide.md
644 share/doc/tavi-ota-tools/simulator.md
755 share/lintian
755 share/lintian/overrides
644 share/lintian/overrides/tavi-ota-device
644 share/lintian/overrides/tavi-ota-tools
755 share/man
755 share/man/man1
644 share/man/man1/ota-publish.1.gz
644 share/man/man1/ota.1.gz
644 share/man/man1/tavi-sim.1.gz" "$(cd "$prefix" && find . -mindepth 1 -printf '%m %P\n' | sort -k2)"

# Installed as built: the programs, the guides, the manual pages (compressed).
for program in ota-publish tavi-sim; do
  cmp -s "$prefix/bin/$program" "$build/bin/$program" || fail "bin/$program is not $build/bin/$program"
done
cmp -s "$prefix/lib/tavi/ota" "$build/bin/ota" || fail "lib/tavi/ota is not $build/bin/ota"
for guide in ota-guide operating formats simulator; do
  cmp -s "$prefix/share/doc/tavi-ota-tools/$guide.md" "$source_dir/docs/$guide.md" ||
    fail "share/doc/tavi-ota-tools/$guide.md is not docs/$guide.md"
done
for page in ota ota-publish tavi-sim; do
  same "share/man/man1/$page.1.gz" "$(cat "$source_dir/docs/$page.1")" "$(zcat "$prefix/share/man/man1/$page.1.gz")"
done

# tavi-sim, installed, has no device program beside it and takes the installed one.
cd "$scratch" || exit 1
if ! out=$("$prefix/bin/tavi-sim" init dev 2>&1); then
  fail "the installed tavi-sim init failed: $out"
fi
cmp -s dev/root/bin/ota "$prefix/lib/tavi/ota" || fail "the installed tavi-sim did not take lib/tavi/ota"
out=$("$prefix/bin/tavi-sim" run dev -- settings 2>&1)
same "ota settings in a device made by the installed tavi-sim" "ota: settings (/etc/ota.conf)
  quelle   (not set)
  name     (not set)
  abstand  (not set)
  auto     (not set)
  frist    (not set)
  kanal    (not set)
  gesund   (not set)
  change:   ota set <key> <value>" "$out"

end_on_failures
echo "installed into $prefix as expected"

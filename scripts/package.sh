#!/usr/bin/env bash
# Builds the Debian packages into build/packages/ and checks them with lintian:
#
#   tavi-ota-tools_VERSION-REVISION_ARCH.deb    ota-publish and tavi-sim in /usr/bin, their
#                                               manual pages, the guides; depends on the
#                                               libraries dpkg-shlibdeps finds, dosfstools
#                                               and mtools
#   tavi-ota-device_VERSION-REVISION_ARCH.deb   the device program in /usr/lib/tavi/ota, ota(1)
#
# Install them with `apt install ./build/packages/*.deb`. The packages are made from the
# release build in build/ (configured here if it is not yet), with the host programs
# stripped; the device program is packed exactly as the build made it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh "lintian=checks the packages against Debian's policy"
if [ ! -f build/build.ninja ]; then
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
if grep -q '^OTA_SANITIZE:BOOL=ON' build/CMakeCache.txt; then
  echo "package: build/ is a sanitizer build; packages are made from a release build" >&2
  exit 1
fi
cmake --build build -j 2 --target ota_device ota-publish tavi-sim ota_install_files
bash scripts/check-binary.sh build/bin/ota

rm -rf build/packages
cpack --config build/CPackConfig.cmake -B build/packages >build/packages.log 2>&1 || {
  cat build/packages.log >&2
  exit 1
}
rm -rf build/packages/_CPack_Packages
for deb in build/packages/*.deb; do
  echo
  echo "== $deb"
  dpkg-deb -f "$deb" Package Version Architecture Depends Recommends
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print "  " $6 }'
done
echo
if command -v lintian >/dev/null; then
  # lintian warns whenever it runs as root; that remark is not about the packages.
  if ! report=$(lintian --fail-on error,warning "build/packages/"*.deb 2>&1); then
    grep -v 'running with root privileges' <<<"$report" >&2
    exit 1
  fi
  echo "package: lintian found nothing to report"
else
  echo "package: lintian is not installed; the packages were not checked with it"
fi

# Shared by the install tests: a scratch directory removed at exit (kept with
# OTA_INSTALL_KEEP=1), a count of failed checks, and whole-text comparison.
#
#   source checks.sh NAME     makes $scratch as ${TMPDIR:-/tmp}/NAME-XXXXXX

scratch=$(mktemp -d "${TMPDIR:-/tmp}/$1-XXXXXX")
if [ "${OTA_INSTALL_KEEP:-0}" = 1 ]; then
  echo "scratch directory kept: $scratch"
else
  trap 'rm -rf "$scratch"' EXIT
fi

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
# same WHAT EXPECTED ACTUAL: the whole texts must be equal.
same() {
  if [ "$2" != "$3" ]; then
    fail "$1 differs (expected, then actual):"
    diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") >&2
  fi
}
# Ends the test with status 1 when a check failed.
end_on_failures() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
  fi
}

#!/usr/bin/env bash
# The manual pages must render without a warning, both with mandoc's checker and with man.
set -euo pipefail
cd "$(dirname "$0")/../docs"
pages=(ota.1 ota-publish.1 tavi-sim.1)
lint=$(mandoc -Tlint "${pages[@]}" 2>&1 || true)
if [ -n "$lint" ]; then
  echo "$lint" >&2
  exit 1
fi
for page in "${pages[@]}"; do
  warnings=$(MANWIDTH=80 man -l "$page" 2>&1 >/dev/null || true)
  if [ -n "$warnings" ]; then
    echo "man -l $page: $warnings" >&2
    exit 1
  fi
done
echo "check-docs: ${pages[*]} render cleanly"

#!/usr/bin/env bash
# Runs the Windows build's tests under Wine and says how many ran, passed and were skipped, with
# each skip's reason. On failure the whole log is shown.
# usage: wine-ctest.sh NAME BUILD_DIR [CTEST_ARGS...]
#   SKIPS_FILE   if set, the skip reasons are also written there
set -euo pipefail
name=$1
build=$2
shift 2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
DISPLAY= ctest --test-dir "$build" -V -j 1 "$@" >"$log" 2>&1 || status=$?
if [ $status != 0 ]; then
  cat "$log"
  echo "$name: ctest failed"
  exit $status
fi
count() { { grep -o "\[  $1 *\] [0-9]* test" "$log" || true; } | awk '{s += $4} END {print s + 0}'; }
# gtest prints a skip as "FILE:LINE: Skipped", then the reason on the next line.
reasons=$({ grep -A1 ': Skipped$' "$log" || true; } | { grep -v -e ': Skipped$' -e '^--$' || true; } |
  sed 's/^[0-9]*: //' | sort | uniq -c)
[ -z "${SKIPS_FILE:-}" ] || printf '%s\n' "$reasons" >"$SKIPS_FILE"
[ -z "$reasons" ] || printf 'skipped, with the reason:\n%s\n' "$reasons"
grep -E '^[0-9]+% tests passed|^Total Test time' "$log"
echo "$name: $(count PASSED) passed, $(count SKIPPED) skipped ($(grep -c 'Test *#[0-9]*: ' "$log") programs)"
[ "$(count PASSED)" -gt 0 ]

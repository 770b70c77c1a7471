#!/usr/bin/env bash
# The main job's speed, token to store: COUNT (default 1000) certificates with private keys on a
# SoftHSM2 token are synced into an empty store, then synced again (nothing changes), then listed
# and removed. Prints each phase's wall time and, for the syncs, the store's share (nebra sync
# --timings), with the ratio first/re-sync of store time. RUNS=N re-syncs N times (median).
# usage: bench/sync.sh [BUILD_DIR] [COUNT]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/softhsm.sh
BUILD=${1:-build}
COUNT=${2:-1000}
NEBRA=$BUILD/bin/nebra
work=$(scratch_dir)
trap 'rm -rf "$work"' EXIT
export SOFTHSM2_CONF=$(softhsm_conf "$work") XDG_DATA_HOME=$work/data BENCH_PIN=1234
softhsm2-util --init-token --free --label bench --so-pin 12345678 --pin $BENCH_PIN >/dev/null
"$BUILD/bin/nebra_provision" "$SOFTHSM" bench $BENCH_PIN "$COUNT" --keys

now() { date +%s.%N; }
phase() { # name command...
  local s e
  s=$(now); "${@:2}" >/dev/null 2>"$work/err"; e=$(now)
  printf '%-10s %8.3f s   %s\n' "$1" "$(echo "$e - $s" | bc)" "$(grep timings "$work/err" || true)"
}
storeMs() { sed -n 's/.*stores \([0-9.]*\) ms.*/\1/p' "$work/err"; }
phase "sync" "$NEBRA" sync --module "$SOFTHSM" --csp BENCH --pin-env BENCH_PIN --timings
first=$(storeMs)
# Re-sync RUNS times (default 5; nothing changes): the median store time.
agains=()
for _ in $(seq "${RUNS:-5}"); do
  phase "re-sync" "$NEBRA" sync --module "$SOFTHSM" --csp BENCH --pin-env BENCH_PIN --timings
  agains+=("$(storeMs)")
done
again=$(printf '%s\n' "${agains[@]}" | sort -n | sed -n "$(( (${#agains[@]} + 1) / 2 ))p")
phase "list" "$NEBRA" list --csp BENCH --json
phase "remove" "$NEBRA" remove --csp BENCH
echo "store time: first sync ${first} ms, re-sync ${again} ms (median of ${#agains[@]})," \
  "ratio $(echo "scale=1; $first / $again" | bc)x (target >= 5x, first < 1000 ms)"

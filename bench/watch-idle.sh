#!/usr/bin/env bash
# What an idle nebra watch costs on the emulated card stack with two cards in (scripts/cardstack.sh,
# OpenSC's module): the CPU it uses and the APDUs the cards get over SECONDS (default 60) at the
# default interval, kept loaded (the default) against --reload (unload and load the module each
# interval), with the ratio; then the time from a card's insertion to its certificate in the
# store, five times.
# usage: bench/watch-idle.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin} LC_ALL=C.UTF-8
BUILD=$(cd "${1:-build}" && pwd)
SECONDS_IDLE=${2:-60}
MODULE=/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so
export NEBRA_CARDBRIDGE=$BUILD/bin/nebra_cardbridge
work=$(mktemp -d /tmp/nebra-watch-bench.XXXXXX)
watcher=
cleanup() {
  [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || true
  bash scripts/cardstack.sh stop "$work/stack" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/stack"
bash scripts/cardstack.sh start "$work/stack" --cards 2 >/dev/null
eval "$(bash scripts/cardstack.sh env "$work/stack")"
export PIN XDG_DATA_HOME=$work/data
PIN=$(head -1 "$work/stack/pin")

apdus() { sed -n 's/.*apdus=\([0-9]*\).*/\1/p' "$work/stack/card1/counters" "$work/stack/card2/counters" | paste -sd+ | bc; }
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }  # user + system clock ticks
synced() { grep -c '^synced ' "$work/out" 2>/dev/null || true; }
waitSynced() {  # N: until watch printed N synced lines (at most 60 s)
  for _ in $(seq 600); do [ "$(synced)" -ge "$1" ] && return 0; sleep 0.1; done
  echo "watch did not sync: $(cat "$work/err")" >&2; exit 1
}

idle() {  # extra options; prints "cpu% apdus"
  : >"$work/out"
  "$BUILD/bin/nebra" watch --module "$MODULE" --csp Bench --pin-env PIN --any-token "$@" \
    >"$work/out" 2>"$work/err" &
  watcher=$!
  waitSynced 2
  sleep 2  # the syncs' last looks
  local a0 t0 a1 t1
  a0=$(apdus); t0=$(ticks $watcher)
  sleep "$SECONDS_IDLE"
  a1=$(apdus); t1=$(ticks $watcher)
  kill "$watcher"; wait "$watcher" || true; watcher=
  echo "$(echo "scale=3; 100 * ($t1 - $t0) / $(getconf CLK_TCK) / $SECONDS_IDLE" | bc) $((a1 - a0))"
}

read -r cpuReload apduReload < <(idle --reload)
read -r cpuKept apduKept < <(idle)
printf 'idle %s s, two cards, interval 2 s:\n' "$SECONDS_IDLE"
printf '  --reload    %6s%% of a core  %6s APDUs\n' "$cpuReload" "$apduReload"
printf '  kept loaded %6s%% of a core  %6s APDUs\n' "$cpuKept" "$apduKept"
printf '  ratio (reload / kept): CPU %s, APDUs %s\n' \
  "$(echo "scale=1; $cpuReload / ($cpuKept + 0.001)" | bc)" \
  "$( [ "$apduKept" -gt 0 ] && echo "scale=1; $apduReload / $apduKept" | bc || echo "all / none")"

# Insertion to the certificate in the store, kept loaded.
: >"$work/out"
"$BUILD/bin/nebra" watch --module "$MODULE" --csp Bench --pin-env PIN --any-token \
  --on-removal remove >"$work/out" 2>"$work/err" &
watcher=$!
waitSynced 2
for i in 1 2 3 4 5; do
  bash scripts/cardstack.sh remove "$work/stack" 2 >/dev/null
  for _ in $(seq 600); do grep -q '^released ' "$work/out" && break; sleep 0.05; done
  : >"$work/out"
  s=$(date +%s.%N)
  bash scripts/cardstack.sh insert "$work/stack" 2 >/dev/null
  for _ in $(seq 1200); do [ "$(synced)" -ge 1 ] && break; sleep 0.01; done
  e=$(date +%s.%N)
  printf 'insertion %d to certificate in the store: %.2f s\n' "$i" "$(echo "$e - $s" | bc)"
done

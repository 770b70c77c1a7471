#!/usr/bin/env bash
# End to end, token to store, with the real tool: a SoftHSM2 token of 1,000 certificates with keys
# synced into a fresh store; re-sync, dry run, prune, two syncs at once, and kill -9 at random
# moments followed by a re-sync to the complete state. Then the README's demo, twice.
set -euo pipefail
cd "$(dirname "$0")/../.."
. scripts/softhsm.sh
ROOT=$PWD
BUILD=${NEBRA_BUILD:-$ROOT/build}
NEBRA=$BUILD/bin/nebra
COUNT=${SYNC_COUNT:-1000}
KILLS=${SYNC_KILLS:-20}
work=$(scratch_dir)
trap 'rm -rf "$work"' EXIT
export SOFTHSM2_CONF=$(softhsm_conf "$work") XDG_DATA_HOME=$work/data E2E_PIN=1234
softhsm2-util --init-token --free --label e2e --so-pin 12345678 --pin $E2E_PIN >/dev/null
"$BUILD/bin/nebra_provision" "$SOFTHSM" e2e $E2E_PIN "$COUNT" --keys

SYNC=("$NEBRA" sync --module "$SOFTHSM" --csp E2E-CSP --pin-env E2E_PIN --json)
sync() { "${SYNC[@]}" "$@"; }
# Counts of containers in JSON output (grep finding nothing is a count of 0, not a failure).
containers() { { grep -o '"container":' || true; } | wc -l; }
listed() { local out; out=$("$NEBRA" list --csp E2E-CSP --json) || return 1; echo "$out" | containers; }
count() { { grep -o "\"$1\":\[[^]]*\]" || true; } | containers; }
fail() { echo "FAILED: $*"; exit 1; }

s=$(date +%s.%N)
out=$(sync --dry-run)
dry=$(echo "$(date +%s.%N) - $s" | bc)  # reading the token and the store, no writes
[ "$(echo "$out" | count added)" -eq "$COUNT" ] || fail "dry run did not plan $COUNT additions"
[ "$(listed)" -eq 0 ] || fail "dry run changed the store"

s=$(date +%s.%N)
out=$(sync)
first=$(echo "$(date +%s.%N) - $s" | bc)
[ "$(echo "$out" | count added)" -eq "$COUNT" ] || fail "first sync did not add $COUNT"
[ "$(listed)" -eq "$COUNT" ] || fail "store does not list $COUNT after the first sync"
s=$(date +%s.%N)
out=$(sync)
again=$(echo "$(date +%s.%N) - $s" | bc)
[ "$(echo "$out" | count added)" -eq 0 ] || fail "re-sync added certificates"
[ "$(echo "$out" | count unchanged)" -eq "$COUNT" ] || fail "re-sync did not find all unchanged"
echo "sync of $COUNT: first ${first}s, again ${again}s"

# kill -9 at random moments while a sync writes, each on a fresh store. Reading the token comes
# first, so each round waits until the store's write-ahead log has content (the sync has started
# writing) and then kills after a random part of the time the writing took in the first sync.
write=$(echo "$first - $dry" | bc)
if (( $(echo "$write < 0.05" | bc) )); then write=0.05; fi
wal=$XDG_DATA_HOME/nebralib/certstores.sqlite-wal
midway=0
for i in $(seq "$KILLS"); do
  rm -rf "$XDG_DATA_HOME"
  "${SYNC[@]}" >/dev/null 2>&1 &  # the process itself, so that the kill reaches it
  pid=$!
  for _ in $(seq 2000); do
    [ -s "$wal" ] && break
    kill -0 $pid 2>/dev/null || break
    sleep 0.002
  done
  sleep "$(echo "scale=4; $write * ($RANDOM % 1000) / 1000" | bc)"
  kill -9 $pid 2>/dev/null || true
  wait $pid 2>/dev/null || true
  n=$(listed) || fail "store did not open after kill -9 (round $i)"
  [ "$n" -le "$COUNT" ] || fail "store lists $n > $COUNT after kill -9"
  sync >/dev/null || fail "re-sync after kill -9 failed (round $i)"
  [ "$(listed)" -eq "$COUNT" ] || fail "re-sync after kill -9 is incomplete (round $i)"
  printf 'kill round %d: %d certificates stored before the kill\n' "$i" "$n"
  if [ "$n" -gt 0 ] && [ "$n" -lt "$COUNT" ]; then midway=$((midway + 1)); fi
done
echo "kill -9: $midway of $KILLS rounds cut the sync midway; every store re-synced to $COUNT"
[ "$KILLS" -lt 5 ] || [ "$midway" -gt 0 ] || fail "no kill landed while the sync was writing"

# Two syncs at once on an empty store.
rm -rf "$XDG_DATA_HOME"
"${SYNC[@]}" >"$work/a" 2>&1 & a=$!
"${SYNC[@]}" >"$work/b" 2>&1 & b=$!
wait $a || { cat "$work/a"; fail "first of two concurrent syncs failed"; }
wait $b || { cat "$work/b"; fail "second of two concurrent syncs failed"; }
[ "$(listed)" -eq "$COUNT" ] || fail "concurrent syncs left $(listed) certificates"
added=$(( $(count added <"$work/a") + $(count added <"$work/b") ))
[ "$added" -eq "$COUNT" ] || echo "note: concurrent syncs reported $added additions in total"

# A reissued card: another token with other certificates under the same CKA_IDs. Its --prune
# touches only its own certificates; the old card's leave with 'nebra remove --token'.
confB=$(softhsm_conf "$work/reissued")
SOFTHSM2_CONF=$confB softhsm2-util --init-token --free --label reissued \
  --so-pin 12345678 --pin $E2E_PIN >/dev/null
SOFTHSM2_CONF=$confB "$BUILD/bin/nebra_provision" "$SOFTHSM" reissued $E2E_PIN 3 \
  --keys --prefix reissued
out=$(SOFTHSM2_CONF=$confB sync --prune)
[ "$(echo "$out" | count removed)" -eq 0 ] || fail "prune removed another token's certificates"
[ "$(echo "$out" | count added)" -eq 3 ] || fail "prune run did not add the new certificates"
"$NEBRA" remove --csp E2E-CSP --token 'pkcs11:token=e2e' | grep -q "Removed $COUNT certificates" \
  || fail "remove --token did not remove the old card's $COUNT certificates"
[ "$(listed)" -eq 3 ] || fail "after removing the old card the store lists $(listed), expected 3"
echo "reissued card: prune kept the old card's $COUNT certificates; remove --token took them"

# The README's demo command, twice: the second run adds nothing.
export HOME=$work/home
mkdir -p "$HOME"
unset XDG_DATA_HOME SOFTHSM2_CONF
NEBRA_BIN=$NEBRA bash scripts/demo.sh >"$work/demo1"
NEBRA_BIN=$NEBRA bash scripts/demo.sh >"$work/demo2"
grep -q "2 added" "$work/demo1" || { cat "$work/demo1"; fail "demo's first run did not add 2"; }
grep -q "0 added, 2 unchanged" "$work/demo2" || { cat "$work/demo2"; fail "demo's second run changed something"; }
echo "demo: first run added 2, second run changed nothing"

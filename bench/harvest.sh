#!/usr/bin/env bash
# Harvesting speed: provisions COUNT (default 1000) certificates with private keys on a fresh
# SoftHSM2 token, then times, as whole processes in one run,
#   nebra token --module SOFTHSM --json          (our harvest: log in, read, decode, sort, print)
#   pkcs11-tool --module SOFTHSM --login --list-objects --type cert
# and reports the ratio, plus the Cryptoki calls per certificate counted by the fault module.
# usage: bench/harvest.sh [BUILD_DIR] [COUNT] [--no-keys]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/softhsm.sh
BUILD=${1:-build}
COUNT=${2:-1000}
RUNS=${RUNS:-5}
KEYS=--keys
[ "${3:-}" = "--no-keys" ] && KEYS=""
work=$(scratch_dir)
trap 'rm -rf "$work"' EXIT
export SOFTHSM2_CONF=$(softhsm_conf "$work")
export BENCH_PIN=1234
softhsm2-util --init-token --free --label bench --so-pin 12345678 --pin $BENCH_PIN >/dev/null
t0=$(date +%s.%N)
"$BUILD/bin/nebra_provision" "$SOFTHSM" bench $BENCH_PIN "$COUNT" $KEYS
echo "provisioned $COUNT certificates ${KEYS:+with private keys }in $(echo "$(date +%s.%N) - $t0" | bc) s"

# Best of RUNS wall-clock times of a command, in seconds.
best() {
  local best=999999 t s e
  for _ in $(seq "$RUNS"); do
    s=$(date +%s.%N); "$@" >/dev/null 2>&1; e=$(date +%s.%N)
    t=$(echo "$e - $s" | bc)
    if (( $(echo "$t < $best" | bc) )); then best=$t; fi
  done
  echo "$best"
}
"$BUILD/bin/nebra" token --module "$SOFTHSM" --pin-env BENCH_PIN --json > "$work/out.json"
got=$(grep -o '"key":' "$work/out.json" | wc -l)
[ "$got" -eq "$COUNT" ] || { echo "nebra token listed $got certificates, expected $COUNT"; exit 1; }

ours=$(best "$BUILD/bin/nebra" token --module "$SOFTHSM" --pin-env BENCH_PIN --json)
peer=$(best pkcs11-tool --module "$SOFTHSM" --login --pin $BENCH_PIN --list-objects --type cert)
echo "nebra token --json:                 ${ours} s (best of $RUNS)"
echo "pkcs11-tool --list-objects (cert):  ${peer} s (best of $RUNS)"
echo "ratio pkcs11-tool / nebra:          $(echo "scale=2; $peer / $ours" | bc)x"

NEBRA_FAULT_COUNTS=$work/counts "$BUILD/bin/nebra" token --module "$BUILD/lib/libnebra_faultp11.so" \
  --pin-env BENCH_PIN --json >/dev/null
attrs=$(awk '$1=="C_GetAttributeValue"{print $2}' "$work/counts")
finds=$(awk '$1=="C_FindObjects"{print $2}' "$work/counts")
keys=0; [ -n "$KEYS" ] && keys=$COUNT
echo "C_GetAttributeValue calls: $attrs for $COUNT certificates and $keys private keys" \
  "($(echo "scale=2; ($attrs - $keys) / $COUNT" | bc) per certificate, one per key CKA_ID read)"
echo "C_FindObjects calls: $finds (batches of 256 handles)"

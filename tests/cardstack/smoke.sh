#!/usr/bin/env bash
# End-to-end check of the emulated card stack (scripts/cardstack.sh) through OpenSC's PKCS#11
# module: two tokens, their certificates byte for byte, the PIN retry counter, removal and
# re-insertion, and a stop that leaves no process. Exits 77 when a package is missing.
set -euo pipefail
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export LC_ALL=C.UTF-8
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
STACK=$(cd "$(dirname "$0")/../.." && pwd)/scripts/cardstack.sh
MODULE=${NEBRA_OPENSC_MODULE:-/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so}
ONE="Nebra Card User One" TWO="Nebra Card User Two"

if [ ! -e "$MODULE" ] || ! command -v pkcs11-tool >/dev/null; then
  echo "SKIP: no OpenSC PKCS#11 module or pkcs11-tool (package opensc)" >&2
  exit 77
fi
dir=$(mktemp -d /tmp/nebra-cards.XXXXXX)
trap 'bash "$STACK" stop "$dir" || true; rm -rf "$dir"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
now() { date +%s%N; }
ms_since() { echo $((($(now) - $1) / 1000000)); }
p11() { pkcs11-tool --module "$MODULE" "$@" 2>&1; }
labels() { p11 -L | sed -n 's/^ *token label *: //p' | sort | tr '\n' '|'; }
tries_left() { sed -n 's/.*tries_left=\([0-9]*\).*/\1/p' "$dir/card1/counters"; }
verifies() { sed -n 's/.*verifies_with_pin=\([0-9]*\).*/\1/p' "$dir/card1/counters"; }

t=$(now)
rc=0
bash "$STACK" start "$dir" --cards 2 || rc=$?
[ $rc -ne 77 ] || exit 77
[ $rc -eq 0 ] || fail "cardstack start exited $rc"
echo "start with two cards: $(ms_since "$t") ms"
eval "$(bash "$STACK" env "$dir")"

[ "$(labels)" = "$ONE|$TWO|" ] || fail "tokens: $(labels), expected $ONE and $TWO"
serials=$(p11 -L | sed -n 's/^ *serial num *: //p' | sort -u | wc -l)
[ "$serials" -eq 2 ] || fail "the two tokens share a serial number"

# Every certificate as it went in: card 1 holds user, intermediate CA, root CA; card 2 one user.
for row in "1 0001 cert1" "1 0002 cert2" "1 0003 cert3" "2 0001 cert1"; do
  read -r card id file <<<"$row"
  label=$ONE
  if [ "$card" = 2 ]; then label=$TWO; fi
  p11 --token-label "$label" --read-object --type cert --id "$id" -o "$dir/read.der" >/dev/null ||
    fail "$label: no certificate $id"
  cmp -s "$dir/read.der" "$dir/card$card/$file.der" ||
    fail "$label: certificate $id differs from card$card/$file.der"
done
certs=$(p11 --token-label "$ONE" -O --type cert | grep -c '^Certificate Object')
[ "$certs" -eq 3 ] || fail "$ONE lists $certs certificates, expected 3"

# A wrong PIN costs a try and says so; the right one works and restores the tries.
[ "$(tries_left)" = 3 ] || fail "a fresh card has $(tries_left) tries left"
v=$(verifies)
out=$(p11 --token-label "$ONE" --login --pin 000000 -O || true)
grep -q CKR_PIN_INCORRECT <<<"$out" || fail "wrong PIN: $out"
[ "$(tries_left)" = 2 ] || fail "after a wrong PIN: tries_left=$(tries_left), expected 2"
[ "$(verifies)" = $((v + 1)) ] || fail "one login sent $(($(verifies) - v)) VERIFYs with a PIN"
out=$(p11 --token-label "$ONE" --login --pin "$(cat "$dir/pin")" -O --type privkey) ||
  fail "right PIN: $out"
grep -q '^Private Key Object' <<<"$out" || fail "no private key after login: $out"
[ "$(tries_left)" = 3 ] || fail "after the right PIN: tries_left=$(tries_left), expected 3"

# Out and back in.
t=$(now)
bash "$STACK" remove "$dir" 1
echo "remove: $(ms_since "$t") ms"
[ "$(labels)" = "$TWO|" ] || fail "after remove: tokens $(labels)"
t=$(now)
bash "$STACK" insert "$dir" 1
[ "$(labels)" = "$ONE|$TWO|" ] || fail "after insert: tokens $(labels)"
echo "insert until the token is listed: $(ms_since "$t") ms"

pids=$(cat "$dir/pcscd.pid" "$dir"/card?/bridge.pid)
bash "$STACK" stop "$dir"
for pid in $pids; do
  if [ -e "/proc/$pid" ] && [ "$(awk '{print $3}' "/proc/$pid/stat" 2>/dev/null)" != Z ]; then
    fail "process $pid still runs after stop: $(tr '\0' ' ' <"/proc/$pid/cmdline")"
  fi
done
[ ! -S "$dir/run/pcscd.comm" ] || fail "pcscd left its socket behind"
echo "PASS"

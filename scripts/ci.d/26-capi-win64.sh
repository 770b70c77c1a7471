#!/usr/bin/env bash
# The C interface from C on Windows, from the package alone: examples/c/nebra_sync.c compiled by
# the mingw-w64 C compiler against the unpacked win64 zip's header and import library, with the
# GCC runtime linked in. nebralib.dll must export every function of nebra.h unmangled. Under Wine
# with an empty WINEPATH, on a token of the Windows SoftHSM2, the program's token JSON must equal
# nebra.exe's and its edge cases pass. Its sync needs a crypt32 that sets application properties:
# on stock Wine it must stop where nebra.exe stops, with the event; on the project's patched
# crypt32 it must sync, and list what nebra.exe lists.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
export LC_ALL=C.UTF-8
MINGW=${NEBRA_BUILD_MINGW:-$ROOT/build-mingw}
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
export WINEPREFIX=${WINEPREFIX:-$CACHE/wineprefix} WINEDEBUG=-all DISPLAY= WINEPATH=
unset WINEDLLPATH
. scripts/softhsm.sh
fail() { echo "FAILED: $*"; exit 1; }
HSM=$(bash scripts/build-softhsm-mingw.sh | tail -n 1)
PW=$(bash scripts/build-wine-crypt32.sh | tail -n 1)
cmake --build "$MINGW" --target nebralib nebra nebra_manual nebra_tokenprep >/dev/null  # what cpack packs
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

version=$(sed -n 's/^#define NEBRALIB_VERSION "\(.*\)"$/\1/p' "$MINGW/include/nebralib/version.h")
(cd "$MINGW" && cpack -G ZIP >/dev/null)
mkdir "$work/unpacked"
(cd "$work/unpacked" && cmake -E tar xf "$MINGW/nebralib-$version-win64.zip")
pkg=$work/unpacked/nebralib-$version-win64
(set -x; x86_64-w64-mingw32-gcc -std=c99 -pedantic -Wall -Wextra -Werror -I"$pkg/include" \
  examples/c/nebra_sync.c "$pkg/lib/libnebralib.dll.a" -static -o "$pkg/bin/nebra_sync.exe")
imports=$(x86_64-w64-mingw32-objdump -p "$pkg/bin/nebra_sync.exe" | sed -n 's/^\s*DLL Name: //p' |
  tr '[:upper:]' '[:lower:]' | sort | tr '\n' ' ')
echo "nebra_sync.exe imports: $imports"
[ "$imports" = "kernel32.dll msvcrt.dll nebralib.dll " ] || fail "nebra_sync.exe imports more"

declared=$(grep '^NEBRA_API' "$pkg/include/nebralib/nebra.h" | grep -o 'nebra_[a-z0-9_]*(' |
  tr -d '(' | sort)
exported=$(x86_64-w64-mingw32-objdump -p "$pkg/bin/nebralib.dll" |
  sed -n 's/^\s*\[ *[0-9]*\] \(nebra_[A-Za-z0-9_]*\)$/\1/p' | sort)
[ "$(echo "$declared" | wc -l)" = "$(grep -c '^NEBRA_API' "$pkg/include/nebralib/nebra.h")" ] ||
  fail "a declaration of nebra.h has its name elsewhere than on its NEBRA_API line"
missing=$(comm -23 <(echo "$declared") <(echo "$exported"))
[ -z "$missing" ] || fail "nebralib.dll does not export: $missing"
echo "nebralib.dll exports all $(echo "$declared" | wc -l) functions of nebra.h:" $exported

# A token of the Windows SoftHSM2 with the demo's certificates, made by its own softhsm2-util.exe.
# Text passed on command lines stays ASCII: a Windows program's argv is in the ANSI code page,
# not UTF-8.
export NEBRA_PIN=1234 SOFTHSM2_CONF=$(softhsm_conf "$work/tok" wine)
bash tests/support/make-pki.sh "$work/pki" >/dev/null
P=$(win "$work/pki")
MOD=$(win "$HSM/bin/softhsm2.dll")
wine "$HSM/bin/softhsm2-util.exe" --init-token --free --label capiW --so-pin 12345678 --pin 1234 \
  >/dev/null
wine "$MINGW/bin/nebra_tokenprep.exe" "$MOD" capiW 1234 "cert:01:Nebra Demo Root:$P\\root.der" \
  "cert:02:Nebra Demo Issuing CA:$P\\ca.der" "cert:10:Alice Signing:$P\\leaf1.der" key:10 \
  "cert:11:Bob \"Encryption\":$P\\leaf2.der" key:11 $'cert:12:Carol\tNo Key \\:'"$P\\leaf3.der"
cd "$pkg/bin"
run() { "$@" 2>"$work/stderr" | tr -d '\r'; }

run wine ./nebra_sync.exe --token "$MOD" >"$work/c-token.json" || { cat "$work/stderr"; fail "--token"; }
run wine ./nebra.exe token --module "$MOD" --pin-env NEBRA_PIN --json >"$work/nebra-token.json"
cmp "$work/c-token.json" "$work/nebra-token.json" ||
  { diff "$work/c-token.json" "$work/nebra-token.json"; fail "token JSON differs from nebra.exe's"; }
[ "$(grep -o '"key"' "$work/c-token.json" | wc -l)" = 5 ] || fail "token JSON without 5 certificates"
echo "nebra_sync.exe --token: as nebra.exe token --json prints it, 5 certificates"

# The sync, into stores of this run only (stores live on in a Wine prefix).
CSP='C "CSP" \ W'
S="C-$$-$RANDOM"
if run wine ./nebra_sync.exe "$MOD" "$CSP" "$S" >"$work/c.json"; then
  fail "nebra_sync.exe synced on stock Wine: Wine now sets application properties; check its JSON"
fi
tr -d '\r' <"$work/stderr" >"$work/c.err"
run wine ./nebra.exe sync --verbose --module "$MOD" --csp "$CSP" --store "$S" --pin-env NEBRA_PIN \
  >/dev/null || true
tr -d '\r' <"$work/stderr" | tail -n 2 >"$work/nebra.err"
cat "$work/c.err"
cmp "$work/c.err" "$work/nebra.err" || { diff "$work/c.err" "$work/nebra.err"; fail "failures differ"; }
grep -q '^error: CertStoreUpdaterError_SetCertVeltraneCspRefFailed (src\\certstorehelper:301) CSP=' \
  "$work/c.err" || fail "the sync did not stop at the provider reference"
echo "stock Wine: its crypt32 cannot set property 54086; the sync stopped there and reported it as"
echo "nebra.exe sync --verbose does. The sync's JSON is compared on the patched crypt32:"
pwine() { WINEPREFIX=$CACHE/wineprefix-crypt32 "$PW/bin/wine" "$@"; }
[ -d "$CACHE/wineprefix-crypt32" ] || pwine wineboot -i >/dev/null 2>&1 || true
run pwine ./nebra_sync.exe "$MOD" "$CSP" "$S" >"$work/c.json" ||
  { cat "$work/stderr"; fail "nebra_sync.exe did not sync on the patched crypt32"; }
run pwine ./nebra.exe list --csp "$CSP" --store "$S" --json >"$work/nebra.json"
run pwine ./nebra.exe remove --csp "$CSP" --store "$S" >/dev/null
cat "$work/c.json"
cmp "$work/c.json" "$work/nebra.json" ||
  { diff "$work/c.json" "$work/nebra.json"; fail "store JSON differs from nebra.exe's"; }
[ "$(grep -c '"container"' "$work/c.json")" = 2 ] || fail "the store JSON has not 2 certificates"
echo "nebra_sync.exe (patched crypt32): as nebra.exe list --json prints it, 2 certificates"

# The edge cases; the last sends a wrong PIN.
run wine ./nebra_sync.exe --edge "$MOD" | tee "$work/edge.txt" || fail "an edge case failed"
echo "Windows C interface checks passed"

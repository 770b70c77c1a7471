#!/usr/bin/env bash
# The C interface from C. examples/c/nebra_sync.c is compiled with gcc -std=c99 -pedantic against
# the installed tree and linked with nebralib alone; on SoftHSM2 tokens its JSON must equal nebra's
# byte for byte. It runs again over the AddressSanitizer build of the library with leak checks,
# syncs two tokens on two threads at once under ThreadSanitizer, and runs its table of handle and
# argument edge cases. The library must export every function nebra.h declares, unmangled.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
export LC_ALL=C.UTF-8
BUILD=${NEBRA_BUILD:-$ROOT/build}
ASAN=${NEBRA_BUILD_ASAN:-$ROOT/build-asan}
. scripts/softhsm.sh
fail() { echo "FAILED: $*"; exit 1; }
work=$(scratch_dir)
trap 'rm -rf "$work"' EXIT
cmake --build "$BUILD" --target nebralib nebra nebra_tokenprep >/dev/null
cmake --build "$ASAN" --target nebralib >/dev/null
TSAN=$(bash scripts/tsan-build.sh nebralib 2>"$work/tsan.log" | tail -n 1) ||
  { cat "$work/tsan.log"; fail "the ThreadSanitizer build failed"; }
NEBRA=$BUILD/bin/nebra

# The library and what building against it needs, installed as the runtime and dev packages hold
# them. nebra.pc is the C interface's: its Libs name nebralib alone.
for c in runtime dev; do cmake --install "$BUILD" --prefix "$work/prefix" --component $c >/dev/null; done
pc() { PKG_CONFIG_PATH=$work/prefix/lib/pkgconfig pkg-config "$@" nebra; }
LIBDIR=$(pc --variable=libdir)
[ "$(pc --libs-only-l)" = "-lnebralib " ] || fail "nebra.pc links more than nebralib: $(pc --libs)"
CFLAGS=(-std=c99 -pedantic -Wall -Wextra -Werror $(pc --cflags))
LIBS=($(pc --libs) -Wl,-rpath,"$LIBDIR")
SRC=examples/c/nebra_sync.c
(set -x; gcc "${CFLAGS[@]}" "$SRC" "${LIBS[@]}" -o "$work/nebra_sync")
needed=$(readelf -d "$work/nebra_sync" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
echo "nebra_sync needs: $needed"
[ "$needed" = "libnebralib.so.0 libc.so.6 " ] || fail "the C program needs more than nebralib and libc"

# Every function of the header, by its C name, among the library's exports.
declared=$(grep '^NEBRA_API' "$work/prefix/include/nebralib/nebra.h" | grep -o 'nebra_[a-z0-9_]*(' |
  tr -d '(' | sort)
exported=$(nm -D --defined-only "$LIBDIR/libnebralib.so" | awk '$2 == "T" {print $3}' | sort)
[ "$(echo "$declared" | wc -l)" = "$(grep -c '^NEBRA_API' "$work/prefix/include/nebralib/nebra.h")" ] ||
  fail "a declaration of nebra.h has its name elsewhere than on its NEBRA_API line"
missing=$(comm -23 <(echo "$declared") <(echo "$exported"))
[ -z "$missing" ] || fail "libnebralib.so does not export: $missing"
echo "libnebralib.so exports all $(echo "$declared" | wc -l) functions of nebra.h:" $declared

# Two tokens: the demo's certificates on A (two of five with keys); on B the demo's three leaves,
# each with a key, and a self-signed certificate. Labels and the provider
# name carry characters JSON escapes.
export SOFTHSM2_CONF=$(softhsm_conf "$work") XDG_DATA_HOME=$work/data NEBRA_PIN=1234
bash tests/support/make-pki.sh "$work/pki" >/dev/null
P=$work/pki
for t in capiA capiB; do
  softhsm2-util --init-token --free --label $t --so-pin 12345678 --pin $NEBRA_PIN >/dev/null
done
"$BUILD/bin/nebra_tokenprep" "$SOFTHSM" capiA $NEBRA_PIN "cert:01:Nebra Demo Root:$P/root.der" \
  "cert:02:Nebra Demo Issuing CA:$P/ca.der" "cert:10:Alice Signing:$P/leaf1.der" key:10 \
  "cert:11:Bob \"Encryption\":$P/leaf2.der" key:11 $'cert:12:Carol\tNo Key \\ Ñ:'"$P/leaf3.der"
"$BUILD/bin/nebra_tokenprep" "$SOFTHSM" capiB $NEBRA_PIN "cert:20:Alice:$P/leaf1.der" key:20 \
  "cert:21:Bob:$P/leaf2.der" key:21 "cert:22:Carol:$P/leaf3.der" key:22 "cert:30:Device:$P/selfsigned.der"
A="pkcs11:token=capiA?module-path=$SOFTHSM"
# The same module by its p11-kit name: two names of one module share one load.
B="pkcs11:token=capiB?module-name=softhsm2"
CSP='C "CSP" \ ñ'
same() {  # WHAT FILE NEBRAS-FILE N MEMBER: the same bytes, and N certificates (MEMBER N times)
  cmp "$2" "$3" || { diff "$2" "$3"; fail "$1 differs from nebra's"; }
  [ "$(grep -o "$5" "$2" | wc -l)" = "$4" ] || { cat "$2"; fail "$1 does not have $4 certificates"; }
  echo "$1: as nebra prints it, $4 certificates"
}

# The C program and nebra on the same token and store.
"$work/nebra_sync" "$A" "$CSP" C-MY >"$work/c.json"
"$NEBRA" list --csp "$CSP" --store C-MY --json >"$work/nebra.json"
cat "$work/c.json"
same "nebra_sync A" "$work/c.json" "$work/nebra.json" 2 '"container"'
"$work/nebra_sync" --token "$A" >"$work/c-token.json"
"$NEBRA" token --module "$A" --pin-env NEBRA_PIN --json >"$work/nebra-token.json"
same "nebra_sync --token A" "$work/c-token.json" "$work/nebra-token.json" 5 '"key"'

# AddressSanitizer and UBSan over the program and the library, leaks included, on a new store.
(set -x; gcc "${CFLAGS[@]}" -g -fsanitize=address,undefined -fno-omit-frame-pointer "$SRC" \
  -L"$ASAN" -lnebralib -Wl,-rpath,"$ASAN" -o "$work/nebra_sync-asan")
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export LSAN_OPTIONS=suppressions=$ROOT/scripts/lsan.supp
"$work/nebra_sync-asan" "$B" "$CSP" C-ASAN >"$work/c-asan.json"
"$NEBRA" list --csp "$CSP" --store C-ASAN --json >"$work/nebra-asan.json"
same "nebra_sync B (AddressSanitizer)" "$work/c-asan.json" "$work/nebra-asan.json" 3 '"container"'
"$work/nebra_sync-asan" --token "$B" >"$work/c-token-asan.json"
"$NEBRA" token --module "$B" --pin-env NEBRA_PIN --json >"$work/nebra-token-asan.json"
same "nebra_sync --token B (AddressSanitizer)" "$work/c-token-asan.json" \
  "$work/nebra-token-asan.json" 4 '"key"'

# ThreadSanitizer: both tokens at once, each on a thread with a handle of its own, into two stores
# of one database.
(set -x; gcc "${CFLAGS[@]}" -g -fsanitize=thread "$SRC" -L"$TSAN" -lnebralib -Wl,-rpath,"$TSAN" \
  -o "$work/nebra_sync-tsan")
TSAN_OPTIONS=halt_on_error=1:suppressions=$ROOT/scripts/tsan.supp XDG_DATA_HOME=$work/threads \
  "$work/nebra_sync-tsan" --threads "$A" "$B" "$CSP" C-T1 C-T2 >"$work/c-threads.json"
for s in C-T1 C-T2; do
  XDG_DATA_HOME=$work/threads "$NEBRA" list --csp "$CSP" --store $s --json
done >"$work/nebra-threads.json"
same "nebra_sync --threads (ThreadSanitizer)" "$work/c-threads.json" "$work/nebra-threads.json" \
  5 '"container"'

# A failure is reported as nebra sync --verbose reports it: a wrong PIN.
if NEBRA_PIN=0000 "$work/nebra_sync" "$B" "$CSP" C-MY 2>"$work/c.err"; then fail "a wrong PIN synced"; fi
NEBRA_PIN=0000 "$NEBRA" sync --verbose --module "$B" --csp "$CSP" --store C-MY --pin-env NEBRA_PIN \
  2>&1 >/dev/null | tail -n 2 >"$work/nebra.err" || true
cat "$work/c.err"
cmp "$work/c.err" "$work/nebra.err" || { diff "$work/c.err" "$work/nebra.err"; fail "failures differ"; }
grep -q ' CRYPTOKY_ERROR_CODE=160$' "$work/c.err" || fail "the wrong PIN's event is not on stderr"

# The edge cases, each ending with a wrong PIN: on A with the plain build, on B under ASan.
"$work/nebra_sync" --edge "$A" | tee "$work/edge.txt" || fail "an edge case failed"
"$work/nebra_sync-asan" --edge "$B" >"$work/edge-asan.txt" || { cat "$work/edge-asan.txt"; fail "an edge case failed under ASan"; }
tail -n 1 "$work/edge-asan.txt"
echo "C interface checks passed"

#!/usr/bin/env bash
# The Linux packages as a user gets them, run without LD_LIBRARY_PATH: the native build installed
# with `cmake --install` into a prefix that is then moved, and the .deb of `cpack -G DEB` unpacked
# into a scratch root. The .deb must depend on runtime packages only, and its tool must read a
# SoftHSM2 token through the module's p11-kit registration.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
BUILD=${NEBRA_BUILD:-$ROOT/build}
unset LD_LIBRARY_PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

version=$(sed -n 's/^#define NEBRALIB_VERSION "\(.*\)"$/\1/p' "$BUILD/include/nebralib/version.h")
[ -n "$version" ] || fail "no version in $BUILD/include/nebralib/version.h"

# Runs the tool at $1 from where it is installed: its library must come from beside it.
check_tool() {
  local nebra=$1 where=$2 out lib
  lib=$(ldd "$nebra" | sed -n 's/^\s*libnebralib\.so\.0 => \(.*\) (.*/\1/p')
  [ -n "$lib" ] && [ "$(realpath "$lib")" = "$(realpath "$where/libnebralib.so.0")" ] ||
    fail "$nebra does not load libnebralib from $where: $(ldd "$nebra" | grep nebralib)"
  out=$("$nebra" --version) || fail "$nebra --version failed"
  [ "$out" = "nebra $version" ] || fail "$nebra --version printed '$out'"
  "$nebra" --help | grep -q "^usage: nebra" || fail "$nebra --help"
  "$nebra" providers >"$work/providers" || fail "$nebra providers failed"
}

# 1. cmake --install into a prefix, moved elsewhere afterwards.
cmake --install "$BUILD" --prefix "$work/prefix" >/dev/null
mv "$work/prefix" "$work/moved"
check_tool "$work/moved/bin/nebra" "$work/moved/lib"
echo "installed prefix: nebra runs after the prefix moved (RUNPATH" \
  "$(readelf -d "$work/moved/bin/nebra" | sed -n 's/.*R.*PATH.*\[\(.*\)\]/\1/p'))"

# 2. The .deb.
(cd "$BUILD" && cpack -G DEB >/dev/null)
deb=$BUILD/nebralib_${version}_$(dpkg --print-architecture).deb
[ -f "$deb" ] || fail "cpack did not write $deb"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "package version is not $version"
depends=$(dpkg-deb -f "$deb" Depends)
echo "$(basename "$deb") Depends: $depends"
for lib in libc6 libstdc++6 libssl3 libsqlite3-0 libp11-kit0 libboost-filesystem1.74.0; do
  echo "$depends" | tr ',' '\n' | grep -q "^ *$lib\b" || fail "Depends lacks $lib"
done
if echo "$depends" | grep -q -- '-dev\b'; then fail "Depends names a -dev package"; fi
echo "contents:"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print "  " $6 ($7 ? " " $7 " " $8 : "")}'
dpkg -x "$deb" "$work/root"
check_tool "$work/root/usr/bin/nebra" "$work/root/usr/lib"
grep -qx softhsm2 "$work/providers" || fail "providers does not list the registered softhsm2"

. scripts/softhsm.sh
export SOFTHSM2_CONF=$(softhsm_conf "$work") PKG_PIN=1234
softhsm2-util --init-token --free --label packaged --so-pin 12345678 --pin $PKG_PIN >/dev/null
out=$("$work/root/usr/bin/nebra" token --module softhsm2 --pin-env PKG_PIN) ||
  fail "the packaged nebra could not read a token"
echo "$out" | grep -q 'Token "packaged"' || fail "nebra token printed: $out"
echo "packaged nebra: --version, --help, providers, token on SoftHSM2 all ran from the scratch root"

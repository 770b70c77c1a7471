#!/usr/bin/env bash
# The Linux packages as a user gets them, run without LD_LIBRARY_PATH: the native build installed
# with `cmake --install` into a prefix that is then moved, and the four .debs of `cpack -G DEB`
# (libnebralib0, libnebralib-dev, nebra, python3-nebralib) unpacked into a scratch root. Debian
# 12's lintian must find no error and no warning that is not overridden with its reason. The
# library package must depend on runtime packages only, the tool must read a SoftHSM2 token
# through the module's p11-kit registration, and the Python module must load the library beside
# it.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
BUILD=${NEBRA_BUILD:-$ROOT/build}
unset LD_LIBRARY_PATH NEBRALIB_LIBRARY
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

# Imports the Python module from $1 (NEBRALIB_LIBRARY as the rest of the command line sets it): it
# must load the library $2 and report the version.
check_python() {
  local out
  out=$(PYTHONPATH=$1 PYTHONDONTWRITEBYTECODE=1 python3 -c \
    'import nebralib; print(nebralib.version(), nebralib.library_path)') ||
    fail "the Python module in $1 does not import"
  [ "${out%% *}" = "$version" ] || fail "nebralib.version() from $1 printed '${out%% *}'"
  [ "$(realpath "${out#* }")" = "$(realpath "$2")" ] ||
    fail "the Python module in $1 loaded ${out#* }, not $2"
}

# 1. cmake --install into a prefix, moved elsewhere afterwards.
cmake --install "$BUILD" --prefix "$work/prefix" >/dev/null
mv "$work/prefix" "$work/moved"
check_tool "$work/moved/bin/nebra" "$work/moved/lib"
check_python "$work/moved/lib/python3/dist-packages" "$work/moved/lib/libnebralib.so.0"
echo "installed prefix: nebra runs after the prefix moved (RUNPATH" \
  "$(readelf -d "$work/moved/bin/nebra" | sed -n 's/.*R.*PATH.*\[\(.*\)\]/\1/p'))"

# 2. The .debs.
rm -f "$BUILD"/*.deb
(cd "$BUILD" && cpack -G DEB >/dev/null)
arch=$(dpkg --print-architecture)
debs=()
for pkg in libnebralib0 libnebralib-dev nebra python3-nebralib; do
  deb=$BUILD/${pkg}_${version}_$arch.deb
  if [ "$pkg" = python3-nebralib ]; then deb=$BUILD/${pkg}_${version}_all.deb; fi
  [ -f "$deb" ] || fail "cpack did not write $deb"
  [ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "$pkg's version is not $version"
  [ "$(dpkg-deb -f "$deb" Maintainer)" != "" ] || fail "$pkg names no maintainer"
  echo "$(basename "$deb") Depends: $(dpkg-deb -f "$deb" Depends)"
  debs+=("$deb")
done
depends=$(dpkg-deb -f "$BUILD/libnebralib0_${version}_$arch.deb" Depends)
for lib in libc6 libstdc++6 libssl3 libsqlite3-0 libp11-kit0 libboost-filesystem1.74.0; do
  echo "$depends" | tr ',' '\n' | grep -q "^ *$lib\b" || fail "libnebralib0's Depends lacks $lib"
done
if echo "$depends" | grep -q -- '-dev\b'; then fail "libnebralib0 depends on a -dev package"; fi
dpkg-deb -f "$BUILD/nebra_${version}_$arch.deb" Depends | grep -q "libnebralib0 (= $version)" ||
  fail "nebra does not depend on its library package"
depends=$(dpkg-deb -f "$BUILD/python3-nebralib_${version}_all.deb" Depends)
for dep in python3 "libnebralib0 (= $version)"; do
  echo "$depends" | tr ',' '\n' | sed 's/^ *//' | grep -qxF "$dep" ||
    fail "python3-nebralib's Depends lacks $dep"
done

# lintian as Debian 12 ships it: errors and warnings fail; overrides carry their reasons.
if command -v lintian >/dev/null; then
  lintian --fail-on error,warning "${debs[@]}" >"$work/lintian" 2>&1 ||
    { cat "$work/lintian"; fail "lintian found errors or warnings"; }
  echo "lintian: $(grep -c '^E:' "$work/lintian" || true) errors," \
    "$(grep -c '^W:' "$work/lintian" || true) warnings," \
    "$(lintian --show-overrides "${debs[@]}" 2>/dev/null | grep -c '^O:' || true) overridden"
else
  fail "lintian is not installed (scripts/deps.sh installs it)"
fi

echo "contents:"
for deb in "${debs[@]}"; do
  dpkg-deb -c "$deb" | awk -v p="$(basename "$deb")" '$1 !~ /^d/ {print "  " p ": " $6 ($7 ? " " $7 " " $8 : "")}'
  dpkg -x "$deb" "$work/root"
done
check_tool "$work/root/usr/bin/nebra" "$work/root/usr/lib"
grep -qx softhsm2 "$work/providers" || fail "providers does not list the registered softhsm2"
# dpkg -x runs no ldconfig: the module is pointed at the root's library, then must find it by
# itself two folders up, where the package puts it.
pydir=$work/root/usr/lib/python3/dist-packages
pylib=$work/root/usr/lib/libnebralib.so.0
NEBRALIB_LIBRARY=$pylib check_python "$pydir" "$pylib"
check_python "$pydir" "$pylib"
echo "packaged Python module: nebralib.version() is $version, library found beside the module"
for pkg in libnebralib0 libnebralib-dev nebra python3-nebralib; do
  grep -q "^License: Apache-2.0" "$work/root/usr/share/doc/$pkg/copyright" ||
    fail "$pkg's copyright does not name Apache-2.0"
done
# The manual page covers every subcommand and every option its help names.
zcat "$work/root/usr/share/man/man1/nebra.1.gz" >"$work/nebra.1"
groff -ww -man -z "$work/nebra.1" 2>&1 | { ! grep .; } || fail "groff warns about the manual page"
for cmd in $("$work/root/usr/bin/nebra" --help | sed -n 's/^  \([a-z]\+\)  .*/\1/p'); do
  grep -q "^\.SS \"$cmd\b" "$work/nebra.1" || fail "the manual page does not describe 'nebra $cmd'"
  for opt in $("$work/root/usr/bin/nebra" "$cmd" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
    grep -qF -- "$(echo "$opt" | sed 's/-/\\-/g')" "$work/nebra.1" ||
      fail "the manual page does not mention 'nebra $cmd $opt'"
  done
done
echo "manual page: every subcommand and option of the help is in nebra(1)"

. scripts/softhsm.sh
export SOFTHSM2_CONF=$(softhsm_conf "$work") PKG_PIN=1234
softhsm2-util --init-token --free --label packaged --so-pin 12345678 --pin $PKG_PIN >/dev/null
out=$("$work/root/usr/bin/nebra" token --module softhsm2 --pin-env PKG_PIN) ||
  fail "the packaged nebra could not read a token"
echo "$out" | grep -q 'Token "packaged"' || fail "nebra token printed: $out"
echo "packaged nebra: --version, --help, providers, token on SoftHSM2 all ran from the scratch root"

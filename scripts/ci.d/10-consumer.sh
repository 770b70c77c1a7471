#!/usr/bin/env bash
# Installs the native build into a temporary prefix and builds a project outside the tree against
# it, through CMake (find_package) and through pkg-config; then runs it on a SoftHSM2 token.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
BUILD=${NEBRA_BUILD:-$ROOT/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$BUILD" --prefix "$work/prefix" >/dev/null
cmake -S examples/consumer -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" c++ -std=c++17 examples/consumer/main.cpp \
  $(PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig" pkg-config --cflags --libs nebralib) -o "$work/consumer-pc"

. scripts/softhsm.sh
export SOFTHSM2_CONF=$(softhsm_conf "$work")
softhsm2-util --init-token --free --label consumer --so-pin 12345678 --pin 1234 >/dev/null
export LD_LIBRARY_PATH=$work/prefix/lib
out=$("$work/consumer/consumer" "$SOFTHSM" 1234)
echo "cmake consumer: $out"
[ "$out" = "root 0, ca 0, with key 0, other 0" ]
out=$("$work/consumer-pc" "$SOFTHSM" 1234)
echo "pkg-config consumer: $out"
if "$work/consumer/consumer" "$SOFTHSM" 9999 2>"$work/err"; then
  echo "a wrong PIN was accepted"; exit 1
fi
grep -q "Pkcs11Error_CryptokiError" "$work/err"
echo "consumer checks passed"

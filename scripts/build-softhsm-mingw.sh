#!/usr/bin/env bash
# Builds SoftHSM2 for 64-bit Windows (mingw-w64) from Debian's softhsm2 and openssl source packages
# (their .orig tarballs only), for the Windows tests: the PKCS#11 module and its token tool, with
# OpenSSL's libcrypto, the GCC runtime and winpthread linked in statically, so that both need
# nothing but Windows system DLLs. Idempotent: a finished prefix is reused as it is, and rebuilt
# when this script's build version or the patches change. Progress goes to stderr; the last line
# on stdout is the install prefix.
#   NEBRA_CACHE   cache folder (default ~/.cache/nebralib)
#   JOBS          parallel compile jobs (default 2)
# Layout, PREFIX=$NEBRA_CACHE/softhsm2-mingw-2.6:
#   PREFIX/bin/softhsm2.dll        the PKCS#11 module
#   PREFIX/bin/softhsm2-util.exe   the token tool; loads softhsm2.dll from beside itself
#                                  (--module PATH to load another)
# libcrypto is kept apart, as a static library with its headers, in $NEBRA_CACHE/openssl-mingw-3.0.
# The module reads its configuration from the file named by SOFTHSM2_CONF (else softhsm2.conf in
# the current directory). Under Wine both it and directories.tokendir are written as Windows paths:
#   SOFTHSM2_CONF='Z:\tmp\t\softhsm2.conf'  with  directories.tokendir = Z:\tmp\t\tokens
# The SoftHSM2 sources are built with their own CMake files, patched by the series in
# scripts/patches/softhsm2-mingw.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
PREFIX=$CACHE/softhsm2-mingw-2.6
OSSL=$CACHE/openssl-mingw-3.0
PATCHES=$HERE/patches/softhsm2-mingw
# Bump when the way a prefix is built changes, so that caches are rebuilt. The module's stamp also
# carries a hash of the patches, so that editing one rebuilds it.
OSSL_STAMP=$OSSL/.built-1
PATCH_HASH=$(cat "$PATCHES"/series "$PATCHES"/*.patch | sha256sum | cut -c1-12)
STAMP=$PREFIX/.built-1-$PATCH_HASH
if [ -f "$STAMP" ]; then echo "$PREFIX"; exit 0; fi

HOST=x86_64-w64-mingw32
CC=$HOST-gcc-posix
CXX=$HOST-g++-posix
JOBS=${JOBS:-2}
for tool in "$CC" "$CXX" cmake ninja perl patch; do
  command -v "$tool" >/dev/null || { echo "build-softhsm-mingw: $tool not found (run scripts/deps.sh)" >&2; exit 1; }
done
. "$HERE/deb-src.sh"
log() { echo "build-softhsm-mingw: $*" >&2; }

mkdir -p "$CACHE"
# One build at a time: a second caller waits, then finds the finished prefix.
exec 9>"$CACHE/.softhsm2-mingw.lock"
flock 9
if [ -f "$STAMP" ]; then echo "$PREFIX"; exit 0; fi

WORK=$(mktemp -d "$CACHE/softhsm2-build.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

# 1. The source packages (downloaded once, checked by apt against the signed Sources index). Only
#    the .orig tarballs are used: a package's Debian patch tarball may be missing from the mirror,
#    which makes apt-get report failure although the tarball it fetched is there.
SRC=$CACHE/softhsm2-src
mkdir -p "$SRC"
orig() { ls "$SRC"/"$1"_*.orig.tar.* 2>/dev/null | grep -v '\.asc$' | sort -V | tail -n1; }
fetch() {
  (cd "$SRC" && apt-get source --download-only -qq "$@" >/dev/null 2>&1) || true
}
if [ -z "$(orig openssl)" ] || [ -z "$(orig softhsm2)" ]; then
  fetch openssl softhsm2
  if [ -z "$(orig openssl)" ] || [ -z "$(orig softhsm2)" ]; then
    # No deb-src entries yet.
    add_deb_src build-softhsm-mingw
    fetch openssl softhsm2
  fi
fi
OSSL_ORIG=$(orig openssl)
SOFTHSM_ORIG=$(orig softhsm2)
[ -n "$OSSL_ORIG" ] || { log "no openssl .orig tarball in $SRC"; exit 1; }
[ -n "$SOFTHSM_ORIG" ] || { log "no softhsm2 .orig tarball in $SRC"; exit 1; }
log "using $(basename "$OSSL_ORIG") and $(basename "$SOFTHSM_ORIG")"

# 2. OpenSSL: libcrypto only, static, without tests, engines or providers as modules (the legacy
#    provider is built in). OpenSSL 3.0's Configure has no switch for docs or apps; they are simply
#    not built, as only the libcrypto.a target is made.
if [ ! -f "$OSSL_STAMP" ]; then
  log "building libcrypto for $HOST (cold: several minutes)"
  tar -xf "$OSSL_ORIG" -C "$WORK"
  OTOP=$(ls -d "$WORK"/openssl-*/)
  (
    cd "$OTOP"
    run "$WORK/openssl-configure.log" ./Configure mingw64 no-shared no-module no-tests \
      --cross-compile-prefix=$HOST- CC=gcc-posix --prefix="$OSSL" --libdir=lib
    run "$WORK/openssl-generate.log" make -j"$JOBS" build_generated
    run "$WORK/openssl-build.log" make -j"$JOBS" libcrypto.a
  )
  NEW=$WORK/openssl-prefix
  mkdir -p "$NEW/include/openssl" "$NEW/lib"
  cp "$OTOP"/include/openssl/*.h "$NEW/include/openssl/"
  cp "$OTOP"/libcrypto.a "$NEW/lib/"
  rm -rf "$OSSL"
  mv "$NEW" "$OSSL"
  touch "$OSSL_STAMP"
  log "libcrypto installed into $OSSL"
fi

# 3. SoftHSM2 with its CMake build. The run-time probes of OpenSSL features cannot run while
#    cross-compiling; their answers are given (this libcrypto has them all; GOST is an engine
#    OpenSSL 3 does not ship). The Windows defaults in config.h are passed as the cache values, so
#    the config.h header (included more than once, without a guard) defines them one way.
log "building SoftHSM2 for $HOST"
tar -xf "$SOFTHSM_ORIG" -C "$WORK"
STOP=$(ls -d "$WORK"/softhsm2-*/)
apply_series "$STOP" "$PATCHES"
BUILD=$WORK/softhsm2-build
PROBES=()
for probe in RUN_ECC RUN_ED25519 RUN_ED448 RUN_AES_KEY_WRAP RUN_AES_KEY_WRAP_PAD; do
  PROBES+=("-D$probe=0" "-D${probe}__TRYRUN_OUTPUT=")
done
run "$WORK/softhsm2-configure.log" cmake -S "$STOP" -B "$BUILD" -G Ninja \
  -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_SYSTEM_PROCESSOR=x86_64 \
  -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_RC_COMPILER=$HOST-windres \
  -DCMAKE_FIND_ROOT_PATH=/usr/$HOST -DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=NEVER \
  -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY \
  -DCMAKE_SHARED_LINKER_FLAGS=-static -DCMAKE_EXE_LINKER_FLAGS=-static \
  -DOPENSSL_USE_STATIC_LIBS=ON -DOPENSSL_INCLUDE_DIR="$OSSL/include" -DLIB_EAY="$OSSL/lib/libcrypto.a" \
  -DWITH_CRYPTO_BACKEND=openssl -DENABLE_ECC=ON -DENABLE_EDDSA=ON -DENABLE_GOST=OFF \
  -DENABLE_P11_KIT=OFF -DBUILD_TESTS=OFF \
  -DDEFAULT_PKCS11_LIB=softhsm2.dll -DDEFAULT_SOFTHSM2_CONF=softhsm2.conf -DDEFAULT_TOKENDIR=tokens \
  "${PROBES[@]}"
run "$WORK/softhsm2-build.log" cmake --build "$BUILD" -j "$JOBS" --target softhsm2 softhsm2-util

# 4. Check that nothing but Windows system DLLs is imported, then install: replace the prefix as a
#    whole so that an interrupted run never leaves half of one.
NEW=$WORK/prefix
mkdir -p "$NEW/bin"
cp "$BUILD/src/lib/libsofthsm2.dll" "$NEW/bin/softhsm2.dll"
cp "$BUILD/src/bin/util/softhsm2-util.exe" "$NEW/bin/softhsm2-util.exe"
for bin in "$NEW"/bin/*; do
  imports=$($HOST-objdump -p "$bin" | sed -n 's/^\s*DLL Name: //p' | tr 'A-Z' 'a-z')
  for dll in $imports; do
    case "$dll" in
      kernel32.dll|user32.dll|advapi32.dll|crypt32.dll|ws2_32.dll|msvcrt.dll) ;;
      *) log "$(basename "$bin") imports $dll, which Windows does not ship"; exit 1 ;;
    esac
  done
done
rm -rf "$PREFIX"
mv "$NEW" "$PREFIX"
touch "$STAMP"
log "installed $PREFIX/bin/softhsm2.dll and $PREFIX/bin/softhsm2-util.exe"
echo "$PREFIX"

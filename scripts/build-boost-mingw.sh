#!/usr/bin/env bash
# Builds Boost.Filesystem and Boost.System as static libraries for 64-bit Windows (mingw-w64) from
# Debian's boost1.74 source package, and installs headers and libraries into a prefix under the
# cache. Prints nothing but progress on stderr. Idempotent: a finished prefix is reused as it is.
#   NEBRA_CACHE   cache folder (default ~/.cache/nebralib)
# The prefix is $NEBRA_CACHE/boost-mingw-1.74; scripts/mingw-prefix.sh hands it to CMake.
set -euo pipefail
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
PREFIX=$CACHE/boost-mingw-1.74
# Bump when the way the prefix is built changes, so that caches are rebuilt.
STAMP=$PREFIX/.built-1
[ -f "$STAMP" ] && exit 0

CXX=x86_64-w64-mingw32-g++-posix
AR=x86_64-w64-mingw32-ar
command -v "$CXX" >/dev/null || { echo "build-boost-mingw: $CXX not found (run scripts/deps.sh)" >&2; exit 1; }
. "$(dirname "$0")/deb-src.sh"
log() { echo "build-boost-mingw: $*" >&2; }

# 1. The source package (downloaded once, checked by apt against the signed Sources index).
SRC=$CACHE/boost1.74-src
mkdir -p "$SRC"
orig() { ls "$SRC"/boost1.74_*.orig.tar.* 2>/dev/null | head -n1; }
if [ -z "$(orig)" ]; then
  if ! (cd "$SRC" && apt-get source --download-only -qq boost1.74 >/dev/null 2>&1); then
    # No deb-src entries yet.
    add_deb_src build-boost-mingw
    (cd "$SRC" && apt-get source --download-only -qq boost1.74 >/dev/null)
  fi
fi
ORIG=$(orig)
DEBIAN_TAR=$(ls "$SRC"/boost1.74_*.debian.tar.* | head -n1)
log "using $(basename "$ORIG")"

# 2. Only the headers and the two libraries' sources are unpacked. The source package keeps every
#    library's headers in its own libs/NAME/include; they are merged into one tree. Debian's
#    patches are applied where they concern the unpacked files only.
WORK=$(mktemp -d "$CACHE/boost-build.XXXXXX")
trap 'rm -rf "$WORK"' EXIT
tar -xf "$ORIG" -C "$WORK" --wildcards '*/include/boost/*' '*/libs/filesystem/src/*' \
  '*/libs/system/src/*'
TOP=$WORK/boost
tar -xf "$DEBIAN_TAR" -C "$WORK" debian/patches
while read -r p _; do
  case "$p" in ''|'#'*) continue ;; esac
  if patch -d "$TOP" -p1 -s -f --dry-run <"$WORK/debian/patches/$p" >/dev/null 2>&1; then
    patch -d "$TOP" -p1 -s -f <"$WORK/debian/patches/$p" >/dev/null && log "applied $p"
  fi
done <"$WORK/debian/patches/series"
INC=$WORK/include
mkdir -p "$INC"
for d in "$TOP"/libs/*/include "$TOP"/libs/numeric/*/include; do
  [ -d "$d/boost" ] && cp -r "$d/boost" "$INC/"
done
[ -f "$INC/boost/version.hpp" ] || { log "no headers unpacked"; exit 1; }

# 3. Compile with the Windows cross compiler (static libraries, release, multi-threaded).
FLAGS=(-std=gnu++17 -O2 -DNDEBUG -I"$INC" -DBOOST_ALL_NO_LIB -DBOOST_FILESYSTEM_STATIC_LINK=1
       -DBOOST_SYSTEM_STATIC_LINK=1 -DBOOST_FILESYSTEM_SOURCE -DBOOST_FILESYSTEM_HAS_BCRYPT)
build_lib() {  # name, sources...
  local name=$1; shift
  local objs=() src o
  for src in "$@"; do
    o="$WORK/$name-$(basename "$src" .cpp).o"
    objs+=("$o")
    "$CXX" "${FLAGS[@]}" -c "$src" -o "$o" &
    while [ "$(jobs -rp | wc -l)" -ge "${JOBS:-2}" ]; do wait -n || true; done
  done
  wait || true
  for o in "${objs[@]}"; do [ -f "$o" ] || { log "compiling $name failed"; exit 1; }; done
  "$AR" rcs "$WORK/libboost_$name.a" "${objs[@]}"
}
log "compiling Boost.Filesystem and Boost.System with $CXX"
build_lib filesystem "$TOP"/libs/filesystem/src/*.cpp
build_lib system "$TOP"/libs/system/src/*.cpp

# 4. Install: replace the prefix as a whole so that an interrupted run never leaves half of one.
NEW=$WORK/prefix
mkdir -p "$NEW/include" "$NEW/lib"
mv "$INC/boost" "$NEW/include/"
mv "$WORK/libboost_filesystem.a" "$WORK/libboost_system.a" "$NEW/lib/"
rm -rf "$PREFIX"
mv "$NEW" "$PREFIX"
touch "$STAMP"
log "installed into $PREFIX"

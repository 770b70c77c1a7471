#!/usr/bin/env bash
# Builds a crypt32.dll for 64-bit Windows from Debian 12's Wine 8 source package (its .orig
# tarball), patched to behave as Windows documents where stock Wine 8 does not (the reasons are in
# scripts/patches/wine-crypt32/series), and a Wine that loads it: an overlay of the installed Wine
# in which only crypt32.dll differs. Test tooling only: nothing built here is shipped or linked.
# Idempotent: a finished prefix is reused as it is, and rebuilt when this script's build version,
# the patches or the installed Wine change. Progress goes to stderr; the last line on stdout is
# the prefix.
#   NEBRA_CACHE   cache folder (default ~/.cache/nebralib)
#   JOBS          parallel compile jobs (default 2)
# Layout, PREFIX=$NEBRA_CACHE/wine-crypt32-8.0:
#   PREFIX/bin/wine             runs a Windows program (its first argument) on the installed Wine
#                               with the patched crypt32 as the builtin; WINEPREFIX as for wine
#   PREFIX/lib/crypt32.dll      the patched DLL
#   PREFIX/overlay/             the overlay tree
# Wine's loader and ntdll.so find the rest of Wine from their own real paths, and a crypt32.dll
# built outside Wine's tree is refused as a native override, so the overlay copies those two,
# links every other file of the installed Wine, and puts the patched DLL in the builtin folder.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
PREFIX=$CACHE/wine-crypt32-8.0
PATCHES=$HERE/patches/wine-crypt32
WINE_LOADER=/usr/lib/wine/wine64
WINE_LIB=/usr/lib/x86_64-linux-gnu/wine
WINE_DATA=/usr/share/wine
INSTALLED=$(dpkg-query -W -f='${Version}' wine64 2>/dev/null || true)
# Bump when the way a prefix is built changes, so that caches are rebuilt.
HASH=$( (cat "$PATCHES"/series "$PATCHES"/*.patch; echo "$INSTALLED") | sha256sum | cut -c1-12)
STAMP=$PREFIX/.built-1-$HASH
if [ -f "$STAMP" ]; then echo "$PREFIX"; exit 0; fi

log() { echo "build-wine-crypt32: $*" >&2; }
[ -x "$WINE_LOADER" ] && [ -f "$WINE_LIB/x86_64-unix/ntdll.so" ] ||
  { log "the installed 64-bit Wine is missing (run scripts/deps.sh)"; exit 1; }
for tool in x86_64-w64-mingw32-gcc gcc make perl autoconf flex bison patch; do
  command -v "$tool" >/dev/null || { log "$tool not found (run scripts/deps.sh)"; exit 1; }
done
. "$HERE/deb-src.sh"
JOBS=${JOBS:-2}

mkdir -p "$CACHE"
# One build at a time: a second caller waits, then finds the finished prefix.
exec 9>"$CACHE/.wine-crypt32.lock"
flock 9
if [ -f "$STAMP" ]; then echo "$PREFIX"; exit 0; fi

start=$(date +%s)
WORK=$(mktemp -d "$CACHE/wine-crypt32-build.XXXXXX")
trap 'rm -rf "$WORK"' EXIT

# 1. The source package of the installed Wine (downloaded once, checked by apt against the signed
#    Sources index). Only the .orig tarball is used.
SRC=$CACHE/wine-src
mkdir -p "$SRC"
orig() { ls "$SRC"/wine_*.orig.tar.* 2>/dev/null | grep -v '\.asc$' | sort -V | tail -n1; }
fetch() { (cd "$SRC" && apt-get source --download-only -qq "wine=$INSTALLED" >/dev/null 2>&1) || true; }
if [ -z "$(orig)" ]; then
  fetch
  if [ -z "$(orig)" ]; then
    add_deb_src build-wine-crypt32  # no deb-src entries yet
    fetch
  fi
fi
ORIG=$(orig)
[ -n "$ORIG" ] || { log "no wine .orig tarball in $SRC"; exit 1; }
log "using $(basename "$ORIG")"

# 2. Only crypt32 and what building it needs: the tools, the headers, and the DLLs whose import
#    libraries it links (the other folders are dropped from configure.ac, so the sources that need
#    generated data are never scanned). The .orig tarball has no configure script, config.h.in
#    or server_protocol.h; they are generated.
tar -xf "$ORIG" -C "$WORK"
TOP=$(ls -d "$WORK"/wine-*/)
apply_series "$TOP" "$PATCHES"
KEEP='include|tools|tools/(widl|winebuild|winegcc|wmc|wrc)'
KEEP+='|dlls/(crypt32|user32|advapi32|bcrypt|cryptnet|kernel32|ntdll|winecrt0|msvcrt)'
KEEP+='|dlls/(stdole2.tlb|oleacc)'  # what the headers' IDL files import
(
  cd "$TOP"
  perl -ni -e 'if (/^WINE_CONFIG_MAKEFILE\(([^,)]*)/) { print if $1 =~ m{^('"$KEEP"')$} } else { print }' \
    configure.ac
  run "$WORK/make_requests.log" perl tools/make_requests
  # Generated from the Vulkan and OpenGL registries, and listed among the headers; crypt32
  # includes none of them, so empty ones do.
  for h in vulkan.h vulkan_driver.h wgl.h wgl_driver.h; do
    [ -e "include/wine/$h" ] || : >"include/wine/$h"
  done
  ln -sf /usr/share/misc/config.sub /usr/share/misc/config.guess tools/
  run "$WORK/autoconf.log" autoconf
  run "$WORK/autoheader.log" autoheader
)
BUILD=$WORK/build
mkdir -p "$BUILD/nls"
log "configuring ($(($(date +%s) - start)) s)"
(cd "$BUILD" && "$TOP/configure" --enable-win64 --with-mingw --without-x --without-freetype \
  --disable-tests >"$WORK/configure.log" 2>&1) || true
# The makefile fails while a file the kept folders name is missing from the tarball: user32's
# icons, made from SVG files when Wine is packaged. Only user32's import library is built, so
# empty ones do; each is named, and only a resource file may be stood in for this way.
for _ in $(seq 20); do
  (cd "$BUILD" && ./config.status >"$WORK/config.status.log" 2>&1) && break
  miss=$(sed -n 's|^.*/wine-[^/]*/\(.*\)/[^/]*\.rc:[0-9]*: error: \(.*\.ico\): No such file.*|\1/\2|p' \
    "$WORK/config.status.log" | head -n1)
  [ -n "$miss" ] || { tail -n 20 "$WORK/configure.log" "$WORK/config.status.log" >&2; log "configure failed"; exit 1; }
  log "empty stand-in for $miss"
  : >"$TOP/$miss"
done
# crypt32's resources are compiled with the locale data that the installed Wine ships.
cp "$WINE_DATA/nls/locale.nls" "$BUILD/nls/"
log "building the tools ($(($(date +%s) - start)) s)"
run "$WORK/tools.log" make -C "$BUILD" -j"$JOBS" __tooldeps__
log "building crypt32.dll ($(($(date +%s) - start)) s)"
DLL=dlls/crypt32/x86_64-windows/crypt32.dll
run "$WORK/crypt32.log" make -C "$BUILD" -j"$JOBS" "$DLL"

# 3. The overlay: the installed Wine's folders mirrored by links, the loader and ntdll.so copied,
#    the patched crypt32.dll in the builtin folder; then the launcher.
NEW=$WORK/prefix
OV=$NEW/overlay
for dir in "$(dirname "$WINE_LOADER")" "$WINE_LIB" "$WINE_DATA"; do
  (cd "$dir" && find . -type d) | while read -r d; do mkdir -p "$OV$dir/$d"; done
  (cd "$dir" && find . ! -type d) | while read -r f; do ln -s "$dir/${f#./}" "$OV$dir/${f#./}"; done
done
for f in "$WINE_LOADER" "$WINE_LIB/x86_64-unix/ntdll.so"; do
  rm "$OV$f"
  cp "$f" "$OV$f"
done
mkdir -p "$NEW/lib" "$NEW/bin"
cp "$BUILD/$DLL" "$NEW/lib/crypt32.dll"
rm "$OV$WINE_LIB/x86_64-windows/crypt32.dll"
cp "$BUILD/$DLL" "$OV$WINE_LIB/x86_64-windows/crypt32.dll"
cat >"$NEW/bin/wine" <<EOF
#!/bin/sh
# Runs a Windows program on the installed Wine with the patched crypt32 (scripts/build-wine-crypt32.sh).
exec "\$(dirname "\$(readlink -f "\$0")")/../overlay$WINE_LOADER" "\$@"
EOF
chmod +x "$NEW/bin/wine"
rm -rf "$PREFIX"
mv "$NEW" "$PREFIX"
touch "$STAMP"
log "installed $PREFIX/bin/wine in $(($(date +%s) - start)) s"
echo "$PREFIX"

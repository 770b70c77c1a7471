#!/usr/bin/env bash
# The Windows package as a user gets it: `cpack -G ZIP` in the Windows build, unpacked into an
# empty folder. Every DLL a packaged binary imports must be in the package or be part of Windows
# (present in Wine's system32); the tool and a consumer built against the package run under Wine
# with an empty WINEPATH, so no toolchain folder is on the DLL path. The consumer is handed a
# module that does not exist: the event raised inside the DLL must reach its catch block. The
# Python module is in python/, where it finds ../bin/nebralib.dll.
set -euo pipefail
cd "$(dirname "$0")/../.."
ROOT=$PWD
BUILD=${NEBRA_BUILD_MINGW:-$ROOT/build-mingw}
export WINEPREFIX=${WINEPREFIX:-${NEBRA_CACHE:-$HOME/.cache/nebralib}/wineprefix}
export WINEDEBUG=-all DISPLAY=
unset WINEDLLPATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*"; exit 1; }
# Under Wine without a toolchain folder on the DLL path; output with the line ends of Unix.
win() { WINEPATH= wine "$@" 2>"$work/stderr" | tr -d '\r'; }

version=$(sed -n 's/^#define NEBRALIB_VERSION "\(.*\)"$/\1/p' "$BUILD/include/nebralib/version.h")
[ -n "$version" ] || fail "no version in $BUILD/include/nebralib/version.h"
(cd "$BUILD" && cpack -G ZIP >/dev/null)
zip=$BUILD/nebralib-$version-win64.zip
[ -f "$zip" ] || fail "cpack did not write $zip"
mkdir "$work/unpacked"
(cd "$work/unpacked" && cmake -E tar xf "$zip")
pkg=$work/unpacked/nebralib-$version-win64
echo "$(basename "$zip"):"
(cd "$work/unpacked" && find . -type f | sort | sed 's|^\./|  |')
for f in bin/nebralib.dll bin/nebra.exe lib/libnebralib.dll.a lib/cmake/nebralib/nebralibConfig.cmake \
  lib/cmake/nebralib/nebralibConfigVersion.cmake lib/cmake/nebralib/nebralibTargets.cmake \
  include/nebralib/nebralib.h include/nebralib/export.h include/nebralib/version.h \
  share/doc/nebralib/LICENSE share/doc/nebralib/README.md share/doc/nebralib/nebra.txt \
  python/nebralib.py; do
  [ -f "$pkg/$f" ] || fail "the zip has no $f"
done

# Imports: in bin/ or in Windows itself. Wine's system32 holds the DLLs Windows has; the GCC
# runtime DLLs are not among them.
sys32=$WINEPREFIX/drive_c/windows/system32
[ -f "$sys32/kernel32.dll" ] || wineboot -i >/dev/null 2>&1 || true
[ -f "$sys32/kernel32.dll" ] || fail "no Wine prefix at $WINEPREFIX"
check_imports() {
  local f=$1 dll
  for dll in $(x86_64-w64-mingw32-objdump -p "$f" | sed -n 's/^\s*DLL Name: //p'); do
    if [ -n "$(find "$pkg/bin" -maxdepth 1 -iname "$dll")" ]; then continue; fi
    [ -n "$(find "$sys32" -maxdepth 1 -iname "$dll")" ] || fail "$(basename "$f") imports $dll"
    case "${dll,,}" in libstdc++*|libgcc*|libwinpthread*) fail "$(basename "$f") imports $dll" ;; esac
  done
  echo "$(basename "$f") imports: $(x86_64-w64-mingw32-objdump -p "$f" | sed -n 's/^\s*DLL Name: //p' | tr '\n' ' ')"
}
for f in "$pkg"/bin/*.dll "$pkg"/bin/*.exe; do check_imports "$f"; done

# The version resources carry the project version.
for f in nebralib.dll nebra.exe; do
  v=$(strings -el "$pkg/bin/$f" | grep -A1 -x FileVersion | tail -n1)
  [ "$v" = "$version" ] || fail "$f has version resource '$v', expected $version"
done

# The tool, from the unpacked folder.
cd "$pkg/bin"
out=$(win ./nebra.exe --version) || fail "nebra.exe --version: $(cat "$work/stderr")"
[ "$out" = "nebra $version" ] || fail "nebra.exe --version printed '$out'"
out=$(win ./nebra.exe providers) || fail "nebra.exe providers: $(cat "$work/stderr")"
[ -n "$out" ] || fail "nebra.exe providers listed nothing"
echo "nebra.exe --version: nebra $version; providers: $(echo "$out" | wc -l) listed"
# A PIN source that is there (it is checked before the module is loaded), a module that is not.
if NO_PIN=0000 win ./nebra.exe token --verbose --module 'C:\no\such\module.dll' --pin-env NO_PIN \
  >/dev/null; then
  fail "nebra.exe token accepted a module that does not exist"
fi
tr -d '\r' <"$work/stderr" | grep -q "Pkcs11Error_CryptokiError" ||
  fail "nebra.exe token did not report the event: $(cat "$work/stderr")"
cd "$ROOT"

# A mingw project outside the tree, built against the unpacked package and Windows Boost; it links
# its own GCC runtime statically too, so it needs nothing beside nebralib.dll.
boost=$(sed -n 's/^NEBRA_BOOST_MINGW_PREFIX:PATH=//p' "$BUILD/CMakeCache.txt")
cmake -S examples/consumer -B "$work/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchains/mingw-w64.cmake" \
  -DCMAKE_FIND_ROOT_PATH="$pkg;$boost" -DCMAKE_EXE_LINKER_FLAGS=-static >/dev/null
cmake --build "$work/consumer" >/dev/null
cp "$work/consumer/consumer.exe" "$pkg/bin/"
check_imports "$pkg/bin/consumer.exe"
cd "$pkg/bin"
if win ./consumer.exe 'C:\no\such\module.dll' 1234 >/dev/null; then
  fail "consumer.exe accepted a module that does not exist"
fi
err=$(tr -d '\r' <"$work/stderr")
echo "consumer.exe with a missing module: $err"
[ "$err" = "error: Pkcs11Error_CryptokiError" ] || fail "the event did not reach the consumer's handler"
echo "Windows package checks passed"

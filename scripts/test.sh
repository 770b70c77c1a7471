#!/usr/bin/env bash
# Builds and tests everything: native Linux (GCC), the same tests under AddressSanitizer + UBSan,
# the Windows DLL cross-built with mingw-w64 with its portable tests under Wine, then the extra
# stages in scripts/ci.d (fuzzing, end-to-end checks). Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
# Started with `env -i`, a shell has no PATH, HOME or locale: the standard PATH (tools such as
# cmake find their own files through it), the user's home from the password database, and a
# UTF-8 locale for the file names the tests and Wine use.
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin}
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
export LC_ALL=${NEBRA_LOCALE:-C.UTF-8}

bash scripts/deps.sh

export NEBRA_BUILD=${NEBRA_BUILD:-$ROOT/build}
export NEBRA_BUILD_ASAN=${NEBRA_BUILD_ASAN:-$ROOT/build-asan}
export NEBRA_BUILD_MINGW=${NEBRA_BUILD_MINGW:-$ROOT/build-mingw}
export NEBRA_CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
WERROR=${NEBRALIB_WERROR:-ON}
JOBS=${JOBS:-$(nproc)}
# Wine keeps its prefix in the cache so that only the first run pays for creating it.
export WINEPREFIX=${WINEPREFIX:-$NEBRA_CACHE/wineprefix}
export WINEDEBUG=-all
mkdir -p "$NEBRA_CACHE"

stage() { echo; echo "=== $* ($(date +%T))"; }

stage "native build"
cmake -S . -B "$NEBRA_BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNEBRALIB_WERROR=$WERROR \
  -DNEBRALIB_BUILD_BENCH=ON >/dev/null
cmake --build "$NEBRA_BUILD" -j "$JOBS"
stage "native tests"
# The emulated card tests have a stage of their own (ci.d/15-card.sh), where they may not skip.
ctest --test-dir "$NEBRA_BUILD" --output-on-failure -j "$JOBS" -LE card

stage "AddressSanitizer + UBSan build"
cmake -S . -B "$NEBRA_BUILD_ASAN" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DNEBRALIB_WERROR=$WERROR \
  -DNEBRALIB_SANITIZE=ON -DNEBRALIB_BUILD_TOOLS=ON >/dev/null
cmake --build "$NEBRA_BUILD_ASAN" -j "$JOBS"
stage "AddressSanitizer + UBSan tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  LSAN_OPTIONS=suppressions=$ROOT/scripts/lsan.supp \
  ctest --test-dir "$NEBRA_BUILD_ASAN" --output-on-failure -j "$JOBS"

stage "Windows x64 cross build (mingw-w64)"
MINGW_ARGS=()
if [ -f scripts/mingw-prefix.sh ]; then
  # Prints extra CMake arguments (e.g. where a Windows build of a dependency was installed).
  mapfile -t MINGW_ARGS < <(bash scripts/mingw-prefix.sh)
fi
cmake -S . -B "$NEBRA_BUILD_MINGW" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64.cmake -DNEBRALIB_WERROR=$WERROR \
  "${MINGW_ARGS[@]}" >/dev/null
cmake --build "$NEBRA_BUILD_MINGW" -j "$JOBS"
stage "Windows tests under Wine"
if [ ! -d "$WINEPREFIX" ]; then wineboot -i >/dev/null 2>&1 || true; fi
# Stock Wine, as a user's Wine is: its crypt32 limits are skipped with their reasons. The token
# tests need the Windows SoftHSM2 and have a stage of their own (ci.d/20-wine-token.sh); the same
# tests on the project's patched crypt32 are another (ci.d/20-wine-crypt32.sh).
bash scripts/wine-ctest.sh "Windows tests under stock Wine" "$NEBRA_BUILD_MINGW" -LE 'token|crypt32'

for extra in scripts/ci.d/*.sh; do
  [ -e "$extra" ] || continue
  stage "$(basename "$extra" .sh)"
  bash "$extra"
done

stage "all stages passed"

#!/usr/bin/env bash
# The emulated smart-card tests (ctest label "card": the stack's smoke test and test_card, nebra
# through OpenSC on two cards) on the native build. Here they must run: with the packages in
# place, a stack that does not come up fails the stage rather than skipping its tests.
set -euo pipefail
cd "$(dirname "$0")/../.."
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin}
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
export LC_ALL=${LC_ALL:-C.UTF-8}
ROOT=$PWD
BUILD=${NEBRA_BUILD:-$ROOT/build}

bash scripts/deps.sh card
# An existing build keeps its settings; configuring again finds libcacard if it was just installed.
if [ -f "$BUILD/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD" >/dev/null
else
  cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DNEBRALIB_WERROR="${NEBRALIB_WERROR:-ON}" >/dev/null
fi
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target nebra nebra_cardbridge test_card

listed=$(ctest --test-dir "$BUILD" -N -L card | sed -n 's/^Total Tests: //p')
if [ "${listed:-0}" -lt 2 ]; then
  echo "card stage: $BUILD has ${listed:-no} card tests, expected 2"
  exit 1
fi
log=$BUILD/Testing/card-stage.log
mkdir -p "$(dirname "$log")"
ctest --test-dir "$BUILD" -L card --output-on-failure --no-tests=error | tee "$log"
if grep -q "tests did not run" "$log"; then
  echo "card stage: tests were skipped although the packages are installed:"
  grep -h "SKIP:" "$BUILD/Testing/Temporary/LastTest.log" | sort -u
  exit 1
fi

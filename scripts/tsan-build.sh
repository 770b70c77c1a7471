#!/usr/bin/env bash
# Configures the ThreadSanitizer build (NEBRA_BUILD_TSAN, default build-tsan) and builds the
# targets given; prints the build folder as the last line. The library and the tests are built
# with -fsanitize=thread; the nebra tool is left out. Every stage that needs this build configures
# it the same way, so that none of them reconfigures what another built.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin}
BUILD=${NEBRA_BUILD_TSAN:-$PWD/build-tsan}
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNEBRALIB_WERROR=ON \
  -DNEBRALIB_BUILD_TOOLS=OFF -DCMAKE_CXX_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target "$@" >&2
echo "$BUILD"

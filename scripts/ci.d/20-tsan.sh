#!/usr/bin/env bash
# ThreadSanitizer over the store and key-provider tests: the static operations (listCSPs among
# them) must share no state between threads. Only the library and that one test are built.
set -euo pipefail
cd "$(dirname "$0")/../.."
BUILD=${NEBRA_BUILD_TSAN:-$PWD/build-tsan}
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNEBRALIB_WERROR=ON \
  -DNEBRALIB_BUILD_TOOLS=OFF -DCMAKE_CXX_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target test_certstore
TSAN_OPTIONS=halt_on_error=1 "$BUILD/bin/test_certstore"

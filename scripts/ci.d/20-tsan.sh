#!/usr/bin/env bash
# ThreadSanitizer over the buffers' shared reference count and the store and key-provider tests:
# copies of one buffer are made and dropped on many threads at once, and the static operations
# (listCSPs among them) must share no state between threads. Only the library and these tests are
# built; the nebra command tests are left out, as this build has no tool.
set -euo pipefail
cd "$(dirname "$0")/../.."
BUILD=${NEBRA_BUILD_TSAN:-$PWD/build-tsan}
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNEBRALIB_WERROR=ON \
  -DNEBRALIB_BUILD_TOOLS=OFF -DCMAKE_CXX_FLAGS=-fsanitize=thread \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target test_buffer test_certstore test_certstore_sqlite
export TSAN_OPTIONS=halt_on_error=1
"$BUILD/bin/test_buffer"
"$BUILD/bin/test_certstore"
"$BUILD/bin/test_certstore_sqlite" --gtest_filter='-NebraCommands.*'

#!/usr/bin/env bash
# ThreadSanitizer over the buffers' shared reference count and the store and key-provider tests:
# copies of one buffer are made and dropped on many threads at once, and the static operations
# (listCSPs among them) must share no state between threads. Only the library and these tests are
# built; the nebra command tests are left out, as this build has no tool.
set -euo pipefail
cd "$(dirname "$0")/../.."
BUILD=$(bash scripts/tsan-build.sh test_buffer test_certstore test_certstore_sqlite | tail -n 1)
export TSAN_OPTIONS=halt_on_error=1
"$BUILD/bin/test_buffer"
"$BUILD/bin/test_certstore"
"$BUILD/bin/test_certstore_sqlite" --gtest_filter='-NebraCommands.*'

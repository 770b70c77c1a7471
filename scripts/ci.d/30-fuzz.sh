#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, replays each seed corpus, then fuzzes each target for a
# bounded time (FUZZ_SECONDS, default 60). For a long run of one target:
#   build-fuzz/bin/fuzz_NAME -max_total_time=3600 fuzz/corpus/fuzz_NAME
set -euo pipefail
cd "$(dirname "$0")/../.."
shopt -s nullglob
targets=(fuzz/fuzz_*.cpp)
[ ${#targets[@]} -gt 0 ] || { echo "no fuzz targets"; exit 0; }
BUILD=${NEBRA_BUILD_FUZZ:-$PWD/build-fuzz}
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DNEBRALIB_BUILD_FUZZ=ON -DNEBRALIB_BUILD_TESTS=OFF -DNEBRALIB_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}"
SECONDS_EACH=${FUZZ_SECONDS:-60}
for src in "${targets[@]}"; do
  name=$(basename "$src" .cpp)
  corpus=fuzz/corpus/$name
  work=$(mktemp -d)
  [ -d "$corpus" ] && cp -r "$corpus"/. "$work"/ 2>/dev/null || true
  echo "--- $name: replay $(ls "$work" | wc -l) seeds, then fuzz ${SECONDS_EACH}s"
  log=$(mktemp)
  set +e
  "$BUILD/bin/$name" -runs=0 "$work" >"$log" 2>&1 &&
    "$BUILD/bin/$name" -max_total_time="$SECONDS_EACH" -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$work/" "$work" >>"$log" 2>&1
  rc=$?
  set -e
  grep -E '^Done|stat::number_of_executed_units|stat::new_units_added' "$log" || true
  if [ $rc -ne 0 ]; then tail -n 60 "$log"; echo "$name FAILED"; exit 1; fi
  rm -rf "$work" "$log"
done

#!/usr/bin/env bash
# Prints the extra CMake arguments of the Windows cross build, one per line: where the Windows
# build of Boost.Filesystem is installed (built on first use by scripts/build-boost-mingw.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
bash scripts/build-boost-mingw.sh
echo "-DNEBRA_BOOST_MINGW_PREFIX=$CACHE/boost-mingw-1.74"

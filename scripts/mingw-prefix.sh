#!/usr/bin/env bash
# Prints the extra CMake arguments of the Windows cross build, one per line: where the Windows
# build of Boost.Filesystem is installed (built on first use by scripts/build-boost-mingw.sh), and
# where the Windows build of SoftHSM2 for the tests is (scripts/build-softhsm-mingw.sh; its
# bin/softhsm2.dll is the PKCS#11 module, bin/softhsm2-util.exe the token tool).
set -euo pipefail
cd "$(dirname "$0")/.."
CACHE=${NEBRA_CACHE:-$HOME/.cache/nebralib}
bash scripts/build-boost-mingw.sh
echo "-DNEBRA_BOOST_MINGW_PREFIX=$CACHE/boost-mingw-1.74"
SOFTHSM_PREFIX=$(bash scripts/build-softhsm-mingw.sh | tail -n1)
echo "-DNEBRA_SOFTHSM_MINGW_PREFIX=$SOFTHSM_PREFIX"

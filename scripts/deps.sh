#!/usr/bin/env bash
# Installs what the demo or the builds and tests need on Debian 12. Idempotent: apt is only asked
# when a package is missing.
#   deps.sh demo   the native build and the demo: compiler, CMake, OpenSSL, SQLite, p11-kit,
#                  SoftHSM2, OpenSC's pkcs11-tool, Boost.Filesystem
#   deps.sh card   the demo's, and the emulated smart-card stack (scripts/cardstack.sh): pcscd,
#                  the vpcd reader driver, libcacard to build the card, NSS tools, OpenSC's module
#   deps.sh        everything: the above, and GoogleTest, Google Benchmark, clang for fuzzing, the
#                  mingw-w64 cross toolchain, Wine (and what building its crypt32 needs), and the
#                  tools the tests and packages use
set -euo pipefail

DEMO_PACKAGES=(
  build-essential cmake ninja-build pkg-config
  libssl-dev openssl libsqlite3-dev libp11-kit-dev
  softhsm2 opensc libboost-filesystem-dev
)
CARD_PACKAGES=(pcscd vsmartcard-vpcd libcacard-dev libnss3-tools opensc-pkcs11)
TEST_PACKAGES=(
  clang libclang-rt-14-dev
  libgtest-dev googletest libbenchmark-dev
  ca-certificates sqlite3 p11-kit gnutls-bin libboost-dev
  g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64
  attr osslsigncode python3 bc
  dpkg-dev file xz-utils patch perl autoconf flex bison groff-base lintian
)
APT_OPTIONS=()
case "${1:-all}" in
  # The demo sets also leave out what their packages only recommend (documentation, and for the
  # plain demo a smart-card daemon).
  demo) PACKAGES=("${DEMO_PACKAGES[@]}"); APT_OPTIONS=(--no-install-recommends) ;;
  card)
    PACKAGES=("${DEMO_PACKAGES[@]}" "${CARD_PACKAGES[@]}")
    APT_OPTIONS=(--no-install-recommends) ;;
  all|test) PACKAGES=("${DEMO_PACKAGES[@]}" "${CARD_PACKAGES[@]}" "${TEST_PACKAGES[@]}") ;;
  *) echo "usage: deps.sh [demo|card]" >&2; exit 2 ;;
esac

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${APT_OPTIONS[@]}" "${missing[@]}" >/dev/null
fi

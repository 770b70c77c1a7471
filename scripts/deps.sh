#!/usr/bin/env bash
# Installs everything the builds, tests and demo need on Debian 12. Idempotent: apt is only asked
# when a package is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev googletest libbenchmark-dev
  libssl-dev openssl ca-certificates libsqlite3-dev sqlite3
  libp11-kit-dev p11-kit softhsm2 opensc gnutls-bin
  libboost-dev libboost-filesystem-dev
  g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64
  attr osslsigncode python3 bc
  dpkg-dev xz-utils patch perl
)

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi

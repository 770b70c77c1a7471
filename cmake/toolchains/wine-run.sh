#!/bin/sh
# The emulator ctest runs the Windows test programs with: the Wine found at configure time (the
# first argument), or the one NEBRA_WINE_LAUNCHER names at test time (the project's patched
# crypt32, scripts/build-wine-crypt32.sh).
wine=$1
shift
# Wine takes its ANSI code page from the locale; the tests use non-ASCII file names, which the
# C locale's code page cannot express.
export LC_ALL=C.UTF-8
exec "${NEBRA_WINE_LAUNCHER:-$wine}" "$@"

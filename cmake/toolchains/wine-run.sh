#!/bin/sh
# The emulator ctest runs the Windows test programs with: the Wine found at configure time (the
# first argument), or the one NEBRA_WINE_LAUNCHER names at test time (the project's patched
# crypt32, scripts/build-wine-crypt32.sh).
wine=$1
shift
exec "${NEBRA_WINE_LAUNCHER:-$wine}" "$@"

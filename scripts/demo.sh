#!/usr/bin/env bash
# The main job on a built-in default: a SoftHSM2 demo token (root, CA, two leaves with their private
# keys, one leaf without) is provisioned once in a private directory, then synced into the user's
# certificate store and listed. Running it again changes nothing.
# With --card, the same on an emulated smart card instead: a CAC card (user certificate with its
# key, intermediate and root CA) kept in a private directory, put into a reader of a PC/SC stack
# of the demo's own (scripts/cardstack.sh) and read through OpenSC's PKCS#11 module.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
# Started with `env -i`, a shell has no PATH, HOME or locale: the standard PATH (tools such as
# cmake find their own files through it), the user's home from the password database, and a
# UTF-8 locale for the file names the tests and Wine use.
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin}
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
export LC_ALL=${NEBRA_LOCALE:-C.UTF-8}
case "${1:-}" in
  "") CARD="" ;;
  --card) CARD=1 ;;
  *) echo "usage: demo.sh [--card]" >&2; exit 2 ;;
esac
if [ -n "$CARD" ]; then bash scripts/deps.sh card; else bash scripts/deps.sh demo; fi
. scripts/softhsm.sh
if [ -n "${NEBRA_BIN:-}" ]; then
  NEBRA=$NEBRA_BIN  # an already built tool (the test run uses its own build)
else
  BUILD=$ROOT/build-release
  CARD_BUILD=()  # the emulated card is otherwise built with the tests only
  if [ -n "$CARD" ]; then CARD_BUILD=(-DNEBRALIB_BUILD_CARDBRIDGE=ON); fi
  cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNEBRALIB_BUILD_TESTS=OFF \
    "${CARD_BUILD[@]}" >/dev/null
  cmake --build "$BUILD" -j "$(nproc)" >/dev/null
  NEBRA=$BUILD/bin/nebra
fi

if [ -n "$CARD" ]; then
  # The card's certificates and keys stay in DIR between runs, so running it again changes
  # nothing; the stack around it lives only as long as the demo.
  CARDS=${NEBRA_DEMO_CARD_DIR:-${XDG_DATA_HOME:-$HOME/.local/share}/nebralib/demo-card}
  OPENSC=/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so
  export NEBRA_CARDBRIDGE=${NEBRA_CARDBRIDGE:-$(dirname "$NEBRA")/nebra_cardbridge}
  mkdir -p "$CARDS"
  chmod 700 "$CARDS"
  trap 'bash scripts/cardstack.sh stop "$CARDS"' EXIT
  bash scripts/cardstack.sh start "$CARDS" --cards 1
  eval "$(bash scripts/cardstack.sh env "$CARDS")"
  NEBRA_DEMO_PIN=$(cat "$CARDS/pin")
  export NEBRA_DEMO_PIN
  show() { echo; echo "\$ nebra $*"; "$NEBRA" "$@"; }
  show token --module "$OPENSC" --pin-env NEBRA_DEMO_PIN
  show sync --module "$OPENSC" --csp opensc --pin-env NEBRA_DEMO_PIN
  show list --csp opensc
  exit 0
fi

DEMO=${NEBRA_DEMO_DIR:-${XDG_DATA_HOME:-$HOME/.local/share}/nebralib/demo-token}
export SOFTHSM2_CONF=$DEMO/softhsm2.conf
export NEBRA_DEMO_PIN=${NEBRA_DEMO_PIN:-1234}
if [ ! -f "$DEMO/.provisioned" ]; then
  echo "Provisioning the demo token in $DEMO"
  rm -rf "$DEMO"
  mkdir -p "$DEMO"
  chmod 700 "$DEMO"
  softhsm_conf "$DEMO" >/dev/null
  bash tests/support/make-pki.sh "$DEMO/pki" >/dev/null
  softhsm2-util --init-token --free --label "nebra demo" --so-pin 12345678 \
    --pin "$NEBRA_DEMO_PIN" >/dev/null
  p11() { pkcs11-tool --module "$SOFTHSM" --login --pin "$NEBRA_DEMO_PIN" "$@" >/dev/null 2>&1; }
  p11 --write-object "$DEMO/pki/root.der" --type cert --id 01 --label "Nebra Demo Root"
  p11 --write-object "$DEMO/pki/ca.der" --type cert --id 02 --label "Nebra Demo Issuing CA"
  p11 --write-object "$DEMO/pki/leaf1.der" --type cert --id 10 --label "Alice Signing"
  p11 --write-object "$DEMO/pki/leaf1.key" --type privkey --id 10 --label "Alice Signing"
  p11 --write-object "$DEMO/pki/leaf2.der" --type cert --id 11 --label "Bob Encryption"
  p11 --write-object "$DEMO/pki/leaf2.key" --type privkey --id 11 --label "Bob Encryption"
  p11 --write-object "$DEMO/pki/leaf3.der" --type cert --id 12 --label "Carol No Key"
  touch "$DEMO/.provisioned"
fi

echo; echo "\$ nebra token --module softhsm2 --pin-env NEBRA_DEMO_PIN"
"$NEBRA" token --module softhsm2 --pin-env NEBRA_DEMO_PIN
if "$NEBRA" sync --help >/dev/null 2>&1; then
  echo; echo "\$ nebra sync --module softhsm2 --csp softhsm2 --pin-env NEBRA_DEMO_PIN"
  "$NEBRA" sync --module softhsm2 --csp softhsm2 --pin-env NEBRA_DEMO_PIN
  echo; echo "\$ nebra list --csp softhsm2"
  "$NEBRA" list --csp softhsm2
fi

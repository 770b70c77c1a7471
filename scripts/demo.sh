#!/usr/bin/env bash
# The main job on a built-in default: a SoftHSM2 demo token (root, CA, two leaves with their private
# keys, one leaf without) is provisioned once in a private directory, then synced into the user's
# certificate store and listed. Running it again changes nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
# Started with `env -i`, a shell has no PATH, HOME or locale: the standard PATH (tools such as
# cmake find their own files through it), the user's home from the password database, and a
# UTF-8 locale for the file names the tests and Wine use.
export PATH=${PATH:-/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin}
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
export LC_ALL=${NEBRA_LOCALE:-C.UTF-8}
bash scripts/deps.sh demo
. scripts/softhsm.sh
if [ -n "${NEBRA_BIN:-}" ]; then
  NEBRA=$NEBRA_BIN  # an already built tool (the test run uses its own build)
else
  BUILD=$ROOT/build-release
  cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNEBRALIB_BUILD_TESTS=OFF >/dev/null
  cmake --build "$BUILD" -j "$(nproc)" >/dev/null
  NEBRA=$BUILD/bin/nebra
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

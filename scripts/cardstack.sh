#!/usr/bin/env bash
# A PC/SC stack of its own with emulated CAC cards, for tests that drive OpenSC's PKCS#11 module
# against cards that can be put in and taken out:
#   cardstack.sh start DIR [--cards N] [--pin PIN]   pcscd with two vpcd readers; cards 1..N in
#   cardstack.sh insert DIR READER                   puts card READER (1 or 2) into its reader
#   cardstack.sh remove DIR READER                   takes it out
#   cardstack.sh stop DIR                            stops what start and insert started
#   cardstack.sh env DIR                             prints the exports PC/SC clients need
# Card 1 holds a user certificate with its RSA key, its intermediate CA and the root CA (ids 0001
# to 0003); card 2 another user certificate. DIR/cardR/certK.der is the certificate with id 000K,
# DIR/cardR/counters reads "apdus=N verifies_with_pin=M tries_left=K". The PIN (default 123456)
# is in DIR/pin. Exits 77 when a package it needs is missing.
set -euo pipefail
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
export LC_ALL=C.UTF-8
if [ -z "${HOME:-}" ]; then HOME=$(getent passwd "$(id -u)" | cut -d: -f6); export HOME; fi
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BRIDGE=${NEBRA_CARDBRIDGE:-${NEBRA_BUILD:-$ROOT/build}/bin/nebra_cardbridge}
VPCD=/usr/lib/pcsc/drivers/serial/libifdvpcd.so

die() { echo "cardstack: $*" >&2; exit 1; }
skip() { echo "cardstack: SKIP: $*" >&2; exit 77; }
usage() { sed -n '4,8s/^# \{0,1\}//p' "$0" >&2; exit 2; }

need() {
  local missing=()
  for tool in pcscd unshare openssl certutil pk12util; do
    command -v "$tool" >/dev/null || missing+=("$tool")
  done
  [ -e "$VPCD" ] || missing+=("$VPCD (vsmartcard-vpcd)")
  [ ${#missing[@]} -eq 0 ] || skip "missing ${missing[*]} (scripts/deps.sh installs them)"
  [ -x "$BRIDGE" ] || skip "no $BRIDGE (built where libcacard-dev is installed)"
}

# alive PID MARK: the process PID runs and is the one started (its command line names MARK).
alive() {
  [ -n "$1" ] && [ -r "/proc/$1/cmdline" ] || return 1
  [ "$(awk '{print $3}' "/proc/$1/stat" 2>/dev/null)" != Z ] || return 1
  tr '\0' ' ' <"/proc/$1/cmdline" | grep -qF -- "$2"
}

# halt PIDFILE MARK: stops the process PIDFILE names, waits for it to end, removes PIDFILE.
halt() {
  local pid
  pid=$(cat "$1" 2>/dev/null || true)
  if alive "$pid" "$2"; then
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 100); do alive "$pid" "$2" || break; sleep 0.05; done
    if alive "$pid" "$2"; then kill -KILL "$pid" 2>/dev/null || true; fi
    for _ in $(seq 40); do alive "$pid" "$2" || break; sleep 0.05; done
  fi
  rm -f "$1"
}

# Whether TCP port $1 has a socket in state $2 (hex, as /proc/net/tcp shows: 0A listen,
# 01 established, 08 close-wait).
port_state() {
  local hex
  hex=$(printf '%04X' "$1")
  awk -v p=":$hex" -v s="$2" '$2 ~ p"$" && $4 == s {found=1} END {exit !found}' \
    /proc/net/tcp /proc/net/tcp6 2>/dev/null
}

# A base port whose next one is free too: vpcd listens on PORT and PORT+1 of all interfaces.
pick_ports() {
  local p
  for _ in $(seq 50); do
    p=$((20000 + RANDOM % 40000))
    if ! port_state $p 0A && ! port_state $((p + 1)) 0A; then echo $p; return; fi
  done
  die "no free pair of TCP ports"
}

# make_card DIR/cardR CN [ISSUER...]: an NSS database whose password is the PIN, holding a user
# certificate (nickname "user") and its key, plus the CA certificates named after it.
make_card() {
  local d=$1 cn=$2
  mkdir -p "$d/nssdb"
  local tmp=$d/tmp
  mkdir "$tmp"
  printf '%s\n' "$pin" >"$tmp/dbpass"
  printf 'p12\n' >"$tmp/p12pass"
  printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature,keyEncipherment
extendedKeyUsage=clientAuth\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n' \
    >"$tmp/user.ext"
  openssl req -new -newkey rsa:2048 -nodes -keyout "$d/key.pem" -subj "/O=Nebra Tests/CN=$cn" \
    -out "$tmp/user.csr" 2>/dev/null
  openssl x509 -req -in "$tmp/user.csr" -CA "$dir/pki/intermediate.pem" \
    -CAkey "$dir/pki/intermediate.key" -set_serial "0x$(openssl rand -hex 8)" -days 3650 \
    -extfile "$tmp/user.ext" -out "$tmp/user.pem" 2>/dev/null
  openssl pkcs12 -export -in "$tmp/user.pem" -inkey "$d/key.pem" -name user \
    -passout "file:$tmp/p12pass" -out "$tmp/user.p12"
  certutil -N -d "sql:$d/nssdb" -f "$tmp/dbpass"
  pk12util -i "$tmp/user.p12" -d "sql:$d/nssdb" -k "$tmp/dbpass" -w "$tmp/p12pass" >/dev/null
  openssl x509 -in "$tmp/user.pem" -outform DER -out "$d/cert1.der"
  local nicks=user k=2
  shift 2
  for ca in "$@"; do
    certutil -A -d "sql:$d/nssdb" -f "$tmp/dbpass" -n "$ca" -t "CT,C,C" -i "$dir/pki/$ca.pem"
    openssl x509 -in "$dir/pki/$ca.pem" -outform DER -out "$d/cert$k.der"
    nicks="$nicks $ca" k=$((k + 1))
  done
  echo "$nicks" >"$d/nicknames"
  rm -rf "$tmp"
}

# The two cards' PKI: root CA -> intermediate CA -> one user certificate per card.
make_pki() {
  local pki=$dir/pki
  rm -rf "$pki" "$dir/card1" "$dir/card2" "$dir/pin"
  mkdir -p "$pki"
  printf 'basicConstraints=critical,CA:TRUE\nkeyUsage=critical,keyCertSign,cRLSign
subjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n' >"$pki/ca.ext"
  openssl req -x509 -newkey rsa:2048 -nodes -keyout "$pki/root.key" -days 7300 \
    -subj "/O=Nebra Tests/CN=Nebra Card Test Root CA" -out "$pki/root.pem" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" 2>/dev/null
  openssl req -new -newkey rsa:2048 -nodes -keyout "$pki/intermediate.key" \
    -subj "/O=Nebra Tests/CN=Nebra Card Test Intermediate CA" -out "$pki/intermediate.csr" \
    2>/dev/null
  openssl x509 -req -in "$pki/intermediate.csr" -CA "$pki/root.pem" -CAkey "$pki/root.key" \
    -set_serial "0x$(openssl rand -hex 8)" -days 7300 -extfile "$pki/ca.ext" \
    -out "$pki/intermediate.pem" 2>/dev/null
  make_card "$dir/card1" "Nebra Card User One" intermediate root
  make_card "$dir/card2" "Nebra Card User Two"
  echo "$pin" >"$dir/pin"
}

# Runs pcscd in a mount namespace of its own where DIR/run is /run/pcscd: Debian's pcscd always
# listens on /run/pcscd/pcscd.comm, clients reach it as DIR/run/pcscd.comm. Only the vpcd driver
# is visible to it, so it never takes a real reader from the machine's pcscd.
start_pcscd() {
  local port=$1 mode
  cp "$VPCD" "$dir/libifdvpcd.so"
  printf 'FRIENDLYNAME "Virtual PCD"\nDEVICENAME /dev/null:%s\nLIBPATH %s\nCHANNELID %s\n' \
    "$port" "$dir/libifdvpcd.so" "$port" >"$dir/reader.conf"
  rm -rf "$dir/run" && mkdir -p "$dir/run" # pcscd refuses to start over a stale socket
  # Root unshares the mount namespace directly; anyone else (or root without CAP_SYS_ADMIN, as in
  # some containers) through a user namespace.
  for mode in "--mount" "--user --map-root-user --mount"; do
    if [ "$mode" = --mount ] && [ "$(id -u)" != 0 ]; then continue; fi
    # shellcheck disable=SC2086
    if unshare $mode true 2>/dev/null; then break; fi
    mode=""
  done
  [ -n "$mode" ] || skip "cannot create a mount namespace (unshare) for pcscd"
  # shellcheck disable=SC2016 # expanded by the inner shell
  local inner='set -e
    [ -d /run/pcscd ] || { mount -t tmpfs -o mode=0755 tmpfs /run; mkdir /run/pcscd; }
    mount --bind "$1" /run/pcscd
    mount -t tmpfs -o mode=0755 tmpfs /usr/lib/pcsc/drivers
    exec pcscd --foreground --config "$2"'
  # shellcheck disable=SC2086
  env -i PATH="$PATH" LC_ALL=C.UTF-8 setsid unshare $mode \
    sh -c "$inner" sh "$dir/run" "$dir/reader.conf" </dev/null >"$dir/pcscd.log" 2>&1 &
  echo $! >"$dir/pcscd.pid"
  echo "$port" >"$dir/port"
  local pid=$!
  for _ in $(seq 200); do
    # vpcd that could not listen (a port taken meanwhile) leaves pcscd running without the reader.
    grep -q "init failed" "$dir/pcscd.log" && break
    if [ -S "$dir/run/pcscd.comm" ] && port_state "$port" 0A && port_state $((port + 1)) 0A; then
      return 0
    fi
    alive "$pid" "$dir/reader.conf" || break
    sleep 0.05
  done
  halt "$dir/pcscd.pid" "$dir/reader.conf"
  return 1
}

insert() {
  local r=$1 port
  [ -d "$dir/card$r" ] || die "no card $r in $dir (readers: 1 and 2)"
  port=$(($(cat "$dir/port") + r - 1))
  if alive "$(cat "$dir/card$r/bridge.pid" 2>/dev/null || true)" "$dir/card$r/"; then return 0; fi
  rm -f "$dir/card$r/ready"
  local nicks
  read -r -a nicks <"$dir/card$r/nicknames"
  setsid "$BRIDGE" --port "$port" --counters "$dir/card$r/counters" --resume \
    --ready "$dir/card$r/ready" "$dir/card$r/nssdb" "${nicks[@]}" \
    </dev/null >>"$dir/card$r/bridge.log" 2>&1 &
  echo $! >"$dir/card$r/bridge.pid"
  local pid=$!
  # Ready once pcscd has powered the card on and read its ATR: PC/SC clients see it from then on.
  for _ in $(seq 500); do
    [ -e "$dir/card$r/ready" ] && return 0
    alive "$pid" "$dir/card$r/" || break
    sleep 0.02
  done
  halt "$dir/card$r/bridge.pid" "$dir/card$r/"
  tail -n 5 "$dir/card$r/bridge.log" >&2
  die "card $r did not come up in reader $r"
}

remove() {
  local r=$1 port
  port=$(($(cat "$dir/port") + r - 1))
  halt "$dir/card$r/bridge.pid" "$dir/card$r/"
  # Out once vpcd has noticed at its next presence poll and closed its end of the connection.
  for _ in $(seq 100); do
    port_state "$port" 01 || port_state "$port" 08 || return 0
    sleep 0.02
  done
  die "reader $r still holds a connection after the card left"
}

stop() {
  for r in 1 2; do halt "$dir/card$r/bridge.pid" "$dir/card$r/"; done
  halt "$dir/pcscd.pid" "$dir/reader.conf"
}

start() {
  local cards=2
  pin=123456
  while [ $# -gt 0 ]; do
    [ $# -ge 2 ] || usage
    case $1 in
      --cards) cards=${2:-}; shift 2 ;;
      --pin) pin=${2:-}; shift 2 ;;
      *) usage ;;
    esac
  done
  case $cards in 0|1|2) ;; *) die "--cards takes 0, 1 or 2" ;; esac
  [[ $pin =~ ^[0-9]{4,8}$ ]] || die "the PIN is 4 to 8 digits"
  [ ${#dir} -lt 80 ] || die "$dir: too long for a socket path"
  if alive "$(cat "$dir/pcscd.pid" 2>/dev/null || true)" "$dir/reader.conf"; then
    echo "cardstack: already running in $dir" >&2
  else
    stop
    mkdir -p "$dir"
    # The cards outlive restarts; DIR/pin is written once both are complete.
    if [ "$(cat "$dir/pin" 2>/dev/null || true)" != "$pin" ]; then make_pki; fi
    rm -f "$dir"/card?/counters "$dir"/card?/bridge.log
    local ok=""
    for _ in 1 2 3; do
      if start_pcscd "$(pick_ports)"; then ok=1; break; fi
    done
    [ -n "$ok" ] || { tail -n 20 "$dir/pcscd.log" >&2; die "pcscd did not come up"; }
  fi
  for r in $(seq "$cards"); do insert "$r"; done
}

[ $# -ge 2 ] || usage
cmd=$1
dir=$(realpath -m "$2")
shift 2
case $cmd in
  start) need; start "$@" ;;
  insert|remove)
    if [ $# -ne 1 ] || [[ ! $1 =~ ^[12]$ ]]; then usage; fi
    need
    alive "$(cat "$dir/pcscd.pid" 2>/dev/null || true)" "$dir/reader.conf" ||
      die "no stack runs in $dir (start it first)"
    $cmd "$1" ;;
  stop) stop ;;
  env) echo "export PCSCLITE_CSOCK_NAME=$dir/run/pcscd.comm" ;;
  *) usage ;;
esac

# Sourced by the scripts that need a private SoftHSM2 token store (never the machine's default).
SOFTHSM=/usr/lib/softhsm/libsofthsm2.so

# A scratch directory, in memory where possible: SoftHSM2's file store syncs every object it writes.
scratch_dir() {
  if [ -w /dev/shm ]; then mktemp -d -p /dev/shm; else mktemp -d; fi
}

# A host path as Windows programs under Wine name it (Wine shows the Unix root as drive Z:).
win() { local p="Z:$1"; echo "${p//\//\\}"; }

# Writes DIR/softhsm2.conf for a token store in DIR/tokens and prints the configuration's path;
# with "wine", both paths as the Windows build of SoftHSM2 under Wine takes them.
softhsm_conf() {
  local tokens=$1/tokens conf=$1/softhsm2.conf
  mkdir -p "$tokens"
  if [ "${2:-}" = wine ]; then tokens=$(win "$tokens") conf=$(win "$conf"); fi
  printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$tokens" > "$1/softhsm2.conf"
  echo "$conf"
}

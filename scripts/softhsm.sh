# Sourced by the scripts that need a private SoftHSM2 token store (never the machine's default).
SOFTHSM=/usr/lib/softhsm/libsofthsm2.so

# A scratch directory, in memory where possible: SoftHSM2's file store syncs every object it writes.
scratch_dir() {
  if [ -w /dev/shm ]; then mktemp -d -p /dev/shm; else mktemp -d; fi
}

# Writes DIR/softhsm2.conf for a token store in DIR/tokens and prints the configuration's path.
softhsm_conf() {
  mkdir -p "$1/tokens"
  printf 'directories.tokendir = %s\nobjectstore.backend = file\nlog.level = ERROR\n' \
    "$1/tokens" > "$1/softhsm2.conf"
  echo "$1/softhsm2.conf"
}

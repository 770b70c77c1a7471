# Sourced by the scripts that build from Debian source packages.
# add_deb_src LOGNAME: adds deb-src entries beside the binary ones, then refreshes the indexes, so
# that `apt-get source` finds the source packages of this release.
add_deb_src() {
  local sudo=""
  if [ "$(id -u)" != 0 ]; then sudo="sudo"; fi
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources |
      $sudo tee /etc/apt/sources.list.d/nebralib-deb-src.sources >/dev/null
  else
    grep -h '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' |
      $sudo tee /etc/apt/sources.list.d/nebralib-deb-src.list >/dev/null
  fi
  echo "$1: added deb-src entries; updating package indexes" >&2
  $sudo apt-get update -qq
}

# run LOGFILE COMMAND...: runs a build step quietly; on failure shows the end of its log and exits.
run() {
  local out=$1
  shift
  if ! "$@" >"$out" 2>&1; then
    tail -n 40 "$out" >&2
    echo "$(basename "$0" .sh): failed: $*" >&2
    exit 1
  fi
}

# apply_series TREE PATCHDIR: applies PATCHDIR/series in order (first word of a line: the patch;
# blank lines and # comments skipped) with patch -p1; exits if one does not apply.
apply_series() {
  local p _
  while read -r p _; do
    case "$p" in '' | '#'*) continue ;; esac
    patch -d "$1" -p1 -s -f <"$2/$p" >&2 || { echo "$(basename "$0" .sh): patch $p does not apply" >&2; exit 1; }
  done <"$2/series"
}

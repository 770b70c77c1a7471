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

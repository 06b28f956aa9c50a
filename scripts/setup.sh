#!/usr/bin/env bash
# Installs everything the project needs on a fresh Debian 12 machine:
#   - Debian 12 packages through apt-get (only the missing ones; nothing when all are there);
#   - the Thrift 0.13 runtime and compiler from Debian 11, unpacked into .deps/thrift-0.13
#     (project-local, ignored by git, never registered with dpkg).
# Safe to run again: a machine that already has everything is left as it is, in a second or two.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

# Debian 12 packages the build, the tests, the benchmarks, the examples and the API
# reference (doxygen) use, with every program they call that a minimal Debian 12
# (debootstrap's minbase) lacks: file and dpkg-shlibdeps for the Debian packages,
# readelf and objdump for the package and install checks, openssl for the cipher's
# known answers, patchelf for the print-job test and the Thrift 0.13 tree.
packages=(
  cmake ninja-build pkg-config g++ patchelf file dpkg-dev binutils openssl
  libboost-dev libssl-dev libusb-1.0-0-dev libcups2-dev
  libthrift-dev thrift-compiler
  libgtest-dev libgmock-dev libbenchmark-dev
  umockdev libumockdev-dev
  cups-daemon cups-client
  doxygen
  gnuplot-nox libgcrypt20-dev
  clang libclang-rt-14-dev
)

log() { printf 'setup: %s\n' "$*"; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

missing_packages() {
  local p status
  for p in "${packages[@]}"; do
    status="$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)"
    [ "$status" = "install ok installed" ] || printf '%s\n' "$p"
  done
}

install_debian_packages() {
  local missing
  mapfile -t missing < <(missing_packages)
  if [ "${#missing[@]}" -eq 0 ]; then
    log "Debian packages present"
    return
  fi
  log "installing ${missing[*]}"
  as_root apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# The archive addresses are taken from the system's own apt configuration: the
# repository that serves the stable suite and the one that serves its security suite.
archive_uri() {
  local suffix="$1"
  apt-get indextargets --format '$(REPO_URI) $(RELEASE)' |
    awk -v s="$suffix" '($2 ~ "-" s "$") || (s == "" && $2 !~ /-/) { print $1; exit }'
}

thrift13_prefix="$root/.deps/thrift-0.13"
thrift13_version="0.13.0-6"

install_thrift13() {
  if [ -f "$thrift13_prefix/.complete" ]; then
    log "Thrift 0.13 present in $thrift13_prefix"
    return
  fi
  local main security work
  main="$(archive_uri '')"
  security="$(archive_uri security)"
  if [ -z "$main" ] || [ -z "$security" ]; then
    log "cannot find the Debian archive in the apt configuration (apt-get indextargets)"
    exit 1
  fi
  work="$(mktemp -d)"
  trap 'rm -rf "$work"' RETURN
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/debs"
  local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
  cat > "$work/sources.list" <<LIST
deb [signed-by=$keyring] $main bullseye main
deb [signed-by=$keyring] $security bullseye-security main
LIST
  local apt_opts=(
    -o "Dir::Etc::sourcelist=$work/sources.list"
    -o "Dir::Etc::sourceparts=-"
    -o "Dir::State::Lists=$work/lists"
    -o "Dir::Cache=$work/cache"
    -o "Dir::State::status=/dev/null"
    -o "APT::Sandbox::User=root"
  )
  log "fetching Thrift $thrift13_version from Debian 11"
  apt-get "${apt_opts[@]}" update -q
  (cd "$work/debs" && apt-get "${apt_opts[@]}" download \
    "libthrift-0.13.0=$thrift13_version" "libthrift-dev=$thrift13_version" \
    "thrift-compiler=$thrift13_version" libssl1.1)

  rm -rf "$thrift13_prefix"
  mkdir -p "$thrift13_prefix"
  local deb
  for deb in "$work"/debs/*.deb; do
    dpkg-deb -x "$deb" "$thrift13_prefix"
  done
  finish_thrift13
  touch "$thrift13_prefix/.complete"
  log "Thrift 0.13 unpacked into $thrift13_prefix"
}

# Makes the unpacked tree usable from where it lies.
finish_thrift13() {
  local libdir="$thrift13_prefix/usr/lib/x86_64-linux-gnu"
  # The Qt flavour needs Qt, which we neither have nor want.
  find "$thrift13_prefix" -iname '*qt*' -exec rm -rf {} + 2>/dev/null || true
  # libthrift needs libssl.so.1.1, which lies beside it and nowhere on Debian 12.
  local so
  for so in "$libdir"/lib*.so*; do
    [ -L "$so" ] || patchelf --set-rpath '$ORIGIN' "$so"
  done
  # Relocatable pkg-config files: the prefix is found from the file's own place.
  local pc
  for pc in "$libdir"/pkgconfig/*.pc; do
    sed -i 's|^prefix=.*|prefix=${pcfiledir}/../../..|' "$pc"
  done
}

install_debian_packages
install_thrift13

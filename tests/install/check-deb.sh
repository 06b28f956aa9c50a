#!/usr/bin/env bash
# Makes the Debian packages of a build tree with CPack, checks what is in them, installs
# them with dpkg into a fresh root directory (never into the system), and proves a
# consumer builds against the installed tree and runs (check-install.sh).
#
#   1. cpack -G DEB gives exactly libthriftusb_<version>-1_<arch>.deb,
#      libthriftusb-dev_<version>-1_<arch>.deb and
#      libthriftusb-testkit-dev_<version>-1_<arch>.deb;
#   2. their control fields: names, version, architecture, the shlibs file, and the
#      dependencies: on Debian's libthrift-<version> and libthrift-dev when the build
#      used the system's Thrift (--thrift-pcdir under /usr/lib), on no Thrift package
#      otherwise (the Thrift 0.13 of .deps/);
#   3. their contents: the runtime package holds the two shared libraries and their
#      SONAME links and no development file; the -dev package holds every header,
#      the .so links, the CMake package and thriftusb.pc and no shared library; the
#      test kit's package holds the kit's libraries, headers, CMake components and
#      pkg-config files;
#   4. dpkg --root unpacks all three into an empty root whose package database lists only
#      the packages they depend on, as installed on this machine, and then checks
#      that the dependencies are met (dpkg --configure --no-act: no maintainer
#      script runs, nothing outside the root is touched);
#   5. check-install.sh --installed-prefix=<root>/usr: the tree, and a consumer built
#      with find_package(ThriftUsb) and with pkg-config, run.
#
# Called by CTest as install.deb with --name=value arguments: its own (--cpack,
# --dpkg, --version, --thrift-version, --check-install) and those of
# check-install.sh, which it passes on. Exits 0 when every check passes, 1 with a
# message naming the failed check otherwise.
set -euo pipefail

me="install.deb"
# shellcheck source=tests/install/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# Its own arguments; the others go on to check-install.sh, which also tells some of
# them to this script.
cpack="" dpkg="dpkg" version="" thrift_version="" check_install=""
take_args cpack dpkg version thrift_version check_install -- "$@"
passed=("${rest[@]}")
build_dir="" source_include_dir="" libdir="" includedir="" linker_file="" soname_file=""
real_file="" cipher_soname_file="" version_header="" thrift_pcdir=""
take_args build_dir source_include_dir libdir includedir linker_file soname_file real_file \
          cipher_soname_file version_header thrift_pcdir -- "${passed[@]}"
require_args cpack version thrift_version thrift_pcdir check_install build_dir \
             source_include_dir libdir includedir linker_file soname_file real_file \
             cipher_soname_file version_header

started=$SECONDS
tmp="$(mktemp -d "${TMPDIR:-/tmp}/thriftusb-deb.XXXXXX")"
cleanup() { rm -rf "$tmp"; }
trap cleanup EXIT

# --- 1. the packages ------------------------------------------------------------
arch="$("$dpkg" --print-architecture)"
release="$version-1"
runtime_deb="libthriftusb_${release}_${arch}.deb"
dev_deb="libthriftusb-dev_${release}_${arch}.deb"
kit_deb="libthriftusb-testkit-dev_${release}_${arch}.deb"
step "cpack -G DEB in $build_dir"
run "$tmp/cpack.log" env -C "$build_dir" "$cpack" -G DEB -B "$tmp/packages" ||
  fail "cpack -G DEB failed"
made="$(cd "$tmp/packages" && ls -1 -- *.deb 2>/dev/null | sort | tr '\n' ' ')"
[ "$made" = "$dev_deb $kit_deb $runtime_deb " ] ||
  fail "cpack made '$made', expected $dev_deb, $kit_deb and $runtime_deb"
runtime="$tmp/packages/$runtime_deb"
dev="$tmp/packages/$dev_deb"
kit="$tmp/packages/$kit_deb"

# --- 2. control fields ----------------------------------------------------------
field() { dpkg-deb --field "$1" "$2"; }
for pair in "$runtime libthriftusb" "$dev libthriftusb-dev" "$kit libthriftusb-testkit-dev"; do
  read -r deb name <<<"$pair"
  [ "$(field "$deb" Package)" = "$name" ] || fail "$deb: Package is not $name"
  [ "$(field "$deb" Version)" = "$release" ] || fail "$deb: Version is not $release"
  [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$deb: Architecture is not $arch"
done
runtime_depends="$(field "$runtime" Depends)"
dev_depends="$(field "$dev" Depends)"
kit_depends="$(field "$kit" Depends)"
step "libthriftusb depends on: $runtime_depends"
step "libthriftusb-dev depends on: $dev_depends"
step "libthriftusb-testkit-dev depends on: $kit_depends"
case ", $kit_depends," in
  *", libthriftusb-dev (= $release),"* | "libthriftusb-dev (= $release),"*) ;;
  *) fail "libthriftusb-testkit-dev does not depend on libthriftusb-dev (= $release)" ;;
esac
case ", $dev_depends," in
  *", libthriftusb (= $release),"*) ;;
  *) fail "libthriftusb-dev does not depend on libthriftusb (= $release)" ;;
esac
thrift_dependency=""
case "$thrift_pcdir" in
  /usr/lib/*) thrift_dependency="libthrift-$thrift_version" ;;
esac
if [ -n "$thrift_dependency" ]; then
  case ", $runtime_depends," in
    *", $thrift_dependency,"*) ;;
    *) fail "libthriftusb does not depend on $thrift_dependency" ;;
  esac
  case "$dev_depends" in
    *libthrift-dev*) ;;
    *) fail "libthriftusb-dev does not depend on libthrift-dev" ;;
  esac
elif grep -q 'libthrift-' <<<"$runtime_depends $dev_depends"; then
  fail "the packages depend on a Thrift package, though the build's Thrift has none"
fi
mkdir "$tmp/control"
dpkg-deb --control "$runtime" "$tmp/control"
for so in "$soname_file" "$cipher_soname_file"; do
  grep -qx "${so%.so.*} ${so##*.so.} libthriftusb (>= $release)" "$tmp/control/shlibs" ||
    fail "the shlibs file of libthriftusb has no line for $so: $(tr '\n' '|' <"$tmp/control/shlibs")"
done

# --- 3. contents ----------------------------------------------------------------
# Paths as dpkg-deb lists them, without the leading "./" and trailing "/".
contents() { dpkg-deb --contents "$1" | awk '{print $6}' | sed 's|^\./||; s|/$||'; }
contents "$runtime" >"$tmp/runtime.txt"
contents "$dev" >"$tmp/dev.txt"
contents "$kit" >"$tmp/kit.txt"
usr_lib="usr/$libdir"
cipher_real="${cipher_soname_file}.${real_file#"$soname_file".}"
for f in "$soname_file" "$real_file" "$cipher_soname_file" "$cipher_real"; do
  grep -qx "$usr_lib/$f" "$tmp/runtime.txt" || fail "libthriftusb lacks /$usr_lib/$f"
  if grep -qx "$usr_lib/$f" "$tmp/dev.txt"; then
    fail "libthriftusb-dev holds /$usr_lib/$f"
  fi
done
grep -qx 'usr/share/doc/libthriftusb/copyright' "$tmp/runtime.txt" ||
  fail "libthriftusb lacks its copyright file"
grep -qx 'usr/share/doc/libthriftusb-dev/copyright' "$tmp/dev.txt" ||
  fail "libthriftusb-dev lacks its copyright file"
if grep -E "^usr/$includedir/|\\.so$|/cmake/|\\.pc$" "$tmp/runtime.txt" >"$tmp/extra.txt"; then
  fail "libthriftusb holds development files: $(tr '\n' ' ' <"$tmp/extra.txt")"
fi
while IFS= read -r -d '' h; do
  h="${h#"$source_include_dir"/}"
  case "$h" in thriftusb/testing/*) package=kit ;; *) package=dev ;; esac
  grep -qx "usr/$includedir/$h" "$tmp/$package.txt" || fail "$package package lacks <$h>"
done < <(find "$source_include_dir/thriftusb" -name '*.h' -print0)
for f in libthriftusb-testkit.so libthriftusb-emulated-usb.so cmake/ThriftUsb/ThriftUsb_testkit.cmake \
         cmake/ThriftUsb/ThriftUsb_emulated_usb.cmake pkgconfig/thriftusb-testkit.pc \
         pkgconfig/thriftusb-emulated-usb.pc; do
  grep -qx "$usr_lib/$f" "$tmp/kit.txt" || fail "libthriftusb-testkit-dev lacks /$usr_lib/$f"
done
for f in "$usr_lib/$linker_file" "$usr_lib/libsm4-cipher.so" \
         "usr/$includedir/thriftusb/util/$(basename "$version_header")" \
         "$usr_lib/cmake/ThriftUsb/ThriftUsbConfig.cmake" \
         "$usr_lib/cmake/ThriftUsb/ThriftUsbConfigVersion.cmake" \
         "$usr_lib/cmake/ThriftUsb/ThriftUsbTargets.cmake" "$usr_lib/pkgconfig/thriftusb.pc"; do
  grep -qx "$f" "$tmp/dev.txt" || fail "libthriftusb-dev lacks /$f"
done
step "the packages hold what they should ($(wc -l <"$tmp/runtime.txt"), $(wc -l <"$tmp/dev.txt") and $(wc -l <"$tmp/kit.txt") entries)"

# Each library the packaged shared libraries load must come from a package they
# depend on, directly or through libthriftusb (libgcrypt20 only when the cipher was
# built with its libgcrypt backend). A library no package owns, such as the Thrift
# 0.13 of .deps/, is left out.
all_depends="$runtime_depends, $kit_depends"
depends_names=" $(tr ',|' '\n\n' <<<"$all_depends" | sed 's/(.*//; s/[[:space:]]//g' | tr '\n' ' ') "
dpkg-deb --extract "$runtime" "$tmp/runtime"
dpkg-deb --extract "$kit" "$tmp/kit"
for so in "$tmp/runtime/$usr_lib/$soname_file" "$tmp/runtime/$usr_lib/$cipher_soname_file" \
          "$tmp/kit/$usr_lib"/libthriftusb-*.so.*.*; do
  for needed in $(objdump -p "$so" | awk '$1 == "NEEDED" {print $2}'); do
    case "$needed" in libthriftusb.so.* | libsm4-cipher.so.*) continue ;; esac
    owners="$({ dpkg -S "*/$needed" 2>/dev/null || true; } | sed 's/: .*//; s/:[^,]*//g; s/,/ /g')"
    [ -n "$owners" ] || continue
    found=""
    for owner in $owners; do
      case "$depends_names" in *" $owner "*) found="$owner" ;; esac
    done
    [ -n "$found" ] || fail "$(basename "$so") loads $needed (from $owners), but no package depends on it"
  done
done
step "every packaged library the shared libraries load is a dependency"

# --- 4. dpkg --root -------------------------------------------------------------
# The root's package database holds the packages named in the dependencies that are
# installed here, as dpkg records them here, and no files of theirs.
root="$tmp/root"
admin="$root/var/lib/dpkg"
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
: >"$admin/status"
: >"$admin/available"
names="$(printf '%s, %s' "$all_depends" "$dev_depends" | tr ',|' '\n\n' |
         sed 's/(.*//; s/:.*//; s/[[:space:]]//g' | grep -v '^$' |
         grep -vx 'libthriftusb\|libthriftusb-dev' | sort -u)"
for name in $names; do
  if dpkg-query --status "$name" >"$tmp/stanza" 2>/dev/null &&
     grep -qx 'Status: install ok installed' "$tmp/stanza"; then
    cat "$tmp/stanza" >>"$admin/status"
    printf '\n' >>"$admin/status"
    package="$(sed -n 's/^Package: //p' "$tmp/stanza")"
    if grep -qx 'Multi-Arch: same' "$tmp/stanza"; then
      package="$package:$(sed -n 's/^Architecture: //p' "$tmp/stanza")"
    fi
    : >"$admin/info/$package.list"
  fi
done
dpkg_root=("$dpkg" "--root=$root" --force-not-root)
step "dpkg --root=$root --unpack $runtime_deb $dev_deb $kit_deb"
run "$tmp/unpack.log" "${dpkg_root[@]}" --unpack "$runtime" "$dev" "$kit" ||
  fail "dpkg could not unpack the packages into $root"
run "$tmp/configure.log" "${dpkg_root[@]}" --configure --no-act libthriftusb libthriftusb-dev \
    libthriftusb-testkit-dev ||
  fail "the packages' dependencies are not met by the packages installed on this machine"
for name in libthriftusb libthriftusb-dev libthriftusb-testkit-dev; do
  "${dpkg_root[@]}" --listfiles "$name" >/dev/null || fail "dpkg in $root does not know $name"
done
step "unpacked with dpkg, dependencies met"

# --- 5. the installed tree and a consumer ---------------------------------------
CHECK_INSTALL_NAME="$me" bash "$check_install" "${passed[@]}" "--installed-prefix=$root/usr" ||
  exit 1
step "PASS (packages, dpkg, consumer) in $((SECONDS - started)) s"

#!/usr/bin/env bash
# Installs a build tree of the library into a fresh prefix, moves the installed tree
# elsewhere, and proves a consumer can use it from there in both supported ways:
#   1. a CMake project with find_package(ThriftUsb COMPONENTS testkit emulated_usb);
#   2. a plain compiler command line with `pkg-config --cflags --libs thriftusb`
#      (thriftusb-testkit, thriftusb-emulated-usb).
# Both programs are run and must load the installed library, the installed cipher
# library and the Thrift runtime the library was built against; so are the
# consumer's tests of its own service over the test kit's virtual cable and emulated
# USB device, built both ways. The installed tree
# itself is checked too: the shared library's symlink chain and SONAME, the cipher
# library, the headers, the CMake package files and the pkg-config file. Moving the
# tree proves that nothing installed depends on the prefix it was installed into.
#
# With --installed-prefix=DIR the tree is not installed here: DIR is a tree installed
# by other means (check-deb.sh passes the /usr of a root the Debian packages were
# installed into), and everything after the install step is checked on it.
#
# Called by CTest (tests/install/CMakeLists.txt) with --name=value arguments. Exits 0
# when every check passes, 1 with a message naming the failed check otherwise.
set -euo pipefail

me="${CHECK_INSTALL_NAME:-install.consumer}"
# shellcheck source=tests/install/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

build_dir="" source_include_dir="" consumer_dir="" cmake="" generator="" make_program=""
cxx="" pkg_config="" thrift_pcdir="" libdir="" includedir="" linker_file="" soname_file=""
real_file="" cipher_soname_file="" version_header="" readelf="" sanitize="" werror="OFF"
installed_prefix="" thrift_compiler=""
take_args build_dir source_include_dir consumer_dir cmake generator make_program cxx \
          pkg_config thrift_pcdir thrift_compiler libdir includedir linker_file soname_file real_file \
          cipher_soname_file version_header readelf sanitize werror installed_prefix -- "$@"
[ "${#rest[@]}" -eq 0 ] || fail "unknown argument '${rest[0]}'"
require_args build_dir source_include_dir consumer_dir cmake generator cxx pkg_config \
             thrift_pcdir thrift_compiler libdir includedir linker_file soname_file real_file \
             cipher_soname_file version_header readelf

started=$SECONDS

# Every run-time lookup below must succeed through the run paths alone, and
# pkg-config must search only where this script says.
unset LD_LIBRARY_PATH PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR CMAKE_PREFIX_PATH

tmp="$(mktemp -d "${TMPDIR:-/tmp}/thriftusb-install.XXXXXX")"
cleanup() { rm -rf "$tmp"; }
trap cleanup EXIT

flags=(-Wall -Wextra)
[ "$werror" = "ON" ] && flags+=(-Werror)
# The library of a sanitizer build needs the sanitizer runtime loaded first, so a
# consumer of it must be built with the same sanitizers.
san_flags=()
[ -n "$sanitize" ] && san_flags=("-fsanitize=$sanitize" -fno-omit-frame-pointer)

# --- install, then move ---------------------------------------------------------
staged=""
if [ -n "$installed_prefix" ]; then
  [ -d "$installed_prefix" ] || fail "--installed-prefix $installed_prefix is no directory"
  prefix="$installed_prefix"
  step "checking the tree installed in $prefix"
else
  staged="$tmp/staged"
  step "cmake --install $build_dir --prefix $staged"
  run "$tmp/install.log" "$cmake" --install "$build_dir" --prefix "$staged" ||
    fail "cmake --install of $build_dir failed"
  mkdir "$tmp/moved"
  mv "$staged" "$tmp/moved/prefix"
  prefix="$tmp/moved/prefix"
  step "installed tree moved to $prefix"
fi
lib="$prefix/$libdir"

# --- the installed tree ---------------------------------------------------------
if [ ! -f "$lib/$real_file" ] || [ -L "$lib/$real_file" ]; then
  fail "$lib/$real_file is missing or not a regular file"
fi
[ -L "$lib/$soname_file" ] || fail "$lib/$soname_file is missing or not a symlink"
[ "$(readlink "$lib/$soname_file")" = "$real_file" ] ||
  fail "$lib/$soname_file points to '$(readlink "$lib/$soname_file")', not $real_file"
[ -L "$lib/$linker_file" ] || fail "$lib/$linker_file is missing or not a symlink"
[ "$(readlink "$lib/$linker_file")" = "$soname_file" ] ||
  fail "$lib/$linker_file points to '$(readlink "$lib/$linker_file")', not $soname_file"
case "$soname_file" in
  "$linker_file".[0-9]*) ;;
  *) fail "SONAME file name '$soname_file' carries no version after $linker_file" ;;
esac
soname="$("$readelf" -d "$lib/$real_file" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')"
[ "$soname" = "$soname_file" ] ||
  fail "SONAME of $real_file is '$soname', expected $soname_file"
[ -e "$lib/$cipher_soname_file" ] || fail "$lib/$cipher_soname_file is missing"

# The installed library's own run path must find all it needs (the Thrift runtime,
# and for the 0.13 tree its libssl beside it).
ldd "$lib/$real_file" >"$tmp/ldd-lib.txt" 2>&1 || { cat "$tmp/ldd-lib.txt" >&2; fail "ldd $real_file"; }
if grep -q 'not found' "$tmp/ldd-lib.txt"; then
  cat "$tmp/ldd-lib.txt" >&2
  fail "the installed $real_file cannot find a library it needs"
fi

headers=()
while IFS= read -r -d '' h; do
  headers+=("${h#"$source_include_dir"/}")
done < <(find "$source_include_dir/thriftusb" -name '*.h' -print0)
[ "${#headers[@]}" -gt 0 ] || fail "no headers found under $source_include_dir/thriftusb"
for h in "${headers[@]}"; do
  cmp -s "$source_include_dir/$h" "$prefix/$includedir/$h" ||
    fail "header $h is missing from $prefix/$includedir or differs from the source"
done
generated="thriftusb/util/$(basename "$version_header")"
cmp -s "$version_header" "$prefix/$includedir/$generated" ||
  fail "generated header $generated is missing or differs from $version_header"
headers+=("$generated")

for f in ThriftUsbConfig.cmake ThriftUsbConfigVersion.cmake ThriftUsbTargets.cmake; do
  [ -f "$lib/cmake/ThriftUsb/$f" ] || fail "$lib/cmake/ThriftUsb/$f is missing"
done
[ -f "$lib/pkgconfig/thriftusb.pc" ] || fail "$lib/pkgconfig/thriftusb.pc is missing"

# Nothing installed may refer to the prefix it was installed into, nor (in text
# files) to the build tree.
if [ -n "$staged" ] && grep -rlF "$staged" "$prefix" >"$tmp/mentions.txt"; then
  fail "installed files name the install prefix $staged: $(tr '\n' ' ' <"$tmp/mentions.txt")"
fi
if grep -rlIF "$build_dir" "$prefix" >"$tmp/mentions.txt"; then
  fail "installed files name the build tree $build_dir: $(tr '\n' ' ' <"$tmp/mentions.txt")"
fi

# --- helpers for both consumers -------------------------------------------------
missing_node="$tmp/no-such-usb-device"
# Directory of the Thrift runtime the library was built against.
thrift_libdir="$(PKG_CONFIG_PATH="$thrift_pcdir" "$pkg_config" --variable=libdir thrift)"
thrift_libdir="$(realpath "$thrift_libdir")"

# check_program EXE: runs EXE and checks what it loaded.
check_program() {
  local exe="$1" out status=0 ldd_out thriftusb_path cipher_path thrift_path
  out="$("$exe" "$missing_node" 2>"$tmp/consumer.err")" || status=$?
  if [ "$status" -ne 0 ]; then
    cat "$tmp/consumer.err" >&2
    fail "$exe exited with status $status"
  fi
  [ "$out" = "consumer: open() of a missing node threw NOT_OPEN 'Not found usb reading device: $missing_node'
consumer: Sm4Cipher gave the known SM4 cipher block and deciphered it" ] ||
    fail "$exe printed '$out'"
  ldd_out="$(ldd "$exe")" || fail "ldd $exe failed"
  if grep -q 'not found' <<<"$ldd_out"; then
    printf '%s\n' "$ldd_out" >&2
    fail "$exe cannot find a library it needs"
  fi
  thriftusb_path="$(sed -n "s/^[[:space:]]*$soname_file => \\(.*\\) (0x.*/\\1/p" <<<"$ldd_out")"
  [ -n "$thriftusb_path" ] || fail "$exe does not load $soname_file"
  [ "$(realpath "$thriftusb_path")" = "$(realpath "$lib/$soname_file")" ] ||
    fail "$exe loads '$thriftusb_path' for $soname_file, not the installed $lib/$soname_file"
  cipher_path="$(sed -n "s/^[[:space:]]*$cipher_soname_file => \\(.*\\) (0x.*/\\1/p" <<<"$ldd_out")"
  [ "$(realpath "${cipher_path:-/nonexistent}")" = "$(realpath "$lib/$cipher_soname_file")" ] ||
    fail "$exe loads '$cipher_path' for $cipher_soname_file, not the installed one in $lib"
  thrift_path="$(sed -n 's/^[[:space:]]*libthrift-[^ ]* => \(.*\) (0x.*/\1/p' <<<"$ldd_out")"
  [ -n "$thrift_path" ] || fail "$exe does not load a libthrift-<version>.so"
  [ "$(realpath "$(dirname "$thrift_path")")" = "$thrift_libdir" ] ||
    fail "$exe loads $thrift_path, not the Thrift in $thrift_libdir"
  step "$(basename "$(dirname "$exe")")/consumer ran: $out"
}

# --- 1. CMake: find_package(ThriftUsb) ------------------------------------------
cmake_build="$tmp/cmake-consumer"
configure=("$cmake" -S "$consumer_dir" -B "$cmake_build" -G "$generator"
           "-DCMAKE_CXX_COMPILER=$cxx" "-DCMAKE_PREFIX_PATH=$prefix"
           "-DTHRIFT_COMPILER=$thrift_compiler"
           -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF
           "-DCMAKE_CXX_FLAGS=${flags[*]} ${san_flags[*]}")
[ -n "$make_program" ] && configure+=("-DCMAKE_MAKE_PROGRAM=$make_program")
[ -n "$sanitize" ] && configure+=("-DCMAKE_EXE_LINKER_FLAGS=${san_flags[*]}")
step "configuring the CMake consumer with CMAKE_PREFIX_PATH=$prefix"
run "$tmp/cmake-configure.log" "${configure[@]}" ||
  fail "configuring the CMake consumer (find_package(ThriftUsb)) failed"
found_dir="$(sed -n 's/^ThriftUsb_DIR:[A-Z]*=//p' "$cmake_build/CMakeCache.txt")"
[ "$found_dir" = "$lib/cmake/ThriftUsb" ] ||
  fail "find_package(ThriftUsb) used '$found_dir', not the installed $lib/cmake/ThriftUsb"
run "$tmp/cmake-build.log" "$cmake" --build "$cmake_build" ||
  fail "building the CMake consumer failed"
check_program "$cmake_build/consumer"

# A component the installed tree does not have fails find_package, naming it.
mkdir "$tmp/missing-component"
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(missing LANGUAGES CXX)' \
  'find_package(ThriftUsb REQUIRED COMPONENTS testkit nonesuch)' \
  >"$tmp/missing-component/CMakeLists.txt"
if "$cmake" -S "$tmp/missing-component" -B "$tmp/missing-build" -G "$generator" \
    "-DCMAKE_CXX_COMPILER=$cxx" "-DCMAKE_PREFIX_PATH=$prefix" \
    ${make_program:+"-DCMAKE_MAKE_PROGRAM=$make_program"} >"$tmp/missing.log" 2>&1 ||
  ! grep -q "no component 'nonesuch'" "$tmp/missing.log"; then
  cat "$tmp/missing.log" >&2
  fail "find_package(ThriftUsb COMPONENTS nonesuch) did not fail naming the component"
fi
step "find_package(ThriftUsb COMPONENTS nonesuch) fails, naming the component"

# check_kit_test EXE: runs a consumer's test of its service on the test kit.
check_kit_test() {
  local exe="$1"
  timeout -k 5 120 "$exe" >"$tmp/kit-test.log" 2>&1 || {
    cat "$tmp/kit-test.log" >&2
    fail "the consumer's test $exe failed"
  }
  grep -q '^\[  PASSED  \] 1 test\.$' "$tmp/kit-test.log" || {
    cat "$tmp/kit-test.log" >&2
    fail "the consumer's test $exe did not pass its one test"
  }
  step "$(basename "$(dirname "$exe")")/$(basename "$exe") passed"
}
check_kit_test "$cmake_build/cable_test"
check_kit_test "$cmake_build/emulated_test"

# --- 2. pkg-config: thriftusb.pc --------------------------------------------------
export PKG_CONFIG_PATH="$lib/pkgconfig:$thrift_pcdir"
"$pkg_config" --exists --print-errors thriftusb 2>"$tmp/pc.err" || {
  cat "$tmp/pc.err" >&2
  fail "pkg-config cannot use thriftusb.pc with PKG_CONFIG_PATH=$PKG_CONFIG_PATH"
}
pc_prefix="$("$pkg_config" --variable=prefix thriftusb)"
[ "$(realpath "$pc_prefix")" = "$(realpath "$prefix")" ] ||
  fail "thriftusb.pc gives prefix '$pc_prefix', which is not the moved tree $prefix"
# Thrift's own headers come in as system headers, as CMake's imported target makes
# them: warnings in them (0.13 uses the deprecated std::iterator) are not the
# library's, while its own headers are still held to -Werror.
read -r -a thrift_includes <<<"$("$pkg_config" --cflags-only-I thrift)"
pc_cflags=()
for word in $("$pkg_config" --cflags thriftusb); do
  for inc in "${thrift_includes[@]}"; do
    [ "$word" = "$inc" ] && word="-isystem${inc#-I}"
  done
  pc_cflags+=("$word")
done
read -r -a pc_libs <<<"$("$pkg_config" --libs thriftusb)"
# A program loads the libraries it links from their directories only when its run
# path names them; the system's own directories, which pkg-config leaves out of
# --libs, need no entry.
rpath=()
for word in "${pc_libs[@]}"; do
  case "$word" in -L*) rpath+=("-Wl,-rpath,$(realpath -s -m "${word#-L}")") ;; esac
done

for h in "${headers[@]}"; do
  printf '#include <%s>\n' "$h" >"$tmp/header.cpp"
  run "$tmp/header.log" "$cxx" -std=c++17 "${flags[@]}" -fsyntax-only "${pc_cflags[@]}" \
      "$tmp/header.cpp" || fail "installed header <$h> does not compile on its own"
done
step "each of the ${#headers[@]} installed headers compiles on its own"

pc_build="$tmp/pkg-config-consumer"
mkdir "$pc_build"
step "compiling the consumer with pkg-config --cflags --libs thriftusb"
run "$tmp/pc-build.log" "$cxx" -std=c++17 "${flags[@]}" "${san_flags[@]}" "${pc_cflags[@]}" \
    "$consumer_dir/consumer.cpp" -o "$pc_build/consumer" "${pc_libs[@]}" "${rpath[@]}" ||
  fail "compiling the consumer with pkg-config failed"
check_program "$pc_build/consumer"

# The consumer's tests, on the service code the CMake build generated.
step "compiling the consumer's tests with pkg-config thriftusb-testkit, thriftusb-emulated-usb"
gen="$cmake_build/gen-cpp"
objects=()
for source in "$gen"/*.cpp; do
  objects+=("$pc_build/$(basename "$source" .cpp).o")
  run "$tmp/pc-gen.log" "$cxx" -std=c++17 -w "${san_flags[@]}" "${pc_cflags[@]}" -c "$source" \
      -o "${objects[-1]}" || fail "compiling the generated $(basename "$source") failed"
done
for kit in "cable_test thriftusb-testkit" "emulated_test thriftusb-emulated-usb"; do
  read -r name package <<<"$kit"
  read -r -a kit_libs <<<"$("$pkg_config" --libs thriftusb "$package" gtest_main)"
  run "$tmp/pc-$name.log" "$cxx" -std=c++17 "${flags[@]}" "${san_flags[@]}" \
      "${pc_cflags[@]}" -isystem "$gen" \
      "$consumer_dir/$name.cpp" "${objects[@]}" -o "$pc_build/$name" "${kit_libs[@]}" \
      "${rpath[@]}" || fail "compiling $name with pkg-config $package failed"
  check_kit_test "$pc_build/$name"
done

step "PASS in $((SECONDS - started)) s"

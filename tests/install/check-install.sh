#!/usr/bin/env bash
# Proves that a user's project builds on an installed tree of the library, in both
# supported ways: a CMake project with find_package(ThriftUsb COMPONENTS testkit
# emulated_usb), and a compiler command line with pkg-config (thriftusb-testkit,
# thriftusb-emulated-usb). Both builds of the consumer's tests of its own service on
# the installed test kit (tests/install/consumer/) must pass and load the installed
# library, found through the run paths alone. The tree comes from
#   - cmake --install into a prefix, then moved elsewhere: nothing installed may
#     depend on where it was installed (install.consumer), or
#   - with --deb=ON, the Debian packages that cpack -G DEB makes (a build that needs
#     file and dpkg-shlibdeps), unpacked into a fresh root (install.deb).
# Called by CTest with --name=value arguments (tests/install/CMakeLists.txt).
set -euo pipefail

deb="" sanitize="" make_program=""
for arg; do
  name="${arg%%=*}" && name="${name#--}"
  printf -v "${name//-/_}" '%s' "${arg#*=}"
done
me="install.consumer" && [ "$deb" = ON ] && me="install.deb"
fail() { echo "$me: FAIL: $*" >&2; exit 1; }
# run NAME CMD...: runs CMD with its output in a log, shown when CMD fails.
run() {
  "${@:2}" >"$tmp/$1.log" 2>&1 || { cat "$tmp/$1.log" >&2; return 1; }
}
unset LD_LIBRARY_PATH PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR CMAKE_PREFIX_PATH
tmp="$(mktemp -d "${TMPDIR:-/tmp}/thriftusb-install.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT

if [ "$deb" = ON ]; then
  run cpack env -C "$build_dir" "$cpack" -G DEB -B "$tmp/packages" || fail "cpack -G DEB failed"
  for package in libthriftusb libthriftusb-dev libthriftusb-testkit-dev; do
    dpkg-deb --extract "$tmp/packages/${package}_"*.deb "$tmp/root" || fail "no package $package"
  done
  prefix="$tmp/root/usr"
else
  run install "$cmake" --install "$build_dir" --prefix "$tmp/staged" || fail "cmake --install failed"
  mv "$tmp/staged" "$tmp/moved"
  prefix="$tmp/moved"
fi
lib="$prefix/$libdir"
if ldd "$lib/$soname_file" | grep 'not found'; then
  fail "the installed $soname_file does not find what it needs through its run path"
fi

san=() && [ -n "$sanitize" ] && san=("-fsanitize=$sanitize" -fno-omit-frame-pointer)
flags=(-std=c++17 -Wall -Wextra "${san[@]}") && [ "$werror" = ON ] && flags+=(-Werror)
# check_test EXE: the consumer's test passes, on the installed library.
check_test() {
  timeout -k 5 120 "$1" >"$tmp/test.log" 2>&1 || { cat "$tmp/test.log" >&2; fail "$1 failed"; }
  loaded="$(ldd "$1" | sed -n "s/^[[:space:]]*$soname_file => \\(.*\\) (0x.*/\\1/p")"
  [ "$(realpath "$loaded")" = "$(realpath "$lib/$soname_file")" ] ||
    fail "$1 loads '$loaded', not the installed $lib/$soname_file"
  echo "$me: $1 passed"
}

# 1. CMake: find_package(ThriftUsb).
configure=(-G "$generator" "-DCMAKE_CXX_COMPILER=$cxx" "-DCMAKE_PREFIX_PATH=$prefix"
           -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF ${make_program:+"-DCMAKE_MAKE_PROGRAM=$make_program"})
run cmake-consumer "$cmake" -S "$consumer_dir" -B "$tmp/cmake" "${configure[@]}" \
    "-DTHRIFT_COMPILER=$thrift_compiler" "-DCMAKE_CXX_FLAGS=${flags[*]:1}" &&
  run cmake-build "$cmake" --build "$tmp/cmake" || fail "the CMake consumer does not build"
check_test "$tmp/cmake/cable_test"
check_test "$tmp/cmake/emulated_test"
# A component the tree does not have fails find_package, naming it.
mkdir "$tmp/missing"
printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(missing LANGUAGES CXX)' \
  'find_package(ThriftUsb REQUIRED COMPONENTS testkit nonesuch)' >"$tmp/missing/CMakeLists.txt"
if run missing "$cmake" -S "$tmp/missing" -B "$tmp/missing/build" "${configure[@]}" ||
   ! grep -q "no component 'nonesuch'" "$tmp/missing.log"; then
  cat "$tmp/missing.log" >&2
  fail "find_package(ThriftUsb COMPONENTS nonesuch) does not fail naming the component"
fi

# 2. pkg-config, with the service's code that the CMake build generated. Thrift's
# headers are no concern of this check: every header comes in as a system header.
export PKG_CONFIG_PATH="$lib/pkgconfig:$thrift_pcdir"
mkdir "$tmp/pc"
for kit in "cable_test thriftusb-testkit" "emulated_test thriftusb-emulated-usb"; do
  read -r test package <<<"$kit"
  cflags="$("$pkg_config" --cflags thriftusb "$package")" || fail "pkg-config $package"
  libs="$("$pkg_config" --libs thriftusb "$package" gtest_main)" || fail "pkg-config $package"
  rpath=()
  for word in $libs; do
    case "$word" in -L*) rpath+=("-Wl,-rpath,${word#-L}") ;; esac
  done
  # shellcheck disable=SC2086 # pkg-config's words
  run "pc-$test" "$cxx" "${flags[@]}" ${cflags//-I/-isystem } -isystem "$tmp/cmake/gen-cpp" \
      "$consumer_dir/$test.cpp" "$tmp/cmake/gen-cpp"/*.cpp -o "$tmp/pc/$test" $libs "${rpath[@]}" ||
    fail "$test does not build with pkg-config $package"
  check_test "$tmp/pc/$test"
done
echo "$me: PASS"

#!/usr/bin/env bash
# The whole test suite in one command: installs what is missing (scripts/setup.sh),
# then builds and runs every test against Thrift 0.13 and Thrift 0.17, and once more
# under AddressSanitizer with UndefinedBehaviorSanitizer, and under ThreadSanitizer. Exits non-zero on any failure.
# First it runs each fuzz target for a short while (scripts/fuzz.sh; THRIFTUSB_FUZZ_SECONDS
# per target, default 45).
#
#   scripts/test.sh                 all suites
#   scripts/test.sh thrift-0.17     only the named suites (fuzz, thrift-0.13, thrift-0.17, asan-ubsan, tsan)
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc 2>/dev/null || echo 2)"

bash "$root/scripts/setup.sh" || exit 1

suite_options() {
  case "$1" in
    thrift-0.13) echo "" ;;
    thrift-0.17) echo "-DTHRIFTUSB_THRIFT_PREFIX=/usr -DTHRIFTUSB_SM4_LIBGCRYPT=ON" ;;
    asan-ubsan)  echo "-DTHRIFTUSB_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug" ;;
    tsan)        echo "-DTHRIFTUSB_SANITIZE=thread -DCMAKE_BUILD_TYPE=RelWithDebInfo" ;;
    *) return 1 ;;
  esac
}

run_suite() {
  local name="$1" dir="$root/build/$1" options
  if [ "$name" = fuzz ]; then
    echo "=== fuzz ==="
    THRIFTUSB_SKIP_SETUP=1 bash "$root/scripts/fuzz.sh" "${THRIFTUSB_FUZZ_SECONDS:-45}"
    return
  fi
  options="$(suite_options "$name")" || { echo "unknown suite: $name" >&2; return 1; }
  echo "=== $name ==="
  # shellcheck disable=SC2086  # options are words on purpose
  cmake -S "$root" -B "$dir" -G Ninja -DTHRIFTUSB_WERROR=ON $options >/dev/null &&
    cmake --build "$dir" -j "$jobs" &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

suites=("$@")
[ "${#suites[@]}" -gt 0 ] || suites=(fuzz thrift-0.13 thrift-0.17 asan-ubsan tsan)

failed=()
for suite in "${suites[@]}"; do
  run_suite "$suite" || failed+=("$suite")
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "FAILED suites: ${failed[*]}"
  exit 1
fi
echo "All suites passed: ${suites[*]}"

#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each target for a bounded time. Prints the
# executions of each target; exits non-zero when a target finds a crash, a sanitizer
# report or a failed check (its input is kept).
#
#   scripts/fuzz.sh                      every target for 10 minutes
#   scripts/fuzz.sh 45                   every target for 45 seconds (what CI runs)
#   scripts/fuzz.sh 3600 security_frames one target for an hour
#
# Targets: security_frames, sm4_decrypt. The corpus each target grows stays in
# build/fuzz/corpus/<target> and is used again by the next run; findings go to
# build/fuzz/artifacts/. THRIFTUSB_FUZZ_BUILD_DIR chooses another build directory.
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc 2>/dev/null || echo 2)"
seconds="${1:-600}"
[ "$#" -gt 0 ] && shift
targets=("$@")
[ "${#targets[@]}" -gt 0 ] || targets=(security_frames sm4_decrypt)
dir="${THRIFTUSB_FUZZ_BUILD_DIR:-$root/build/fuzz}"

case "$seconds" in
  ''|*[!0-9]*) echo "usage: scripts/fuzz.sh [SECONDS] [TARGET...]" >&2; exit 2 ;;
esac

# scripts/test.sh has run the setup already.
if [ -z "${THRIFTUSB_SKIP_SETUP:-}" ]; then
  bash "$root/scripts/setup.sh" || exit 1
fi

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTHRIFTUSB_WERROR=ON -DTHRIFTUSB_BUILD_FUZZERS=ON \
  -DTHRIFTUSB_BUILD_TESTS=OFF -DTHRIFTUSB_BUILD_EXAMPLES=OFF -DTHRIFTUSB_BUILD_BENCHMARKS=OFF \
  >/dev/null || exit 1
cmake --build "$dir" -j "$jobs" || exit 1

mkdir -p "$dir/artifacts"

failed=()
for target in "${targets[@]}"; do
  program="$dir/fuzz/fuzz_$target"
  if [ ! -x "$program" ]; then
    echo "fuzz: no target $target" >&2
    failed+=("$target")
    continue
  fi
  corpus="$dir/corpus/$target"
  log="$dir/$target.log"
  mkdir -p "$corpus"
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ASAN_OPTIONS=abort_on_error=1:detect_leaks=1 \
    "$program" -max_total_time="$seconds" -timeout=25 -max_len=32768 -print_final_stats=1 \
      -artifact_prefix="$dir/artifacts/$target-" "$corpus" >"$log" 2>&1
  status=$?
  executions="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
  coverage="$(grep -o 'cov: [0-9]*' "$log" | tail -1)"
  inputs="$(find "$corpus" -type f | wc -l)"
  if [ "$status" -eq 0 ]; then
    echo "fuzz: $target: ${executions:-?} executions in ${seconds} s, ${coverage:-cov: ?}, corpus $inputs inputs, no findings"
  else
    echo "fuzz: $target: FINDING after ${executions:-?} executions (exit $status); input in $dir/artifacts/, log $log:"
    grep -E 'ERROR|SUMMARY|fuzz check failed|runtime error|Test unit written' "$log" | head -20
    failed+=("$target")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "fuzz: FAILED: ${failed[*]}"
  exit 1
fi
echo "fuzz: all targets ran without findings: ${targets[*]}"

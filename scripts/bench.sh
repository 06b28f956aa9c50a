#!/usr/bin/env bash
# The transport benchmark in one command: installs what is missing (scripts/setup.sh),
# builds the benchmark in Release mode into build/bench-release, runs it and writes
#   docs/bench/results.json    every figure, Google Benchmark's JSON
#   docs/bench/results.md      the figures as tables, polling and waking mode side by side,
#                              the targets met, the machine and its load, and polling
#                              mode against the figures the run replaced
#   docs/bench/throughput.png  bulk throughput by stack
#
#   bash scripts/bench.sh                      the full run (about 7 minutes and the build)
#   bash scripts/bench.sh --out=DIR ARGS...    results into DIR; ARGS go to the benchmark
#                                              program (bash scripts/bench.sh --out=/tmp/b
#                                              --quick for a run of a few seconds, or
#                                              --benchmark_filter=REGEX for some cases)
#   bash scripts/bench.sh --libgcrypt ...      with libsm4-cipher built with the CMake
#                                              option THRIFTUSB_SM4_LIBGCRYPT, into
#                                              build/bench-release-libgcrypt; results
#                                              into docs/bench/libgcrypt unless --out
#
# The figures depend on the machine and on what else runs on it: run it on a quiet
# machine. The load average before and after the run is written into results.md.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
out=""
libgcrypt=OFF
args=()
for arg in "$@"; do
  case "$arg" in
    --out=*) out="${arg#--out=}" ;;
    --libgcrypt) libgcrypt=ON ;;
    *) args+=("$arg") ;;
  esac
done
build="$root/build/bench-release"
if [ "$libgcrypt" = ON ]; then
  build="$root/build/bench-release-libgcrypt"
  [ -n "$out" ] || out="$root/docs/bench/libgcrypt"
fi
[ -n "$out" ] || out="$root/docs/bench"

start=$(date +%s)
bash "$root/scripts/setup.sh"

jobs="$(nproc 2>/dev/null || echo 2)"
cmake --no-warn-unused-cli -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DTHRIFTUSB_BUILD_TESTS=OFF -DTHRIFTUSB_BUILD_EXAMPLES=ON -DTHRIFTUSB_BUILD_BENCHMARKS=ON \
  -DTHRIFTUSB_SM4_LIBGCRYPT="$libgcrypt" >/dev/null
cmake --build "$build" -j "$jobs" --target thriftusb_bench

mkdir -p "$out"
out="$(cd "$out" && pwd)"
# Run from the repository with paths relative to it where they lie inside it, so that
# the command written into results.md is the same on every machine.
rel() { case "$1" in "$root"/*) printf '%s\n' "${1#"$root"/}" ;; *) printf '%s\n' "$1" ;; esac; }
command=("$(rel "$build")/bench/thriftusb_bench" "--benchmark_out=$(rel "$out")/results.json"
  --benchmark_out_format=json "${args[@]+"${args[@]}"}")
# The figures already in the output directory: the report checks polling mode against them.
previous="$(mktemp)"
trap 'rm -f "$previous"' EXIT
cp "$out/results.json" "$previous" 2>/dev/null || : >"$previous"
run_start=$(date +%s)
(cd "$root" && "${command[@]}")
load_after="$(cat /proc/loadavg)"

python3 "$root/scripts/bench-report.py" "$out/results.json" "$out" --command="${command[*]}" \
  --seconds="$(( $(date +%s) - run_start ))" --load-after="$load_after" \
  --previous="$([ -s "$previous" ] && echo "$previous")"
echo "bench.sh: done in $(( $(date +%s) - start )) s"

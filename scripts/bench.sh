#!/usr/bin/env bash
# The transport benchmark in one command: installs what is missing (scripts/setup.sh),
# builds the benchmark in Release mode into build/bench-release, runs it and writes
#   docs/bench/results.csv   every figure, one per line
#   docs/bench/results.md    the same as tables, with the machine and the load
#   docs/bench/throughput.png  bulk throughput by stack
#
#   bash scripts/bench.sh                      the full run (about 2.5 minutes and the build)
#   bash scripts/bench.sh --out=DIR ARGS...    results into DIR; ARGS go to the benchmark
#                                              program (bash scripts/bench.sh --out=/tmp/b
#                                              --quick for a run of a few seconds)
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
plot_data="$build/throughput.dat"
# Run from the repository with paths relative to it where they lie inside it, so that
# the command written into results.md is the same on every machine.
rel() { case "$1" in "$root"/*) printf '%s\n' "${1#"$root"/}" ;; *) printf '%s\n' "$1" ;; esac; }
(cd "$root" && "$(rel "$build")/bench/thriftusb_bench" --csv="$(rel "$out")/results.csv" \
  --md="$(rel "$out")/results.md" --plot-data="$(rel "$plot_data")" "${args[@]+"${args[@]}"}")

# The plot: three bars per stack (stream, stream in 1 MiB frames, calls) on a logarithmic scale,
# with the rate of a USB 3 link for reference.
taken="$(sed -n 's/^Taken \(.*\)\.$/\1/p' "$out/results.md" | head -n 1)"
stacks="$(grep -vc '^#' "$plot_data")"
gnuplot <<PLOT
set terminal pngcairo size 1400,$((220 + 42 * stacks)) font "sans,11"
set output "$out/throughput.png"
set datafile separator "\t"
set datafile missing "-"
set title "thriftusb bulk throughput by stack, MB/s (log scale)\n{/*0.8 $taken}"
set logscale x
set xrange [1:10000]
set yrange [$stacks - 0.5:-0.5]
set format x "%g"
set grid xtics
set style fill solid 0.85 border -1
set key outside bottom center horizontal
set lmargin 52
set arrow from 450, graph 0 to 450, graph 1 nohead dashtype 2 linewidth 2 linecolor rgb "#c00000"
set label "USB 3 link, 450 MB/s" at 470, graph 0.02 front textcolor rgb "#c00000"
plot "$plot_data" using (1):(\$0 - 0.27):(1):2:(\$0 - 0.4):(\$0 - 0.14):ytic(1) \
       with boxxyerror linecolor rgb "#2f6fb0" title "stream of 64 KiB writes (framed: a frame per write)", \
     "" using (1):(\$0):(1):3:(\$0 - 0.13):(\$0 + 0.13) \
       with boxxyerror linecolor rgb "#7fb3e0" title "same, framed stacks in 1 MiB frames", \
     "" using (1):(\$0 + 0.27):(1):4:(\$0 + 0.14):(\$0 + 0.4) \
       with boxxyerror linecolor rgb "#e08a1e" title "Thrift calls echo(1 MiB), both ways"
PLOT

echo "wrote $out/throughput.png"
echo "bench.sh: done in $(( $(date +%s) - start )) s"

#!/usr/bin/env bash
# The soak, in one command: builds the soak program and runs it at full length
# (most of an hour on a 2-core machine: each host's calls go one after another):
#   - 1 GiB each way through the encrypted stack, checksummed at both ends;
#   - 10 000 hosts that connect, call and disconnect in turn against one server,
#     making 100 000 small calls in all, with no error and constant thread and
#     descriptor counts.
# Each part prints a "soak:" line with its figures. Exits non-zero on any failure.
#
#   scripts/soak.sh                  the full soak
#   THRIFTUSB_SOAK_BYTES=... THRIFTUSB_SOAK_CYCLES=... THRIFTUSB_SOAK_CALLS=...
#                                    other amounts (CTest runs 32 MiB, 100, 500)
#   THRIFTUSB_SOAK_BUILD_DIR=...     another build directory (default build/soak)
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
jobs="$(nproc 2>/dev/null || echo 2)"
dir="${THRIFTUSB_SOAK_BUILD_DIR:-$root/build/soak}"

bash "$root/scripts/setup.sh" || exit 1
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTHRIFTUSB_WERROR=ON \
  -DTHRIFTUSB_BUILD_BENCHMARKS=OFF >/dev/null || exit 1
cmake --build "$dir" -j "$jobs" --target reliability_soak_test || exit 1

export THRIFTUSB_SOAK_BYTES="${THRIFTUSB_SOAK_BYTES:-1073741824}"
export THRIFTUSB_SOAK_CYCLES="${THRIFTUSB_SOAK_CYCLES:-10000}"
export THRIFTUSB_SOAK_CALLS="${THRIFTUSB_SOAK_CALLS:-100000}"
echo "soak: $THRIFTUSB_SOAK_BYTES bytes, $THRIFTUSB_SOAK_CYCLES cycles, $THRIFTUSB_SOAK_CALLS calls"
# The transports log every connection's threads ending; only the results are shown.
"$dir/tests/reliability/reliability_soak_test" 2> "$dir/soak-stderr.log" |
  grep -E '^soak:|^\[  (PASSED|FAILED) |^\[==========\]|Failure|Expected|Which is|actual'
status="${PIPESTATUS[0]}"
[ "$status" -eq 0 ] || echo "soak: FAILED (exit $status); the transports' log is in $dir/soak-stderr.log"
exit "$status"

#!/usr/bin/env bash
# The newcomer's one command: installs what is missing, builds the example programs
# into build/demo against Thrift 0.13, and runs the server and the client against each
# other over a pair of FIFOs (scripts/run-demo.sh).
#
#   demo.sh [threaded|blocking] [--encrypted]
#
# The stack to run (threaded by default), and whether every call is encrypted (with
# the demo's published key).
#
# Running it again is quick: setup finds everything in place, the build tree is kept,
# and Ninja rebuilds only what changed (re-running CMake itself when a CMakeLists.txt
# changed).
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build/demo"

"$root/scripts/setup.sh"

if [ ! -f "$build/build.ninja" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DTHRIFTUSB_BUILD_TESTS=OFF -DTHRIFTUSB_BUILD_EXAMPLES=ON
fi
cmake --build "$build" --parallel "$(nproc)" --target usb_server usb_client usb_blocking_server

stack=threaded
if [ "$#" -gt 0 ] && [ "${1#--}" = "$1" ]; then
  stack="$1"
  shift
fi
"$root/scripts/run-demo.sh" "$build/examples" "$stack" "$@"

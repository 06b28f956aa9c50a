#!/usr/bin/env bash
# Runs the example server and client against each other over a pair of FIFOs that
# stand in for the two device nodes of a USB gadget.
#
#   run-demo.sh BINDIR [threaded|blocking] [--encrypted] [--waking]
#
# BINDIR holds the example programs. "threaded" (the default) runs usb_server and
# usb_client: a Thrift server on the threaded USB transport, stopped with SIGTERM once
# the client is done. "blocking" runs usb_blocking_server and usb_client --blocking on
# the blocking TUSBSocket. --encrypted encrypts every call, with the demo's published
# key (see examples/DemoOptions.h). --waking runs both programs in waking mode.
#
# Exits 0 when the client got every answer right and the server stopped cleanly after
# the client hung up. Each program runs under a time limit (DEMO_TIMEOUT seconds,
# default 20), so a hang fails the run instead of stalling it.
set -euo pipefail

bindir="${1:?usage: run-demo.sh BINDIR [threaded|blocking]}"
stack="${2:-threaded}"
cipher_options=()
wait_options=()
for option in "${@:3}"; do
  case "$option" in
    "") ;;
    --encrypted) cipher_options=(--encrypted) ;;
    --waking) wait_options=(--waking) ;;
    *) echo "demo: unknown option $option (--encrypted, --waking)" >&2; exit 2 ;;
  esac
done
limit="${DEMO_TIMEOUT:-20}"
case "$stack" in
  threaded) server="$bindir/usb_server" client_options=() ;;
  blocking) server="$bindir/usb_blocking_server" client_options=(--blocking) ;;
  *) echo "demo: unknown stack $stack (threaded or blocking)" >&2; exit 2 ;;
esac
client="$bindir/usb_client"
for program in "$server" "$client"; do
  if [ ! -x "$program" ]; then
    echo "demo: no program $program" >&2
    exit 2
  fi
done

dir="$(mktemp -d "${TMPDIR:-/tmp}/thriftusb-demo.XXXXXX")"
server_pid=""

cleanup() {
  exec 3>&- 4>&-
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$dir"
}
trap cleanup EXIT

to_device="$dir/host-to-device"
to_host="$dir/device-to-host"
mkfifo -m 600 "$to_device" "$to_host"

# This shell holds both FIFOs open for reading and writing, as a gadget driver holds
# its endpoints: either program may open its nodes first, and a node with nothing in
# it reads as "no data yet" rather than end of data. The programs do not inherit these
# descriptors (3>&- 4>&-), so that letting go of them later is what ends the blocking
# server.
exec 3<>"$to_device" 4<>"$to_host"

echo "demo: $stack stack${cipher_options:+, encrypted with the demo key}${wait_options:+, waking}, nodes in $dir"
timeout -k 2 "$limit" "$server" "${wait_options[@]}" "${cipher_options[@]}" \
  "$to_device" "$to_host" 3>&- 4>&- &
server_pid=$!

client_status=0
timeout -k 2 "$limit" "$client" "${client_options[@]}" "${wait_options[@]}" "${cipher_options[@]}" \
  "$to_host" "$to_device" 3>&- 4>&- || client_status=$?

# The client has closed its nodes. The blocking server stops once this shell lets go
# too: nothing can write to its read node any more and its read sees end of data. The
# threaded server waits for the next host until it is told to stop; this shell holds
# the nodes until it has stopped, as a gadget's endpoints stay, because opening a FIFO
# that nobody holds blocks, and a stop cannot end that wait.
if [ "$stack" = threaded ]; then
  kill -TERM "$server_pid" 2>/dev/null || true
else
  exec 3>&- 4>&-
fi
server_status=0
wait "$server_pid" || server_status=$?
server_pid=""
exec 3>&- 4>&-

if [ "$client_status" -ne 0 ] || [ "$server_status" -ne 0 ]; then
  echo "demo: FAILED (client exit $client_status, server exit $server_status)" >&2
  exit 1
fi
echo "demo: passed"

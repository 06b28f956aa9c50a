#!/usr/bin/env bash
# The Gadget service through a real print job: a private cupsd whose queue runs the
# example filter (cups_gadget_filter) and backend (cups_gadget_backend) as user lp,
# one job printed with lp. Passes when the job completed and the filter's calls to the
# backend all got the right answers.
#
#   run-cups-job.sh PROGRAM_DIR plain|encrypted
#
# Needs root, as cupsd runs filters and backends as lp only then (exits 77 without),
# and cupsd, lpadmin, lp and patchelf (scripts/setup.sh installs them). Every wait is
# bounded by CUPS_TEST_TIMEOUT seconds (default 20). cupsd listens on a Unix socket in
# a private directory only; its error log is shown when the test fails.
set -euo pipefail

programs="${1:?usage: $0 PROGRAM_DIR plain|encrypted}" framing="${2:?}"
limit="${CUPS_TEST_TIMEOUT:-20}"
[ "$(id -u)" -eq 0 ] || { echo "cups-job: SKIP: needs root"; exit 77; }
export PATH="$PATH:/usr/sbin:/sbin"
# What cupsd runs must be root's and writable by nobody else, on a path lp can enter.
umask 022
work="$(mktemp -d /tmp/thriftusb-cups.XXXXXX)" && chmod 0755 "$work"
cupsd_pid=""

# await WHAT CMD...: polls CMD every 0.1 s until it succeeds, for $limit seconds.
await() {
  local deadline=$((SECONDS + limit))
  until "${@:2}"; do
    [ "$SECONDS" -lt "$deadline" ] || { echo "cups-job: FAIL: $1 not within ${limit}s"; return 1; }
    sleep 0.1
  done
}
cupsd_gone() { ! kill -0 "$cupsd_pid" 2>/dev/null; }
finish() {
  local status=$?
  if [ -n "$cupsd_pid" ]; then
    kill "$cupsd_pid" && await "cupsd's end" cupsd_gone || kill -KILL "$cupsd_pid" || true
  fi
  [ "$status" -eq 0 ] || cat "$work/log/error_log" 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT

# lp may not enter the build tree (a clone under /root, mode 700): the programs go into
# the private tree, with every library they load from outside the system's directories.
mkdir -p "$work/conf" "$work/bin/filter" "$work/bin/backend" "$work/bin/daemon" "$work/lib" \
  "$work/spool/tmp" "$work/cache" "$work/state" "$work/log"
ln -s /usr/lib/cups/daemon/cups-exec "$work/bin/daemon/cups-exec"
stage() {
  ldd "$1" | sed -n 's/^[[:space:]]*\([^ ]*\) => \(\/[^ ]*\).*/\1 \2/p' | while read -r name path; do
    case "$path" in /lib/* | /usr/lib/*) continue ;; esac
    [ -e "$work/lib/$name" ] || cp -L "$path" "$work/lib/$name"
    patchelf --set-rpath '$ORIGIN' "$work/lib/$name"
  done
  install -m 0755 "$1" "$2" && patchelf --set-rpath "$work/lib" "$2"
}
stage "$programs/cups_gadget_filter" "$work/bin/filter/thriftusb-gadget"
stage "$programs/cups_gadget_backend" "$work/bin/backend/thriftusb-gadget"

cat >"$work/conf/cups-files.conf" <<EOF
ServerRoot $work/conf
ServerBin $work/bin
RequestRoot $work/spool
TempDir $work/spool/tmp
CacheDir $work/cache
StateDir $work/state
ErrorLog $work/log/error_log
AccessLog $work/log/access_log
PageLog $work/log/page_log
Printcap $work/printcap
User lp
Group lp
SystemGroup root
EOF
# Anyone on the private socket may do anything.
printf '%s\n' "Listen $work/cups.sock" 'LogLevel debug' 'Browsing No' '<Policy default>' \
  '<Limit All>' 'Order allow,deny' 'Allow all' '</Limit>' '</Policy>' >"$work/conf/cupsd.conf"
printf '%s\n' '*PPD-Adobe: "4.3"' '*NickName: "thriftusb Gadget"' \
  '*cupsFilter2: "text/plain application/vnd.cups-raw 0 thriftusb-gadget"' >"$work/gadget.ppd"

cupsd -f -c "$work/conf/cupsd.conf" -s "$work/conf/cups-files.conf" &
cupsd_pid=$!
export CUPS_SERVER="$work/cups.sock"
scheduler_up() { [ "$(lpstat -r 2>/dev/null)" = 'scheduler is running' ]; }
await "cupsd answering" scheduler_up
lpadmin -p gadget -E -v "thriftusb-gadget:/$framing" -P "$work/gadget.ppd" \
  -o printer-error-policy=abort-job
echo "a page for the gadget" >"$work/page.txt"
job="$(lp -d gadget "$work/page.txt" | sed -n 's/^request id is \([^ ]*\).*/\1/p')"
job_done() { ! lpstat -o gadget 2>/dev/null | grep -q "^$job "; }
await "the end of $job" job_done

log="$work/log/error_log"
grep -q "\[Job ${job##*-}\] Job completed\.$" "$log" || { echo "cups-job: FAIL: $job did not complete"; exit 1; }
grep -q "\[Job ${job##*-}\] client: all answers right" "$log" ||
  { echo "cups-job: FAIL: the filter's calls did not all succeed"; exit 1; }
echo "cups-job: PASS ($framing)"

#!/usr/bin/env bash
# The Gadget service through a real print job: starts a private cupsd, adds a queue
# whose PPD runs the example filter (cups_gadget_filter) and whose device is the
# example backend (cups_gadget_backend), prints one job with lp, and passes when the
# filter's calls to the backend all got the right answers and the job completed.
#
#   run-cups-job.sh PROGRAM_DIR plain|encrypted
#
# PROGRAM_DIR holds the two built programs. Needs root: cupsd runs filters and
# backends as user lp only when it runs as root. Needs cupsd, lpadmin, lp and patchelf
# (scripts/setup.sh installs them) and fails, saying so, when one is missing. Every
# wait is bounded by CUPS_TEST_TIMEOUT seconds (default 20). cupsd listens on a Unix
# socket in a private directory only, and is stopped by its PID; on failure its error
# log is printed.
set -euo pipefail

programs="${1:?usage: $0 PROGRAM_DIR plain|encrypted}"
framing="${2:?usage: $0 PROGRAM_DIR plain|encrypted}"
limit="${CUPS_TEST_TIMEOUT:-20}"

log() { printf 'cups-job: %s\n' "$*"; }

if [ "$(id -u)" -ne 0 ]; then
  log "SKIP: needs root (cupsd starts filters and backends as user lp only as root)"
  exit 77
fi

# cupsd and lpadmin live in sbin, which a non-login PATH may lack.
export PATH="$PATH:/usr/sbin:/sbin"
for tool in cupsd lpadmin lp lpstat patchelf ldd; do
  if ! command -v "$tool" >/dev/null; then
    log "FAIL: no $tool on this machine (scripts/setup.sh installs what the tests need)"
    exit 1
  fi
done
cups_exec=/usr/lib/cups/daemon/cups-exec
[ -x "$cups_exec" ] || { log "no $cups_exec"; exit 1; }

# Files that cupsd runs must be owned by root and writable by nobody else, and
# every folder on the way must be enterable by lp: 022, whatever the caller's umask,
# and /tmp, whatever TMPDIR says.
umask 022
work="$(mktemp -d /tmp/thriftusb-cups.XXXXXX)"
chmod 0755 "$work"
cupsd_pid=""
passed=0

stop_cupsd() {
  [ -n "$cupsd_pid" ] || return 0
  kill -TERM "$cupsd_pid" 2>/dev/null || true
  local i
  for ((i = 0; i < 50; i++)); do
    kill -0 "$cupsd_pid" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$cupsd_pid" 2>/dev/null; then
    kill -KILL "$cupsd_pid"
  fi
  wait "$cupsd_pid" 2>/dev/null || true
  cupsd_pid=""
}

finish() {
  stop_cupsd
  if [ "$passed" -ne 1 ] && [ -f "$work/log/error_log" ]; then
    echo "----- cupsd error_log -----"
    cat "$work/log/error_log"
    echo "---------------------------"
  fi
  rm -rf "$work"
}
trap finish EXIT
trap 'exit 1' INT TERM

# Polls "$@" every 0.1 s until it succeeds; fails after $limit seconds.
await() {
  local what="$1" deadline=$((SECONDS + limit))
  shift
  until "$@"; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      log "FAIL: $what not within ${limit}s"
      return 1
    fi
    sleep 0.1
  done
}

# The private tree: configuration (ServerRoot), programs (ServerBin), spool, cache,
# state and logs.
conf="$work/conf" bin="$work/bin" sock="$work/cups.sock"
mkdir -p "$conf/ppd" "$bin/filter" "$bin/backend" "$bin/daemon" \
  "$work/spool/tmp" "$work/cache" "$work/state" "$work/log"
ln -s "$cups_exec" "$bin/daemon/cups-exec"

# The filter and the backend run as lp, which may not be able to enter the build tree
# (a clone under /root, mode 700). They go into the private tree together with every
# library they load from outside the system's own directories, and find those there.
libs="$work/lib"
mkdir -p "$libs"
stage_libraries() {
  local name path
  while read -r name path; do
    case "$path" in
      /lib/* | /lib64/* | /usr/lib/* | /usr/lib64/*) continue ;;
      /*) ;;
      *) log "FAIL: $1 needs $name, which is not found"; return 1 ;;
    esac
    if [ ! -e "$libs/$name" ]; then
      cp -L "$path" "$libs/$name"
      patchelf --set-rpath '$ORIGIN' "$libs/$name"
    fi
  done < <(ldd "$1" | sed -n 's/^[[:space:]]*\([^ ]*\) => \([^ ]*\).*/\1 \2/p')
}
stage_program() {
  stage_libraries "$1"
  install -m 0755 "$1" "$2"
  patchelf --set-rpath "$libs" "$2"
}
stage_program "$programs/cups_gadget_filter" "$bin/filter/thriftusb-gadget"
stage_program "$programs/cups_gadget_backend" "$bin/backend/thriftusb-gadget"
# Without arguments the filter only prints its usage, if lp can load it at all.
as_lp="$(runuser -u lp -- "$bin/filter/thriftusb-gadget" </dev/null 2>&1 || true)"
if grep -q 'error while loading shared libraries' <<<"$as_lp"; then
  printf '%s\n' "$as_lp"
  log "FAIL: user lp cannot load the filter's libraries"
  exit 1
fi

cat >"$conf/cups-files.conf" <<EOF
ServerRoot $conf
ServerBin $bin
RequestRoot $work/spool
TempDir $work/spool/tmp
CacheDir $work/cache
StateDir $work/state
ErrorLog $work/log/error_log
AccessLog $work/log/access_log
PageLog $work/log/page_log
Printcap $work/printcap
FileDevice No
User lp
Group lp
SystemGroup root
EOF

cat >"$conf/cupsd.conf" <<EOF
Listen $sock
LogLevel debug
Browsing No
WebInterface No
<Location />
  Order allow,deny
  Allow all
</Location>
<Policy default>
  <Limit All>
    Order allow,deny
    Allow all
  </Limit>
</Policy>
EOF

cat >"$work/gadget.ppd" <<'EOF'
*PPD-Adobe: "4.3"
*FormatVersion: "4.3"
*FileVersion: "1.0"
*LanguageVersion: English
*LanguageEncoding: ISOLatin1
*PCFileName: "GADGET.PPD"
*Manufacturer: "thriftusb"
*Product: "(Gadget)"
*ModelName: "thriftusb Gadget"
*NickName: "thriftusb Gadget"
*ShortNickName: "thriftusb Gadget"
*PSVersion: "(3010.000) 0"
*cupsFilter2: "text/plain application/vnd.cups-raw 0 thriftusb-gadget"
EOF

log "starting cupsd in $work"
cupsd -f -c "$conf/cupsd.conf" -s "$conf/cups-files.conf" &
cupsd_pid=$!
export CUPS_SERVER="$sock"
# lpstat -r exits 0 in either case; only its words tell. (Output is taken whole
# before grep looks at it: grep -q leaving early must not fail lpstat.)
scheduler_up() { [ "$(lpstat -r 2>/dev/null)" = 'scheduler is running' ]; }
await "cupsd answering on $sock" scheduler_up

# (lpadmin warns that PPD files are deprecated; its output is shown only on failure.)
if ! lpadmin -p gadget -E -v "thriftusb-gadget:/$framing" -P "$work/gadget.ppd" \
  -o printer-error-policy=abort-job >"$work/lpadmin.out" 2>&1; then
  cat "$work/lpadmin.out"
  log "FAIL: lpadmin"
  exit 1
fi
echo "a page for the gadget" >"$work/page.txt"
started_ns=$(date +%s%N)
job="$(lp -d gadget "$work/page.txt" | sed -n 's/^request id is \([^ ]*\).*/\1/p')"
[ -n "$job" ] || { log "FAIL: lp printed no job id"; exit 1; }
log "printing $job"

job_done() {
  local pending
  pending="$(lpstat -o gadget 2>/dev/null || true)"
  ! grep -q "^$job " <<<"$pending"
}
await "end of $job" job_done

# The filter's lines: "[Job N] client: ..." in the error log.
client_lines() { sed -n "s/.*\[Job ${job##*-}\] \(client: .*\)/\1/p" "$work/log/error_log"; }
fail=0
if ! grep -q "\[Job ${job##*-}\] Job completed\.$" "$work/log/error_log"; then
  log "FAIL: $job did not complete"
  fail=1
fi
if ! grep -q '^client: all answers right' <<<"$(client_lines)"; then
  log "FAIL: the filter's calls did not all succeed"
  fail=1
fi
[ "$fail" -eq 0 ] || exit 1
client_lines | sed 's/^/cups-job: /'
log "PASS ($framing): from lp to the end of the job $((($(date +%s%N) - started_ns) / 1000000)) ms"
passed=1

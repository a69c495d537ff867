#!/usr/bin/env bash
# qeld --once, --shutdown and --foreground against the simulated controller
# process: what each sends, what each logs, how each ends.
source "$(dirname "$0")/qeld-lib.sh"

start_syslog
start_bmcsim

step "--strict --once: one pass of the library's loop, no watchdog command, no wait"
start=$(now_ms)
with_log "$QELD" --strict --once --bmc-socket "$SOCK" --no-stderr
status=$?
elapsed=$(($(now_ms) - start))
expect_eq "exit status" "$status" 0
# A pass of the loop would wait 20 s; one pass alone takes well under that.
expect_le "ms it took" "$elapsed" 10000
for c in "06 22" "06 24" "06 25"; do
  expect_eq "watchdog command $c sent" "$(sent_count "$c")" 0
done
expect_eq "watchdog" "$(dump_value timer)" "stopped (never set)"
expect_eq "OS status" "$(dump_value os-status)" "5 5"
expect_eq "OS text" "$(dump_value os-text | sed 's/ via.*//')" '"VMware ESXi "'
expect_eq "agent connection untouched" "$(dump_value agent-connection)" "1 (connected)"
# The four slots were cleared at start, then the host's first address written.
expect_eq "slot 1 writes" "$(dump_value address-1 | sed 's/.*writes //')" 2
expect_eq "slot 4 writes (the clearing)" "$(dump_value address-4 | sed 's/.*writes //')" 1
expect_eq "slot 4" "$(dump_value address-4 | cut -d' ' -f1)" 0.0.0.0
expect_true "syslog identity QELD, nothing at err" sh -c "! grep -q '^<11>' '$SYSLOG'"

step "--once (the host agent): the host's own OS name and kernel release"
. /etc/os-release
ctl clear-requests
with_log "$QELD" --once --bmc-socket "$SOCK" --no-stderr
expect_eq "exit status" "$?" 0
expect_eq "OS text" "$(dump_value os-text | sed 's/ via.*//')" "\"$PRETTY_NAME\""
expect_eq "platform text" "$(dump_value platform-text | sed 's/ via.*//')" "\"$(uname -r)\""
for c in "06 22" "06 24"; do
  expect_eq "watchdog command $c sent" "$(sent_count "$c")" 0
done
# The standard System Info Parameters, read back by ipmitool.
sysinfo() { LD_PRELOAD=$PRELOAD QEL_BMCSIM_SOCKET=$SOCK ipmitool -I open mc getsysinfo "$1" 2>&1; }
expect_eq "System Info: system name" "$(sysinfo system_name)" "$(hostname)"
expect_eq "System Info: primary OS name" "$(sysinfo primary_os_name)" "$NAME"
expect_eq "System Info: OS name" "$(sysinfo os_name)" "$NAME"
expect_eq "System Info: present OS version (parameter 5)" "$(dump_value sysinfo-5)" "\"${VERSION:-$(uname -r)}\""

step "--shutdown: only the watchdog stop, and no syslog at all"
ctl set watchdog-state 44 00 00 00 b8 0b b8 0b   # running, use 4, 300 s
ctl clear-requests
lines=$(wc -l <"$SYSLOG")
with_log "$QELD" --shutdown --bmc-socket "$SOCK"
expect_eq "exit status" "$?" 0
expect_eq "requests: Get and Set Watchdog Timer" "$(request_lines | cut -c1-5 | tr '\n' ,)" "06 25,06 24,"
expect_eq "the Set stops use 4" "$(request_lines | awk '$2 == "24" { print $3 }')" 04
expect_eq "watchdog" "$(dump_value timer)" stopped
expect_eq "syslog lines" "$(wc -l <"$SYSLOG")" "$lines"

step "--shutdown --system-shutdown: the graceful shutdown in the event log too"
ctl clear-requests
with_log "$QELD" --shutdown --system-shutdown --bmc-socket "$SOCK"
expect_eq "exit status" "$?" 0
expect_eq "requests" "$(request_lines | cut -c1-5 | tr '\n' ,)" "06 25,06 24,04 02,"
expect_true "OS Stop/Shutdown, offset 3 (graceful shutdown)" sh -c "$BMCSIM --socket $SOCK ctl dump | grep -qx 'sel-event sensor-type 20 offset 03'"
set +e
"$QELD" --once --system-shutdown --bmc-socket "$SOCK" 2>/dev/null
expect_eq "--system-shutdown without --shutdown" "$?" 64
"$QELD" --once --watchdog-action reset --bmc-socket "$SOCK" 2>/dev/null
expect_eq "--watchdog-action without --watchdog" "$?" 64
"$QELD" --once --watchdog 7000 --bmc-socket "$SOCK" 2>/dev/null
expect_eq "--watchdog beyond the 16-bit countdown" "$?" 64
"$QELD" --once --watchdog 300 --watchdog-action explode --bmc-socket "$SOCK" 2>/dev/null
expect_eq "--watchdog-action of no such action" "$?" 64
"$QELD" --once --strict --watchdog 300 --bmc-socket "$SOCK" 2>/dev/null
expect_eq "--watchdog with --strict" "$?" 64
set -e

step "--foreground: the worker resets the watchdog; SIGALRM resets it too"
ctl set confspace-var 2300 01
ctl clear-requests
: >"$SYSLOG"
with_log_bg "$QELD" --foreground --bmc-socket "$SOCK" --no-stderr
fg=$BG_PID
wait_until 10 "first watchdog reset" resets_at_least 1
expect_eq "watchdog" "$(dump_value timer)" running
expect_eq "initial countdown" "$(dump_value initial-countdown)" "3000 (300.0 s)"
kill -ALRM "$fg"
wait_until 10 "reset after SIGALRM" resets_at_least 2
# In mode Thread the program owns syslog: identity QELD, LOG_USER (<14> info).
wait_until 5 "syslog line for SIGALRM" syslog_has 14 QELD "Alarm signal received"

step "--foreground: SIGTERM stops the worker, the watchdog and reports the shutdown"
ctl clear-requests
kill -TERM "$fg"
set +e
wait "$fg"
status=$?
set -e
expect_eq "exit status" "$status" 0
# The logger is a process of its own: its line may come a moment after qeld ended.
wait_until 5 "syslog: <14> QELD: Termination signal received" syslog_has 14 QELD "Termination signal received"
expect_eq "watchdog" "$(dump_value timer)" stopped
expect_eq "agent connection" "$(dump_value agent-connection)" "2 (disconnected)"
expect_eq "last OS status" "$(dump_value os-status | awk '{ print $NF }')" 6
expect_eq "OS text" "$(dump_value os-text | sed 's/ via.*//')" '""'
expect_eq "platform text" "$(dump_value platform-text | sed 's/ via.*//')" '""'
expect_eq "stop, status 2, then the report" \
  "$(request_lines | awk '$1 == "06" && $2 == "24" { print "stop" } $1 == "2e" && $2 == "02" && $6 == "02" { print "status" } $1 == "04" && $7 == "46" { print "os6" }' | tr '\n' ,)" \
  "stop,status,os6,"

step "--foreground: SIGINT and SIGHUP end it the same way"
for sig in INT HUP; do
  ctl clear-requests
  with_log_bg "$QELD" --foreground --bmc-socket "$SOCK" --no-stderr
  fg=$BG_PID
  wait_until 10 "first watchdog reset" resets_at_least 1
  kill -"$sig" "$fg"
  set +e
  wait "$fg"
  status=$?
  set -e
  expect_eq "exit status after SIG$sig" "$status" 0
  expect_eq "watchdog after SIG$sig" "$(dump_value timer)" stopped
done

step "--foreground under a service manager: READY=1 after the first pass, WATCHDOG=1 and STATUS= after each"
# A stand-in for systemd's notification socket: every datagram, then a line "--".
notify_listener() {
  python3 -c '
import os, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind(sys.argv[1])
out = open(sys.argv[2], "a")
while True:
    out.write(s.recv(4096).decode() + "--\n")
    out.flush()
' "$1" "$2" &
  KILL_AT_END+=("$!")
  NOTIFY_PID=$!
}
datagrams() { grep -c '^--$' "$T/notify" 2>/dev/null || echo 0; }
datagrams_at_least() { [ "$(datagrams)" -ge "$1" ]; }
notify_bound() { [ -S "$T/notify.sock" ]; }
for loop in host strict; do
  rm -f "$T/notify.sock"
  : >"$T/notify"
  notify_listener "$T/notify.sock" "$T/notify"
  wait_until 10 "the notification socket" notify_bound
  ctl clear-requests
  extra=()
  [ "$loop" == strict ] && extra=(--strict)
  NOTIFY_SOCKET=$T/notify.sock with_log_bg "$QELD" --foreground "${extra[@]}" --bmc-socket "$SOCK" --no-stderr \
    --test-time-scale=40
  fg=$BG_PID
  wait_until 20 "three passes' notifications ($loop loop)" datagrams_at_least 3
  expect_eq "$loop: the first says READY=1" "$(head -n1 "$T/notify")" "READY=1"
  expect_eq "$loop: READY=1 once" "$(grep -c '^READY=1$' "$T/notify")" 1
  expect_eq "$loop: a WATCHDOG=1 in each" "$(grep -c '^WATCHDOG=1$' "$T/notify")" "$(datagrams)"
  expect_eq "$loop: a STATUS= in each" "$(grep -c '^STATUS=' "$T/notify")" "$(datagrams)"
  if [ "$loop" == host ]; then
    expect_true "$loop: status line '$(grep -m1 '^STATUS=' "$T/notify")'" \
      grep -qE '^STATUS=watchdog 300 s, reset [0-9]+ s ago; ' "$T/notify"
  else
    expect_true "$loop: status line '$(grep -m1 '^STATUS=' "$T/notify")'" \
      grep -qE '^STATUS=library loop: watchdog reset [0-9]+ s ago; [0-9]+ pass(es)?$' "$T/notify"
  fi
  kill -TERM "$fg"
  set +e
  wait "$fg"
  status=$?
  set -e
  expect_eq "$loop: exit status" "$status" 0
  wait_until 5 "STOPPING=1" grep -q '^STOPPING=1$' "$T/notify"
  kill "$NOTIFY_PID" 2>/dev/null || true
done

step "--once --simulate --report: the built-in controller, its state printed"
"$QELD" --once --simulate --report --no-stderr >"$T/report"
expect_eq "exit status" "$?" 0
expect_true "report has the traffic" grep -q '^sent 04 02 x1  Platform Event' "$T/report"
expect_true "report has the PNI records" grep -q '^adapter 0 port 1 function 0 nic ' "$T/report"
expect_true "report has the board's OS status (once a pass)" grep -q '^os-status 5$' "$T/report"

finish

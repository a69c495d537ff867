#!/usr/bin/env bash
# qeld --daemon as real processes against the simulated controller process:
# the fork and the pid file, the first pass (watchdog programmed and reset),
# SIGALRM, the three termination signals (OS status 6 with empty texts,
# watchdog stopped, agent disconnected, pid file removed, exit 0), syslog
# with its priorities, and a killed daemon whose watchdog then runs out.
source "$(dirname "$0")/qeld-lib.sh"

start_syslog
start_bmcsim

# The agent's identities: "QELD" (LOG_USER) from the constructor, then
# "qel_daemon" (LOG_LOCAL5) for the daemon. <174> = local5.info, <171> =
# local5.err.
INFO=174
ERR=171

step "qeld --daemon forks, the parent returns 0, the child writes the pid file"
start_daemon
expect_eq "parent's exit status" "$(parent_status)" 0
expect_true "the daemon runs (pid $DAEMON_PID)" kill -0 "$DAEMON_PID"
parent=$(sed -n 's/^command pid \([0-9]*\) .*/\1/p' "$EXITS")
expect_ne "the daemon is another process than the parent" "$DAEMON_PID" "$parent"
expect_eq "pid file holds the daemon's pid" "$(cat "$PIDFILE")" "$DAEMON_PID"
expect_eq "pid file mode (not world-writable despite the daemon's umask 0)" "$(stat -c %a "$PIDFILE")" 644
wait_until 5 "syslog: <$INFO> qel_daemon[parent]: starting" syslog_has $INFO qel_daemon starting
expect_eq "\"starting\" comes from the parent" "$(syslog_pid qel_daemon starting)" "$parent"

step "first pass: the watchdog is programmed (use 4, no action, 300 s) and reset"
wait_until 10 "first watchdog reset" resets_at_least 1
wait_idle
expect_eq "Set Watchdog Timer sent" "$(sent_count "06 24")" 1
expect_eq "watchdog" "$(dump_value timer)" running
expect_eq "timer use" "$(dump_value timer-use)" "4 (SMS/OS)"
expect_eq "time-out action" "$(dump_value timeout-action)" "0 (none)"
expect_eq "initial countdown" "$(dump_value initial-countdown)" "3000 (300.0 s)"
# Once a pass: the host agent's info pass does not send it a second time
# (the library's loop does, see qeld_modes.sh --strict).
expect_eq "OS status reported" "$(dump_value os-status)" "5"
# Addresses were cleared at start and the host's published.
expect_ne "address slot 1 published" "$(dump_value address-1 | cut -d' ' -f1)" "192.0.2.10"

step "SIGALRM resets the watchdog"
resets=$(sent_count "06 22")
kill -ALRM "$DAEMON_PID"
wait_until 10 "reset after SIGALRM" resets_at_least $((resets + 1))
wait_until 5 "syslog line for SIGALRM" syslog_has $INFO qel_daemon "Alarm signal received"
expect_true "the daemon still runs" kill -0 "$DAEMON_PID"
# The signal cut the loop's sleep short: a pass follows at once.
wait_until 20 "the pass after the alarm" passes_done 2

step "the controller's clock moves 200 s: the reset keeps the watchdog from running out"
ctl advance 200000 >/dev/null
expect_eq "watchdog" "$(dump_value timer)" running
expect_eq "expiries" "$(dump_value expiries)" 0

# Termination by SIGTERM, then a fresh daemon each for SIGHUP and SIGINT.
for sig in TERM HUP INT; do
  step "SIG$sig: shutdown report, watchdog stopped, agent disconnected, pid file removed"
  if [ "$sig" != TERM ]; then
    start_daemon
    wait_until 10 "first watchdog reset" resets_at_least 1
    wait_idle
  fi
  : >"$SYSLOG"
  ctl clear-requests
  # The agent sets the status only when it differs: start from "connected",
  # as a controller shows a running agent.
  ctl set confspace-var 2300 01
  pid=$DAEMON_PID
  kill -"$sig" "$pid"
  wait_until 10 "end of the daemon" daemon_gone "$pid"
  expect_eq "daemon's exit status" "$(daemon_status "$pid")" 0
  expect_true "pid file removed" test ! -e "$PIDFILE"
  expect_eq "watchdog" "$(dump_value timer)" stopped
  expect_eq "agent connection" "$(dump_value agent-connection)" "2 (disconnected)"
  expect_eq "last OS status" "$(dump_value os-status | awk '{ print $NF }')" 6
  expect_eq "OS text" "$(dump_value os-text | sed 's/ via.*//')" '""'
  expect_eq "platform text" "$(dump_value platform-text | sed 's/ via.*//')" '""'
  # In this order: OS status 6 and empty texts (the handler), watchdog
  # stopped, agent status 2 (end of the loop), and the report once more.
  order=$(request_lines | awk '
      $1 == "04" && $2 == "02" && $7 == "46" && !s6 { s6 = NR }
      $1 == "30" && $2 == "a8" && $4 == "00" && s6 && !t { t = NR }
      $1 == "06" && $2 == "24" && !stop { stop = NR }
      $1 == "2e" && $2 == "02" && $6 == "02" { conn = NR }
      END { print (s6 && t > s6 && stop > t && conn > stop) ? "in order" : "s6=" s6 " text=" t " stop=" stop " conn=" conn }')
  expect_eq "order of the shutdown requests" "$order" "in order"
  expect_eq "the stop clears the timer (Set without don't-stop)" \
    "$(request_lines | awk '$1 == "06" && $2 == "24" { print $3, $4; exit }')" "04 00"
  expect_true "syslog: <$INFO> qel_daemon[$pid]: Termination signal received" \
    syslog_has $INFO qel_daemon "Termination signal received"
  expect_eq "logged by the daemon" "$(syslog_pid qel_daemon "Termination signal received")" "$pid"
  # The handler removed the file already, so the loop's own removal fails;
  # that message is expected.
  expect_true "syslog: <$ERR> unable to remove file: $PIDFILE" \
    syslog_has $ERR qel_daemon "unable to remove file: $PIDFILE"
  wait_until 10 "end of the subreaper" sh -c "! kill -0 $REAPER_PID 2>/dev/null"
done

step "kill -9: nobody resets any more, and the watchdog runs out on the controller's clock"
start_daemon
wait_until 10 "first watchdog reset" resets_at_least 1
wait_idle
expect_eq "watchdog before" "$(dump_value timer)" running
before=$(dump_value expiries)
kill -9 "$DAEMON_PID"
wait_until 10 "end of the daemon" daemon_gone "$DAEMON_PID"
expect_eq "status" "$(daemon_status "$DAEMON_PID")" "signal 9"
ctl advance 299000 >/dev/null
expect_eq "299 s later: still running" "$(dump_value timer)" running
ctl advance 2000 >/dev/null
expect_eq "301 s later: watchdog" "$(dump_value timer)" stopped
expect_eq "expiries" "$(dump_value expiries)" $((before + 1))
expect_eq "expiration flag of use 4" "$(dump_value expiration-flags)" 10
expect_true "the killed daemon left its pid file" test -e "$PIDFILE"
rm -f "$PIDFILE"

finish

#!/usr/bin/env bash
# A second IPv4 address on one interface (a keepalived VIP, an alias) gives
# two SIOCGIFCONF entries with one interface index. The inventory throws "if
# entry for <name> is already existing.", the loop ends with an error, and the
# agent stops the watchdog. The whole chain, as the host sees it: the text in
# syslog at LOG_ERR, qeld's distinct exit status 2 (--foreground, --once, and
# the daemon process itself), the watchdog stopped, the agent disconnected.
# That is the library's own loop, which `qeld --strict` runs; the host agent
# (qeld's default) publishes such a host instead: qeld_host_agent.sh.
source "$(dirname "$0")/qeld-lib.sh"

M1=02:00:00:00:0d:01
start_syslog
start_bmcsim "board extended" "board-slot 3" "nic-ports $M1" "soft-watchdog on 300" "lan-channel 1 on"

new_netns dup
ip -n "$NS" link add v0 address "$M1" type veth peer name v0p
ip -n "$NS" addr add 10.21.0.1/24 dev v0
ip -n "$NS" addr add 10.21.0.100/24 dev v0   # the second address: a "secondary"
ip -n "$NS" link set v0 up
ip -n "$NS" link set v0p up
RUN_IN=(ip netns exec "$NS")
TEXT="if entry for v0 is already existing."

step "--foreground: the worker's loop ends, qeld notices and exits 2"
ctl set confspace-var 2300 01
ctl clear-requests
set +e
with_log "$QELD" --strict --foreground --bmc-socket "$SOCK" 2>"$T/err"
status=$?
set -e
expect_eq "exit status" "$status" 2
# Mode Thread: syslog belongs to qeld, identity QELD, LOG_USER; <11> = user.err.
# The logger is a process of its own: its lines may come a moment after qeld ended.
wait_until 5 "syslog: <11> QELD: $TEXT" syslog_has 11 QELD "$TEXT"
wait_until 5 "syslog: <11> QELD: qeld's own conclusion" \
  syslog_has 11 QELD "the agent's loop ended with an error; the watchdog is stopped"
expect_true "stderr: the same text" grep -qxF "qeld: err: $TEXT" "$T/err"
expect_eq "the watchdog was started by the pass" "$(sent_count "06 22")" 1
expect_eq "and stopped after the error" "$(dump_value timer)" stopped
expect_eq "agent connection" "$(dump_value agent-connection)" "2 (disconnected)"
expect_eq "last OS status" "$(dump_value os-status | awk '{ print $NF }')" 6

step "--daemon: the daemon process ends with status 2, its pid file removed"
ctl set confspace-var 2300 01
ctl clear-requests
: >"$SYSLOG"
: >"$EXITS"
with_log_bg "$SUBREAPER" "$EXITS" "$QELD" --strict --daemon --bmc-socket "$SOCK" --root "$ROOT" --no-stderr
REAPER_PID=$BG_PID
wait_until 10 "exit of the daemon's parent" grep -q '^command ' "$EXITS"
# The child reports and dies within milliseconds here. When both its SIGUSR1
# and its SIGCHLD are pending before the parent runs again, the kernel runs
# the SIGCHLD handler first and the parent exits 1; otherwise 0. Either way
# the daemon did start, which the checks below show.
status=$(parent_status)
expect_true "parent's exit status 0 or 1 (got $status)" test "$status" == 0 -o "$status" == 1
# Daemon: identity qel_daemon, LOG_LOCAL5; <171> = local5.err.
wait_until 10 "syslog: <171> qel_daemon: $TEXT" syslog_has 171 qel_daemon "$TEXT"
daemon=$(syslog_pid qel_daemon "$TEXT")
expect_ne "logged by the daemon, not the parent" "$daemon" "$(sed -n 's/^command pid \([0-9]*\) .*/\1/p' "$EXITS")"
wait_until 10 "end of the daemon" daemon_gone "$daemon"
expect_eq "the daemon's exit" "$(daemon_status "$daemon")" 2
expect_true "pid file removed" test ! -e "$PIDFILE"
expect_eq "watchdog" "$(dump_value timer)" stopped
expect_eq "agent connection" "$(dump_value agent-connection)" "2 (disconnected)"
expect_eq "last OS status" "$(dump_value os-status | awk '{ print $NF }')" 6

step "--once: exit 2 as well"
set +e
with_log "$QELD" --strict --once --bmc-socket "$SOCK" --no-stderr
status=$?
set -e
expect_eq "exit status" "$status" 2

step "without the second address all is well again"
ip -n "$NS" addr del 10.21.0.100/24 dev v0
set +e
with_log "$QELD" --strict --once --bmc-socket "$SOCK" --no-stderr
status=$?
set -e
expect_eq "exit status" "$status" 0
expect_eq "slot 1" "$(dump_value address-1 | cut -d' ' -f1)" 10.21.0.1

finish

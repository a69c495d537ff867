#!/usr/bin/env bash
# How qeld --daemon refuses or fails to start, and qeld's command line: a
# leftover pid file (the two lines, no fork, status 4), a parent that is init
# (status 1 before any fork), a child that never reports (the parent gives up
# after 3 s with status 1), no controller (status 3), bad usage (64).
source "$(dirname "$0")/qeld-lib.sh"

start_syslog
start_bmcsim

step "a leftover pid file: two lines on stderr, no fork, exit 4"
echo 4242 >"$PIDFILE"
set +e
with_log "$SUBREAPER" "$EXITS" "$QELD" --daemon --bmc-socket "$SOCK" --root "$ROOT" --no-stderr 2>"$T/err"
status=$?
set -e
expect_eq "exit status" "$status" 4
expect_eq "first line" "$(sed -n 1p "$T/err")" "It seems as if QELD daemon is already running."
expect_eq "second line" "$(sed -n 2p "$T/err")" "Delete file: '$PIDFILE' if it does not"
expect_eq "nothing else on stderr" "$(wc -l <"$T/err")" 2
expect_eq "processes that ended: only qeld itself" "$(wc -l <"$EXITS")" 1
expect_eq "pid file untouched" "$(cat "$PIDFILE")" 4242
expect_eq "no watchdog Set" "$(sent_count "06 24")" 0
expect_eq "no watchdog Reset" "$(sent_count "06 22")" 0
expect_true "no \"starting\" in syslog" sh -c "! grep -q 'starting' '$SYSLOG'"
rm -f "$PIDFILE"

step "a parent that is init: the daemon exits 1 before forking"
ctl clear-requests
# In a new pid namespace the shell is pid 1 and qeld its child.
out=$(with_log unshare --pid --fork bash -c '"$0" --daemon --bmc-socket "$1" --root "$2" --no-stderr; echo "status $? parent $PPID"' \
  "$QELD" "$SOCK" "$ROOT")
expect_eq "qeld's status (its parent was pid 1)" "$out" "status 1 parent 0"
expect_true "no pid file" test ! -e "$PIDFILE"
expect_eq "no watchdog Set" "$(sent_count "06 24")" 0
expect_eq "no watchdog Reset" "$(sent_count "06 22")" 0

step "a child that never reports: the parent exits 1 after 3 s"
ctl clear-requests
: >"$EXITS"
start=$(now_ms)
rm -f "$T/stats"
with_log_bg "$SUBREAPER" "$EXITS" "$QELD" --daemon --bmc-socket "$SOCK" --root "$ROOT" --no-stderr \
  --test-stall-child=10 --test-stats="$T/stats"
wait_until 10 "exit of the parent" grep -q '^command ' "$EXITS"
elapsed=$(($(now_ms) - start))
expect_eq "parent's exit status" "$(parent_status)" 1
expect_ge "ms the parent waited" "$elapsed" 3000
expect_le "ms the parent waited" "$elapsed" 9900
expect_true "no pid file yet" test ! -e "$PIDFILE"
# The stalled child goes on afterwards and becomes an ordinary daemon.
wait_until 10 "pid file of the late child" test -s "$PIDFILE"
DAEMON_PID=$(cat "$PIDFILE")
KILL_AT_END+=("$DAEMON_PID")
wait_idle
kill -TERM "$DAEMON_PID"
wait_until 10 "end of the late daemon" daemon_gone "$DAEMON_PID"
expect_eq "late daemon's status" "$(daemon_status "$DAEMON_PID")" 0

step "no controller: exit 3 with the reason"
set +e
"$QELD" --once --bmc-socket "$T/nobody.sock" --no-stderr 2>"$T/err"
status=$?
set -e
expect_eq "exit status" "$status" 3
expect_true "says so" grep -q "no IPMI controller: no controller at $T/nobody.sock" "$T/err"
# The unit's stop after an agent that found no controller: the agent's line
# is in the journal already, so the stop adds none there; run by hand (or
# with standard error anywhere else) it still says why.
set +e
"$QELD" --shutdown --bmc-socket "$T/nobody.sock" 2>"$T/err"
status=$?
set -e
expect_eq "--shutdown without a controller: exit status" "$status" 3
expect_true "--shutdown by hand says so" grep -q "no IPMI controller: no controller at $T/nobody.sock" "$T/err"
: >"$T/journal"
set +e
JOURNAL_STREAM=$(stat -c '%d:%i' "$T/journal") "$QELD" --shutdown --bmc-socket "$T/nobody.sock" 2>>"$T/journal"
status=$?
set -e
expect_eq "--shutdown as the unit's stop: exit status" "$status" 3
expect_eq "--shutdown as the unit's stop: lines in the journal" "$(wc -l <"$T/journal")" 0
if [ ! -e /dev/ipmi0 ] && [ ! -e /dev/ipmi/0 ] && [ ! -e /dev/ipmidev/0 ]; then
  set +e
  env -u QEL_BMCSIM_SOCKET "$QELD" --once --no-stderr 2>"$T/err"
  status=$?
  set -e
  expect_eq "no kernel device either: exit status" "$status" 3
  expect_true "names the device" grep -q "/dev/ipmi0: No such file or directory" "$T/err"
fi

step "the command line"
set +e
"$QELD" >/dev/null 2>"$T/err"; expect_eq "no mode" "$?" 64
"$QELD" --once --daemon >/dev/null 2>&1; expect_eq "two modes" "$?" 64
"$QELD" --once --bogus >/dev/null 2>&1; expect_eq "unknown option" "$?" 64
"$QELD" --once --report --bmc-socket "" >/dev/null 2>&1; expect_eq "empty socket path" "$?" 64
"$QELD" --once --test-time-scale=0 >/dev/null 2>&1; expect_eq "time scale 0" "$?" 64
"$QELD" --help >"$T/out"; expect_eq "--help" "$?" 0
"$QELD" --version >"$T/version"; expect_eq "--version" "$?" 0
set -e
expect_true "--help lists the exit statuses" grep -q "^Exit status:" "$T/out"
expect_true "--version names qeld" grep -q "^qeld [0-9]" "$T/version"

finish

# Helpers for the guest tests of the Debian boot (dash). Every check prints
# one PASS or FAIL line; finish prints the count and fails when any failed.
passes=0
fails=0
pass() { passes=$((passes + 1)); echo "PASS: $*"; }
fail() { fails=$((fails + 1)); echo "FAIL: $*"; }
info() { echo "INFO: $*"; }
# check_eq NAME EXPECTED ACTUAL
check_eq() {
  if [ "$2" = "$3" ]; then pass "$1 = '$3'"; else fail "$1: expected '$2', got '$3'"; fi
}
# check NAME COMMAND...: the command succeeds (its output is not shown).
check() {
  name=$1; shift
  if "$@" >/dev/null 2>&1; then pass "$name"; else fail "$name"; fi
}
finish() {
  echo "checks: $passes passed, $fails failed"
  [ "$fails" -eq 0 ]
}
# The guest's monotonic clock in seconds (the clock systemd's timestamps use).
mono() { cut -d' ' -f1 /proc/uptime; }
# wait_until SECONDS COMMAND...: polls the command every 200 ms until it
# succeeds or SECONDS of the guest's time pass (a bound, not a sleep for a
# result).
wait_until() {
  limit=$1; shift
  end=$(awk -v n="$(mono)" -v l="$limit" 'BEGIN { printf "%d", n + l }')
  while ! "$@" >/dev/null 2>&1; do
    [ "$(mono | cut -d. -f1)" -lt "$end" ] || return 1
    sleep 0.2
  done
}

prop() { systemctl show -P "$1" qeld.service; }
unit_active() { [ "$(systemctl is-active qeld.service)" = active ]; }
restarted_from() { p=$(prop MainPID); [ "$p" != 0 ] && [ "$p" != "$1" ] && unit_active; }
# The value behind "Label:" in `ipmitool mc watchdog get`.
wd() { ipmitool mc watchdog get 2>/dev/null | sed -n "s/^$1: *//p" | head -1; }
# The present countdown in tenths of a second ("3.3 sec" -> 33).
wd_tenths() { wd 'Present Countdown' | sed -n 's/^\([0-9]*\)\.\([0-9]\).*/\1\2/p' | sed 's/^0*\([0-9]\)/\1/'; }
# Running: so the controller says, or its countdown moves. QEMU's BMC
# answers "stopped" for a timer that counts down, so the countdown decides:
# three pairs of readings half a second apart, as a reset between the two
# readings of a pair (the kernel's driver resets it every few seconds)
# makes the countdown go up, not down.
wd_running() {
  wd 'Watchdog Timer Is' | grep -q 'Running' && return 0
  for _ in 1 2 3; do
    wd_moving && return 0
  done
  return 1
}
# One pair of readings: what a sampler that must not lose time calls.
wd_moving() {
  a=$(wd_tenths); sleep 0.5; b=$(wd_tenths)
  [ -n "$a" ] && [ -n "$b" ] && [ "$b" -lt "$a" ]
}
wd_stopped() { ! wd_running; }
wd_flags() { wd 'Timer Expiration Flags' | sed -n 's/.*\(0x[0-9a-fA-F][0-9a-fA-F]\).*/\1/p'; }
# Seconds left on the controller's timer ("Present Countdown: 287 sec").
wd_left() { wd 'Present Countdown' | sed -n 's/^\([0-9]*\).*/\1/p'; }
# The journal of the agent's unit since this boot, messages only.
qeld_journal() { journalctl -b -q -o cat -u qeld.service --no-pager; }
# Lines of the journal (this boot) matching the pattern, counted.
journal_count() { qeld_journal | grep -cE "$1" || true; }
# The watchdog never ran out: no expiration flag (a reset would also have
# ended QEMU or shown as an extra boot on the host's side) and no watchdog
# event in the controller's log.
check_never_expired() {
  check_eq "$1: the controller's timer expiration flags" 0x00 "$(wd_flags)"
  n=$(ipmitool sel elist 2>/dev/null | grep -ci 'watchdog' || true)
  check_eq "$1: watchdog events in the SEL" 0 "$n"
}

# The event log. Add SEL Entry of a system event record: GEN-LO GEN-HI
# SENSOR-TYPE SENSOR EVENT-DIR/TYPE DATA1 DATA2 DATA3 (hex without 0x), the
# timestamp left to the controller; prints the record ID it gave (decimal).
add_event() {
  set -- $(ipmitool raw 0x0a 0x44 0x00 0x00 0x02 0x00 0x00 0x00 0x00 "0x$1" "0x$2" 0x04 \
    "0x$3" "0x$4" "0x$5" "0x$6" "0x$7" "0x$8" 2>/dev/null | tr -s ' \n' '  ')
  [ $# -eq 2 ] && printf '%d\n' "0x$2$1"
}
# A record ID as the forwarder's journal field writes it ("0x001A").
hex16() { printf '0x%04X' "$1"; }
# The agent's journal entries of this boot as JSON, one a line.
journal_json() { journalctl -b -q -o json -u qeld.service --no-pager; }
forwarded() { journal_json | grep -q "\"QEL_SEL_RECORD_ID\":\"$(hex16 "$1")\""; }
# The record IDs the journal holds more than once (this boot).
forwarded_twice() {
  journal_json | grep -o '"QEL_SEL_RECORD_ID":"[^"]*"' | sort | uniq -d | tr '\n' ' ' | sed 's/ $//'
}
# matches TEXT PATTERN: the text holds the (basic) pattern.
matches() { printf '%s\n' "$1" | grep -q "$2"; }

#!/usr/bin/env bash
# qeld_soak.sh SECONDS SCALE: keeps `qeld --daemon` running for SECONDS of
# real time with its loop waits SCALE times shorter (--test-time-scale), while
# the controller's clock is driven SCALE times faster than real time, so the
# simulated watchdog counts down as it would over SECONDS * SCALE seconds.
# Then: the watchdog never ran out, and no gap between two resets exceeded a
# third of the countdown plus one pass (the loop's 20 s).
#
# The gap is read off the controller: the initial countdown minus the present
# one is the time since the last reset; its largest value, plus one sampling
# step, bounds every gap.
source "$(dirname "$0")/qeld-lib.sh"

seconds=${1:?seconds of real time}
scale=${2:?time scale}

start_syslog
start_bmcsim
start_daemon --test-time-scale="$scale"
wait_until 10 "first watchdog reset" resets_at_least 1
wait_idle

initial=0 max_since=0 max_step=0 samples=0
start_ns=$(date +%s%N)
last_ns=$start_ns
end_ns=$((start_ns + seconds * 1000000000))
pace=$(awk -v s="$scale" 'BEGIN { printf "%.3f", 1 / s }')
while :; do
  now_ns=$(date +%s%N)
  [ "$now_ns" -lt "$end_ns" ] || break
  step_ms=$(((now_ns - last_ns) * scale / 1000000))
  last_ns=$now_ns
  ctl advance "$step_ms" >/dev/null
  [ "$step_ms" -gt "$max_step" ] && max_step=$step_ms
  read -r timer initial present expiries < <(ctl dump | awk '
      $1 == "timer" { t = $2 } $1 == "initial-countdown" { i = $2 }
      $1 == "present-countdown" { p = $2 } $1 == "expiries" { e = $2 }
      END { print t, i, p, e }')
  if [ "$timer" != running ] || [ "$expiries" != 0 ]; then
    fail "the watchdog is $timer with $expiries expiries after $(((now_ns - start_ns) / 1000000000)) s"
    break
  fi
  since=$((initial - present))
  [ "$since" -gt "$max_since" ] && max_since=$since
  samples=$((samples + 1))
  kill -0 "$DAEMON_PID" 2>/dev/null || { fail "the daemon is gone"; break; }
  sleep "$pace"
done

resets=$(sent_count "06 22")
simulated=$((seconds * scale))
# All in tenths of a second, the watchdog's unit.
max_gap=$((max_since + max_step / 100))
bound=$((initial / 3 + 200))
echo "soak: ${seconds} s real, ${simulated} s simulated, $samples samples, $resets resets," \
  "largest gap $((max_gap / 10)).$((max_gap % 10)) s (bound $((bound / 10)).$((bound % 10)) s)"
expect_eq "expiries" "$(dump_value expiries)" 0
expect_eq "watchdog" "$(dump_value timer)" running
expect_le "largest gap between resets (0.1 s)" "$max_gap" "$bound"
# One reset at the start, then one every third of the countdown.
expect_ge "resets" "$resets" $((simulated * 10 / (initial / 3 + 200)))

signal_when_idle TERM
wait_until 10 "end of the daemon" daemon_gone "$DAEMON_PID"
expect_eq "daemon's exit status" "$(daemon_status "$DAEMON_PID")" 0
expect_eq "watchdog after the end" "$(dump_value timer)" stopped
finish

#!/usr/bin/env bash
# bench_qeld.sh [BUILD_DIR] [FOREGROUND_SECONDS] [PASSES]
#
# What the agent costs, measured against the simulated controller process
# (qel-bmcsim; its own CPU is not counted):
#   1. qeld --once: CPU and wall time per run (over 50 runs) and peak RSS
#      (median of 5 runs), against the controller process and with the
#      controller inside qeld (--simulate);
#   2. qeld --foreground for FOREGROUND_SECONDS (default 180) with the loop's
#      waits 20 times shorter: CPU per plain pass, per pass with a watchdog
#      reset and per info pass (network scan and publication), taken on the
#      loop's thread between two waits (--test-stats);
#   3. qeld --daemon for PASSES passes (default 10000) with waits 1000 times
#      shorter (a 20 ms pass; shorter still and the work of a pass would
#      outgrow the scaled safety-net alarm): open descriptors and resident
#      memory at pass 1 and every 1000 passes;
#   4. resident memory side by side, each keeping the same simulated
#      controller's watchdog: qeld --foreground, qeld --strict --foreground
#      and FreeIPMI's bmc-watchdog daemon (through the stand-in /dev/ipmi0;
#      Debian package freeipmi-bmc-watchdog, installed when missing).
# Parts 2 and 3 run twice: the host agent (qeld's default loop) and the
# library's own loop (--strict), so their passes can be compared.
# The agent's syslog goes to a stand-in logger (qel-syslog-sink beside the
# tests), through a private /dev/log as in the tests.
# Not part of the test suite; run it by hand on a quiet machine (root).
set -euo pipefail
build=${1:-build/plain}
seconds=${2:-180}
passes=${3:-10000}
qeld=$build/tools/qeld/qeld
bmcsim=$build/sim/server/qel-bmcsim
sink=$build/tests/qel-syslog-sink
here=$(cd "$(dirname "$0")" && pwd)
for p in "$qeld" "$bmcsim" "$sink"; do
  [ -x "$p" ] || { echo "bench_qeld: $p missing (build first)" >&2; exit 1; }
done
[ -x /usr/bin/time ] || { echo "bench_qeld: needs /usr/bin/time (Debian package time)" >&2; exit 1; }

work=$(mktemp -d /tmp/qeld-bench.XXXXXX)
export STATE_DIRECTORY=$work/state CACHE_DIRECTORY=$work/cache RUNTIME_DIRECTORY=$work/runtime  # not the host's /var
sock=$work/bmc.sock
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  "$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true
  [ -f "$work/sink.pid" ] && kill "$(cat "$work/sink.pid")" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
"$bmcsim" --socket "$sock" --config "$(dirname "$0")/../../sim/descriptions/default.conf" \
  --pidfile "$work/bmc.pid" --daemon
ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
"$sink" "$work/log.sock" "$work/syslog" "$work/sink.pid"
logged() { unshare -m --propagation private bash "$here/with-devlog.sh" "$work/log.sock" "$@"; }

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

echo "== 1. qeld --once"
for where in "--bmc-socket $sock" "--simulate"; do
  : >"$work/rss"
  for _ in 1 2 3 4 5; do
    # shellcheck disable=SC2086
    /usr/bin/time -f "%M" -a -o "$work/rss" "$qeld" --once $where --no-stderr
  done
  rss=$(median <"$work/rss")
  # 50 runs in one shell: CPU of the runs (the shell's own share is small).
  # shellcheck disable=SC2086
  /usr/bin/time -f "%U %S %e" -o "$work/loop" bash -c 'for i in $(seq 50); do "$0" --once '"$where"' --no-stderr || exit 1; done' "$qeld"
  read -r user sys wall <"$work/loop"
  awk -v u="$user" -v s="$sys" -v w="$wall" -v r="$rss" -v where="${where%% *}" \
    'BEGIN { printf "   %-14s CPU %6.2f ms/run   wall %6.2f ms/run   peak RSS %d KiB\n", where, (u + s) * 20, w * 20, r }'
done

for loop in host-agent strict; do
strict=()
[ "$loop" == strict ] && strict=(--strict)

echo "== 2. qeld ${strict[*]} --foreground ($loop), $seconds s, loop waits 20 times shorter"
ctl clear-requests >/dev/null
(exec unshare -m --propagation private bash "$here/with-devlog.sh" "$work/log.sock" \
  "$qeld" "${strict[@]}" --foreground --bmc-socket "$sock" --no-stderr --test-time-scale=20 --test-stats="$work/fg.stats") &
fg=$!
pids+=("$fg")
sleep "$seconds"   # the measurement's duration, not a wait for readiness
kill -TERM "$fg"
wait "$fg" || true
sed 's/^/   /' "$work/fg.stats" | grep -v '^   sample'

echo "== 3. qeld ${strict[*]} --daemon ($loop), $passes passes, loop waits 1000 times shorter"
rm -rf "$work/root"
mkdir -p "$work/root"
ctl set soft-watchdog on 300 >/dev/null
logged "$qeld" "${strict[@]}" --daemon --bmc-socket "$sock" --root "$work/root" --no-stderr --test-time-scale=1000 \
  --test-stats="$work/d.stats"
daemon=$(cat "$work/root/var/run/qeld.pid")
pids+=("$daemon")
start=$(date +%s)
until [ "$(sed -n 's/^passes //p' "$work/d.stats" 2>/dev/null || echo 0)" -ge "$passes" ]; do
  kill -0 "$daemon" 2>/dev/null || { echo "bench_qeld: the daemon ended early" >&2; exit 1; }
  # The controller keeps every request; drop them now and then.
  ctl clear-requests >/dev/null
  sleep 1
done
kill -TERM "$daemon"
for _ in $(seq 100); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.1; done
echo "   $(sed -n 's/^passes //p' "$work/d.stats") passes in $(($(date +%s) - start)) s"
sed 's/^/   /' "$work/d.stats"
echo "   syslog: $(wc -l <"$work/syslog") lines, $(grep -c 'Alarm signal received' "$work/syslog" || true) of them alarms"
done

echo "== 4. resident memory side by side, keeping the same controller's watchdog"
command -v bmc-watchdog >/dev/null || apt-get install -y -qq freeipmi-bmc-watchdog >/dev/null
preload=$build/sim/preload/libqelsim-preload.so
rss_of() { sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$1/status"; }
settle() { sleep 5; }   # let each reach its steady loop: part of the measurement
for what in qeld qeld-strict bmc-watchdog; do
  case $what in
    qeld) ("$qeld" --foreground --bmc-socket "$sock" --no-stderr & echo $! >"$work/p") ;;
    qeld-strict) ("$qeld" --strict --foreground --bmc-socket "$sock" --no-stderr & echo $! >"$work/p") ;;
    bmc-watchdog)
      LD_PRELOAD=$preload QEL_BMCSIM_SOCKET=$sock bmc-watchdog -D openipmi -d -u 4 -p 0 -a 0 -i 300 -e 100
      sleep 1
      pgrep -n -x bmc-watchdog >"$work/p" ;;
  esac
  p=$(cat "$work/p")
  pids+=("$p")
  settle
  printf '   %-14s RSS %5d KiB\n' "$what" "$(rss_of "$p")"
  kill -TERM "$p"
  for _ in $(seq 50); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
done

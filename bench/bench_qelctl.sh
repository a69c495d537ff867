#!/usr/bin/env bash
# bench_qelctl.sh [BUILD_DIR] [RUNS]
#
# `qelctl status --json` as a whole process beside one `ipmitool mc info`,
# both against the same simulated controller process (qel-bmcsim; its CPU is
# not counted), ipmitool through the stand-in /dev/ipmi0. CPU time (user +
# system) and wall time per run over RUNS runs (default 100), three rounds,
# min/median/max of the rounds, and how many requests each run sends.
# Not part of the test suite: run it by hand on a quiet machine.
set -euo pipefail
build=${1:-build/plain}
runs=${2:-100}
qelctl=$build/tools/qelctl/qelctl
bmcsim=$build/sim/server/qel-bmcsim
preload=$build/sim/preload/libqelsim-preload.so
for p in "$qelctl" "$bmcsim" "$preload"; do [ -e "$p" ] || { echo "bench_qelctl: $p missing (build first)" >&2; exit 1; }; done
[ -x /usr/bin/time ] || { echo "bench_qelctl: needs /usr/bin/time" >&2; exit 1; }
work=$(mktemp -d /tmp/qelctl-bench.XXXXXX)
sock=$work/bmc.sock
trap '"$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
"$bmcsim" --socket "$sock" --config "$(dirname "$0")/../sim/descriptions/default.conf" --pidfile "$work/pid" --daemon
export QEL_BMCSIM_SOCKET=$sock

requests() { "$bmcsim" --socket "$sock" ctl clear-requests >/dev/null; "$@" >/dev/null 2>&1 || true; "$bmcsim" --socket "$sock" ctl requests | wc -l; }
echo "requests per run: qelctl status --json $(requests "$qelctl" --json status), ipmitool mc info $(requests env LD_PRELOAD="$preload" ipmitool -I open mc info)"

measure() { # PRELOAD COMMAND...: per-run CPU and wall (ms) of one round; PRELOAD (or "") goes to
  # the commands only, not to the shell that loops
  /usr/bin/time -f "%U %S %e" -o "$work/t" bash -c 'p=$1; shift; [ -n "$p" ] && export LD_PRELOAD=$p
    for i in $(seq '"$runs"'); do "$@" >/dev/null 2>&1 || exit 1; done' _ "$@"
  read -r u s e <"$work/t"
  awk -v u="$u" -v s="$s" -v e="$e" -v n="$runs" 'BEGIN { printf "%.3f %.3f\n", (u + s) * 1000 / n, e * 1000 / n }'
}
: >"$work/q"; : >"$work/i"
for round in 1 2 3; do
  measure "" "$qelctl" --json status >>"$work/q"
  measure "$preload" ipmitool -I open mc info >>"$work/i"
done
stats() { sort -n -k"$2" "$1" | awk -v k="$2" '{ v[NR] = $k } END { printf "%.3f / %.3f / %.3f", v[1], v[2], v[3] }'; }
echo "qelctl status --json: CPU ms/run min/med/max $(stats "$work/q" 1); wall $(stats "$work/q" 2)"
echo "ipmitool mc info:     CPU ms/run min/med/max $(stats "$work/i" 1); wall $(stats "$work/i" 2)"
paste "$work/q" "$work/i" | awk '{ print $1 / $3 }' | sort -n | awk '{ v[NR] = $1 } END { printf "CPU ratio min/med/max %.2f / %.2f / %.2f (goal at most 0.5)\n", v[1], v[2], v[3] }'

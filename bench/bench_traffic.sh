#!/usr/bin/env bash
# What the agent asks of the controller at rest: requests per hour of the
# agent's own time, counted by the simulated controller, by command, on the
# blade (sim/descriptions/default.conf) and on a rack server of another make
# (sim/descriptions/rack.conf: no board, no configuration space, standard
# IPMI only).
#
#   bench/bench_traffic.sh [BUILD_DIR] [QELD_BINARY]
#
# qeld runs in the foreground with its clock 200 times as fast (a 20 s pass
# every 0.1 s). The first hour is left out (the start: the facts, the first
# publication, the event log's starting point); the second hour is counted.
# QELD_BINARY compares another build of the agent (an older one) on the same
# controller.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
build=$(cd "${1:-$top/build/plain}" && pwd)
qeld=${2:-$build/tools/qeld/qeld}
sim=$build/sim/server/qel-bmcsim
scale=200
pass_seconds=20
passes_per_hour=$((3600 / pass_seconds))

work=$(mktemp -d)
export STATE_DIRECTORY=$work/state CACHE_DIRECTORY=$work/cache RUNTIME_DIRECTORY=$work/runtime  # not the host's /var
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

passes() { sed -n 's/^passes //p' "$1" 2>/dev/null || true; }
wait_passes() {  # FILE N PID
  local deadline=$((SECONDS + 120))
  until [ "$(passes "$1")" -ge "$2" ] 2>/dev/null; do
    kill -0 "$3" 2>/dev/null || { echo "bench_traffic: qeld ended early" >&2; exit 1; }
    ((SECONDS < deadline)) || { echo "bench_traffic: no pass $2 within 120 s" >&2; exit 1; }
    sleep 0.05
  done
}

for description in ${QEL_BENCH_DESCRIPTIONS:-default rack}; do
  sock=$work/$description.sock
  "$sim" --socket "$sock" --config "$top/sim/descriptions/$description.conf" --daemon --pidfile "$work/$description.pid"
  pids+=("$(cat "$work/$description.pid")")
  ctl() { "$sim" --socket "$sock" ctl "$@"; }
  root=$work/root-$description
  mkdir -p "$root"
  stats=$work/$description.stats
  "$qeld" --foreground --bmc-socket "$sock" --root "$root" --no-stderr --test-time-scale=$scale \
    --test-stats="$stats" &
  q=$!
  pids+=("$q")
  wait_passes "$stats" "$passes_per_hour" "$q"
  ctl clear-requests >/dev/null
  first=$(passes "$stats")
  wait_passes "$stats" $((first + passes_per_hour)) "$q"
  ctl requests >"$work/requests"
  last=$(passes "$stats")
  kill -TERM "$q"
  wait "$q" || true
  ctl shutdown >/dev/null
  counted=$((last - first))
  echo "== $description: $(wc -l <"$work/requests") requests in $counted passes ($((counted * pass_seconds)) s of agent time)"
  awk -v passes="$counted" -v hour="$passes_per_hour" '
    { for (i = 1; i < NF; ++i) { if ($i == "netfn") n = $(i + 1); if ($i == "cmd") c = $(i + 1) }
      count[n " " c]++; total++ }
    END {
      for (k in count) printf "   netfn %s cmd %s  %6.0f an hour\n", substr(k, 1, 2), substr(k, 4), count[k] * hour / passes
      printf "   total             %6.0f an hour\n", total * hour / passes
    }' "$work/requests" | sort -k5 -rn
done

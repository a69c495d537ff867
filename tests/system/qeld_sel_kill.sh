#!/usr/bin/env bash
# The event log's forwarding survives kill -9 at any moment: qeld forwards
# the simulated controller's event log into a file sink (--test-sel-log,
# which, as the journal, can say which record it took last) while records
# keep arriving, one at a time and in bursts beyond a pass's 32; it is
# killed with SIGKILL at a random moment and started again, a hundred times.
# Then one last agent drains what is left, and every record the controller
# holds must be in the sink exactly once, in the controller's order.
#
#   qeld_sel_kill.sh QELD QEL-BMCSIM [KILLS]
set -euo pipefail
qeld=$1
sim=$2
kills=${3:-100}

T=$(mktemp -d /tmp/qeld-selkill.XXXXXX)
export STATE_DIRECTORY=$T/state CACHE_DIRECTORY=$T/cache RUNTIME_DIRECTORY=$T/runtime
sock=$T/bmc.sock
log=$T/sel.log
q=
cleanup() {
  [ -n "$q" ] && kill -KILL "$q" 2>/dev/null || true
  "$sim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true
  if [ "${failed:-0}" = 0 ]; then rm -rf "$T"; else echo "(kept $T)" >&2; fi
}
trap cleanup EXIT
failed=0
fail() { echo "FAIL: $*" >&2; failed=1; exit 1; }
ctl() { "$sim" --socket "$sock" ctl "$@"; }

# Room for every record of the run: nothing wraps away before the check.
cat >"$T/sim.conf" <<'EOF'
sel-capacity 4000
EOF
"$sim" --socket "$sock" --config "$T/sim.conf" --daemon --pidfile "$T/sim.pid" || fail "qel-bmcsim did not start"

# A pass every 0.2 s, a check of the log every 0.6 s.
start_agent() {
  "$qeld" --foreground --bmc-socket "$sock" --no-stderr --test-time-scale=100 --test-sel-log="$log" "$@" \
    >>"$T/qeld.out" 2>&1 &
  q=$!
}

RANDOM=4711  # the same moments on every run
ctl sel add-many 5 >/dev/null
start_agent --sel-replay
for ((i = 1; i <= kills; ++i)); do
  case $((RANDOM % 4)) in
    0) ctl sel add-many $((40 + RANDOM % 40)) >/dev/null ;;  # a burst: drained over passes
    *) ctl sel add-many $((1 + RANDOM % 3)) >/dev/null ;;
  esac
  # The moment of the kill: anywhere from the agent's start-up to a few
  # passes in (this picks the moment; nothing waits on a state here).
  sleep "0.$(printf '%03d' $((RANDOM % 1000)))"
  kill -KILL "$q" 2>/dev/null || fail "qeld ended by itself before kill $i: $(tail -n 5 "$T/qeld.out")"
  wait "$q" 2>/dev/null || true
  q=
  start_agent
done

# The last agent drains the rest.
total=$(ctl sel dump | grep -c '^record ' || true)
[ "$total" -gt "$kills" ] || fail "the controller holds $total records"
forwarded() { [ "$(grep -c '^b94984b79cc44ea099a87728d5a050b2 ' "$log" 2>/dev/null || echo 0)" -ge "$total" ]; }
deadline=$((SECONDS + 120))
until forwarded; do
  kill -0 "$q" 2>/dev/null || fail "the last qeld ended: $(tail -n 5 "$T/qeld.out")"
  ((SECONDS < deadline)) || break
  sleep 0.1
done
kill -TERM "$q"
wait "$q" || true
q=

# Every record the controller holds, once, in its order: the sink's record
# bytes against the controller's.
ctl sel dump | awk '$1 == "record" { r = ""; for (i = 2; i <= NF; ++i) r = r $i; print toupper(r) }' >"$T/controller.txt"
awk '$1 == "b94984b79cc44ea099a87728d5a050b2" { print $3 }' "$log" >"$T/sink.txt"
[ "$(wc -l <"$T/controller.txt")" -eq "$total" ] || fail "could not read the controller's records (ctl sel dump)"
dups=$(sort "$T/sink.txt" | uniq -d | wc -l)
missing=$(sort "$T/controller.txt" | comm -23 - <(sort -u "$T/sink.txt") | wc -l)
extra=$(sort -u "$T/sink.txt" | comm -13 <(sort "$T/controller.txt") - | wc -l)
echo "records: $total in the controller, $(wc -l <"$T/sink.txt") in the sink over $kills kills;" \
  "repeated $dups, missing $missing, foreign $extra"
[ "$dups" -eq 0 ] || fail "$dups records forwarded more than once: $(sort "$T/sink.txt" | uniq -d | head -n 3)"
[ "$missing" -eq 0 ] || fail "$missing records never forwarded"
[ "$extra" -eq 0 ] || fail "$extra lines that are no record of the controller"
cmp -s "$T/controller.txt" "$T/sink.txt" || fail "the records were forwarded out of order"
echo "ok: every record forwarded exactly once over $kills kills"

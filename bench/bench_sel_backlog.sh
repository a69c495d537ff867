#!/usr/bin/env bash
# bench_sel_backlog.sh [BUILD_DIR] [RUNS]
#
# A backlog of 1,000 event log records (a mix of what servers log: threshold
# crossings of temperatures, voltages and fans and their return, memory ECC,
# power supply and processor faults, boots, watchdog expiries, OEM records,
# a kernel panic with its message pieces) in one simulated controller
# process (qel-bmcsim; its CPU is not counted), read in full by three clients,
# each RUNS times (default 11):
#  - ours: the forwarder draining it pass after pass (qel-sel-backlog forward:
#    a fresh state, replay on, a sink that discards, sensors named from the
#    SDR repository through qeld's cache) through the socket qeld and qelctl
#    use;
#  - ipmi-sel (FreeIPMI) and ipmitool sel elist, through the stand-in
#    /dev/ipmi0 (the preload library), as admins run them: ipmi-sel with its
#    SDR cache, ipmitool reading the SDR it needs each time.
# Each client runs once unmeasured first, which fills the SDR caches: what is
# measured is the steady state (qeld's cache lives in /var/cache/qeld).
# Each client's CPU time (user + system) as a whole process, from wait4, per
# record: min/median/max over the runs, and the ratio ours/theirs of the
# medians (goal: at most 0.3). Requests per record from the controller's own
# count (goal for ours: at most 1.1). Exits non-zero when a client fails to
# run or does not read the whole log; a missed goal is only reported.
# The forwarder's state file lies in a directory of /tmp, on disk as
# /var/lib/qeld is: synced at the backlog's start and end, its progress file
# rewritten (unsynced) by the passes between; with SEL_STATE_DIR=/dev/shm
# both lie on tmpfs instead, which shows what the disk costs.
# Not part of the test suite: run it by hand on a quiet machine.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/plain}
runs=${2:-11}
records=1000
bmcsim=$build/sim/server/qel-bmcsim
preload=$build/sim/preload/libqelsim-preload.so
driver=$build/bench/qel-sel-backlog
fail() { echo "bench_sel_backlog: $*" >&2; exit 1; }
for p in "$bmcsim" "$preload" "$driver"; do [ -e "$p" ] || fail "$p missing (build qel-bmcsim, qelsim-preload, qel-sel-backlog)"; done
for tool in ipmitool ipmi-sel; do command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/install-deps.sh)"; done

work=$(mktemp -d /tmp/qelselbench.XXXXXX)
sock=$work/bmc.sock
trap '"$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

# The records as Add SEL Entry takes them (the controller sets ID and time):
# generator ID (2), EvM revision, sensor type, number, event/reading type,
# event data 1-3; the OEM records' bytes after the type. Sensor numbers and
# readings vary with the record's place so no two in a row are alike.
{
  echo "sel-capacity 2048"
  echo "sel-mode stop-when-full"
  awk -v n="$records" 'function rec(b) { printf "sel-add 00 00 %s\n", b; count++ }
    BEGIN {
      while (count < n) {
        i++; s = sprintf("%02x", 1 + i % 8); r = sprintf("%02x", 0x50 + i % 32)
        rec("02 00 00 00 00 20 00 04 01 " s " 01 57 " r " 50")   # temperature upper critical going high
        rec("02 00 00 00 00 20 00 04 01 " s " 81 57 " r " 50")   # ... and back
        rec("02 00 00 00 00 20 00 04 02 1" substr(s, 2) " 01 52 " r " 40")  # voltage lower critical going low
        rec("02 00 00 00 00 20 00 04 04 3" substr(s, 2) " 01 50 " r " 20")  # fan lower non-critical going low
        rec("02 00 00 00 00 20 00 04 04 3" substr(s, 2) " 81 50 " r " 20")  # ... and back
        rec("02 00 00 00 00 20 00 04 0c 60 6f a0 00 " s)         # memory correctable ECC, module
        rec("02 00 00 00 00 20 00 04 0c 60 6f a1 00 " s)         # memory uncorrectable ECC
        rec("02 00 00 00 00 20 00 04 08 70 6f 01 ff ff")         # power supply failure detected
        rec("02 00 00 00 00 20 00 04 08 70 ef 01 ff ff")         # ... deasserted
        rec("02 00 00 00 00 20 00 04 08 71 6f 00 ff ff")         # power supply presence detected
        rec("02 00 00 00 00 20 00 04 07 90 6f 00 ff ff")         # processor IERR
        rec("02 00 00 00 00 20 00 04 07 90 6f 07 ff ff")         # processor presence detected
        rec("02 00 00 00 00 41 00 04 1f 00 6f 01 ff ff")         # OS boot completed (software ID 0x41)
        rec("02 00 00 00 00 20 00 04 23 81 6f c1 ff ff")         # watchdog 2: hard reset
        rec("02 00 00 00 00 20 00 04 10 82 6f 02 ff ff")         # event logging: log area cleared
        rec("02 00 00 00 00 20 00 04 12 83 6f 01 ff ff")         # system event: OEM system boot event
        rec("02 00 00 00 00 20 00 04 05 84 6f 00 ff ff")         # chassis intrusion
        rec("c1 00 00 00 00 57 01 00 01 02 03 04 05 " s)         # OEM timestamped record
        rec("02 00 00 00 00 41 00 04 20 4f 6f a1 6f 70")         # kernel panic: critical stop "Oop"
        rec("f0 20 00 73 3a 20 6b 65 72 6e 65 6c 20 4e")         #  ... its message, first piece
        rec("f0 20 01 55 4c 4c 00 00 00 00 00 00 00 00")         #  ... and the last
      }
      exit
    }'
} | head -n $((records + 2)) >"$work/sel.conf"
[ "$(grep -c '^sel-add ' "$work/sel.conf")" = "$records" ] || fail "the record mix has the wrong size"

"$bmcsim" --socket "$sock" --config sim/descriptions/default.conf --config "$work/sel.conf" \
  --pidfile "$work/pid" --daemon 2>"$work/bmcsim.err" || fail "qel-bmcsim did not start: $(cat "$work/bmcsim.err")"
"$bmcsim" --socket "$sock" ctl sel dump >"$work/dump"
entries=$(awk '$1 == "entries" { print $2; exit }' "$work/dump")
[ "${entries:-}" = "$records" ] || fail "the controller holds '${entries:-?}' records, not $records"
# The last record's ID (decimal), where the forwarder must have got to.
last_id=$((16#$(awk '$1 == "record" { id = $3 $2 } END { print id }' "$work/dump")))

# One run of a client: its CPU (microseconds, user and system) a line of
# $work/NAME.cpu, the controller's request count a line of NAME.requests, its
# output checked for the whole log. The stand-in device goes to the tools'
# environment through the measuring process, which itself opens no device.
run() { # NAME COMMAND...
  local name=$1; shift
  "$bmcsim" --socket "$sock" ctl clear-requests >/dev/null
  QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload "$driver" cpu --out "$work/one" "$@" \
    >"$work/$name.out" 2>"$work/$name.err" || fail "$name failed: $(tail -3 "$work/$name.err")"
  "$bmcsim" --socket "$sock" ctl requests | wc -l >>"$work/$name.requests"
  cat "$work/one" >>"$work/$name.cpu"
  if [ "$name" = ours ]; then
    grep -q "^forwarded [0-9]* last-id $last_id " "$work/ours.out" ||
      fail "ours did not get to record $last_id: $(cat "$work/ours.out")"
  else
    local lines
    lines=$(wc -l <"$work/$name.out")
    [ "$lines" -ge "$records" ] || fail "$name listed $lines lines for $records records: $(tail -3 "$work/$name.err")"
  fi
}
state_dir=${SEL_STATE_DIR:-$work}
state=$(mktemp "$state_dir/qel-sel-state.XXXXXX") || fail "cannot make a state file in $state_dir"
trap '"$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true; rm -rf "$work" "$state" "$state.pass"' EXIT
mkdir "$work/qeld-sdr" "$work/freeipmi-sdr"
ours=("$driver" forward --socket "$sock" --state "$state" --records "$records" --sdr-cache "$work/qeld-sdr")
ipmisel=(ipmi-sel --driver-type=OPENIPMI --sdr-cache-directory="$work/freeipmi-sdr"
  --comma-separated-output --no-header-output)
elist=(ipmitool -I open sel elist)

echo "== $records records in the log, $runs runs per client; CPU of the client process alone; our state in $state_dir"
run ours "${ours[@]}"
run ipmi-sel "${ipmisel[@]}"
run elist "${elist[@]}"
for name in ours ipmi-sel elist; do : >"$work/$name.cpu"; : >"$work/$name.requests"; done
[ -n "$(ls "$work/qeld-sdr")" ] || fail "ours left no SDR cache in $work/qeld-sdr"
for i in $(seq "$runs"); do
  run ours "${ours[@]}"
  run ipmi-sel "${ipmisel[@]}"
  run elist "${elist[@]}"
done

# min/median/max of microseconds per record, and the median alone.
stats() { awk -v n="$records" '{ print ($1 + $2) / n }' "$work/$1.cpu" | sort -g |
  awk '{ v[NR] = $1 } END { printf "%.2f / %.2f / %.2f", v[1], v[int((NR + 1) / 2)], v[NR] }'; }
median() { awk -v n="$records" '{ print ($1 + $2) / n }' "$work/$1.cpu" | sort -g |
  awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
# The medians of user and system time apart, microseconds per record.
split() { for k in 1 2; do awk -v n="$records" -v k="$k" '{ print $k / n }' "$work/$1.cpu" | sort -g |
  awk '{ v[NR] = $1 } END { printf "%.2f ", v[int((NR + 1) / 2)] }'; done; }
perRecord() { sort -n "$work/$1.requests" | awk -v n="$records" '{ v[NR] = $1 } END {
  printf "%.3f", v[int((NR + 1) / 2)] / n }'; }
printf '%-20s %28s %20s %16s\n' client "CPU us/record min/med/max" "median user / sys" "requests/record"
printf '%-20s %28s %20s %16s\n' "ours (forwarder)" "$(stats ours)" "$(split ours)" "$(perRecord ours)"
printf '%-20s %28s %20s %16s\n' "ipmi-sel" "$(stats ipmi-sel)" "$(split ipmi-sel)" "$(perRecord ipmi-sel)"
printf '%-20s %28s %20s %16s\n' "ipmitool sel elist" "$(stats elist)" "$(split elist)" "$(perRecord elist)"

ours_med=$(median ours)
verdict=met
ratio() { awk -v a="$ours_med" -v b="$(median "$1")" 'BEGIN { printf "%.3f", a / b }'; }
for t in ipmi-sel elist; do
  r=$(ratio "$t")
  ok=$(awk -v r="$r" 'BEGIN { print (r <= 0.3) ? "met" : "MISSED" }')
  [ "$ok" = met ] || verdict=missed
  echo "CPU ours/$t (medians): ${r}x (goal at most 0.3x: $ok)"
done
req=$(perRecord ours)
ok=$(awk -v r="$req" 'BEGIN { print (r <= 1.1) ? "met" : "MISSED" }')
[ "$ok" = met ] || verdict=missed
echo "requests per record, ours: $req (goal at most 1.1: $ok)"
echo "verdict: goals $verdict"

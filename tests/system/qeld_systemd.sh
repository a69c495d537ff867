#!/usr/bin/env bash
# The packages under a real systemd: a container boots the host's own system
# (systemd-nspawn, with /usr, /etc and /var as throw-away overlays and a
# volatile root, so the host is left untouched), the built packages are
# installed in it with dpkg, and the qeld service is pointed at a simulated
# controller (qel-bmcsim --wall-clock, its watchdog counting in real time)
# through a drop-in. Then:
#   - the unit is active after READY=1, with a STATUS= line inside systemctl status;
#   - the controller's watchdog is armed and reset, the journal has the
#     agent's messages under its identity;
#   - kill -9 of the agent: ExecStopPost stops the watchdog, systemd restarts
#     the agent after RestartSec;
#   - SIGSTOP (a wedged agent): systemd's watchdog kills and restarts it long
#     before the controller's watchdog would run out;
#   - systemctl stop: the watchdog stopped, the OS reported shut down;
#   - systemd-analyze verify and security (exposure at most 2.5) on the
#     installed unit;
#   - programs built against the installed libqelbase-dev with pkg-config and
#     with find_package run against the controller;
#   - the metrics timer: shipped but not enabled; enabled by hand it writes
#     qeld.prom into node_exporter's textfile directory, a run replaces it
#     whole, a real node_exporter serves the ipmi_* metrics without a scrape
#     error and prometheus_client parses both texts (a hostile controller
#     string in a label included);
#   - removing qeld leaves the watchdog stopped;
# and the container is torn down.
#
#   qeld_systemd.sh DIST_DIR     (the packages of scripts/package.sh)
#
# The drop-in shortens two times so the test does not wait minutes:
# WatchdogSec=30s (the unit's 90 s are for controller exchanges of up to 5 s;
# here they take microseconds, and a pass comes every 20 s) and RestartSec=5s.
set -euo pipefail
dist=$(cd "${1:?usage: qeld_systemd.sh DIST_DIR}" && pwd)
source "$(dirname "$0")/checks-lib.sh"

if [ "$(id -u)" -ne 0 ]; then
  echo "FAIL: needs root (systemd-nspawn)" >&2
  exit 1
fi
command -v systemd-nspawn >/dev/null || { echo "FAIL: systemd-nspawn missing (Debian systemd-container)" >&2; exit 1; }
debs=("$dist"/libqelbase1_*.deb "$dist"/libqelbase-dev_*.deb "$dist"/qeld_*.deb "$dist"/qel-bmcsim_*.deb)
for d in "${debs[@]}"; do [ -f "$d" ] || { echo "FAIL: no package $d (run scripts/package.sh)" >&2; exit 1; }; done

T=$(mktemp -d /tmp/qeld-systemd.XXXXXX)
NSPAWN=
LEADER=
teardown_container() {
  if [ -n "$NSPAWN" ] && kill -0 "$NSPAWN" 2>/dev/null; then
    # SIGTERM asks the container's systemd to shut down in order.
    kill -TERM "$NSPAWN" 2>/dev/null || true
    local deadline=$(($(date +%s) + 60))
    while kill -0 "$NSPAWN" 2>/dev/null && [ "$(date +%s)" -lt "$deadline" ]; do sleep 0.2; done
    kill -KILL "$NSPAWN" 2>/dev/null || true
    wait "$NSPAWN" 2>/dev/null || true
  fi
}
teardown() {
  teardown_container
  if [ "$failures" -ne 0 ]; then
    echo "(kept $T: the container's console is in console.log)" >&2
  else
    rm -rf "$T"
  fi
}
trap teardown EXIT

# inside COMMAND...: a command inside the container, in all its namespaces.
inside() { nsenter -t "$LEADER" -a "$@"; }
ctl() { inside qel-bmcsim --socket /run/qel-bmcsim.sock ctl "$@"; }
dump_value() { ctl dump | awk -v k="$1" 'index($0, k " ") == 1 { print substr($0, length(k) + 2); exit }'; }
sent_count() {
  local n
  n=$(ctl dump | awk -v k="sent $1 x" 'index($0, k) == 1 { sub(/^x/, "", $4); print $4; exit }')
  echo "${n:-0}"
}
prop() { inside systemctl show -P "$1" qeld.service; }
main_pid() { prop MainPID; }
unit_active() { [ "$(inside systemctl is-active qeld.service)" == active ]; }
timer_running() { [ "$(dump_value timer)" == running ]; }
timer_stopped() { [ "$(dump_value timer)" != running ]; }
resets_above() { [ "$(sent_count "06 22")" -gt "$1" ]; }
restarted_from() { local p; p=$(main_pid); [ "$p" != 0 ] && [ "$p" != "$1" ] && unit_active; }

policy_rc=$(cat /usr/sbin/policy-rc.d 2>/dev/null || echo none)

# ---------------------------------------------------------------- the container
step "boot a container with a real systemd"
# The host's node_exporter package (a test tool here) enables its service;
# the container must not start it on the host's network: the metrics step
# runs one of its own on 127.0.0.1.
systemd-nspawn --register=no --keep-unit --volatile=yes --overlay=/usr::/usr --overlay=/etc::/etc \
  --overlay=/var::/var -D / -b systemd.mask=prometheus-node-exporter.service </dev/null >"$T/console.log" 2>&1 &
NSPAWN=$!
leader_up() {
  LEADER=$(pgrep -P "$NSPAWN" | head -n1)
  [ -n "$LEADER" ] && [ "$(cat "/proc/$LEADER/comm" 2>/dev/null)" == systemd ]
}
wait_until 60 "container init" leader_up || exit 1
booted() {
  local state
  state=$(inside systemctl is-system-running 2>/dev/null) || true
  [ "$state" == running ] || [ "$state" == degraded ]
}
wait_until 120 "booted container" booted || exit 1
echo "   ok: container init $LEADER, system $(inside systemctl is-system-running || true)"

step "install the controller, point qeld at it (drop-in), install qeld with apt-get"
# A build machine may forbid services to start from maintainer scripts
# (policy-rc.d exiting 101, as container images have it); this container is
# a real system, where packages start their services. The overlay keeps the
# host's file.
inside rm -f /usr/sbin/policy-rc.d
tar -C "$dist" -cf - "${debs[@]##*/}" | inside sh -c 'mkdir -p /root/debs && tar -C /root/debs -xf -'
inside sh -c 'dpkg -i /root/debs/qel-bmcsim_*.deb' >"$T/dpkg-sim.log"
inside systemd-run --quiet --unit=qel-bmcsim --service-type=exec \
  /usr/bin/qel-bmcsim --socket /run/qel-bmcsim.sock --wall-clock --config /usr/share/qelbase/descriptions/default.conf
sim_serves() { inside test -S /run/qel-bmcsim.sock; }
wait_until 20 "controller socket" sim_serves || exit 1
inside mkdir -p /etc/systemd/system/qeld.service.d
inside sh -c 'cat >/etc/systemd/system/qeld.service.d/bench.conf' <<'CONF'
[Service]
Environment="QELD_OPTIONS=--bmc-socket /run/qel-bmcsim.sock"
WatchdogSec=30s
RestartSec=5s
CONF
# As an administrator installs it (qeld needs nothing beyond the C library).
inside sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y /root/debs/qeld_*.deb' \
  >"$T/apt-qeld.log" 2>&1 || { fail "apt-get install ./qeld_*.deb: $(cat "$T/apt-qeld.log")"; exit 1; }

# Neither the controller nor the agent needs the shared library: they carry
# its objects themselves.
expect_eq "libqelbase1 installed with qeld and qel-bmcsim" \
  "$(inside dpkg-query -W -f='${Status}' libqelbase1 2>/dev/null || echo not-installed)" not-installed

# ---------------------------------------------------------------- running
step "the service runs: active after READY=1, watchdog armed and reset"
wait_until 30 "active qeld.service" unit_active
expect_eq "Type" "$(prop Type)" notify
expect_eq "enabled on install" "$(inside systemctl is-enabled qeld.service)" enabled
wait_until 30 "armed watchdog" timer_running
expect_eq "timer use" "$(dump_value timer-use)" "4 (SMS/OS)"
resets=$(sent_count "06 22")
expect_ge "watchdog resets" "$resets" 1
status=$(prop StatusText)
expect_true "STATUS= '$status'" grep -qE '^watchdog 300 s, reset [0-9]+ s ago; ' <<<"$status"
inside systemctl status --no-pager qeld.service >"$T/status.txt" 2>&1 || true
expect_true "systemctl status shows the status line" grep -qF "Status: \"$status\"" "$T/status.txt"

step "the installed unit verifies, and its sandbox"
inside systemd-analyze verify qeld.service >"$T/verify.txt" 2>&1 || fail "systemd-analyze verify: $(cat "$T/verify.txt")"
expect_eq "verify output" "$(cat "$T/verify.txt")" ""
exposure=$(inside systemd-analyze security --no-pager qeld.service | sed -n 's/.*Overall exposure level for qeld.service: \([0-9.]*\).*/\1/p')
expect_true "exposure $exposure <= 2.5" awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.5) }'

step "the controller's event log in the journal: records added with ipmitool, their fields and priorities, the catalog"
preload=$(inside sh -c 'ls /usr/lib/*/qelbase/libqelsim-preload.so' | head -n1)
ipmi() { inside env QEL_BMCSIM_SOCKET=/run/qel-bmcsim.sock LD_PRELOAD="$preload" ipmitool -I open "$@"; }
sel_id() {  # the record ID Add SEL Entry answered, as 4 hex digits
  awk '{ printf "%s%s", toupper($2), toupper($1) }'
}
# Add SEL Entry (0x0a 0x44), system event records from the BMC (generator
# 0x20), the controller setting ID and time:
#   a correctable ECC (memory 0x0C, sensor-specific 0x6F, offset 0): warning;
#   a temperature's upper critical going high (threshold 0x01, offset 9,
#   trigger reading 0x5F, threshold 0x5A in event data 2 and 3): critical;
#   the same temperature's deassertion (direction bit 7): informational.
ecc=$(ipmi raw 0x0a 0x44 0 0 0x02 0 0 0 0 0x20 0x00 0x04 0x0c 0x08 0x6f 0x00 0xff 0xff | sel_id)
hot=$(ipmi raw 0x0a 0x44 0 0 0x02 0 0 0 0 0x20 0x00 0x04 0x01 0x30 0x01 0x59 0x5f 0x5a | sel_id)
cool=$(ipmi raw 0x0a 0x44 0 0 0x02 0 0 0 0 0x20 0x00 0x04 0x01 0x30 0x81 0x59 0x50 0x5a | sel_id)
expect_true "ipmitool added three records ($ecc $hot $cool)" test -n "$ecc" -a -n "$hot" -a -n "$cool"
sel_json() {
  inside journalctl -q --no-pager -o json SYSLOG_IDENTIFIER=qeld MESSAGE_ID=b94984b79cc44ea099a87728d5a050b2
}
# All three by their IDs (a fresh boot's own "boot completed" record may be
# forwarded beside them).
forwarded() {
  sel_json | python3 -c '
import json, sys
ids = {json.loads(l).get("QEL_SEL_RECORD_ID", "").upper() for l in sys.stdin if l.strip()}
sys.exit(0 if all("0X" + i.upper() in ids for i in sys.argv[1:]) else 1)' "$ecc" "$hot" "$cool"
}
# One Get SEL Info a minute at rest: within about a minute.
wait_until 90 "three SEL entries in the journal" forwarded
sel_json >"$T/sel.json"
# Each record's bytes as the controller keeps them (Get SEL Entry, 0x43).
raw_of() {
  local id=$1
  ipmi raw 0x0a 0x43 0 0 "0x${id:2:2}" "0x${id:0:2}" 0 0xff | tr -d ' \n' | tr a-f A-F | cut -c5-
}
for id in "$ecc" "$hot" "$cool"; do echo "$id $(raw_of "$id")"; done >"$T/raws.txt"
check=$(python3 - "$T/sel.json" "$T/raws.txt" <<'PY'
import json, re, sys
entries = [json.loads(l) for l in open(sys.argv[1]) if l.strip()]
raws = dict(l.split() for l in open(sys.argv[2]) if l.strip())
problems = []
expected = {  # record ID -> priority, severity, sensor type, code, number, event type, direction, data
    0: ("4", "warning", "Memory", "0x0C", "0x08", "0x6F", "assertion", "00FFFF"),
    1: ("2", "critical", "Temperature", "0x01", "0x30", "0x01", "assertion", "595F5A"),
    2: ("6", "info", "Temperature", "0x01", "0x30", "0x01", "deassertion", "59505A"),
}
ids = list(raws)
seen = {}
for e in entries:
    rid = e.get("QEL_SEL_RECORD_ID", "")
    seen[rid] = seen.get(rid, 0) + 1
for n, rid in enumerate(ids):
    mine = [e for e in entries if e.get("QEL_SEL_RAW", "").upper() == raws[rid]]
    if len(mine) != 1:
        problems.append("record %s: %d journal entries with its bytes" % (rid, len(mine)))
        continue
    e = mine[0]
    prio, sev, stype, code, num, etype, direction, data = expected[n]
    want = {"PRIORITY": prio, "QEL_SEL_SEVERITY": sev, "QEL_SEL_SENSOR_TYPE": stype,
            "QEL_SEL_SENSOR_TYPE_CODE": code, "QEL_SEL_SENSOR_NUMBER": num,
            "QEL_SEL_EVENT_TYPE_CODE": etype, "QEL_SEL_EVENT_DIRECTION": direction,
            "QEL_SEL_EVENT_DATA": data, "QEL_SEL_RECORD_TYPE": "0x02",
            "QEL_SEL_GENERATOR_ID": "0x0020", "_SYSTEMD_UNIT": "qeld.service",
            "SYSLOG_IDENTIFIER": "qeld"}
    for k, v in want.items():
        got = e.get(k)
        if got is None or got.lower() != v.lower():
            problems.append("record %s: %s is %r, expected %r" % (rid, k, got, v))
    if not re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", e.get("QEL_SEL_TIMESTAMP", "")):
        problems.append("record %s: QEL_SEL_TIMESTAMP %r is no ISO 8601 UTC time" % (rid, e.get("QEL_SEL_TIMESTAMP")))
    if not e.get("MESSAGE", "").startswith("SEL record 0x%s: " % rid.upper()):
        problems.append("record %s: MESSAGE %r" % (rid, e.get("MESSAGE")))
print("; ".join(problems) if problems else "ok")
PY
)
expect_eq "the journal's SEL entries (fields, priorities, once each)" "$check" ok
# The same text as qelctl shows for the record, behind the record ID.
text=$(inside qelctl --bmc-socket /run/qel-bmcsim.sock --json sel get "0x$hot" |
  python3 -c 'import json,sys; print(json.load(sys.stdin)["records"][0]["text"])')
message=$(python3 -c 'import json,sys; print(next(json.loads(l)["MESSAGE"] for l in open(sys.argv[1]) if json.loads(l).get("QEL_SEL_RAW","").upper()==sys.argv[2]))' "$T/sel.json" "$(raw_of "$hot")")
expect_eq "the journal's text is qelctl's" "$message" "SEL record 0x$hot: $text"
inside journalctl -q --no-pager -x -n 1 SYSLOG_IDENTIFIER=qeld MESSAGE_ID=b94984b79cc44ea099a87728d5a050b2 >"$T/catalog.txt"
expect_true "journalctl -x explains the entry (the catalog)" grep -q "The BMC logged a hardware event" "$T/catalog.txt"
expect_true "the catalog shows the entry's own text" grep -qF "SEL record 0x" "$T/catalog.txt"

step "kill -9: ExecStopPost stops the watchdog, systemd restarts the agent"
pid=$(main_pid)
restarts=$(prop NRestarts)
sets_before=$(sent_count "06 24")
inside kill -9 "$pid"
stop_sent() { [ "$(sent_count "06 24")" -gt "$sets_before" ]; }
wait_until 20 "a Set Watchdog Timer (the stop) from ExecStopPost" stop_sent
wait_until 30 "a new agent" restarted_from "$pid"
expect_eq "restarts" "$(prop NRestarts)" $((restarts + 1))
inside journalctl -q --no-pager -u qeld.service >"$T/journal.txt"
expect_true "systemd saw the kill" grep -q "qeld.service: Main process exited, code=killed, status=9/KILL" "$T/journal.txt"
wait_until 30 "watchdog armed again" timer_running

step "SIGSTOP (a wedged agent): systemd's watchdog kills and restarts it in time"
wait_until 30 "ready agent" unit_active
pid=$(main_pid)
restarts=$(prop NRestarts)
before=$(sent_count "06 22")
stopped_at=$(date +%s)
inside kill -STOP "$pid"
wait_until 60 "a new agent after the watchdog timeout" restarted_from "$pid"
wait_until 30 "a watchdog reset by the new agent" resets_above "$before"
took=$(($(date +%s) - stopped_at))
# The controller's timer is 300 s; the last reset before the stop was at
# most 100 s earlier, so the new agent had to be there within 200 s.
expect_le "seconds from the wedge to the new agent's first reset" "$took" 200
expect_eq "controller watchdog expiries" "$(dump_value expiries)" 0
expect_eq "restarts" "$(prop NRestarts)" $((restarts + 1))
inside journalctl -q --no-pager -u qeld.service >"$T/journal.txt"
expect_true "systemd saw the watchdog timeout" grep -q "qeld.service: Watchdog timeout" "$T/journal.txt"
# Two restarts later (a kill -9, a watchdog kill), with the forwarder's
# state read back at each start: still one journal entry per record.
once_each() {
  sel_json | python3 -c '
import json, sys
raws = [json.loads(l).get("QEL_SEL_RAW", "").upper() for l in sys.stdin if l.strip()]
sys.exit(0 if raws and len(raws) == len(set(raws)) else 1)'
}
expect_true "after the restarts, every SEL record still once in the journal" once_each

step "systemctl stop: watchdog stopped, OS reported shut down"
wait_until 30 "ready agent" unit_active
inside systemctl stop qeld.service
expect_true "watchdog stopped" timer_stopped
expect_eq "last OS status (6: shut down)" "$(dump_value os-status | awk '{ print $NF }')" 6
expect_eq "agent connection" "$(dump_value agent-connection)" "2 (disconnected)"
# The journal: the agent's own syslog messages under its identity (QELD in
# --foreground), attributed to the unit.
inside journalctl -q --no-pager -o cat -u qeld.service -t QELD >"$T/agent-journal.txt"
expect_true "the agent's messages in the unit's journal (identity QELD)" \
  grep -qx "Termination signal received" "$T/agent-journal.txt"
inside systemctl start qeld.service
wait_until 30 "watchdog armed again" timer_running

step "programs built against the installed libqelbase-dev"
inside sh -c 'dpkg -i /root/debs/libqelbase1_*.deb /root/debs/libqelbase-dev_*.deb' >"$T/dpkg-dev.log"
inside sh -c 'mkdir -p /root/consumer && man -P cat libqelbase 2>/dev/null >/dev/null; true'
# The manual page's example, as the page shows it.
inside sh -c "zcat /usr/share/man/man3/libqelbase.3.gz | sed -n '/^\\.SH EXAMPLE/,/^\\.SH/p' | sed -n '/^\\.nf/,/^\\.fi/p' | sed '1d;\$d' | sed 's/\\\\en/\\\\n/g' >/root/consumer/app.cpp"
expect_true "the example has a main" inside grep -q 'int main' /root/consumer/app.cpp
inside sh -c 'cd /root/consumer && g++ -std=c++17 -o app-pc app.cpp $(pkg-config --cflags --libs qelbase)' ||
  fail "pkg-config build"
inside sh -c 'cat >/root/consumer/CMakeLists.txt' <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qelbase 1 REQUIRED)
add_executable(app-cmake app.cpp)
target_link_libraries(app-cmake PRIVATE qelbase::qelbase)
CMAKE
inside sh -c 'cd /root/consumer && cmake -S . -B build >/dev/null && cmake --build build >/dev/null' || fail "find_package build"
preload=$(inside sh -c 'ls /usr/lib/*/qelbase/libqelsim-preload.so')
for app in /root/consumer/app-pc /root/consumer/build/app-cmake; do
  out=$(inside env LD_PRELOAD="$preload" QEL_BMCSIM_SOCKET=/run/qel-bmcsim.sock "$app" 2>&1) || true
  expect_true "$app reads the controller ('$out')" grep -q '^IPMIv' <<<"$out"
done

step "the metrics timer: off on install; enabled, it writes qeld.prom for a real node_exporter"
textdir=/var/lib/prometheus/node-exporter
expect_eq "metrics timer enabled on install" "$(inside systemctl is-enabled qeld-metrics.timer 2>&1 || true)" disabled
expect_eq "metrics timer active on install" "$(inside systemctl is-active qeld-metrics.timer 2>&1 || true)" inactive
inside systemd-analyze verify qeld-metrics.service qeld-metrics.timer >"$T/verify-metrics.txt" 2>&1 ||
  fail "systemd-analyze verify qeld-metrics: $(cat "$T/verify-metrics.txt")"
expect_eq "verify output (metrics units)" "$(cat "$T/verify-metrics.txt")" ""
metrics_exposure=$(inside systemd-analyze security --no-pager qeld-metrics.service |
  sed -n 's/.*Overall exposure level for qeld-metrics.service: \([0-9.]*\).*/\1/p')
expect_true "metrics exposure $metrics_exposure <= qeld's $exposure" \
  awk -v m="$metrics_exposure" -v q="$exposure" 'BEGIN { exit !(m != "" && m <= q) }'
# A controller string with a quote, a backslash and a newline: the system
# firmware version (qeld, which writes it from the BIOS version, stopped
# meanwhile) (Set System Info Parameters, parameter 1, block 0: ASCII,
# 7 bytes 'a"b\c' LF 'd', padded to 14).
inside systemctl stop qeld.service
ipmi raw 0x06 0x58 0x01 0x00 0x00 0x07 0x61 0x22 0x62 0x5c 0x63 0x0a 0x64 0 0 0 0 0 0 0 >/dev/null
inside mkdir -p /etc/systemd/system/qeld-metrics.service.d
inside sh -c 'cat >/etc/systemd/system/qeld-metrics.service.d/bench.conf' <<'CONF'
[Service]
Environment=QEL_BMCSIM_SOCKET=/run/qel-bmcsim.sock
CONF
inside mkdir -p "$textdir"
inside rm -f "$textdir/qeld.prom"
inside systemctl daemon-reload
inside systemctl enable --now qeld-metrics.timer >"$T/enable-timer.txt" 2>&1 ||
  fail "systemctl enable --now qeld-metrics.timer: $(cat "$T/enable-timer.txt")"
prom_written() { inside test -s "$textdir/qeld.prom"; }
# OnBootSec= is long past in this container: the timer elapses at once.
wait_until 60 "qeld.prom from the timer's first run" prom_written
service_done() { [ "$(inside systemctl show -P ActiveState qeld-metrics.service)" != activating ]; }
wait_until 60 "the timer's run ends" service_done
expect_eq "first run's result" "$(inside systemctl show -P Result qeld-metrics.service)" success
first_inode=$(inside stat -c %i "$textdir/qeld.prom")
inside systemctl start qeld-metrics.service ||
  fail "systemctl start qeld-metrics.service: $(inside journalctl -q --no-pager -n 20 -u qeld-metrics.service)"
second_inode=$(inside stat -c %i "$textdir/qeld.prom")
expect_true "a run replaces qeld.prom (inode $first_inode, then $second_inode)" test "$first_inode" != "$second_inode"
expect_eq "mode of qeld.prom" "$(inside stat -c %a "$textdir/qeld.prom")" 644
expect_eq "files in the textfile directory" "$(inside ls -A "$textdir" | grep qeld | tr '\n' ' ')" \
  "qeld.prom qeld.prom.lock "
inside cat "$textdir/qeld.prom" >"$T/qeld.prom"
# node_exporter with the textfile collector alone, on 127.0.0.1 (the
# container shares the host's network), on a port nobody listens on.
port=
for candidate in $(shuf -i 20000-40000 -n 20); do
  if ! ss -Hltn "sport = :$candidate" | grep -q .; then port=$candidate; break; fi
done
expect_true "a free port for node_exporter ($port)" test -n "$port"
inside systemd-run --quiet --unit=qel-node-exporter --service-type=exec /usr/bin/prometheus-node-exporter \
  --web.listen-address="127.0.0.1:$port" --collector.disable-defaults --collector.textfile \
  --collector.textfile.directory="$textdir"
scrape() { python3 -c 'import sys, urllib.request; sys.stdout.write(urllib.request.urlopen(sys.argv[1], timeout=5).read().decode())' \
  "http://127.0.0.1:$port/metrics" >"$T/scrape.txt" 2>/dev/null; }
wait_until 30 "node_exporter answers on 127.0.0.1:$port" scrape
# Debian's python3 (python3-prometheus-client), whatever python3 comes first in PATH.
check=$(/usr/bin/python3 - "$T/qeld.prom" "$T/scrape.txt" <<'PY'
import sys
from prometheus_client.parser import text_string_to_metric_families
problems = []
def samples(path):
    try:
        return [s for f in text_string_to_metric_families(open(path).read()) for s in f.samples]
    except Exception as e:
        problems.append("%s does not parse: %s" % (path, e))
        return []
def value(found, metric, **labels):
    for s in found:
        if s.name == metric and all(s.labels.get(k) == v for k, v in labels.items()):
            return s.value
    problems.append("no %s%s" % (metric, labels or ""))
for path in sys.argv[1:]:
    found = samples(path)
    for c in ("bmc", "bmc-watchdog", "sel", "ipmi", "dcmi", "chassis"):
        if value(found, "ipmi_up", collector=c) != 1:
            problems.append("%s: ipmi_up{collector=%s} is not 1" % (path, c))
        value(found, "ipmi_scrape_duration_seconds", collector=c)
    # The sensors of default.conf, served by node_exporter as written.
    value(found, "ipmi_temperature_celsius", name="CPU1 Temp")
    value(found, "ipmi_fan_speed_rpm", name="FAN1")
    value(found, "ipmi_dcmi_power_consumption_watts")
    value(found, "ipmi_chassis_power_state")
    if value(found, "ipmi_bmc_info", system_firmware_version='a"b\\c\nd') != 1:
        problems.append("%s: ipmi_bmc_info does not carry the controller's string as it is" % path)
scraped = samples(sys.argv[2])
if value(scraped, "node_textfile_scrape_error") != 0:
    problems.append("node_textfile_scrape_error is not 0")
print("; ".join(problems) if problems else "ok")
PY
)
expect_eq "qeld.prom and node_exporter's scrape parse, with the ipmi_* metrics" "$check" ok
inside systemctl stop qel-node-exporter.service
# The timer stays enabled: removing the package stops it (below).
inside systemctl start qeld.service

step "removing qeld leaves the watchdog stopped"
wait_until 30 "watchdog armed" timer_running
inside dpkg --purge qeld >"$T/dpkg-purge.log" 2>&1 || fail "dpkg --purge qeld: $(cat "$T/dpkg-purge.log")"
expect_true "watchdog stopped" timer_stopped
expect_eq "unit gone" "$(inside systemctl show -P LoadState qeld.service)" not-found
expect_eq "the enabled metrics timer stopped" "$(inside systemctl is-active qeld-metrics.timer 2>&1 || true)" inactive
expect_true "no qeld process" bash -c "! nsenter -t $LEADER -a pgrep -x qeld >/dev/null"

step "the container goes, and leaves nothing on the host"
teardown_container
expect_true "no container process" bash -c "! kill -0 $NSPAWN 2>/dev/null"
expect_true "no qeld or qel-bmcsim process on the host" bash -c "! pgrep -x 'qeld|qel-bmcsim' >/dev/null"
expect_true "the host has no qeld package" bash -c "! dpkg-query -W -f='\${Status}' qeld 2>/dev/null | grep -q installed"
expect_true "the host has no drop-in" test ! -e /etc/systemd/system/qeld.service.d
expect_true "the host's policy-rc.d is as it was" test "$policy_rc" == "$(cat /usr/sbin/policy-rc.d 2>/dev/null || echo none)"

finish

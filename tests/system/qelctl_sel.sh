#!/usr/bin/env bash
# qelctl sel against the simulated controller's event log, beside ipmitool
# reading the same log through the stand-in /dev/ipmi0: the same records
# (IDs, sensor types, directions), the fixed JSON keys, the fill level, and a
# clear that is refused without --yes.
#
#   qelctl_sel.sh QEL-BMCSIM LIBQELSIM-PRELOAD.SO QELCTL
set -euo pipefail
bmcsim=$1
preload=$2
qelctl=$3

fail() { echo "FAIL: $*" >&2; exit 1; }
ok() { echo "   ok: $*"; }
command -v ipmitool >/dev/null || fail "ipmitool is not installed; scripts/install-deps.sh installs it"

work=$(mktemp -d /tmp/qelctlselXXXXXX)
sock=$work/bmc.sock
cleanup() {
  "$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
[ -n "${KEEP:-}" ] && trap - EXIT

# Record IDs in steps of 5, a log of 20 places.
cat >"$work/bmc.conf" <<'CONF'
sel-capacity 20
sel-mode stop-when-full
sel-id-step 5
CONF
"$bmcsim" --socket "$sock" --config "$work/bmc.conf" --daemon --pidfile "$work/pid"
ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
ipmi() { QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmitool -I open "$@"; }
q() { "$qelctl" --bmc-socket "$sock" "$@"; }

# A correctable ECC (memory, sensor-specific), a power supply failure
# (deassertion too) and a threshold event, through Add SEL Entry as a tool
# would; then system software's boot event.
ipmi raw 0x0a 0x44 0x00 0x00 0x02 0 0 0 0 0x20 0x00 0x04 0x0c 0x01 0x6f 0xa0 0x00 0x03 >/dev/null
ipmi raw 0x0a 0x44 0x00 0x00 0x02 0 0 0 0 0x20 0x00 0x04 0x08 0x02 0x6f 0x01 0xff 0xff >/dev/null
ipmi raw 0x0a 0x44 0x00 0x00 0x02 0 0 0 0 0x20 0x00 0x04 0x08 0x02 0xef 0x01 0xff 0xff >/dev/null
ipmi raw 0x0a 0x44 0x00 0x00 0x02 0 0 0 0 0x20 0x00 0x04 0x01 0x30 0x01 0x59 0x5a 0x50 >/dev/null
ipmi raw 0x04 0x02 0x41 0x04 0x1f 0x00 0x6f 0x01 0xff 0xff >/dev/null

q --json sel list >"$work/list.json"
ipmi sel list >"$work/ipmitool.txt"
python3 - "$work/list.json" "$work/ipmitool.txt" <<'PY' || fail "qelctl sel list and ipmitool sel list differ"
import json, sys
records = json.load(open(sys.argv[1]))["records"]
keys = ["record_id", "record_type", "timestamp", "generator_id", "sensor_type", "sensor_type_code",
        "sensor_number", "sensor_name", "event_type_code", "event_direction", "event_data", "severity",
        "text", "raw"]
for r in records:
    assert list(r.keys()) == keys, r.keys()
lines = [l.split("|") for l in open(sys.argv[2]).read().splitlines() if l.strip()]
assert len(lines) == len(records) == 5, (len(lines), len(records))
for r, l in zip(records, lines):
    assert int(l[0].strip(), 16) == r["record_id"], (l, r)
    assert ("Deasserted" in l[5]) == (r["event_direction"] == "deassertion"), (l, r)
    if "#" in l[3]:  # ipmitool leaves the number out for some types (OS Boot)
        assert r["sensor_number"] == int(l[3].split("#")[1].strip(), 16), (l, r)
    assert l[3].strip().startswith(r["sensor_type"]), (l, r)
assert [r["record_id"] for r in records] == [1, 6, 11, 16, 21], [r["record_id"] for r in records]
assert [r["severity"] for r in records] == ["warning", "critical", "info", "critical", "info"], \
    [r["severity"] for r in records]
assert records[4]["generator_id"] == 0x41 and records[4]["sensor_type"] == "OS Boot"
PY
ok "the same five records as ipmitool, with the fixed keys and severities"

[ "$(q sel list --last 2 | wc -l)" -eq 2 ] || fail "--last 2"
[ "$(q sel list --since-id 11 | awk '{print $1}' | paste -sd' ')" = "0x0010 0x0015" ] || fail "--since-id 11: $(q sel list --since-id 11)"
q sel get 6 | grep -q "^0x0006 .*Power Supply" || fail "sel get 6: $(q sel get 6)"
ok "--last, --since-id, get"

q --json sel info >"$work/info.json"
python3 - "$work/info.json" <<'PY' || fail "sel info: $(cat "$work/info.json")"
import json, sys
info = json.load(open(sys.argv[1]))["info"]
assert list(info.keys())[:7] == ["version", "entries", "free_bytes", "percent_used", "last_addition",
                                  "last_erase", "overflow"], info.keys()
assert info["entries"] == 5 and info["free_bytes"] == 15 * 16 and info["percent_used"] == 25, info
assert info["overflow"] is False
PY
[ "$(ipmi sel info | sed -n 's/^Entries *: *//p')" = 5 ] || fail "ipmitool sees another count"
ok "sel info: entries, free space, fill level as ipmitool counts them"

# metrics: the log's fill under ipmi_exporter's names, as ipmitool reads it.
# (Without qeld's figures: its status file is not there.)
RUNTIME_DIRECTORY=$work/none q metrics >"$work/metrics.txt"
entries=$(ipmi sel info | sed -n 's/^Entries *: *//p')
free=$(ipmi sel info | sed -n 's/^Free Space *: *\([0-9]*\) bytes.*/\1/p')
grep -qx "ipmi_sel_logs_count $entries" "$work/metrics.txt" || fail "metrics: ipmi_sel_logs_count is not $entries"
grep -qx "ipmi_sel_free_space_bytes $free" "$work/metrics.txt" || fail "metrics: ipmi_sel_free_space_bytes is not $free"
grep -qx "# TYPE ipmi_sel_logs_count gauge" "$work/metrics.txt" || fail "metrics: no TYPE line for ipmi_sel_logs_count"
! grep -q "^qel_sel_" "$work/metrics.txt" || fail "metrics: forwarder figures without a forwarder"
# qeld's forwarder figures, from the file it rewrites after every check.
mkdir -p "$work/run"
printf 'checked %s\nforwarded 17\nlast-id 42\nbacklog 1\n' "$(($(date +%s) - 30))" >"$work/run/sel-status"
RUNTIME_DIRECTORY=$work/run q metrics >"$work/metrics.txt"
grep -qx "qel_sel_forwarded_records_total 17" "$work/metrics.txt" || fail "metrics: forwarded records"
grep -qx "# TYPE qel_sel_forwarded_records_total counter" "$work/metrics.txt" || fail "metrics: the count's type"
grep -qx "qel_sel_last_forwarded_record_id 42" "$work/metrics.txt" || fail "metrics: last forwarded ID"
grep -qx "qel_sel_backlog 1" "$work/metrics.txt" || fail "metrics: backlog"
age=$(sed -n 's/^qel_sel_last_check_age_seconds //p' "$work/metrics.txt")
[ -n "$age" ] && [ "$age" -ge 30 ] && [ "$age" -lt 600 ] || fail "metrics: seconds since the check '$age'"
ok "metrics: entries $entries and $free bytes free as ipmitool reads them; the forwarder's figures"

set +e
q sel clear >/dev/null 2>"$work/err"
rc=$?
set -e
[ "$rc" -eq 2 ] || fail "sel clear without --yes: exit $rc"
grep -q "add --yes" "$work/err" || fail "sel clear without --yes says why"
[ "$(ipmi sel info | sed -n 's/^Entries *: *//p')" = 5 ] || fail "refused clear erased something"
q sel clear --yes >/dev/null
[ "$(ipmi sel info | sed -n 's/^Entries *: *//p')" = 0 ] || fail "sel clear --yes left records"
ok "clear refused without --yes, done with it"

set +e
q sel get 0x1234 >/dev/null 2>"$work/err"
rc=$?
set -e
[ "$rc" -eq 1 ] || fail "sel get of a missing record: exit $rc"
grep -q "0xCB" "$work/err" || fail "the missing record's error names the completion code: $(cat "$work/err")"
ok "a missing record: exit 1 with the completion code"
echo "qelctl_sel: all checks passed"

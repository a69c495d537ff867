#!/usr/bin/env bash
# Every sensor of the simulated controller read three ways: by `qelctl --json
# sensors` (the library's reader), by FreeIPMI's ipmi-sensors and by
# `ipmitool sdr list`, the two others through the stand-in /dev/ipmi0. For
# each description (default.conf, rack.conf), first as described, then with
# sensors moved across their thresholds and discrete sensors failing
# (`qel-bmcsim ctl sensor NUMBER RAW`), the readers must agree on:
#   - the reading, to the two decimals both tools print;
#   - the units text;
#   - a threshold sensor's state: the threshold ipmi-sensors names in its
#     event column and ipmitool's ok/nc/cr/nr;
#   - a discrete sensor's state (ipmi-sensors' Nominal/Warning/Critical) and
#     how many states are asserted.
# Then the chassis status and the DCMI power reading of default.conf as
# ipmitool decodes them (rack.conf has no DCMI power).
# Where a tool gives no reading, the other decides: ipmi-sensors reads
# neither non-linear sensors (ipmitool does, with Get Sensor Reading
# Factors) nor compact threshold sensors, for which neither tool has a value
# (the library reads the raw byte in the record's units; checked against
# the description here).
#
#   qel_sensors_oracle.sh QEL-BMCSIM QELCTL LIBQELSIM-PRELOAD.SO DESCRIPTIONS-DIR
set -euo pipefail
bmcsim=$1
qelctl=$2
preload=$3
descriptions=$4

fail() {
  echo "FAIL: $*" >&2
  [ -s "${work:-/nonexistent}/bmcsim.err" ] && { echo "--- qel-bmcsim stderr:" >&2; cat "$work/bmcsim.err" >&2; }
  exit 1
}

command -v ipmitool >/dev/null || fail "ipmitool is not installed (Debian package ipmitool)"
ipmisensors=$(PATH=$PATH:/usr/sbin:/sbin command -v ipmi-sensors) ||
  fail "FreeIPMI's ipmi-sensors is not installed (Debian package freeipmi-tools)"
command -v python3 >/dev/null || fail "python3 is not installed"

work=$(mktemp -d /tmp/qelsensorsXXXXXX)
sock=$work/bmc.sock
pid=
stop() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill "$pid"; wait "$pid" || true; fi
  pid=
}
cleanup() {
  stop
  rm -rf "$work"
}
trap cleanup EXIT

ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
ipmi() { QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmitool -I open "$@"; }
freeipmi() {
  QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload "$ipmisensors" -D OPENIPMI --sdr-cache-directory="$work/freeipmi" "$@"
}

start() {
  rm -f "$sock" "$work/ready"
  mkfifo "$work/ready"
  "$bmcsim" --socket "$sock" --config "$1" --ready-fd 3 3>"$work/ready" 2>"$work/bmcsim.err" &
  pid=$!
  local line=
  read -r line <"$work/ready" || true
  [ "$line" = ready ] || fail "qel-bmcsim did not get ready with $1"
  rm -rf "$work/freeipmi"
  mkdir -m 700 "$work/freeipmi"
}

# The three readers' views, then the comparison. $1 names the round.
compare() {
  local round=$1
  # CACHE_DIRECTORY elsewhere: qelctl must not use (or write) a cache of qeld's.
  CACHE_DIRECTORY=$work/nocache "$qelctl" --bmc-socket "$sock" --json sensors >"$work/ours.json" 2>"$work/ours.err" ||
    fail "$round: qelctl --json sensors: $(cat "$work/ours.err")"
  ipmi sdr list >"$work/ipmitool.out" 2>"$work/ipmitool.err" || fail "$round: ipmitool sdr list: $(cat "$work/ipmitool.err")"
  freeipmi --quiet-cache --shared-sensors --output-sensor-state --non-abbreviated-units --comma-separated-output \
    --no-header-output >"$work/freeipmi.out" 2>"$work/freeipmi.err" ||
    fail "$round: ipmi-sensors: $(cat "$work/freeipmi.err")"
  # As ipmi_exporter runs it: abbreviated units.
  freeipmi --quiet-cache --shared-sensors --output-sensor-state --comma-separated-output \
    --no-header-output >"$work/freeipmi-abbrev.out" 2>"$work/freeipmi.err" ||
    fail "$round: ipmi-sensors: $(cat "$work/freeipmi.err")"
  python3 - "$work" "$round" <<'EOF' || fail "$round: the readers disagree (above)"
import json, re, sys
work, round_ = sys.argv[1], sys.argv[2]
ok = True
def check(cond, what):
    global ok
    if not cond:
        print("mismatch (%s): %s" % (round_, what), file=sys.stderr)
        ok = False

doc = json.load(open(work + "/ours.json"))
ours = {}
for s in doc["sensors"]:
    check(s["problem"] is None, "%s: problem %s" % (s["name"], s["problem"]))
    # ipmi-sensors puts a space between a shared record's name and its instance.
    ours[s["name"].replace(" ", "")] = s
check(len(ours) == len(doc["sensors"]), "two sensors share a name")

# Where the value sits against the thresholds, as ipmi-sensors' event column
# names it.
def threshold_state(event):
    if event == "OK": return "nominal"
    if "Non-Recoverable" in event: return "non-recoverable"
    if "Non-Critical" in event: return "warning"
    if "Critical" in event: return "critical"
    return "?" + event

seen_free = 0
compared_values = 0
for line in open(work + "/freeipmi.out"):
    # id,name,type,state,reading,units,'event' 'event'...
    fields = line.rstrip("\n").split(",", 6)
    if len(fields) < 7: continue
    _, name, typ, state, reading, units, events = fields
    key = name.replace(" ", "")
    s = ours.get(key)
    check(s is not None, "ipmi-sensors shows %r, qelctl does not" % name)
    if s is None: continue
    seen_free += 1
    # Two type names the tool shortens or numbers.
    aliases = {"Watchdog 2": "Watchdog", "Drive Slot": "Drive Slot/Bay"}
    check(s["type"] in (typ, aliases.get(typ)), "%s: type %r, ipmi-sensors %r" % (name, s["type"], typ))
    texts = re.findall(r"'([^']*)'", events)
    if s["units"] is not None:
        # A threshold sensor.
        # Without conversion factors (a compact record) the tool names no units.
        check(units == s["units"] or (units == "N/A" and reading == "N/A"),
              "%s: units %r, ipmi-sensors %r" % (name, s["units"], units))
        check(len(texts) == 1 and threshold_state(texts[0]) == s["state"],
              "%s: state %r, ipmi-sensors %r" % (name, s["state"], events))
        if reading != "N/A":
            check(s["reading"] is not None and abs(s["reading"] - float(reading)) <= 0.005,
                  "%s: reading %r, ipmi-sensors %s" % (name, s["reading"], reading))
            compared_values += 1
    else:
        # A discrete sensor: its state as ipmi-sensors rates it, and as many
        # asserted states ('OK' when none).
        check(state.lower() == s["state"], "%s: state %r, ipmi-sensors %r" % (name, s["state"], state))
        asserted = [] if texts == ["OK"] else texts
        check(len(asserted) == len(s["states"]),
              "%s: states %r, ipmi-sensors %r" % (name, s["states"], asserted))
check(seen_free == len(ours), "ipmi-sensors shows %d sensors, qelctl %d" % (seen_free, len(ours)))

# ipmitool: one line per record (a shared record under its first sensor's
# ID string without the instance), "value units" or a hex state, and
# ok/nc/cr/nr for threshold sensors.
status_of = {"nominal": "ok", "warning": "nc", "critical": "cr", "non-recoverable": "nr"}
by_id = {}
for s in doc["sensors"]:
    by_id.setdefault(s["record_id"], s)
seen_tool = 0
for line in open(work + "/ipmitool.out"):
    parts = [p.strip() for p in line.split("|")]
    if len(parts) != 3: continue
    name, value, status = parts
    s = ours.get(name.replace(" ", ""))
    if s is None:
        # A shared record: its first sensor.
        candidates = [x for x in doc["sensors"] if x["name"].startswith(name)]
        s = candidates[0] if candidates else None
    check(s is not None, "ipmitool shows %r, qelctl does not" % name)
    if s is None: continue
    seen_tool += 1
    m = re.match(r"^(-?[0-9.]+) (.+)$", value)
    if m and s["units"] is not None:
        check(s["reading"] is not None and abs(s["reading"] - float(m.group(1))) <= 0.005,
              "%s: reading %r, ipmitool %s" % (name, s["reading"], value))
        check(m.group(2) == s["units"], "%s: units %r, ipmitool %r" % (name, s["units"], m.group(2)))
        check(status_of.get(s["state"]) == status, "%s: state %r, ipmitool %r" % (name, s["state"], status))
        compared_values += 1
check(seen_tool == len(by_id), "ipmitool shows %d records, qelctl read %d" % (seen_tool, len(by_id)))
if ok: print("ok: %s: %d sensors, %d readings compared, %d requests (%.2f a sensor)" %
      (round_, len(ours), compared_values, doc["requests"], doc["requests"] / max(1, len(ours))))
sys.exit(0 if ok else 1)
EOF
}

# `qelctl metrics` against ipmi-sensors, the way ipmi_exporter turns its
# columns into samples: the value (NaN for N/A; a fan's percentage as a
# ratio) and the state (Nominal 0, Warning 1, Critical 2, N/A NaN), under
# the family its units choose. The text is read by Debian's Prometheus
# parser, which must take all of it.
compare_metrics() {
  local round=$1
  CACHE_DIRECTORY=$work/nocache "$qelctl" --bmc-socket "$sock" metrics --collectors ipmi,dcmi,chassis \
    >"$work/metrics.prom" 2>"$work/metrics.err" || fail "$round: qelctl metrics: $(cat "$work/metrics.err")"
  /usr/bin/python3 - "$work" "$round" <<'EOF' || fail "$round: qelctl metrics and ipmi-sensors disagree (above)"
import math, re, sys
from prometheus_client.parser import text_string_to_metric_families
work, round_ = sys.argv[1], sys.argv[2]
problems = []
samples = [s for f in text_string_to_metric_families(open(work + "/metrics.prom").read()) for s in f.samples]
by_name = {}
for s in samples:
    if "name" in s.labels:
        by_name.setdefault(s.labels["name"].replace(" ", ""), {})[s.name] = s
family = {"C": "temperature_celsius", "RPM": "fan_speed_rpm", "V": "voltage_volts", "A": "current_amperes",
          "W": "power_watts"}
state_family = {"C": "temperature_state", "RPM": "fan_speed_state", "V": "voltage_state", "A": "current_state",
                "W": "power_state"}
state_value = {"Nominal": 0, "Warning": 1, "Critical": 2}
compared = 0
for line in open(work + "/freeipmi-abbrev.out"):
    fields = line.rstrip("\n").split(",", 6)
    if len(fields) < 7: continue
    id_, name, typ, state, reading, units, events = fields
    ours = by_name.get(name.replace(" ", ""))
    if ours is None:
        problems.append("ipmi-sensors shows %r, the metrics do not" % name)
        continue
    values = [x for x in ours.values() if not x.name.endswith("_state")]
    if reading == "N/A" and len(values) == 1 and not math.isnan(values[0].value):
        # A reading the tool does not take (a non-linear or a compact
        # threshold sensor, see above) and the library does: its value is
        # checked against the description instead.
        compared += 1
        continue
    value_name = "ipmi_" + family.get(units, "sensor_value")
    state_name = "ipmi_" + state_family.get(units, "sensor_state")
    if units == "%" and typ == "Fan":
        value_name, state_name = "ipmi_fan_speed_ratio", "ipmi_fan_speed_state"
    v, st = ours.get(value_name), ours.get(state_name)
    if v is None or st is None:
        problems.append("%s: no %s/%s (has %s)" % (name, value_name, state_name, sorted(ours)))
        continue
    if v.labels["id"] != id_:
        problems.append("%s: id %s, ipmi-sensors %s" % (name, v.labels["id"], id_))
    want = float("nan") if reading == "N/A" else float(reading) / (100 if value_name == "ipmi_fan_speed_ratio" else 1)
    if not ((math.isnan(want) and math.isnan(v.value)) or abs(v.value - want) <= 0.005):
        problems.append("%s: %s %r, ipmi-sensors %s" % (name, value_name, v.value, reading))
    want_state = state_value.get(state, float("nan"))
    # A threshold sensor's state is where its reading stands against its
    # thresholds, as the event column says: ipmi-sensors' own state column
    # rates a non-critical crossing Nominal (its default interpretation),
    # ours Warning, as the comparison status bits say.
    texts = re.findall(r"'([^']*)'", events)
    if units != "N/A" and len(texts) == 1 and "Threshold" in texts[0] or texts == ["OK"] and reading != "N/A":
        t = texts[0]
        want_state = 0 if t == "OK" else 1 if "Non-Critical" in t else 2
    if not ((math.isnan(want_state) and math.isnan(st.value)) or st.value == want_state):
        problems.append("%s: %s %r, ipmi-sensors %s" % (name, state_name, st.value, state))
    compared += 1
for c in ("ipmi", "dcmi", "chassis"):
    if not any(s.name == "ipmi_up" and s.labels.get("collector") == c and s.value == 1 for s in samples):
        problems.append("ipmi_up{collector=%s} is not 1" % c)
for p in problems: print("mismatch (%s): %s" % (round_, p), file=sys.stderr)
if not problems: print("ok: %s: metrics of %d sensors equal ipmi-sensors'" % (round_, compared))
sys.exit(1 if problems else 0)
EOF
}

# What the library reads where neither tool has a value.
expect() {
  local name=$1 reading=$2 state=$3
  python3 - "$work/ours.json" "$name" "$reading" "$state" <<'EOF' || fail "qelctl: $name"
import json, sys
doc, name, reading, state = sys.argv[1], sys.argv[2], float(sys.argv[3]), sys.argv[4]
s = [x for x in json.load(open(doc))["sensors"] if x["name"] == name]
if not s or s[0]["reading"] != reading or s[0]["state"] != state:
    print("%s: %r, expected reading %s state %s" % (name, s[0] if s else None, reading, state), file=sys.stderr)
    sys.exit(1)
EOF
}

# ---- the blade of default.conf
start "$descriptions/default.conf"
compare "default.conf"
compare_metrics "default.conf"
ctl sensor 0x01 86   # CPU1 Temp: upper non-critical
ctl sensor 0x02 96   # CPU2 Temp: upper non-recoverable
ctl sensor 0x10 10   # FAN1: lower critical
ctl sensor 0x21 204  # 3.3V: lower non-critical
ctl sensor 0x41 0x03 # PSU2 Status: failure detected
compare "default.conf, thresholds crossed"
compare_metrics "default.conf, thresholds crossed"

# The chassis status and the DCMI power reading the reader takes apart (its
# unit tests run against these handlers), as ipmitool decodes them.
field() { sed -n "s|^ *$1 *: *||p" "$work/tool.out" | head -1; }
ipmi chassis status >"$work/tool.out" 2>&1 || fail "ipmitool chassis status: $(cat "$work/tool.out")"
[ "$(field 'System Power')" = on ] && [ "$(field 'Cooling/Fan Fault')" = false ] && [ "$(field 'Drive Fault')" = false ] &&
  [ "$(field 'Power Restore Policy')" = always-on ] || fail "ipmitool chassis status: $(cat "$work/tool.out")"
ctl set chassis-power off
ctl set chassis-faults cooling-fault drive-fault
ipmi chassis status >"$work/tool.out" 2>&1 || fail "ipmitool chassis status: $(cat "$work/tool.out")"
[ "$(field 'System Power')" = off ] && [ "$(field 'Cooling/Fan Fault')" = true ] && [ "$(field 'Drive Fault')" = true ] ||
  fail "ipmitool chassis status with faults: $(cat "$work/tool.out")"
ipmi dcmi power reading >"$work/tool.out" 2>&1 || fail "ipmitool dcmi power reading: $(cat "$work/tool.out")"
for expected in "Instantaneous power reading: *236 Watts" "Minimum during sampling period: *180 Watts" \
    "Maximum during sampling period: *410 Watts" "Average power reading over sample period: *240 Watts" \
    "Sampling period: *0*3600 Seconds" "Power reading state is: *activated"; do
  grep -Eq "$expected" "$work/tool.out" || fail "ipmitool dcmi power reading lacks '$expected': $(cat "$work/tool.out")"
done
echo "ok: default.conf: chassis status and DCMI power reading as ipmitool decodes them"
stop

# ---- the rack server of rack.conf
start "$descriptions/rack.conf"
compare "rack.conf"
compare_metrics "rack.conf"
expect P1-DIMM1 41 nominal
# No DCMI power management here.
if ipmi dcmi power reading >"$work/tool.out" 2>&1 && grep -q "Instantaneous power reading" "$work/tool.out"; then
  fail "rack.conf has no DCMI power, yet ipmitool read: $(cat "$work/tool.out")"
fi
ctl sensor 0x03 89   # CPU1 Temp: upper non-critical
ctl sensor 0x04 99   # CPU2 Temp: upper non-recoverable
ctl sensor 0x05 0xfc # CPU1 Margin, two's complement: -4, upper non-critical
ctl sensor 0x20 9    # Fan1A: lower non-critical
ctl sensor 0x21 7    # Fan1B: lower critical
ctl sensor 0x2c 15   # Fan7, non-linear: 750 RPM, lower non-critical
ctl sensor 0x30 170  # 12V: lower critical
ctl sensor 0x4a 230  # System Power: upper non-critical
ctl sensor 0x0c 86   # P1-DIMM2: upper critical (compact)
ctl sensor 0x51 0x03 # PSU2 Status: failure detected
ctl sensor 0x58 0x41 # Memory: a correctable ECC error
ctl sensor 0x61 0x02 # Drive1: drive fault
compare "rack.conf, thresholds crossed"
compare_metrics "rack.conf, thresholds crossed"
expect P1-DIMM2 86 critical
expect Fan7 750 warning
stop
echo "ok: qelctl sensors agrees with ipmi-sensors and ipmitool sdr list"

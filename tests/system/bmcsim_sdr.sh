#!/usr/bin/env bash
# The simulated controller's SDR repository read three ways: by the library's
# reader (qel-sdr-view), by ipmitool (`sdr elist all`, `sdr dump`) and by
# FreeIPMI's ipmi-sensors (through its own SDR cache), the two others through
# the stand-in /dev/ipmi0. They must agree on the record bytes, the record
# IDs, the sensor numbers and names. Then the library's cache: a cold read, a
# warm one costing one request, a renamed and an added sensor read again, a
# controller that refuses reads over 16 bytes.
#
#   bmcsim_sdr.sh QEL-BMCSIM QEL-SDR-VIEW LIBQELSIM-PRELOAD.SO DEFAULT.CONF
set -euo pipefail
bmcsim=$1
view=$2
preload=$3
description=$4

fail() {
  echo "FAIL: $*" >&2
  [ -s "${work:-/nonexistent}/bmcsim.err" ] && { echo "--- qel-bmcsim stderr:" >&2; cat "$work/bmcsim.err" >&2; }
  exit 1
}

command -v ipmitool >/dev/null || fail "ipmitool is not installed (Debian package ipmitool)"
ipmisensors=$(PATH=$PATH:/usr/sbin:/sbin command -v ipmi-sensors) ||
  fail "FreeIPMI's ipmi-sensors is not installed (Debian package freeipmi-tools)"
command -v python3 >/dev/null || fail "python3 is not installed"

work=$(mktemp -d /tmp/qelsdrXXXXXX)
sock=$work/bmc.sock
pid=
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill "$pid"; wait "$pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
ipmi() { QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmitool -I open "$@"; }
freeipmi() {
  QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload "$ipmisensors" -D OPENIPMI --sdr-cache-directory="$work/freeipmi" "$@"
}
mkdir -m 700 "$work/freeipmi"

# Record IDs 1, 3, 5, ...: a reader that counts IDs instead of following the
# next-record IDs reads nothing right.
{ echo "sdr-id-stride 2"; cat "$description"; } >"$work/bmc.conf"
mkfifo "$work/ready"
"$bmcsim" --socket "$sock" --config "$work/bmc.conf" --ready-fd 3 3>"$work/ready" 2>"$work/bmcsim.err" &
pid=$!
read -r line <"$work/ready" || true
[ "$line" = ready ] || fail "qel-bmcsim did not get ready"

# ---- the three readers
"$view" --socket "$sock" >"$work/ours" || fail "qel-sdr-view failed"
ipmi sdr elist all >"$work/elist" 2>"$work/elist.err" || fail "ipmitool sdr elist all: $(cat "$work/elist.err")"
ipmi sdr dump "$work/dump" >/dev/null 2>"$work/dump.err" || fail "ipmitool sdr dump: $(cat "$work/dump.err")"
freeipmi --sdr-cache-recreate --quiet-cache --shared-sensors --comma-separated-output --no-header-output \
  >"$work/freeipmi.out" 2>"$work/freeipmi.err" || fail "ipmi-sensors: $(cat "$work/freeipmi.err")"

python3 - "$work" <<'EOF' || fail "the readers disagree (above)"
import sys
work = sys.argv[1]
ok = True
def check(cond, what):
    global ok
    if not cond:
        print("mismatch: " + what, file=sys.stderr)
        ok = False

records, sensors = [], []
for line in open(work + "/ours", encoding="utf-8", errors="surrogateescape"):
    line = line.rstrip("\n")
    if line.startswith("record "):
        _, rid, rtype, data = line.split(" ", 3)
        records.append((int(rid), int(rtype, 16), bytes.fromhex(data)))
    elif line.startswith("sensor "):
        head, idstring, name = line.split("\t")
        _, rid, number, shared = head.split(" ")
        sensors.append((int(rid), int(number, 16), shared == "1", idstring, name))
check(len(records) > 10 and len(sensors) > 10, "our reader found %d records, %d sensors" % (len(records), len(sensors)))
check([r[0] for r in records] == list(range(1, 2 * len(records), 2)), "record IDs %s" % [r[0] for r in records])

# ipmitool's dump is every record's bytes, one after the other.
dump = open(work + "/dump", "rb").read()
check(dump == b"".join(r[2] for r in records), "ipmitool sdr dump differs from our records")

# ipmitool names a record by its ID string; it does not list a shared
# record's sensors one by one, so it shows the ID string at the first number.
expected = []
seen = set()
for rid, number, shared, idstring, name in sensors:
    if shared:
        if rid in seen:
            continue
        seen.add(rid)
        expected.append((number, idstring))
    else:
        expected.append((number, name))
theirs = []
for line in open(work + "/elist", encoding="utf-8", errors="surrogateescape"):
    fields = [f.strip() for f in line.split("|")]
    if len(fields) >= 5 and fields[1].endswith("h") and "MC @" not in fields[4] and "FRU @" not in fields[4]:
        theirs.append((int(fields[1][:-1], 16), fields[0]))
check(theirs == expected, "ipmitool sdr elist all: %s, ours: %s" % (theirs, expected))

# ipmi-sensors names each shared sensor "ID-STRING MODIFIER" (with a space
# where the modifier is appended); it lists sensors that have readings, not
# the event-only ones.
event_only = {r[0] for r in records if r[1] == 0x03}
ours_fi = set()
for rid, number, shared, idstring, name in sensors:
    if rid in event_only:
        continue
    ours_fi.add((rid, idstring + " " + name[len(idstring):] if shared else name))
theirs_fi = set()
for line in open(work + "/freeipmi.out"):
    fields = line.rstrip("\n").split(",")
    theirs_fi.add((int(fields[0]), fields[1]))
check(theirs_fi == ours_fi, "ipmi-sensors: %s, ours: %s" % (sorted(theirs_fi), sorted(ours_fi)))
print("ok: %d records, %d sensors agree with ipmitool (elist, dump) and ipmi-sensors" % (len(records), len(sensors)))
sys.exit(0 if ok else 1)
EOF

# ---- the library's cache
# qeld holds the controller's Get Device ID answer already; so does this test.
deviceid="00 $(ipmi raw 0x06 0x01 | tr -s ' \n' '  ' | sed 's/^ //; s/ $//')"
cache=$work/cache/sdr
cached() { "$view" --socket "$sock" --cache "$cache" --device-id "$deviceid"; }
cached >"$work/cold" || fail "cold load failed"
grep -q '^load controller ' "$work/cold" || fail "the cold load did not read the controller: $(grep ^load "$work/cold")"
[ -s "$cache/repository.sdr" ] || fail "no cache file written"
ctl clear-requests
cached >"$work/warm" || fail "warm load failed"
grep -q '^load cache 1 ' "$work/warm" || fail "the warm load was not one request: $(grep ^load "$work/warm")"
[ "$(ctl requests | wc -l)" = 1 ] || fail "the controller saw $(ctl requests | wc -l) requests for a warm load"
diff <(grep -v '^load\|^note' "$work/cold") <(grep -v '^load\|^note' "$work/warm") >/dev/null ||
  fail "the cache gives other records than the controller"
echo "ok: warm cache: one request ($(ctl requests | sed 's/.*netfn \(..\) cmd \(..\).*/netfn \1 cmd \2/'))"

ctl set sdr-rename 0x01 '"CPU0 Temp"'
cached >"$work/renamed" || fail "load after the rename failed"
grep -q '^load controller ' "$work/renamed" || fail "the renamed sensor was taken from the cache"
grep -q $'\tCPU0 Temp$' "$work/renamed" || fail "the new name is not read"
grep -q '^note SDR cache .*the repository changed' "$work/renamed" || fail "no note of the change"
ipmi sdr elist all | grep -q '^CPU0 Temp ' || fail "ipmitool does not see the new name"
ctl set sensor 0x90 temperature '"DIMM Temp"' unit=celsius uc=85 reading=40
cached >"$work/added" || fail "load after the addition failed"
grep -q $'\tDIMM Temp$' "$work/added" || fail "the added sensor is not read"
grep -q '^load controller ' "$work/added" || fail "the added sensor was taken from the cache"
echo "ok: a renamed and an added sensor are read again"

# ---- a controller that refuses reads over 16 bytes (0xCA)
ctl set sdr-max-read 16
rm -rf "$cache"
cached >"$work/small" || fail "load with 16-byte reads failed"
grep -q '^load controller [0-9]* 16$' "$work/small" || fail "not read in 16-byte pieces: $(grep ^load "$work/small")"
diff <(grep '^record' "$work/added") <(grep '^record' "$work/small") >/dev/null ||
  fail "16-byte reads give other records"
ipmi sdr dump "$work/dump16" >/dev/null 2>&1 || fail "ipmitool sdr dump with 16-byte reads failed"
python3 - "$work" <<'EOF' || fail "ipmitool's 16-byte dump differs from our records"
import sys
work = sys.argv[1]
ours = b"".join(bytes.fromhex(l.split(" ", 3)[3]) for l in open(work + "/small") if l.startswith("record "))
sys.exit(0 if open(work + "/dump16", "rb").read() == ours else 1)
EOF
echo "ok: 16-byte reads (0xCA above): the same records for us and ipmitool"
ctl shutdown
wait "$pid" || true
pid=
echo "PASS"

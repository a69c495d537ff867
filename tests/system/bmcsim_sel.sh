#!/usr/bin/env bash
# The simulated controller's System Event Log read by IPMI tools written by
# others: ipmitool (sel info, list, get, clear, time, raw Add SEL Entry) and
# FreeIPMI's ipmi-sel (the list and --info), through the stand-in /dev/ipmi0.
# They must see the entries, record IDs (non-consecutive here) and times the
# controller holds, in a circular log and in one that stops when full.
#
#   bmcsim_sel.sh QEL-BMCSIM LIBQELSIM-PRELOAD.SO
set -euo pipefail
bmcsim=$1
preload=$2

fail() {
  echo "FAIL: $*" >&2
  [ -s "${work:-/nonexistent}/bmcsim.err" ] && { echo "--- qel-bmcsim stderr:" >&2; cat "$work/bmcsim.err" >&2; }
  exit 1
}

for tool in ipmitool ipmi-sel; do
  command -v "$tool" >/dev/null ||
    fail "$tool is not installed; scripts/install-deps.sh installs it (Debian packages ipmitool, freeipmi-tools)"
done

work=$(mktemp -d /tmp/qelselXXXXXX)
sock=$work/bmc.sock
pid=
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill "$pid"; wait "$pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
ipmi() { QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmitool -I open "$@"; }
# The controller has no sensor repository: ipmi-sel names sensors by number.
fsel() {
  QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmi-sel --driver-type=OPENIPMI --ignore-sdr-cache \
    --sdr-cache-directory="$work" "$@"
}
# The value behind "Name    :" in a tool's listing.
field() { awk -F': ' -v name="$1" '$1 ~ "^ *"name" *$" { sub(/ +$/, "", $2); print $2; exit }'; }
# ipmitool's sel list: the record IDs (hex, as printed), one line.
ids() { awk -F'|' '{ gsub(/ /, "", $1); printf "%s ", $1 }' | sed 's/ $//'; }
# ipmi-sel's comma-separated list: the record IDs (decimal), one line.
fids() { awk -F, '{ printf "%s ", $1 }' | sed 's/ $//'; }

# A preloaded record with its own ID (0x0010) and time (2026-02-15 17:44:39
# UTC); records added later get IDs in steps of 3.
cat >"$work/bmc.conf" <<'EOF'
sel-capacity 6
sel-mode circular
sel-id-step 3
sel-record 10 00 02 07 06 92 69 20 00 04 01 30 01 57 40 3c
EOF

mkfifo "$work/ready"
"$bmcsim" --socket "$sock" --config "$work/bmc.conf" --ready-fd 3 3>"$work/ready" 2>"$work/bmcsim.err" &
pid=$!
read -r line <"$work/ready" || true
[ "$line" = ready ] || fail "qel-bmcsim did not get ready"

# ---- sel info on the preloaded log
ipmi sel info >"$work/info" || fail "ipmitool sel info"
[ "$(field Version <"$work/info")" = "1.5 (v1.5, v2 compliant)" ] || fail "version: $(cat "$work/info")"
[ "$(field Entries <"$work/info")" = 1 ] || fail "entries: $(cat "$work/info")"
[ "$(field "Free Space" <"$work/info")" = "80 bytes" ] || fail "free space: $(cat "$work/info")"
[ "$(field Overflow <"$work/info")" = false ] || fail "overflow: $(cat "$work/info")"
echo "ok: ipmitool sel info: 1 entry, 80 bytes free, no overflow"

# ---- three ways in: Add SEL Entry (raw), system software's Platform Event,
# the controller's own records (ctl)
added=$(ipmi raw 0x0a 0x44 0xaa 0xbb 0x02 0 0 0 0 0x20 0x00 0x04 0x01 0x31 0x01 0x59 0x50 0x46 | tr -s ' \n' ' ')
[ "$added" = " 13 00 " ] || fail "Add SEL Entry answered '$added', expected record ID 0x0013"
ctl advance 61000 >/dev/null
# "boot completed" from software ID 0x41, as the agent sends it.
ipmi raw 0x04 0x02 0x41 0x04 0x1f 0x00 0x6f 0x01 0xff 0xff >/dev/null || fail "Platform Event refused"
ctl sel add-many 2
ipmi sel list >"$work/list" 2>/dev/null || fail "ipmitool sel list"
[ "$(ids <"$work/list")" = "10 13 16 19 1c" ] || fail "ipmitool lists IDs '$(ids <"$work/list")': $(cat "$work/list")"
grep -q '^ *10 | 02/15/26 | 17:44:39 UTC | Temperature #0x30' "$work/list" || fail "preloaded record: $(cat "$work/list")"
grep -q '^ *13 | 01/01/26 | 00:00:00 UTC | Temperature #0x31' "$work/list" || fail "added record: $(cat "$work/list")"
grep -q '^ *16 | 01/01/26 | 00:01:01 UTC | OS Boot | C: boot completed' "$work/list" ||
  fail "the Platform Event is not in the log: $(cat "$work/list")"
echo "ok: ipmitool sel list: IDs 10 13 16 19 1c with the controller's times"

ipmi sel get 0x16 >"$work/get" 2>"$work/get.err" || fail "ipmitool sel get 0x16"
[ "$(field "Generator ID" <"$work/get")" = 0041 ] || fail "generator: $(cat "$work/get")"
[ "$(field "Sensor Type" <"$work/get")" = "OS Boot" ] || fail "sensor type: $(cat "$work/get")"
[ "$(field "Event Data" <"$work/get")" = 01ffff ] || fail "event data: $(cat "$work/get")"
echo "ok: ipmitool sel get 0x16: generator 0041, OS Boot, 01ffff"

fsel --comma-separated-output --no-header-output >"$work/fsel" 2>"$work/fsel.err" || fail "ipmi-sel: $(cat "$work/fsel.err")"
[ "$(fids <"$work/fsel")" = "16 19 22 25 28" ] || fail "ipmi-sel lists IDs '$(fids <"$work/fsel")': $(cat "$work/fsel")"
grep -q '^16,Feb-15-2026,17:44:39,' "$work/fsel" || fail "ipmi-sel's preloaded record: $(cat "$work/fsel")"
grep -q '^22,Jan-01-2026,00:01:01,.*OS Boot' "$work/fsel" || fail "ipmi-sel's boot event: $(cat "$work/fsel")"
fsel --info >"$work/finfo" || fail "ipmi-sel --info"
[ "$(field "Number of log entries" <"$work/finfo")" = 5 ] || fail "ipmi-sel --info: $(cat "$work/finfo")"
[ "$(field "Free space remaining" <"$work/finfo")" = "16 bytes" ] || fail "ipmi-sel --info: $(cat "$work/finfo")"
echo "ok: ipmi-sel: IDs 16 19 22 25 28 (decimal), same times; --info 5 entries, 16 bytes free"

# ---- circular: three more records; the sixth fits, the others overwrite the
# oldest two
ctl sel add-many 3
ipmi sel info >"$work/info"
[ "$(field Entries <"$work/info")" = 6 ] || fail "entries after the wrap: $(cat "$work/info")"
[ "$(field Overflow <"$work/info")" = true ] || fail "overflow after the wrap: $(cat "$work/info")"
[ "$(field "Percent Used" <"$work/info")" = "100%" ] || fail "percent used: $(cat "$work/info")"
ipmi sel list >"$work/list" 2>/dev/null
[ "$(ids <"$work/list")" = "16 19 1c 1f 22 25" ] || fail "after the wrap ipmitool lists '$(ids <"$work/list")'"
fsel --info >"$work/finfo"
[ "$(field "Events dropped due to lack of space" <"$work/finfo")" = Yes ] || fail "ipmi-sel --info: $(cat "$work/finfo")"
echo "ok: circular: 6 entries, oldest two overwritten (IDs 16 .. 25), overflow seen by both tools"

# ---- a controller that refuses whole records: the tools say so (our reader
# reads such a controller in pieces)
ctl set sel-max-read 8
if ipmi sel get 0x16 >"$work/get" 2>&1; then fail "a whole read should be refused: $(cat "$work/get")"; fi
grep -q "Cannot return number of requested data bytes" "$work/get" || fail "0xCA not seen: $(cat "$work/get")"
ctl set sel-max-read 16
echo "ok: sel-max-read 8: ipmitool gets 0xCA for a whole record"

# ---- SEL time: Set SEL Time moves the clock that stamps records
ipmi raw 0x0a 0x49 0x00 0x00 0x00 0x6a >/dev/null || fail "Set SEL Time"
[ "$(ipmi sel time get)" = "$(date -u -d @$((0x6a000000)) '+%m/%d/%y %H:%M:%S UTC')" ] ||
  fail "sel time get: $(ipmi sel time get)"
ctl sel add 00 00 02 00 00 00 00 41 00 04 20 00 6f 03 ff ff
ipmi sel get 0x28 >"$work/get" 2>"$work/get.err" || fail "ipmitool sel get 0x28"
grep -q "Timestamp *: $(date -u -d @$((0x6a000000)) '+%m/%d/%y')" "$work/get" || fail "timestamp: $(cat "$work/get")"
echo "ok: Set SEL Time: sel time get and the next record say $(date -u -d @$((0x6a000000)) '+%F %T')"

# ---- clear: the erase takes the controller a second
ipmi sel clear >"$work/clear" || fail "ipmitool sel clear"
ctl sel dump | grep -q '^erase in-progress$' || fail "the erase should take time: $(ctl sel dump | head -12)"
ctl advance 1000 >/dev/null
ctl sel dump | grep -q '^erase idle$' || fail "the erase should be over"
ipmi sel info >"$work/info"
[ "$(field Entries <"$work/info")" = 0 ] || fail "entries after clear: $(cat "$work/info")"
[ "$(field Overflow <"$work/info")" = false ] || fail "overflow after clear: $(cat "$work/info")"
[ "$(field "Last Del Time" <"$work/info")" != "Not Available" ] || fail "no erase time: $(cat "$work/info")"
echo "ok: ipmitool sel clear: erase in progress, then 0 entries, overflow cleared"

# ---- stop when full
ctl set sel-mode stop-when-full
ctl set sel-capacity 3
ctl sel add-many 3
if ipmi raw 0x0a 0x44 0 0 0x02 0 0 0 0 0x20 0 4 1 1 1 0x57 0x40 0x3c >"$work/add" 2>&1; then
  fail "a full log took a record: $(cat "$work/add")"
fi
grep -q "rsp=0x80" "$work/add" || fail "Add SEL Entry to a full log: $(cat "$work/add")"
ipmi sel info >"$work/info"
[ "$(field Entries <"$work/info")" = 3 ] || fail "entries when full: $(cat "$work/info")"
[ "$(field "Free Space" <"$work/info")" = "0 bytes" ] || fail "free space when full: $(cat "$work/info")"
[ "$(field Overflow <"$work/info")" = true ] || fail "overflow when full: $(cat "$work/info")"
fsel --comma-separated-output --no-header-output >"$work/fsel"
[ "$(fids <"$work/fsel")" = "43 46 49" ] || fail "ipmi-sel lists '$(fids <"$work/fsel")' when full"
fsel --info >"$work/finfo"
[ "$(field "Events dropped due to lack of space" <"$work/finfo")" = Yes ] || fail "ipmi-sel --info: $(cat "$work/finfo")"
echo "ok: stop-when-full: Add SEL Entry answers 0x80, 3 entries kept, overflow seen by both tools"

fsel --clear >/dev/null || fail "ipmi-sel --clear"
ctl advance 1000 >/dev/null
fsel --info >"$work/finfo"
[ "$(field "Number of log entries" <"$work/finfo")" = 0 ] || fail "after ipmi-sel --clear: $(cat "$work/finfo")"
echo "ok: ipmi-sel --clear empties the log"

ctl shutdown
wait "$pid" || fail "qel-bmcsim ended with status $?"
pid=
echo "PASS"

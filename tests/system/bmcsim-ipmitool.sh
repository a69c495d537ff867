#!/usr/bin/env bash
# ipmitool, an IPMI decoder written by others, reads the shared simulated
# controller through the stand-in /dev/ipmi0 (the preload library) and must
# agree with the controller's own bytes and with what the library gets
# (qelctl). Also drives the controller from the shell as a script would:
# readiness without sleeping, ctl commands, faults, clean shutdown.
#
#   bmcsim-ipmitool.sh QEL-BMCSIM QELCTL LIBQELSIM-PRELOAD.SO
set -euo pipefail
bmcsim=$1
qelctl=$2
preload=$3

fail() {
  echo "FAIL: $*" >&2
  [ -s "${work:-/nonexistent}/bmcsim.err" ] && { echo "--- qel-bmcsim stderr:" >&2; cat "$work/bmcsim.err" >&2; }
  exit 1
}

if ! command -v ipmitool >/dev/null; then
  echo "FAIL: ipmitool is not installed; scripts/install-deps.sh installs it (Debian package ipmitool)" >&2
  exit 1
fi

work=$(mktemp -d /tmp/qelipmiXXXXXX)
sock=$work/bmc.sock
pid=
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill "$pid"; wait "$pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }
ipmi() { QEL_BMCSIM_SOCKET=$sock LD_PRELOAD=$preload ipmitool -I open "$@"; }
# The value behind "Name    :" in ipmitool's listing.
field() { awk -F': ' -v name="$1" '$1 ~ "^"name" *$" { print $2; exit }'; }
# Whitespace-separated hex bytes on one line.
bytes() { tr -s ' \n' '  ' | sed 's/^ //; s/ $//'; }

cat >"$work/bmc.conf" <<'EOF'
# the controller of this test: firmware 2.13, manufacturer 32473
deviceid 00 20 81 02 13 02 bf d9 7e 00 34 12 00 00 00 47
EOF

# Start and wait for "ready" on descriptor 3 (a fifo): no sleeping.
mkfifo "$work/ready"
"$bmcsim" --socket "$sock" --config "$work/bmc.conf" --pidfile "$work/bmc.pid" --ready-fd 3 \
  3>"$work/ready" 2>"$work/bmcsim.err" &
pid=$!
read -r line <"$work/ready" || true
[ "$line" = ready ] || fail "qel-bmcsim did not get ready"
[ "$(cat "$work/bmc.pid")" = "$pid" ] || fail "pid file does not hold $pid"

# ---- mc info decodes the description's device id
ipmi mc info >"$work/mcinfo" 2>"$work/mcinfo.err" || fail "ipmitool mc info: $(cat "$work/mcinfo.err")"
fw=$(field "Firmware Revision" <"$work/mcinfo")
mfr=$(field "Manufacturer ID" <"$work/mcinfo")
[ "$fw" = 2.13 ] || fail "ipmitool reads firmware '$fw', the bytes say 2.13"
[ "$mfr" = 32473 ] || fail "ipmitool reads manufacturer '$mfr', the bytes say 32473"
echo "ok: ipmitool mc info: firmware $fw, manufacturer $mfr"

# ---- the same bytes three ways: controller dump, library (qelctl), ipmitool raw
dumped=$(ctl dump | sed -n 's/^bytes //p')
library=$("$qelctl" --bmc-socket "$sock" device-id | sed -n 's/^raw: //p')
[ "$library" = "$dumped" ] || fail "qelctl got '$library', the controller holds '$dumped'"
raw=$(ipmi raw 0x06 0x01 | bytes)
# ipmitool prints the data behind the completion code.
[ "00 $raw" = "$library" ] || fail "ipmitool raw printed '$raw', the library got '$library'"
echo "ok: Get Device ID bytes agree: $library"

# QEL_BMCSIM_SOCKET works for qelctl as well
viaEnv=$(QEL_BMCSIM_SOCKET=$sock "$qelctl" device-id | sed -n 's/^raw: //p')
[ "$viaEnv" = "$library" ] || fail "qelctl with QEL_BMCSIM_SOCKET got '$viaEnv'"

# ---- the controller's default identity, set over the socket: "1.07" and 32473
ctl deviceid 00 20 81 01 07 02 bf d9 7e 00 34 12 00 00 00 47
ipmi mc info >"$work/mcinfo" 2>"$work/mcinfo.err" || fail "ipmitool mc info: $(cat "$work/mcinfo.err")"
fw=$(field "Firmware Revision" <"$work/mcinfo")
[ "$fw" = 1.07 ] || fail "after ctl deviceid ipmitool reads firmware '$fw', expected 1.07"
[ "$(field "Manufacturer ID" <"$work/mcinfo")" = 32473 ] || fail "manufacturer changed"
[ "$(ipmi raw 0x06 0x01 | bytes)" = "20 81 01 07 02 bf d9 7e 00 34 12 00 00 00 47" ] || fail "raw after ctl deviceid"
echo "ok: ctl deviceid: ipmitool reads firmware $fw"

# ---- the traffic of every process in one place
ctl requests >"$work/requests"
grep -q '^addr 0c ch 0f sa 00 lun 0 msgid 0 netfn 06 cmd 01 data$' "$work/requests" \
  || fail "ipmitool's first Get Device ID (msgid 0) is not in the recorded traffic"
count=$(grep -c 'netfn 06 cmd 01' "$work/requests")
[ "$count" -ge 6 ] || fail "only $count Get Device ID requests recorded"
ctl clear-requests
[ -z "$(ctl requests)" ] || fail "requests not cleared"
echo "ok: $count Get Device ID requests recorded from ipmitool and qelctl"

# ---- faults reach ipmitool through the stand-in device. ipmitool sends Get
# Device ID itself when it opens the device, so the faults name a command
# only the raw call sends.
ctl fault completion-code d5 for 30 77
if ipmi raw 0x30 0x77 >"$work/out" 2>"$work/err"; then fail "raw succeeded despite completion code d5"; fi
grep -q 'rsp=0xd5' "$work/err" || fail "ipmitool did not report rsp=0xd5: $(cat "$work/err")"
ctl fault select-fails EIO for 30 77
if ipmi raw 0x30 0x77 >"$work/out" 2>"$work/err"; then fail "raw succeeded despite a failing select"; fi
grep -q 'I/O Error: Input/output error' "$work/err" || fail "ipmitool did not report the select failure: $(cat "$work/err")"
# Without real time-outs a missing answer is a time-out at once, for ipmitool too.
ctl fault no-reply for 30 77
if ipmi raw 0x30 0x77 >"$work/out" 2>"$work/err"; then fail "raw succeeded without an answer"; fi
grep -q 'No data available' "$work/err" || fail "ipmitool did not time out: $(cat "$work/err")"
ipmi raw 0x06 0x01 >/dev/null || fail "the controller did not recover after the faults"
echo "ok: completion code, select and time-out faults reach ipmitool"

# ---- control from the shell
[ "$(ctl advance 300000)" = "clock-ms 300000" ] || fail "ctl advance"
[ "$(ctl now)" = "clock-ms 300000" ] || fail "ctl now"
ctl dump | grep -qx 'clock-ms 300000' || fail "dump does not show the clock"
ctl set real-timeouts off
if ctl fault sometimes 2>"$work/err"; then fail "an unknown fault was accepted"; fi
grep -q "unknown fault 'sometimes'" "$work/err" || fail "no clear text for an unknown fault"
if ctl set bogus 1 2>"$work/err"; then fail "an unknown keyword was accepted"; fi
grep -q "unknown keyword 'bogus'" "$work/err" || fail "no clear text for an unknown keyword"
# Into a file first: grep -q leaves at the first match, and a list longer
# than one stdio buffer would then end ctl with SIGPIPE (a failure under pipefail).
ctl keywords >"$work/keywords" || fail "ctl keywords failed"
grep -q '^deviceid' "$work/keywords" || fail "ctl keywords lacks deviceid"
echo "ok: ctl advance, dump, set, keywords"

# ---- clean shutdown
ctl shutdown
wait "$pid" || fail "qel-bmcsim exited with $?"
pid=
[ ! -e "$sock" ] || fail "socket left behind"
[ ! -e "$work/bmc.pid" ] || fail "pid file left behind"
echo "ok: shutdown removed socket and pid file"

# The controller's event log (SEL) on QEMU's own BMC through the kernel's
# driver, in two boots. The first finds out what QEMU's BMC does with its log
# (ipmitool alone) and leaves a 1 s hard-reset watchdog running; the second
# finds the watchdog's record in the log and runs the agent's SEL forwarder
# (qeld --daemon) on it: its first start passes over a record of the earlier
# boot, every other record reaches syslog once, with the text ipmitool gives
# the same record, the controller's bytes, its timestamp and the priority of
# its severity, across restarts of the agent; --sel-replay forwards the
# whole log once; records logged after a clear are forwarded.
#
# What QEMU's BMC does with its SEL (the checks below fail when it changes):
# - Get SEL Info: version 0x51, empty at power-on, 2048 bytes free; of the
#   optional commands only Reserve SEL (no Delete SEL Entry: 0xC1).
# - Record IDs start at 0x0000, which Get SEL Entry also takes for "the first
#   record", and count up; a clear starts them at 0 again.
# - Reserve SEL answers reservation 0x0000.
# - Add SEL Entry stamps the record with the SEL time (the host's clock),
#   whatever timestamp it was given.
# - Clear SEL leaves the last erase time at "never" (0xFFFFFFFF).
# - Set SEL Time moves the clock as far the other way as asked; the offset
#   survives the guest's reset.
# - Its watchdog expires only with an action: with "no action" the
#   countdown falls to 0 without an expiration flag or a record. A hard
#   reset logs one record that survives the reset: Watchdog 2 (0x23),
#   sensor 0, sensor-specific, asserted, event data c1 04 ff (Hard Reset;
#   SMS/OS), named "Watchdog" by QEMU's SDR. Whether it honours "don't log" is not known:
#   finding out takes another reset.
. /qel/lib.sh

# ---------------------------------------------------------------- helpers
# Little-endian 16 and 32-bit numbers from hex bytes.
le16() { printf '%d' "0x$2$1"; }
le32() { printf '%d' "0x$4$3$2$1"; }
# Get SEL Info, 14 bytes without the completion code.
sel_info() { ipmitool raw 0x0a 0x40 2>/dev/null | bytes; }
info_entries() { set -- $(sel_info); le16 "$2" "$3"; }
info_addition() { set -- $(sel_info); le32 "$6" "$7" "$8" "$9"; }
info_erase() { set -- $(sel_info); shift 9; le32 "$1" "$2" "$3" "$4"; }
# Get SEL Time as seconds since the epoch.
sel_time() { set -- $(ipmitool raw 0x0a 0x48 2>/dev/null | bytes); le32 "$1" "$2" "$3" "$4"; }
# Get SEL Entry ID (decimal): "next-lo next-hi" and the 16 record bytes.
sel_entry() {
  ipmitool raw 0x0a 0x43 0x00 0x00 "$(printf '0x%02x' $(($1 & 255)))" "$(printf '0x%02x' $(($1 >> 8)))" \
    0x00 0xff 2>/dev/null | bytes
}
# The completion code of a raw request, "00" when it succeeded.
ccode() {
  out=$(ipmitool raw "$@" 2>&1) && { echo 00; return; }
  echo "$out" | sed -n 's/.*rsp=0x\([0-9a-f]*\).*/\1/p' | head -1
}
# Add SEL Entry of a system event record: GEN-LO GEN-HI SENSOR-TYPE SENSOR
# EVENT-DIR/TYPE DATA1 DATA2 DATA3 (hex without 0x). Prints the record ID the
# controller gave it (decimal).
add_event() {
  set -- $(ipmitool raw 0x0a 0x44 0x00 0x00 0x02 0x00 0x00 0x00 0x00 "0x$1" "0x$2" 0x04 \
    "0x$3" "0x$4" "0x$5" "0x$6" "0x$7" "0x$8" 2>/dev/null | bytes)
  [ $# -eq 2 ] && le16 "$1" "$2"
}
# The log's records, one a line: the record ID (decimal) and the record's
# 16 bytes, read forward by the next IDs (one Get SEL Entry a record).
sel_dump() {
  id=0 n=0
  while [ "$n" -lt 200 ]; do
    set -- $(sel_entry "$id")
    [ $# -eq 18 ] || return 0
    next=$(le16 "$1" "$2")
    echo "$(le16 "$3" "$4") $(shift 2; echo "$*")"
    [ "$next" -eq 65535 ] && return 0
    id=$next n=$((n + 1))
  done
}
sel_ids() { sel_dump | cut -d' ' -f1; }
# Set Watchdog Timer: USE ACTION COUNTDOWN-TENTHS (hex bytes without 0x for
# use and action), then Reset Watchdog Timer to start it.
watchdog_run() {
  ipmitool raw 0x06 0x24 "0x$1" "0x$2" 0x00 0x3e "$(printf '0x%02x' $(($3 & 255)))" \
    "$(printf '0x%02x' $(($3 >> 8)))" >/dev/null 2>&1 && ipmitool raw 0x06 0x22 >/dev/null 2>&1
}
expired() { [ "$(ipmi_wd_flags)" != 0x00 ]; }

if [ "$(ipmi_wd_flags)" = 0x00 ]; then
echo "== first boot: QEMU's BMC: Get SEL Info, SEL time, Add, Get, Reserve, Delete, Clear"
info=$(sel_info)
echo "Get SEL Info: $info"
set -- $info
check_eq "SEL version" 51 "$1"
check_eq "records at power-on" 0 "$(le16 "$2" "$3")"
check_eq "free bytes at power-on (128 records)" 2048 "$(le16 "$4" "$5")"
check_eq "operation support: Reserve SEL only" 02 "${14}"
ipmitool sel info 2>&1
t=$(sel_time); now=$(date +%s)
echo "SEL time $t ($(ipmitool sel time get 2>/dev/null)), guest clock $now"
check "the SEL time is the guest's clock within 5 s ($((t - now)) s)" between $((t - now)) -5 5
reservation=$(ipmitool raw 0x0a 0x42 2>/dev/null | bytes)
check_eq "Reserve SEL: reservation" "00 00" "$reservation"

# A record added with timestamp 0: the controller gives it its own.
before=$(sel_time)
first=$(add_event 20 00 01 30 01 59 5a 55)
check_eq "the first record's ID" 0 "$first"
entry=$(sel_entry "$first")
echo "Get SEL Entry $first: $entry"
set -- $entry
stamp=$(le32 "$6" "$7" "$8" "$9")
check "Add SEL Entry replaces timestamp 0 by the SEL time ($stamp, SEL time $before)" \
  between "$stamp" "$before" $((before + 5))
check_eq "Add SEL Entry keeps the event bytes" "20 00 04 01 30 01 59 5a 55" "$(echo "$entry" | cut -d' ' -f10-18)"
check_eq "the only record is the last: its next ID is 0xFFFF" "ff ff" "$(echo "$entry" | cut -d' ' -f1-2)"
second=$(add_event 20 00 0c 40 6f 00 ff ff)
echo "second record ID $second"
check_eq "record IDs count up" $((first + 1)) "$second"
check_eq "the first record now leads to the second" \
  "$(printf '%02x %02x' $((second & 255)) $((second >> 8)))" "$(sel_entry "$first" | cut -d' ' -f1-2)"
check_eq "Get SEL Entry 0xFFFF is the last record" "$(sel_entry "$second")" "$(sel_entry 65535)"
check_eq "Get SEL Entry of a record that is not there: 0xCB" cb \
  "$(ccode 0x0a 0x43 0x00 0x00 0x34 0x12 0x00 0xff)"
# A piece of a record, as readers that cannot take 16 bytes ask for it.
set -- $(ipmitool raw 0x0a 0x42 2>/dev/null | bytes)
piece=$(ipmitool raw 0x0a 0x43 "0x$1" "0x$2" "$(printf '0x%02x' $((second & 255)))" \
  "$(printf '0x%02x' $((second >> 8)))" 0x0a 0x06 2>/dev/null | bytes)
check_eq "Get SEL Entry of 6 bytes at offset 10" "ff ff $(sel_entry "$second" | cut -d' ' -f13-18)" "$piece"
check_eq "Delete SEL Entry: not supported" c1 "$(ccode 0x0a 0x46 "0x$1" "0x$2" \
  "$(printf '0x%02x' $((first & 255)))" "$(printf '0x%02x' $((first >> 8)))")"
echo "ipmitool sel elist:"; ipmitool sel elist 2>&1
echo "qelctl sel list:"; qelctl sel list 2>&1
erase_before=$(info_erase)
check "ipmitool sel clear" ipmitool sel clear
wait_until 50 test "$(info_entries)" -eq 0
check_eq "entries after the clear" 0 "$(info_entries)"
erase_after=$(info_erase)
echo "last erase before the clear $erase_before, after $erase_after"
# QEMU's BMC does not keep the time of a clear: the log's erase time
# stays "never", so a reader cannot tell a clear from it.
check_eq "Clear SEL leaves the last erase time at 'never'" 4294967295 "$erase_after"
check_eq "the first record after the clear has ID 0 again" 0 "$(add_event 20 00 08 50 6f 01 ff ff)"

echo "== QEMU's BMC: a watchdog with no action"
entries=$(info_entries)
check "watchdog: SMS/OS, no action, 1 s, started" watchdog_run 04 00 10
ran_out() { [ "$(ipmi_wd 'Present Countdown')" = "0.0 sec" ]; }
check "no action: the countdown runs out" wait_until 50 ran_out
check_eq "no action: no expiration flag" 0x00 "$(ipmi_wd_flags)"
echo "no action: records before $entries, after $(info_entries)"
ipmitool sel elist 2>&1
ipmitool mc watchdog get 2>&1
check "ipmitool sel clear" ipmitool sel clear
wait_until 50 test "$(info_entries)" -eq 0
check_eq "entries after the clear" 0 "$(info_entries)"

echo "== first boot: a record of 'an earlier boot', and the controller's clock an hour ahead"
# The agent's first start forwards what the controller logged since the
# host booted, by the controller's clock less the host's uptime and a
# margin of 300 s: a record from just before this reset would count as
# this boot's. With the controller's clock an hour ahead from here on, the
# record logged now lies an hour before the next boot by that clock.
o_id=$(add_event 20 00 02 20 01 52 40 48)
check_eq "the earlier boot's record (a voltage under its lower critical threshold)" 0 "$o_id"
# QEMU's BMC turns Set SEL Time around: it keeps (its clock - the time
# given) as the offset and adds it, so its clock moves as far the other
# way. Asked for an hour behind, it runs an hour ahead.
set -- $(sel_time)
behind=$(($1 - 3600))
check "Set SEL Time, an hour behind" ipmitool raw 0x0a 0x49 $(printf '0x%02x 0x%02x 0x%02x 0x%02x' \
  $((behind & 255)) $(((behind >> 8) & 255)) $(((behind >> 16) & 255)) $(((behind >> 24) & 255)))
diff=$(($(sel_time) - $(date +%s)))
check "QEMU's BMC turned it around: the SEL time is an hour ahead of the guest's clock ($diff s)" between "$diff" 3590 3610

echo "== first boot: a 1 s hard-reset watchdog, left alone"
# Only a watchdog with an action expires on QEMU's BMC, and the only action
# the guest lives through is a reset: its record is looked for in the
# second boot.
check "watchdog: SMS/OS, hard reset, 1 s, started" watchdog_run 04 01 10
await_reset
fi

echo "== second boot: the watchdog's expiry in the log"
check_eq "the watchdog ran out: ipmitool expiration flags" 0x10 "$(ipmi_wd_flags)"
check "ipmitool mc watchdog off" ipmitool mc watchdog off
echo "Get SEL Info: $(sel_info)"
ipmitool sel elist 2>&1
wd_entries=$(info_entries)
check_eq "records in the log: the earlier boot's and the watchdog's" 2 "$wd_entries"
check "the SEL time is still an hour ahead of the guest's clock" between $(($(sel_time) - $(date +%s))) 3590 3610
wd_entry=$(sel_entry 1)
echo "Get SEL Entry 1: $wd_entry"
ipmitool sel get 1 2>&1
# The record's system event part: generator 0x20 (the BMC), event message
# format 0x04, sensor type 0x23 (Watchdog 2), sensor 0, event type 0x6f
# (sensor-specific), asserted, offset 1 (Hard Reset).
check_eq "the watchdog's record" "20 00 04 23 00 6f" "$(echo "$wd_entry" | cut -d' ' -f10-15)"

if ! command -v qeld >/dev/null; then
  echo "NOT RUN: the forwarder (qeld is not in this guest)"
  finish; exit
fi
if ! qeld --help 2>&1 | grep -q -- --sel-replay; then
  echo "NOT RUN: the forwarder (this qeld does not run it yet: no --sel-replay)"
  finish; exit
fi

# ---------------------------------------------------------------- forwarder
# The priority each record must reach syslog with, by record ID: a list of
# "ID PRIORITY" lines, PRIORITY as syslogd names it.
expected=
expect() { [ -n "$1" ] && expected="$expected$1 $2
"; }
forwarded() { grep -c 'SEL record 0x' /tmp/messages; }
has_record() { grep -q "SEL record $(printf '0x%04X' "$1"): " /tmp/messages; }
daemon_gone() { ! kill -0 "$pid"; }
start_qeld() {
  check "qeld --daemon exits 0" qeld --daemon --no-stderr --test-time-scale=60
  pid=$(cat /var/run/qeld.pid 2>/dev/null)
  check "the pid file names a live daemon ($pid)" kill -0 "$pid"
}
stop_qeld() {
  kill -TERM "$pid"
  check "SIGTERM ends the daemon" wait_until 150 daemon_gone
}

echo "== the forwarder: the first start forwards what the controller logged since this boot"
syslogd -O /tmp/messages
expect 0 none
if [ "$wd_entries" = 2 ]; then
  wd_id=1
  expect "$wd_id" crit
else
  # Without the watchdog's record: one of ours.
  wd_id=$(add_event 20 00 01 30 01 59 5a 55); expect "$wd_id" crit
fi
start_qeld
check "the watchdog's record reaches syslog" wait_until 300 has_record "$wd_id"
stop_qeld

echo "== the forwarder: records logged while the agent was down reach syslog at its start"
# A temperature over its upper critical threshold (reading 0x5a over 0x55),
# a correctable ECC error, a failed power supply, the OS booted (from system
# software, generator 0x41).
t_id=$(add_event 20 00 01 30 01 59 5a 55); expect "$t_id" crit
e_id=$(add_event 20 00 0c 40 6f 00 ff ff); expect "$e_id" warn
p_id=$(add_event 20 00 08 50 6f 01 ff ff); expect "$p_id" crit
b_id=$(add_event 41 00 1f 60 6f 01 ff ff); expect "$b_id" info
start_qeld
check "the records logged before the start reach syslog" wait_until 300 has_record "$b_id"
# The agent logs the OS boot itself (sensor 0, from system software 0x41),
# once a boot, at its first start.
a_id=$(sel_dump | awk '$9 $10 $11 $12 $13 $14 $15 == "4100041f006f01" { print $1 }')
check_eq "the agent's boot record, once" 1 "$(echo "$a_id" | grep -c .)"
expect "$a_id" info
echo "== the forwarder: a record logged while the agent runs"
# The temperature back under its threshold: the deassertion.
d_id=$(add_event 20 00 01 30 81 59 50 55); expect "$d_id" info
check "the record logged while it runs reaches syslog" wait_until 300 has_record "$d_id"
stop_qeld

echo "== the forwarder: records logged while the agent is down reach syslog at its next start"
# The power supply back, and a correctable ECC error on another sensor.
q_id=$(add_event 20 00 08 50 ef 01 ff ff); expect "$q_id" info
f_id=$(add_event 20 00 0c 41 6f 00 ff ff); expect "$f_id" warn
start_qeld
check "the records logged while it was down reach syslog" wait_until 300 has_record "$f_id"
# Records come in log order: a record forwarded again would stand before the
# last new one, so nothing more can come.
stop_qeld
check "the state file is kept" test -s /var/lib/qeld/sel-state

echo "== each record once, with ipmitool's text, the controller's bytes and its priority"
# ipmitool's texts where they are not the forwarder's (beyond letter case):
# - ipmitool shortens the standard's state texts, dropping the sensor type
#   the line already names ("Failure detected" on a Power Supply sensor) and
#   explanations ("Correctable ECC" for "Correctable ECC / other correctable
#   memory error");
# - it leaves out the number of sensor 0 ("OS Boot" for the agent's own
#   boot record, sensor 0x00);
# - for a sensor QEMU's SDR repository names (the watchdog's, "Watchdog") it
#   writes the name after its own short type name "Watchdog2" and leaves out
#   the number, where the forwarder writes the standard's type name, the
#   name and the number: "Watchdog 2 Watchdog (#0x00)".
# The forwarder's line goes on after ipmitool's with the event data it
# decodes ("; trigger reading 0x5A, threshold 0x55").
ours_from_ipmitool() {
  sed -e 's/^Watchdog2 Watchdog:/Watchdog 2 Watchdog (#0x00):/' \
      -e 's/^\([A-Za-z ]*\):/\1 #0x00:/' \
      -e 's/^\(Power Supply #0x..: \)Failure detected/\1Power Supply Failure detected/' \
      -e 's/: Correctable ECC,/: Correctable ECC \/ other correctable memory error,/'
}
lower() { tr 'A-Z' 'a-z'; }
elist=$(ipmitool sel elist 2>/dev/null)
echo "$elist"
qlist=$(qelctl sel list 2>&1)
echo "$qlist"
dump=$(sel_dump)
ids=$(echo "$dump" | cut -d' ' -f1)
check_eq "records in the log" "$(echo "$expected" | grep -c .)" "$(echo "$ids" | grep -c .)"
check_eq "SEL record lines in syslog, one per record but the earlier boot's" $(($(echo "$ids" | grep -c .) - 1)) \
  "$(forwarded)"
for id in $ids; do
  hid=$(printf '0x%04X' "$id")
  lines=$(grep "SEL record $hid: " /tmp/messages)
  want=$(echo "$expected" | awk -v id="$id" '$1 == id { print $2 }')
  if [ "$want" = none ]; then
    check_eq "record $hid, from before this boot: syslog lines" 0 "$(echo "$lines" | grep -c .)"
    continue
  fi
  check_eq "record $hid: syslog lines" 1 "$(echo "$lines" | grep -c .)"
  ours=$(echo "$lines" | sed -n 's/.*SEL record 0x....: \(.*\) RECORD_ID=.*/\1/p')
  row=$(echo "$elist" | awk -F'|' -v id="$(printf '%x' "$id")" '{ g = $1; gsub(/ /, "", g) } tolower(g) == id')
  col() { echo "$row" | awk -F'|' -v n="$1" '{ v = $n; sub(/^ +/, "", v); sub(/ +$/, "", v); print v }'; }
  theirs=$(echo "$(col 4): $(col 5), $(col 6)" | ours_from_ipmitool)
  case "$(echo "$ours" | lower)" in
    "$(echo "$theirs" | lower)"*) pass "record $hid: '$ours' says what ipmitool says: '$(col 4) | $(col 5) | $(col 6)'" ;;
    *) fail "record $hid: '$ours' is not ipmitool's '$(col 4) | $(col 5) | $(col 6)'" ;;
  esac
  raw=$(echo "$lines" | sed -n 's/.* RAW=\([0-9A-Fa-f]*\).*/\1/p' | lower)
  check_eq "record $hid: RAW= holds the controller's bytes" \
    "$(echo "$dump" | awk -v id="$id" '$1 == id { $1 = ""; gsub(/ /, ""); print }')" "$raw"
  stamp=$(echo "$lines" | sed -n 's/.* TIMESTAMP=\([^ ]*\).*/\1/p')
  # ipmitool writes "11/26/26 | 09:54:20 UTC": a two-digit year.
  when=$(echo "$(col 2) $(col 3)" | awk '{ split($1, d, "/"); if (length(d[3]) == 2) d[3] = "20" d[3]
                                           printf "%s-%s-%sT%s", d[3], d[1], d[2], $2 }')
  case "$stamp" in
    "$when"*) pass "record $hid: TIMESTAMP=$stamp is ipmitool's $(col 2) $(col 3)" ;;
    *) fail "record $hid: TIMESTAMP=$stamp is not ipmitool's $(col 2) $(col 3)" ;;
  esac
  prio=$(echo "$lines" | sed -n 's/.* [a-z0-9]*\.\([a-z]*\) [^ ]*: SEL record.*/\1/p')
  [ "$prio" = warning ] && prio=warn
  check_eq "record $hid: syslog priority" "$want" "$prio"
  listed=$(echo "$qlist" | sed -n "s/^$hid  [^ ]*  [^ ]*  //p")
  check_eq "record $hid: the text of qelctl sel list" "$ours" "$listed"
done

echo "== the forwarder: --sel-replay forwards the whole log once"
before=$(forwarded)
check "qeld --daemon --sel-replay exits 0" qeld --daemon --no-stderr --test-time-scale=60 --sel-replay
pid=$(cat /var/run/qeld.pid 2>/dev/null)
replayed() { [ "$(forwarded)" -ge $((before + $(echo "$ids" | grep -c .))) ]; }
check "every record of the log reaches syslog again" wait_until 300 replayed
stop_qeld
start_qeld
# A record after the restart: one forwarded again would stand before it.
r_id=$(add_event 20 00 0c 42 6f 00 ff ff)
check "the record logged after the replay reaches syslog" wait_until 300 has_record "$r_id"
stop_qeld
check_eq "record $(printf '0x%04X' "$r_id") after the replay: syslog lines" 1 \
  "$(grep -c "SEL record $(printf '0x%04X' "$r_id"): " /tmp/messages)"
for id in $ids; do
  hid=$(printf '0x%04X' "$id")
  want=2; [ "$id" = 0 ] && want=1
  check_eq "record $hid after the replay and a restart: syslog lines" "$want" \
    "$(grep -c "SEL record $hid: " /tmp/messages)"
done

echo "== the forwarder across a clear, which QEMU's BMC does not date"
# The last forwarded record disappears without the erase time moving: the
# agent cannot tell a clear from a log that wrapped, and goes on with the
# records newer than the last one it forwarded, which is every record
# logged after the clear.
start_qeld
check "ipmitool sel clear" ipmitool sel clear
wait_until 50 test "$(info_entries)" -eq 0
# A processor's internal error, which QEMU's BMC numbers 0 again.
c_id=$(add_event 20 00 07 70 6f 00 ff ff)
check_eq "the first record after the clear" 0 "$c_id"
after_clear() { grep -q 'SEL record 0x0000: Processor #0x70' /tmp/messages; }
check "the record logged after the clear reaches syslog" wait_until 300 after_clear
stop_qeld
check_eq "the record after the clear: syslog lines" 1 "$(grep -c 'SEL record 0x0000: Processor #0x70' /tmp/messages)"
# Each record twice but the earlier boot's (once, by the replay), the one
# after the replay and the one after the clear.
check_eq "SEL record lines in syslog in all" $((2 * $(echo "$ids" | grep -c .) - 1 + 2)) "$(forwarded)"
echo "--- syslog:"
cat /tmp/messages
finish

# The controller's sensors on QEMU's own BMC through the kernel's driver:
# `qelctl --json sensors` against `ipmitool sdr list`, `sdr elist` and
# `-v sdr list`, sensor by sensor. QEMU's BMC holds the SDR repository that
# qemu-sdr.sh wrote: the watchdog, full threshold records (a temperature, a
# fan, 12 V, a two's complement margin) each beside a compact record of the
# same sensor number that makes the sensor exist for QEMU, a discrete power
# supply, a fan whose scanning is off, a full record QEMU has no sensor for
# and a compact one past its table (both answered 0xCB).
#
# Every sensor must agree:
# - both list it, under the same name and sensor number;
# - both list as many sensors, the number the repository holds;
# - a value ipmitool prints ("45 degrees C", "12.03 Volts"; three decimals in
#   the verbose view): ours rounded to ipmitool's decimals is the same, in
#   the same units, the state its ok/nc/cr/nr;
# - a hex byte ipmitool prints for a sensor it does not convert (ipmitool
#   1.8.19 prints the first state byte there, not the reading): a discrete
#   sensor (ours: no reading, no units, states asserted as that byte says,
#   with the texts elist gives them) or a compact threshold record, which
#   has no factors: ours is the raw reading `ipmitool -v sdr list` shows, taken
#   as it is, in the record's units;
# - no reading from ipmitool ("no reading", "disabled", "Not Readable", state
#   "ns"): none from us either, with scanning disabled where ipmitool says
#   "disabled", and no state.
# The full records' values are also checked against what the raw bytes and
# the records make of them, thresholds included (ipmitool shows thresholds
# only from Get Sensor Thresholds, which QEMU's BMC does not implement).
. /qel/lib.sh

if ! command -v qelctl >/dev/null; then
  fail "qelctl is not in the guest"
  finish; exit
fi

echo "== the readings QEMU's sensors are given (Set Sensor Reading)"
set -- $QEMU_SENSORS_RAW
while [ $# -ge 2 ]; do
  check "sensor $1: raw reading $2" ipmitool raw 0x04 0x30 "$(printf '0x%02x' "$1")" 0x01 "$2"
  shift 2
done

echo "== what QEMU's BMC answers beside the readings"
# The completion code of a raw request, "00" when it succeeded.
ccode() {
  out=$(ipmitool raw "$@" 2>&1) && { echo 00; return; }
  echo "$out" | sed -n 's/.*rsp=0x\([0-9a-f]*\).*/\1/p' | head -1
}
check_eq "Get Sensor Reading of sensor 10 (a full record alone): 0xCB" cb "$(ccode 0x04 0x2d 0x0a)"
check_eq "Get Sensor Reading of sensor 25 (past QEMU's 20): 0xCB" cb "$(ccode 0x04 0x2d 0x19)"
check_eq "Get Sensor Thresholds: not implemented (0xC1)" c1 "$(ccode 0x04 0x27 0x01)"

echo "== the three views"
ipmitool sdr list >/tmp/list.out 2>/tmp/list.err; list_rc=$?
ipmitool sdr elist >/tmp/elist.out 2>/tmp/elist.err; elist_rc=$?
ipmitool -v sdr list >/tmp/verbose.out 2>/tmp/verbose.err; verbose_rc=$?
qelctl --json sensors >/tmp/ours.json 2>/tmp/ours.err; ours_rc=$?
echo "--- ipmitool sdr list (status $list_rc):"; cat /tmp/list.out /tmp/list.err
echo "--- ipmitool sdr elist (status $elist_rc):"; cat /tmp/elist.out /tmp/elist.err
echo "--- ipmitool -v sdr list (status $verbose_rc):"; cat /tmp/verbose.out /tmp/verbose.err
echo "--- qelctl sensors:"; qelctl sensors 2>&1
check_eq "ipmitool sdr list exits" 0 "$list_rc"
check_eq "ipmitool sdr elist exits" 0 "$elist_rc"
check_eq "ipmitool -v sdr list exits" 0 "$verbose_rc"
check_eq "qelctl --json sensors exits" 0 "$ours_rc"
[ -s /tmp/ours.err ] && { echo "--- qelctl stderr:"; cat /tmp/ours.err; }

# qelctl's document (pretty-printed, keys in order) as one line per sensor,
# fields separated by "|": name, sensor number, reading ("-" for null),
# units, state, unavailable, scanning_disabled, problem, the states joined
# by ", ", the thresholds (lnc,lc,lnr,unc,uc,unr; null when not readable).
awk '
  function val(line) { sub(/^ *"[a-z_]*": */, "", line); sub(/,$/, "", line); gsub(/^"|"$/, "", line); return line }
  /^    \{$/ { inside = 1; delete f; delete t; states = ""; next }
  inside && /^    \},?$/ {
    r = f["reading"]; if (r == "null") r = "-"
    print f["name"] "|" f["sensor_number"] "|" r "|" f["units"] "|" f["state"] "|" f["unavailable"] "|" \
      f["scanning_disabled"] "|" f["problem"] "|" states "|" t["lower_non_critical"] "," t["lower_critical"] "," \
      t["lower_non_recoverable"] "," t["upper_non_critical"] "," t["upper_critical"] "," t["upper_non_recoverable"]
    inside = 0; next
  }
  inside && /^      "states": \[$/ { instates = 1; next }
  instates && /^      \],?$/ { instates = 0; next }
  instates { s = $0; sub(/^ */, "", s); sub(/,$/, "", s); gsub(/^"|"$/, "", s); states = states (states == "" ? "" : ", ") s; next }
  inside && /^        "[a-z_]*": / { k = $0; sub(/^ *"/, "", k); sub(/".*/, "", k); t[k] = val($0); next }
  inside && /^      "[a-z_]*": / { k = $0; sub(/^ *"/, "", k); sub(/".*/, "", k); f[k] = val($0) }
' /tmp/ours.json >/tmp/ours.txt
echo "--- qelctl --json sensors, one line a sensor (name|number|reading|units|state|unavailable|scanning_disabled|problem|states|thresholds):"
cat /tmp/ours.txt

# rounded VALUE LIKE: VALUE with as many decimals as the number LIKE has.
rounded() {
  awk -v r="$1" -v like="$2" 'BEGIN { i = index(like, "."); d = i ? length(like) - i : 0
    v = sprintf("%." d "f", r); if (v ~ /^-0\.?0*$/) v = substr(v, 2); print v }'
}
# The block of ipmitool's verbose view that names sensor NAME.
verbose_of() {
  awk -v n="$1" '/^Sensor ID *: / { s = $0; sub(/^Sensor ID *: /, "", s); sub(/ \(0x[0-9a-f]*\)$/, "", s); on = (s == n) }
                 on' /tmp/verbose.out
}
check_eq "qelctl's sensors (one a record)" "$QEMU_SENSORS_COUNT" "$(grep -c . /tmp/ours.txt)"
check_eq "ipmitool sdr list's sensors" "$QEMU_SENSORS_COUNT" "$(grep -c '|' /tmp/list.out)"
check_eq "ipmitool sdr elist's sensors" "$QEMU_SENSORS_COUNT" "$(grep -c '|' /tmp/elist.out)"

# Each of our lines with ipmitool's for the same name appended (one awk for
# all, the guest being slow at starting processes): how many sdr list lines
# name it, its value and status there, how many elist lines name it, and
# elist's sensor number and reading or states.
awk -F'|' '
  function trim(v) { sub(/^ +/, "", v); sub(/ +$/, "", v); return v }
  FILENAME == "/tmp/list.out" { n = trim($1); lc[n]++; lv[n] = trim($2); ls[n] = trim($3); next }
  FILENAME == "/tmp/elist.out" { n = trim($1); ec[n]++; en[n] = trim($2); et[n] = trim($5); next }
  { n = $1; print $0 "|" (lc[n] + 0) "|" lv[n] "|" ls[n] "|" (ec[n] + 0) "|" en[n] "|" et[n] }
' /tmp/list.out /tmp/elist.out /tmp/ours.txt >/tmp/joined.txt

echo "== each sensor: qelctl against ipmitool"
status_of() {
  case $1 in nominal) echo ok ;; warning) echo nc ;; critical) echo cr ;; non-recoverable) echo nr ;;
    null) echo ns ;; *) echo "?$1" ;; esac
}
values=0 bytes=0 absent=0
while IFS='|' read -r name number reading units state unavailable scanoff problem states thresholds \
    lcount value status ecount enumber etext; do
  if [ "$lcount" -ne 1 ] || [ "$ecount" -ne 1 ]; then
    fail "$name: ipmitool lists it $lcount times (sdr list), $ecount times (elist)"
    continue
  fi
  check_eq "$name: sensor number as elist gives it" "$enumber" "$(printf '%02Xh' "$number")"
  check_eq "$name: state as ipmitool's status" "$status" "$(status_of "$state")"
  case $value in
    [0-9]*" "* | -[0-9]*" "*)
      # A converted value: ours to ipmitool's decimals, the same units.
      number_text=${value%% *}
      if [ "$reading" = - ]; then
        fail "$name: ipmitool reads '$value', qelctl has no reading (problem: $problem)"
      else
        check_eq "$name: reading to ipmitool's decimals" "$number_text" "$(rounded "$reading" "$number_text")"
      fi
      check_eq "$name: units" "${value#* }" "$units"
      check_eq "$name: elist's reading" "$value" "$etext"
      # ipmitool's verbose view prints the value to three decimals.
      vtext=$(verbose_of "$name" | sed -n 's/^ *Sensor Reading *: \(-\{0,1\}[0-9.]*\) (+\/- [0-9.]*) .*/\1/p')
      check_eq "$name: reading to the decimals of ipmitool -v sdr list ($vtext)" "$vtext" "$(rounded "$reading" "$vtext")"
      values=$((values + 1))
      ;;
    0x[0-9a-f][0-9a-f])
      # A sensor ipmitool does not convert. Its byte here is the sensor's
      # first state byte (Get Sensor Reading's third), not the reading: it
      # says 0x00 for a sensor QEMU reads 0x2D.
      if [ "$units" = null ]; then
        # A discrete sensor: no reading, and states asserted exactly when
        # ipmitool's byte has bits set; their texts as elist names them.
        check_eq "$name: no reading (a discrete sensor)" - "$reading"
        check_eq "$name: states asserted (ipmitool's state byte $value)" \
          "$([ "$value" = 0x00 ] && echo no || echo yes)" "$([ -z "$states" ] && echo no || echo yes)"
        check_eq "$name: asserted states as elist names them" "$etext" "$states"
      else
        # A compact threshold record: no factors, so ipmitool shows the raw
        # reading only in its verbose view; ours is that byte taken as it
        # is (two's complement where the record says so), in the record's units.
        raw=$(verbose_of "$name" | sed -n 's/^ *Sensor Reading *: 0x\([0-9A-Fa-f]*\).*/\1/p')
        check_eq "$name: reading is the raw byte 0x$raw of ipmitool -v sdr list" "$(printf '%d' "0x${raw:-na}" 2>/dev/null)" \
          "$(awk -v r="$reading" 'BEGIN { if (r == "-") print "-"; else printf "%d", (r + 256) % 256 }')"
      fi
      bytes=$((bytes + 1))
      ;;
    "no reading" | disabled | "Not Readable")
      check_eq "$name: no reading (ipmitool: $value)" - "$reading"
      case $value in
        disabled) check_eq "$name: scanning disabled (ipmitool: disabled)" true "$scanoff" ;;
        "no reading") check "$name: a problem told (ipmitool: no reading): $problem" test "$problem" != null ;;
        *) check "$name: scanning disabled or a problem told (ipmitool: Not Readable)" \
             test "$scanoff" = true -o "$problem" != null ;;
      esac
      absent=$((absent + 1))
      ;;
    *) fail "$name: ipmitool's value '$value' is of no known form" ;;
  esac
done </tmp/joined.txt
echo "compared: $values converted values, $bytes raw bytes, $absent sensors without a reading"

echo "== what the full records make of the raw bytes"
echo "$QEMU_SENSORS_EXPECTED" | tr ';' '\n' >/tmp/expected.txt
while IFS='=' read -r name want; do
  [ -n "$name" ] || continue
  got=$(awk -F'|' -v n="$name" '$1 == n { print $3 }' /tmp/ours.txt)
  check "$name: qelctl reads $want ($got)" awk -v a="$got" -v b="$want" \
    'BEGIN { exit !(a != "-" && a - b < 0.0005 && b - a < 0.0005) }'
done </tmp/expected.txt
# The thresholds: ipmitool shows a full record's thresholds only as Get
# Sensor Thresholds gives them, which QEMU's BMC does not implement, so
# ours are checked against what the records hold.
echo "$QEMU_SENSORS_THRESHOLDS" | tr ';' '\n' >/tmp/expected.txt
while IFS='=' read -r name want; do
  [ -n "$name" ] || continue
  got=$(awk -F'|' -v n="$name" '$1 == n { print $10 }' /tmp/ours.txt | awk -F, '{
    for (i = 1; i <= NF; i++) printf "%s%s", (i > 1 ? "," : ""), ($i == "null" ? "-" : sprintf("%.3f", $i)) }')
  check_eq "$name: thresholds lnc,lc,lnr,unc,uc,unr" "$want" "$got"
done </tmp/expected.txt
finish

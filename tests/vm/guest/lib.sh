# Helpers for the guest tests (busybox sh). Every check prints one PASS or
# FAIL line; finish prints the count and fails when any check failed.
passes=0
fails=0
. /qel/boots.sh

pass() { passes=$((passes + 1)); echo "PASS: $*"; }
fail() { fails=$((fails + 1)); echo "FAIL: $*"; }
# check_eq NAME EXPECTED ACTUAL
check_eq() {
  if [ "$2" = "$3" ]; then pass "$1 = '$3'"; else fail "$1: expected '$2', got '$3'"; fi
}
# check NAME COMMAND...: the command succeeds (its output is not shown).
check() {
  name=$1; shift
  if "$@" >/dev/null; then pass "$name"; else fail "$name"; fi
}
finish() {
  echo "checks: $passes passed, $fails failed"
  [ "$fails" -eq 0 ]
}

# The value of KEY in key=value lines on stdin.
# await_reset: the watchdog was armed to reset the machine; report the checks
# so far and the moment, then wait for the reset. The host expects it well
# before the wait ends; a guest that is still here failed.
await_reset() {
  if [ "$fails" -ne 0 ]; then finish; exit 1; fi
  echo "checks before the reset: $passes passed, $fails failed"
  echo "QEL-VM-ARMED uptime=$(cut -d' ' -f1 /proc/uptime)"
  sleep 60
  fail "the watchdog did not reset the machine within 60 s"
  finish
  exit 1
}
kv() { sed -n "s/^$1=//p" | head -1; }
# Hex bytes as one line, single blanks, no leading or trailing blank.
bytes() { tr -s ' \n' '  ' | sed 's/^ //; s/ $//'; }
# The value behind "Label:" in `ipmitool mc watchdog get`, as text.
ipmi_wd() { ipmitool mc watchdog get 2>/dev/null | sed -n "s/^$1: *//p" | head -1; }
# ipmitool's seconds ("28.6 sec") in tenths, the watchdog's own unit.
tenths() { sed -n 's/^\([0-9]*\)\.\([0-9]\) sec$/\1\2/p' | sed 's/^0*\([0-9]\)/\1/'; }
# A number compared: within LOW..HIGH.
between() { [ -n "$1" ] && [ "$1" -ge "$2" ] && [ "$1" -le "$3" ]; }

# dmidecode's string for KEYWORD (-s), read from /dev/mem like the library.
dmi() { dmidecode --no-sysfs -s "$1" 2>/dev/null; }
# The table's physical address as dmidecode found it, as a decimal number.
dmi_table_address() {
  printf '%d' "$(dmidecode --no-sysfs 2>/dev/null | sed -n 's/^Table at \(0x[0-9A-Fa-f]*\)\.$/\1/p')"
}

# Compares QelSmbios's strings with dmidecode's and with what the firmware
# was given (PREFIX_SYS_..., PREFIX_CHASSIS_... of boots.sh).
check_smbios_strings() {
  prefix=$1
  probe=$(qel-vm-probe smbios) || { fail "qel-vm-probe smbios failed"; return; }
  check_eq "System Information structures" 1 "$(echo "$probe" | kv systems)"
  check_eq "System Enclosure structures" 1 "$(echo "$probe" | kv enclosures)"
  for item in system.manufacturer:system-manufacturer:SYS_MANUFACTURER \
              system.product:system-product-name:SYS_PRODUCT \
              system.version:system-version:SYS_VERSION \
              system.serial:system-serial-number:SYS_SERIAL \
              system.sku:system-sku-number:SYS_SKU \
              system.family:system-family:SYS_FAMILY \
              chassis.manufacturer:chassis-manufacturer:CHASSIS_MANUFACTURER \
              chassis.version:chassis-version:CHASSIS_VERSION \
              chassis.serial:chassis-serial-number:CHASSIS_SERIAL \
              chassis.asset:chassis-asset-tag:CHASSIS_ASSET; do
    key=${item%%:*}; rest=${item#*:}; keyword=${rest%%:*}; var=${prefix}_${rest#*:}
    eval "given=\$$var"
    ours=$(echo "$probe" | kv "$key")
    check_eq "QelSmbios $key equals dmidecode -s $keyword" "$(dmi "$keyword")" "$ours"
    check_eq "QelSmbios $key equals the firmware's value" "$given" "$ours"
  done
}
# The expiration flags byte as ipmitool prints it ("0x10").
ipmi_wd_flags() { ipmi_wd 'Timer Expiration Flags' | sed -n 's/.*\(0x[0-9a-fA-F][0-9a-fA-F]\).*/\1/p'; }
# wait_until TENTHS COMMAND...: polls the command every 100 ms until it
# succeeds or TENTHS polls are used up (a bound, not a sleep for a result).
wait_until() {
  n=$1; shift
  while [ "$n" -gt 0 ]; do
    "$@" >/dev/null 2>&1 && return 0
    usleep 100000
    n=$((n - 1))
  done
  "$@" >/dev/null 2>&1
}

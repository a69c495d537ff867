# The blade of smbios-high on a kernel in lockdown (lockdown=integrity, what
# Secure Boot brings): /dev/mem cannot be opened, and the library, shown the
# firmware's tables from /sys/firmware/dmi/tables, decides as it does with
# /dev/mem: the same strings, the same blade and product-line decisions.
. /qel/lib.sh
# dmidecode as an oracle that reads sysfs (lib.sh's dmi reads /dev/mem).
dmi_sysfs() { dmidecode -s "$1" 2>/dev/null; }

echo "== the kernel is locked down and refuses /dev/mem"
[ -e /sys/kernel/security/lockdown ] || mount -t securityfs securityfs /sys/kernel/security 2>/dev/null
check_eq "lockdown state" "none [integrity] confidentiality" "$(cat /sys/kernel/security/lockdown 2>/dev/null)"
if dd if=/dev/mem of=/dev/null bs=16 count=1 skip=61440 2>/dev/null; then
  fail "/dev/mem could be read"
else
  pass "/dev/mem refused"
fi
check_eq "QelSmbios through /dev/mem finds nothing" 0 "$(qel-vm-probe smbios | kv systems)"

echo "== the firmware's tables from sysfs"
probe=$(qel-vm-probe --firmware-tables smbios) || fail "qel-vm-probe --firmware-tables smbios failed"
for item in system.product:system-product-name:SYS_PRODUCT system.serial:system-serial-number:SYS_SERIAL \
            system.family:system-family:SYS_FAMILY chassis.serial:chassis-serial-number:CHASSIS_SERIAL; do
  key=${item%%:*}; rest=${item#*:}; keyword=${rest%%:*}; var=LOCKDOWN_${rest#*:}
  eval "given=\$$var"
  ours=$(echo "$probe" | kv "$key")
  check_eq "QelSmbios $key equals dmidecode -s $keyword" "$(dmi_sysfs "$keyword")" "$ours"
  check_eq "QelSmbios $key equals the firmware's value" "$given" "$ours"
done
blade=$(qel-vm-probe --firmware-tables blade)
check_eq "QelBladeInfo bladeSystem (as with /dev/mem)" 1 "$(echo "$blade" | kv bladeSystem)"
check_eq "QelBladeInfo acSystem (as with /dev/mem)" 1 "$(echo "$blade" | kv acSystem)"

echo "== qelctl host reads the tables from sysfs too"
if command -v qelctl >/dev/null; then
  jv() { sed -n "s/^ *\"$1\": *\"\{0,1\}\([^\",]*\)\"\{0,1\},\{0,1\}\$/\1/p" | head -1; }
  host=$(qelctl --json host) || fail "qelctl --json host failed"
  check_eq "qelctl smbios_source" sysfs "$(echo "$host" | jv smbios_source)"
  check_eq "qelctl system_product_name equals the firmware's" "$LOCKDOWN_SYS_PRODUCT" "$(echo "$host" | jv system_product_name)"
  check_eq "qelctl system_serial_number equals the firmware's" "$LOCKDOWN_SYS_SERIAL" "$(echo "$host" | jv system_serial_number)"
fi

echo "== the agent on the locked-down kernel"
if command -v qeld >/dev/null; then
  check "qeld --once (the host agent, tables from sysfs) exits 0" qeld --once --no-stderr
else
  fail "qeld is not in the guest"
fi

finish

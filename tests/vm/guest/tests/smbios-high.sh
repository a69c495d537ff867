# A big SMBIOS table that the firmware puts above 1 MiB, where the library
# must map /dev/mem instead of reading it; a blade of the ALDERCROFT line.
. /qel/lib.sh

echo "== SMBIOS: a big table above 1 MiB, mapped from /dev/mem"
addr=$(dmi_table_address)
echo "table at $(printf '0x%08x' "$addr")"
check "the table lies above 1 MiB" between "$addr" 1048576 2147483647
check_smbios_strings SMBIOS_HIGH

echo "== ALDERCROFT and blade decisions"
blade=$(qel-vm-probe blade)
check_eq "QelBladeInfo bladeSystem (one enclosure, serials differ)" 1 "$(echo "$blade" | kv bladeSystem)"
check_eq "QelBladeInfo acSystem (family ALDERCROFT)" 1 "$(echo "$blade" | kv acSystem)"
id=$(qel-vm-probe identity)
check_eq "identity acSystem (family ALDERCROFT)" 1 "$(echo "$id" | kv acSystem)"
# An ALDERCROFT machine never sends Get Device ID: nothing failed, nothing filled.
check_eq "identity ipmiAvailable (never asked)" 1 "$(echo "$id" | kv ipmiAvailable)"
check_eq "identity firmwareVersion (never asked)" "0.0.0000" "$(echo "$id" | kv firmwareVersion)"

finish

# A hard-reset watchdog that nobody resets resets the machine. The first boot
# arms it and waits; the host sees a second boot, whose run finds the
# expiration flag (it survives the reset) and ends the test.
. /qel/lib.sh

wd=$(qel-vm-probe watchdog get)
if [ "$(echo "$wd" | kv expired)" != 1 ]; then
  echo "== first boot: arm a ${WATCHDOG_FIRE_COUNTDOWN}00 ms hard-reset watchdog and leave it alone"
  check_eq "fresh watchdog: ipmitool expiration flags" "0x00" "$(ipmi_wd_flags)"
  check "set hard reset" qel-vm-probe watchdog set 1 0 "$WATCHDOG_FIRE_COUNTDOWN" 0
  check "reset (starts the countdown)" qel-vm-probe watchdog reset
  await_reset
fi

echo "== second boot: the watchdog fired"
check_eq "QelIpmiWatchdog expired" 1 "$(echo "$wd" | kv expired)"
check_eq "ipmitool expiration flags: SMS/OS" "0x10" "$(ipmi_wd_flags)"
check_eq "ipmitool timer use" "SMS/OS (0x04)" "$(ipmi_wd 'Watchdog Timer Use')"
check_eq "ipmitool action" "Hard Reset (0x01)" "$(ipmi_wd 'Watchdog Timer Action')"
# set() clears this timer use's expiration flag.
check "stop" qel-vm-probe watchdog stop
check_eq "after stop: QelIpmiWatchdog expired" 0 "$(qel-vm-probe watchdog get | kv expired)"
check_eq "after stop: ipmitool expiration flags" "0x00" "$(ipmi_wd_flags)"

echo "== ALDERCROFT in the product name only, no blade"
blade=$(qel-vm-probe blade)
check_eq "QelBladeInfo acSystem (product name $WATCHDOG_FIRE_SYS_PRODUCT)" 1 "$(echo "$blade" | kv acSystem)"
check_eq "QelBladeInfo bladeSystem (one enclosure, same serial)" 0 "$(echo "$blade" | kv bladeSystem)"
check_eq "identity acSystem" 1 "$(qel-vm-probe identity | kv acSystem)"

finish

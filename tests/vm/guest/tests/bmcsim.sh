# Against the project's simulated controller (qel-bmcsim) through the guest
# kernel's KCS driver: transport, identity with every field given, the
# watchdog step by step, and a hard reset that the simulator's watchdog asks
# QEMU for. The first boot arms the watchdog and waits; the second finds the
# expiration flag (the controller outlives the machine's reset). The host
# checks the simulator's recorded traffic and state afterwards.
. /qel/lib.sh

# A completion code and data through QelIpmi against ipmitool's view of the
# same exchange ("rsp=0x.." on failure, the data bytes on success).
same_as_ipmitool() {
  ours=$(qel-vm-probe raw "$@") || { fail "qel-vm-probe raw $* failed"; return; }
  theirs=$(ipmitool raw "$@" 2>&1 | grep -v 'IANA PEN')
  code=$(echo "$theirs" | sed -n 's/.*rsp=0x\([0-9a-f]*\).*/\1/p')
  if [ -n "$code" ]; then theirs=$code; else theirs="00 $(echo "$theirs" | bytes)"; fi
  theirs=${theirs% }
  check_eq "netfn/cmd $* through QelIpmi equals ipmitool" "$theirs" "$ours"
}

wd=$(qel-vm-probe watchdog get)
if [ "$(echo "$wd" | kv expired)" = 1 ]; then
  echo "== second boot: the simulator's watchdog reset the machine"
  check_eq "QelIpmiWatchdog expired" 1 "$(echo "$wd" | kv expired)"
  check_eq "ipmitool expiration flags: SMS/OS" "0x10" "$(ipmi_wd_flags)"
  check_eq "ipmitool action" "Hard Reset (0x01)" "$(ipmi_wd 'Watchdog Timer Action')"
  check "stop" qel-vm-probe watchdog stop
  check_eq "after stop: QelIpmiWatchdog expired" 0 "$(qel-vm-probe watchdog get | kv expired)"
  check_eq "after stop: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
  finish
  exit
fi

echo "== transport: Get Device ID through QelIpmi and through ipmitool"
ours=$(qel-vm-probe raw 0x06 0x01) || fail "qel-vm-probe raw 0x06 0x01 failed"
check_eq "Get Device ID equals what the simulator was given" "$BMCSIM_DEVICE_ID" "$ours"
same_as_ipmitool 0x06 0x01
same_as_ipmitool 0x06 0x25
same_as_ipmitool 0x3a 0x55 0x01
same_as_ipmitool 0x2e 0xf5 0xd9 0x7e 0x00 0x12 0x00

echo "== identity: every field decoded from the simulator's answer"
id=$(qel-vm-probe identity) || fail "qel-vm-probe identity failed"
check_eq "identity ipmiAvailable" 1 "$(echo "$id" | kv ipmiAvailable)"
check_eq "identity acSystem" 0 "$(echo "$id" | kv acSystem)"
check_eq "identity manufacturerId" "$BMCSIM_MANUFACTURER_ID" "$(echo "$id" | kv manufacturerId)"
check_eq "identity productId" "$BMCSIM_PRODUCT_ID" "$(echo "$id" | kv productId)"
check_eq "identity versionString" "$BMCSIM_VERSION_STRING" "$(echo "$id" | kv versionString)"
check_eq "identity firmwareVersion" "$BMCSIM_FIRMWARE_VERSION" "$(echo "$id" | kv firmwareVersion)"
check_eq "identity firmwareRevision" "$BMCSIM_FIRMWARE_REVISION" "$(echo "$id" | kv firmwareRevision)"
check_eq "identity oemFeatureAvailable" 0 "$(echo "$id" | kv oemFeatureAvailable)"

echo "== watchdog: set, reset and stop, each checked with ipmitool mc watchdog get"
check "set hard reset, 60 s" qel-vm-probe watchdog set 1 0 600 0
check_eq "after set: ipmitool timer use" "SMS/OS (0x04)" "$(ipmi_wd 'Watchdog Timer Use')"
check_eq "after set: ipmitool action" "Hard Reset (0x01)" "$(ipmi_wd 'Watchdog Timer Action')"
check_eq "after set: ipmitool initial countdown" "600" "$(ipmi_wd 'Initial Countdown' | tenths)"
check_eq "after set: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
check "reset" qel-vm-probe watchdog reset
check_eq "after reset: ipmitool says running" "Started/Running" "$(ipmi_wd 'Watchdog Timer Is')"
wd=$(qel-vm-probe watchdog get)
check_eq "after reset: QelIpmiWatchdog running" 1 "$(echo "$wd" | kv running)"
first=$(ipmi_wd 'Present Countdown' | tenths)
sleep 2
second=$(ipmi_wd 'Present Countdown' | tenths)
check "after reset: the countdown falls in real time ($first -> $second)" between "$second" $((first - 30)) $((first - 10))
check "set power down, pre-timeout 10 s, keep running" qel-vm-probe watchdog set 2 10 600 1
check_eq "after second set: ipmitool action" "Power Down (0x02)" "$(ipmi_wd 'Watchdog Timer Action')"
check_eq "after second set: ipmitool pre-timeout interval" "10 seconds" "$(ipmi_wd 'Pre-timeout interval')"
check_eq "after second set: still running" "Started/Running" "$(ipmi_wd 'Watchdog Timer Is')"
check "stop" qel-vm-probe watchdog stop
check_eq "after stop: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
check_eq "after stop: QelIpmiWatchdog running" 0 "$(qel-vm-probe watchdog get | kv running)"

echo "== watchdog: a 3 s hard-reset timer reset every second for 8 s does not fire"
check "set hard reset, 3 s" qel-vm-probe watchdog set 1 0 30 0
check "reset" qel-vm-probe watchdog reset
keep=$(qel-vm-probe watchdog keepalive 8 1000)
check_eq "keepalive: no failed reset" 0 "$(echo "$keep" | kv failures)"
check "stop" qel-vm-probe watchdog stop
check_eq "after keepalive: ipmitool expiration flags" "0x00" "$(ipmi_wd_flags)"

echo "== benchmark: Get Device ID round trips through the simulator"
b=$(qel-vm-probe bench 200)
check_eq "QelIpmi bench: no failed exchange" 0 "$(echo "$b" | kv failures)"
echo "BENCH bmcsim_qelipmi_us_per_exchange=$(echo "$b" | kv us_per_exchange)"

echo "== first boot: arm a ${BMCSIM_COUNTDOWN}00 ms hard-reset watchdog and leave it alone"
check "set hard reset" qel-vm-probe watchdog set 1 0 "$BMCSIM_COUNTDOWN" 0
check "reset (starts the countdown)" qel-vm-probe watchdog reset
if [ "$fails" -ne 0 ]; then finish; exit 1; fi
echo "checks before the reset: $passes passed, $fails failed"
echo "QEL-VM-ARMED uptime=$(cut -d' ' -f1 /proc/uptime)"
sleep 60
fail "the watchdog did not reset the machine within 60 s"
finish
exit 1

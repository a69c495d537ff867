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

# The vendor IANA number of this build, least significant byte first, as
# the OEM commands carry it.
iana=$(sed -n 's/.*qel\.iana=\([0-9]*\).*/\1/p' /proc/cmdline)
iana=${iana:-32473}
IANA="$(printf '0x%02x 0x%02x 0x%02x' $((iana & 0xff)) $(((iana >> 8) & 0xff)) $(((iana >> 16) & 0xff)))"
# Configuration-space variable ID, read through QelIpmi: its length byte and
# value bytes as hex.
confspace() {
  qel-vm-probe raw 0x2e 0xe0 $IANA 0x01 0x00 $(printf '0x%02x 0x%02x' $(($1 & 0xff)) $(($1 >> 8))) \
    | cut -d' ' -f5-
}

echo "== the agent: qeld --daemon through the kernel's driver against the simulator"
if ! command -v qeld >/dev/null; then
  echo "NOT RUN: qeld is not in this guest (no qeld target in the build)"
elif ! grep -q 'qel\.agent=1' /proc/cmdline; then
  echo "NOT RUN: the simulator lacks the description keywords for the agent's controller"
else
  syslogd -O /tmp/messages
  # The dummy module's interface becomes the blade's first NIC port.
  ip link set dummy0 address "$BMCSIM_NIC1"
  ip addr add "$BMCSIM_IPV4/24" dev dummy0
  ip -6 addr add "$BMCSIM_IPV6/64" dev dummy0
  ip link set dummy0 up
  check "qeld --daemon exits 0" qeld --daemon --no-stderr
  pid=$(cat /var/run/qeld.pid 2>/dev/null)
  check "the pid file names a live daemon ($pid)" kill -0 "$pid"
  # The first pass programs the watchdog from the configuration space and
  # publishes the addresses; wait for their effect, bounded.
  wd_programmed() { ipmitool mc watchdog get 2>/dev/null | grep -q "Initial Countdown: *${BMCSIM_SOFT_WATCHDOG}.0 sec"; }
  check "the daemon programs the watchdog: ${BMCSIM_SOFT_WATCHDOG} s" wait_until 300 wd_programmed
  check_eq "the daemon's watchdog: no action" "No action (0x00)" "$(ipmi_wd 'Watchdog Timer Action')"
  check_eq "the daemon's watchdog: running" "Started/Running" "$(ipmi_wd 'Watchdog Timer Is')"
  address_published() { [ "$(confspace 0x20a)" = "04 $BMCSIM_IPV4_HEX" ]; }
  check "configuration-space address 1 becomes $BMCSIM_IPV4" wait_until 300 address_published
  check_eq "configuration-space address 2 (no second interface)" "04 00 00 00 00" "$(confspace 0x20b)"
  kill -TERM "$pid"
  daemon_gone() { ! kill -0 "$pid"; }
  check "SIGTERM ends the daemon" wait_until 150 daemon_gone
  check "the pid file is gone" sh -c "! test -e /var/run/qeld.pid"
  check_eq "after the daemon: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
  check_eq "after the daemon: agent connection status 2" "01 02" "$(confspace 0x2300)"
  echo "--- syslog:"
  cat /tmp/messages
fi

echo "== transport: Get Device ID through QelIpmi and through ipmitool"
ours=$(qel-vm-probe raw 0x06 0x01) || fail "qel-vm-probe raw 0x06 0x01 failed"
check_eq "Get Device ID equals what the simulator was given" "$BMCSIM_DEVICE_ID" "$ours"
same_as_ipmitool 0x06 0x01
same_as_ipmitool 0x06 0x25
same_as_ipmitool 0x3a 0x55 0x01
same_as_ipmitool 0x2e 0xf5 $IANA 0x12 0x00

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
await_reset

# Against QEMU's own BMC (ipmi-bmc-sim behind the KCS interface) through the
# kernel's IPMI driver: transport, identity, watchdog, the SMBIOS table below
# 1 MiB, the ALDERCROFT and blade decisions, and the round-trip benchmark.
. /qel/lib.sh

echo "== transport: Get Device ID through QelIpmi and through ipmitool"
ours=$(qel-vm-probe raw 0x06 0x01) || fail "qel-vm-probe raw 0x06 0x01 failed"
theirs=$(ipmitool raw 0x06 0x01 2>/dev/null | bytes) || fail "ipmitool raw 0x06 0x01 failed"
check_eq "Get Device ID completion code" "00" "${ours%% *}"
check_eq "Get Device ID data through QelIpmi equals ipmitool's" "$theirs" "${ours#* }"
# The premise of the identity check below: QEMU leaves out the auxiliary
# firmware revision, 11 data bytes behind the completion code.
check_eq "Get Device ID response length (completion code included)" 12 "$(echo "$ours" | wc -w)"

echo "== transport: commands QEMU's BMC does not know come back with its completion code"
iana=$(printf '%d' 32473)
iana0=$(printf '0x%02x' $((iana & 0xff))); iana1=$(printf '0x%02x' $(((iana >> 8) & 0xff)))
iana2=$(printf '0x%02x' $(((iana >> 16) & 0xff)))
for req in "0x2e 0xe0 $iana0 $iana1 $iana2 0x01" "0x2e 0xf5 $iana0 $iana1 $iana2 0x12 0x00" \
           "0x30 0x18" "0x06 0x42 0x01"; do
  ours=$(qel-vm-probe raw $req) || fail "qel-vm-probe raw $req failed"
  theirs=$(ipmitool raw $req 2>&1 | sed -n 's/.*rsp=0x\([0-9a-f]*\).*/\1/p')
  check_eq "completion code of netfn/cmd $req through QelIpmi equals ipmitool's" "$theirs" "$ours"
  check_eq "completion code of netfn/cmd $req" "c1" "$ours"
done

echo "== identity: QelIpmiDeviceIdData against a 12-byte Get Device ID"
id=$(qel-vm-probe identity) || fail "qel-vm-probe identity failed"
check_eq "identity acSystem" 0 "$(echo "$id" | kv acSystem)"
check_eq "identity ipmiAvailable" 0 "$(echo "$id" | kv ipmiAvailable)"
check_eq "identity manufacturerId" "" "$(echo "$id" | kv manufacturerId)"
check_eq "identity productId" "" "$(echo "$id" | kv productId)"
check_eq "identity versionString" "" "$(echo "$id" | kv versionString)"
check_eq "identity firmwareVersion" "0.0.0000" "$(echo "$id" | kv firmwareVersion)"
check_eq "identity firmwareRevision" "0x0000" "$(echo "$id" | kv firmwareRevision)"
check_eq "identity oemFeatureAvailable" 0 "$(echo "$id" | kv oemFeatureAvailable)"

echo "== qelctl --json identity and watchdog against ipmitool"
if command -v qelctl >/dev/null; then
  # A value of the pretty-printed document: "  \"key\": value," lines.
  jv() { sed -n "s/^ *\"$1\": *\"\{0,1\}\([^\",]*\)\"\{0,1\},\{0,1\}\$/\1/p" | head -1; }
  mi() { ipmitool mc info 2>/dev/null | sed -n "s/^$1 *: *//p" | head -1; }
  qid=$(qelctl --json identity) || fail "qelctl --json identity failed"
  check_eq "qelctl device_id equals ipmitool's" "$(mi 'Device ID')" "$(echo "$qid" | jv device_id)"
  check_eq "qelctl firmware_revision equals ipmitool's" "$(mi 'Firmware Revision')" "$(echo "$qid" | jv firmware_revision)"
  check_eq "qelctl ipmi_version equals ipmitool's" "$(mi 'IPMI Version')" "$(echo "$qid" | jv ipmi_version)"
  check_eq "qelctl manufacturer_id equals ipmitool's" "$(mi 'Manufacturer ID')" "$(echo "$qid" | jv manufacturer_id)"
  qwd=$(qelctl --json watchdog get) || fail "qelctl --json watchdog get failed"
  check_eq "qelctl running equals ipmitool's" "$([ "$(ipmi_wd 'Watchdog Timer Is')" = Stopped ] && echo false || echo true)" "$(echo "$qwd" | jv running)"
  check_eq "qelctl initial_countdown equals ipmitool's" "$(ipmi_wd 'Initial Countdown' | sed 's/ sec$//')" "$(echo "$qwd" | jv initial_countdown)"
else
  fail "qelctl is not in the guest"
fi

echo "== watchdog: set, reset and stop, each checked with ipmitool mc watchdog get"
wd=$(qel-vm-probe watchdog get)
check_eq "fresh watchdog: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
check_eq "fresh watchdog: not expired" 0 "$(echo "$wd" | kv expired)"

check "set hard reset, 60 s" qel-vm-probe watchdog set 1 0 600 0
wd=$(qel-vm-probe watchdog get)
check_eq "after set: ipmitool timer use" "SMS/OS (0x04)" "$(ipmi_wd 'Watchdog Timer Use')"
check_eq "after set: ipmitool action" "Hard Reset (0x01)" "$(ipmi_wd 'Watchdog Timer Action')"
check_eq "after set: ipmitool initial countdown" "600" "$(ipmi_wd 'Initial Countdown' | tenths)"
check_eq "after set: ipmitool pre-timeout interval" "0 seconds" "$(ipmi_wd 'Pre-timeout interval')"
check_eq "after set: QelIpmiWatchdog timeoutAction" 1 "$(echo "$wd" | kv timeoutAction)"
check_eq "after set: QelIpmiWatchdog initialCountdown" 600 "$(echo "$wd" | kv initialCountdown)"
check_eq "after set: ipmitool says stopped (set clears don't-stop)" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"

check "reset" qel-vm-probe watchdog reset
first=$(ipmi_wd 'Present Countdown' | tenths)
check "after reset: ipmitool present countdown within 50..60 s ($first)" between "$first" 500 600
sleep 2
second=$(ipmi_wd 'Present Countdown' | tenths)
# QEMU's BMC never reports the running bit; a falling countdown shows it runs.
check "after reset: the countdown falls ($first -> $second)" between "$second" 1 $((first - 1))
ours=$(qel-vm-probe watchdog get | kv presentCountdown)
check "after reset: QelIpmiWatchdog presentCountdown ($ours) agrees with ipmitool" \
  between "$ours" 1 "$second"

check "set power down, pre-timeout 10 s, keep running" qel-vm-probe watchdog set 2 10 600 1
check_eq "after second set: ipmitool action" "Power Down (0x02)" "$(ipmi_wd 'Watchdog Timer Action')"
check_eq "after second set: ipmitool pre-timeout interval" "10 seconds" "$(ipmi_wd 'Pre-timeout interval')"
check_eq "after second set: QelIpmiWatchdog preTimeoutInterval" 10 \
  "$(qel-vm-probe watchdog get | kv preTimeoutInterval)"

check "stop" qel-vm-probe watchdog stop
first=$(ipmi_wd 'Present Countdown' | tenths)
sleep 1
second=$(ipmi_wd 'Present Countdown' | tenths)
check_eq "after stop: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
check_eq "after stop: the countdown stands still" "$first" "$second"
check_eq "after stop: ipmitool action kept" "Power Down (0x02)" "$(ipmi_wd 'Watchdog Timer Action')"

echo "== watchdog: a 3 s hard-reset timer reset every second for 8 s does not fire"
check "set hard reset, 3 s" qel-vm-probe watchdog set 1 0 30 0
check "reset" qel-vm-probe watchdog reset
keep=$(qel-vm-probe watchdog keepalive 8 1000)
check_eq "keepalive: no failed reset" 0 "$(echo "$keep" | kv failures)"
check "keepalive: at least 6 resets ($(echo "$keep" | kv resets))" between "$(echo "$keep" | kv resets)" 6 100
check "stop" qel-vm-probe watchdog stop
check_eq "after keepalive: ipmitool expiration flags" "0x00" "$(ipmi_wd_flags)"
check_eq "after keepalive: QelIpmiWatchdog expired" 0 "$(qel-vm-probe watchdog get | kv expired)"

echo "== SMBIOS: a small table below 1 MiB, read through /dev/mem"
addr=$(dmi_table_address)
echo "table at $(printf '0x%08x' "$addr")"
check "the table lies below 1 MiB" between "$addr" 0 1048575
check_smbios_strings QEMU_BMC

echo "== ALDERCROFT and blade decisions"
check_eq "QelBladeInfo bladeSystem (one enclosure, same serial)" 0 "$(qel-vm-probe blade | kv bladeSystem)"
check_eq "QelBladeInfo acSystem (family $QEMU_BMC_SYS_FAMILY)" 0 "$(qel-vm-probe blade | kv acSystem)"

echo "== the agent: qeld --once and qeld --daemon + SIGTERM on the real device"
if command -v qeld >/dev/null; then
  syslogd -O /tmp/messages
  # QEMU's BMC has no configuration space and no PNI FRU: the agent goes on
  # without them. A pass of --once leaves the watchdog alone.
  before=$(ipmitool mc watchdog get 2>/dev/null | tr '\n' ';')
  check "qeld --once exits 0" qeld --once --no-stderr
  check_eq "after qeld --once: the watchdog untouched" "$before" "$(ipmitool mc watchdog get 2>/dev/null | tr '\n' ';')"
  # A running watchdog that the daemon finds; without a configuration space
  # it leaves the settings alone, and it stops the timer when it ends.
  check "set hard reset, 120 s" qel-vm-probe watchdog set 1 0 1200 0
  check "reset" qel-vm-probe watchdog reset
  check "qeld --daemon exits 0" qeld --daemon --no-stderr
  pid=$(cat /var/run/qeld.pid 2>/dev/null)
  check "the pid file names a live daemon ($pid)" kill -0 "$pid"
  check "qeld logs that it starts" wait_until 50 grep -q 'qel_daemon.*starting' /tmp/messages
  first=$(ipmi_wd 'Present Countdown' | tenths)
  check "while the daemon runs: the countdown runs ($first)" between "$first" 1 1199
  kill -TERM "$pid"
  daemon_gone() { ! kill -0 "$pid"; }
  check "SIGTERM ends the daemon" wait_until 150 daemon_gone
  check "the pid file is gone" sh -c "! test -e /var/run/qeld.pid"
  check "the daemon logs the termination signal" grep -q 'Termination signal received' /tmp/messages
  first=$(ipmi_wd 'Present Countdown' | tenths)
  sleep 1
  second=$(ipmi_wd 'Present Countdown' | tenths)
  check_eq "after the daemon: the countdown stands still" "$first" "$second"
  check_eq "after the daemon: ipmitool says stopped" "Stopped" "$(ipmi_wd 'Watchdog Timer Is')"
  check_eq "after the daemon: timer use SMS/OS" "SMS/OS (0x04)" "$(ipmi_wd 'Watchdog Timer Use')"
  check_eq "after the daemon: the watchdog did not run out" "0x00" "$(ipmi_wd_flags)"
  echo "--- syslog:"
  cat /tmp/messages
else
  echo "NOT RUN: qeld is not in this guest (no qeld target in the build)"
fi

echo "== benchmark: Get Device ID round trips on the KCS interface"
b=$(qel-vm-probe bench 200)
check_eq "QelIpmi bench: no failed exchange" 0 "$(echo "$b" | kv failures)"
echo "BENCH qelipmi_us_per_exchange=$(echo "$b" | kv us_per_exchange)"
b=$(qel-vm-probe bench 100 open)
check_eq "QelIpmi bench (open per exchange): no failed exchange" 0 "$(echo "$b" | kv failures)"
echo "BENCH qelipmi_open_us_per_exchange=$(echo "$b" | kv us_per_exchange)"
b=$(qel-vm-probe time 10 ipmitool raw 0x06 0x01)
check_eq "ipmitool loop: no failed run" 0 "$(echo "$b" | kv failures)"
echo "BENCH ipmitool_us_per_run=$(echo "$b" | kv us_per_run)"

# System calls per exchange: the difference between 110 and 10 exchanges,
# so the program's start-up does not count.
calls() {  # strace -c summary file, syscall name ("total" for all)
  awk -v n="$2" '$NF == n && $4 ~ /^[0-9]+$/ { print $4; found = 1 } END { if (!found) print 0 }' "$1"
}
strace -c -o /tmp/s10 qel-vm-probe bench 10 >/dev/null
strace -c -o /tmp/s110 qel-vm-probe bench 110 >/dev/null
for sc in total ioctl select pselect6 openat close; do
  a=$(calls /tmp/s10 $sc); b=$(calls /tmp/s110 $sc)
  echo "BENCH qelipmi_syscalls_per_exchange_$sc=$(awk -v a="$a" -v b="$b" 'BEGIN { printf "%.2f", (b - a) / 100 }')"
done
check "strace saw the exchanges" between "$(calls /tmp/s110 ioctl)" 200 100000
strace -f -c -o /tmp/sip ipmitool raw 0x06 0x01 >/dev/null 2>&1
for sc in total ioctl select pselect6 openat; do
  echo "BENCH ipmitool_syscalls_per_run_$sc=$(calls /tmp/sip $sc)"
done
cat /tmp/s110

finish

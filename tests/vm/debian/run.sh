#!/bin/sh
# The guest test of the Debian boot, run by qel-vm-test.service after
# multi-user.target, with its output on the second serial port. The boot's
# number on this disk (kept in /var/lib/qel-vm-test) and qel.test= on the
# kernel command line say what to check:
#
#   debian, boot 1   the agent installed as an administrator does it, the
#                    device arriving after the service's first start, the
#                    running service, the controller's timer and event log,
#                    the wedged, killed and upgraded agent; then poweroff
#   debian, boot 2   the agent at boot, the shutdown event in the event log,
#                    a span (qel.span=, ten minutes in the long run) on the
#                    controller's timer, the kernel as the timer's owner, stop and purge
#   negative         qeld masked, the timer armed for 30 s with a hard reset:
#                    the machine must reset (the host sees QEMU end)
#
# The last line is "QEL-VM-STATUS <n>"; a boot that powers off (boot 1)
# reports before it.
cd /qel || exit 99
. /qel/lib.sh
export DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin
state=/var/lib/qel-vm-test
mkdir -p "$state"
boot=$(( $(cat "$state/boots" 2>/dev/null || echo 0) + 1 ))
echo "$boot" > "$state/boots"
test=$(sed -n 's/.*qel\.test=\([^ ]*\).*/\1/p' /proc/cmdline)
echo "QEL-VM-BOOT test=$test boot=$boot uptime=$(mono)"
# systemd's own view of the boot: the kernel, the initramfs and userspace.
systemd-analyze time 2>/dev/null | head -1 | sed 's/^/INFO: /'

debs=/qel/debs
new_deb=$(ls $debs/qeld_*.deb | sort -V | tail -1)
old_deb=$(ls $debs/qeld_*.deb | sort -V | head -1)

install_qeld() {  # DEB
  apt-get install -y "$1" > "$state/apt.log" 2>&1 || { cat "$state/apt.log"; return 1; }
}

# ------------------------------------------------------------------ boot 1
boot_install() {
  # The IPMI device is absent (the driver's device module is not loaded
  # yet: without the package nothing loads it) when the package starts the
  # service: one clear line, status 3, no restart.
  # (Debian loads ipmi_devintf with the message handler, a soft
  # dependency: it is taken away again once the boot's module loading is
  # over.)
  udevadm settle --timeout=300
  # QEMU's controller has no configuration space: the site gives qeld its
  # own watchdog settings (a drop-in, as the shipped /etc/default/qeld
  # leaves QELD_OPTIONS unset for one), 300 s with hard reset.
  mkdir -p /etc/systemd/system/qeld.service.d
  printf '[Service]\nEnvironment="QELD_OPTIONS=--watchdog 300 --watchdog-action reset"\n' \
    > /etc/systemd/system/qeld.service.d/watchdog.conf
  modprobe -r ipmi_devintf 2>/dev/null
  check "no /dev/ipmi0 before the package is installed" test ! -e /dev/ipmi0
  check "apt-get install $old_deb" install_qeld "$old_deb"
  check_eq "enabled on install" enabled "$(systemctl is-enabled qeld.service)"
  wait_until 30 sh -c '[ "$(systemctl show -P ExecMainStatus qeld.service)" = 3 ]'
  check_eq "without a device: exit status" 3 "$(prop ExecMainStatus)"
  check_eq "without a device: unit state" failed "$(systemctl is-active qeld.service)"
  # Longer than RestartSec (30 s): a restart loop would have begun.
  sleep 40
  check_eq "without a device: restarts" 0 "$(prop NRestarts)"
  check_eq "without a device: 'no IPMI controller' lines" 1 "$(journal_count 'no IPMI controller')"
  qeld_journal | grep 'no IPMI controller' | sed 's/^/INFO: journal: /'

  # The driver's device arrives (what modules-load.d does at boot, here
  # late): udev starts the agent.
  check "modules-load.d entry for the IPMI driver" grep -qx ipmi_devintf /usr/lib/modules-load.d/qeld.conf
  t=$(mono)
  modprobe ipmi_si && modprobe ipmi_devintf
  check "/dev/ipmi0 appears" wait_until 30 test -c /dev/ipmi0
  if wait_until 60 unit_active; then
    pass "qeld.service active (READY=1) after /dev/ipmi0 appeared, $(awk -v a="$t" -v b="$(mono)" 'BEGIN { printf "%.1f", b - a }') s"
  else
    fail "qeld.service not active after /dev/ipmi0 appeared: $(systemctl is-active qeld.service)"
    qeld_journal | tail -20
  fi
  check_service "boot 1"
  # --man=no: the minimal system has no man(1) to look Documentation= up with.
  verify=$(systemd-analyze verify --man=no qeld.service 2>&1)
  check_eq "systemd-analyze verify qeld.service" "" "$verify"
  exposure=$(systemd-analyze security --no-pager qeld.service 2>/dev/null \
    | sed -n 's/.*Overall exposure level for qeld.service: \([0-9.]*\).*/\1/p')
  check "systemd-analyze security: exposure '$exposure' <= 2.5" awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.5) }'
  check "the SEL holds the OS boot event" sh -c 'ipmitool sel elist | grep -qi "boot completed"'
  ipmitool sel elist 2>/dev/null | sed 's/^/INFO: sel: /'
  # QEMU's controller has no Set System Info Parameters: one note, and the
  # agent does not ask again on later passes.
  check_eq "notes that the controller lacks System Info Parameters" 1 \
    "$(journal_count 'does not know Set System Info Parameters')"

  # A wedged agent: systemd's watchdog (WatchdogSec=90) kills it, the unit
  # restarts it after RestartSec; the controller's timer never runs out.
  pid=$(prop MainPID)
  t=$(mono)
  kill -STOP "$pid"
  # 90 s to systemd's watchdog, up to 60 s for the stop, 30 s of back-off,
  # and the new agent's first pass: on an emulated machine on a busy host
  # that pass has taken minutes (see the figures the check prints).
  if wait_until 900 restarted_from "$pid"; then
    pass "SIGSTOP: restarted by systemd's watchdog after $(awk -v a="$t" -v b="$(mono)" 'BEGIN { printf "%.0f", b - a }') s"
  else
    fail "SIGSTOP: not restarted"
    show_unit
  fi
  check "SIGSTOP: systemd's watchdog line in the journal" sh -c \
    'journalctl -b -q -o cat -u qeld.service | grep -q "Watchdog timeout"'
  wait_until 30 wd_running
  check_never_expired "SIGSTOP"

  # kill -9: ExecStopPost stops the timer, the restart comes after the back-off.
  pid=$(prop MainPID)
  kill -9 "$pid"
  wait_until 10 sh -c "[ \"\$(systemctl show -P MainPID qeld.service)\" != $pid ]"
  dead=$(mono)
  check "kill -9: the controller's timer stopped" wait_until 10 wd_stopped
  if wait_until 900 restarted_from "$pid"; then
    back=$(awk -v a="$dead" -v b="$(mono)" 'BEGIN { printf "%.0f", b - a }')
    check "kill -9: restarted after the back-off (${back} s >= 29)" test "$back" -ge 29
  else
    fail "kill -9: not restarted"
    show_unit
  fi
  wait_until 30 wd_running
  check_never_expired "kill -9"

  # The upgrade: the administrator's options and the agent's state survive,
  # the timer is stopped only for the restart, and never expires.
  echo '# site option kept across upgrades' >> /etc/default/qeld
  opts=$(sha256sum /etc/default/qeld)
  mkdir -p /var/lib/qeld && echo kept > /var/lib/qeld/qel-vm-marker
  # The agent's own state moves on (the event log forwarder's place in the
  # log): what must survive is every file, and the place itself, which shows
  # as no record forwarded a second time by the new agent.
  libfiles=$(cd /var/lib/qeld && find . -type f | sort)
  (while :; do
     printf '%s %s\n' "$(mono)" "$(wd_moving && echo running || echo Stopped)"
   done) > "$state/upgrade-timer.log" 2>/dev/null &
  sampler=$!
  oldpid=$(prop MainPID)
  check "apt-get install $new_deb over $old_deb" install_qeld "$new_deb"
  wait_until 60 restarted_from "$oldpid"
  wait_until 30 wd_running
  sleep 2
  kill "$sampler"
  check_eq "upgrade: the new version installed" "$(dpkg-deb -f "$new_deb" Version)" \
    "$(dpkg-query -W -f='${Version}' qeld)"
  check "upgrade: the agent restarted" restarted_from "$oldpid"
  check_eq "upgrade: /etc/default/qeld kept" "$opts" "$(sha256sum /etc/default/qeld)"
  check_eq "upgrade: the files in /var/lib/qeld kept" "$libfiles" "$(cd /var/lib/qeld && find . -type f | sort)"
  check_eq "upgrade: the site's file in /var/lib/qeld unchanged" kept "$(cat /var/lib/qeld/qel-vm-marker)"
  check_eq "upgrade: event log records forwarded twice" "" "$(forwarded_twice)"
  # The longest stretch in which the timer was not running, against the
  # restart itself (from the old agent's end to the new one's READY=1).
  gap=$(awk '/Stopped/ { if (s == "") s = $1; e = $1 } !/Stopped/ { if (s != "") { d = e - s + 0.5; if (d > m) m = d; s = "" } }
             END { if (s != "") { d = e - s + 0.5; if (d > m) m = d } printf "%.1f", m }' "$state/upgrade-timer.log")
  restart=$(awk -v a="$(prop InactiveExitTimestampMonotonic)" -v b="$(prop ActiveEnterTimestampMonotonic)" \
    'BEGIN { printf "%.1f", (b - a) / 1e6 }')
  info "upgrade: timer not running for at most ${gap} s; the new agent took ${restart} s to READY=1"
  check "upgrade: the timer stopped no longer than the restart (${gap} s <= ${restart} s + 2 s)" \
    awk -v g="$gap" -v r="$restart" 'BEGIN { exit !(g <= r + 2) }'
  check_never_expired "upgrade"

  finish
  echo "QEL-VM-STATUS $? boot=1 uptime=$(mono)"
  # The shutdown event is read back by the second boot (the same QEMU, so
  # the same controller).
  echo "QEL-VM-POWEROFF uptime=$(mono)"
  systemctl poweroff 2>/dev/null  # (logind is not there: systemd itself powers off)
}

# The unit as systemd sees it and its journal, after a failed check.
show_unit() {
  systemctl status --no-pager qeld.service 2>&1 | sed 's/^/INFO: status: /'
  journalctl -b -q -o short-monotonic -u qeld.service --no-pager | tail -25 | sed 's/^/INFO: journal: /'
}

# The running service's checks, at every boot.
check_service() {
  check_eq "$1: Type" notify "$(prop Type)"
  status=$(prop StatusText)
  check "$1: STATUS= '$status'" sh -c "echo '$status' | grep -qE '^watchdog [0-9]+ s, reset [0-9]+ s ago'"
  check "$1: systemctl status shows the status line" sh -c \
    "systemctl status --no-pager qeld.service 2>&1 | grep -qF 'Status: \"'"
  n=$(journalctl -b -q -o cat --no-pager | grep -ciE 'qeld.*(permission denied|operation not permitted)|(permission denied|operation not permitted).*qeld' || true)
  check_eq "$1: permission errors about qeld in the journal" 0 "$n"
  check "$1: the controller's timer running" wait_until 30 wd_running
  check_eq "$1: timer use" "SMS/OS" "$(wd 'Watchdog Timer Use' | sed 's/ *(.*//')"
  check_eq "$1: timer action" "Hard Reset" "$(wd 'Watchdog Timer Action' | sed 's/ *(.*//')"
}

# ------------------------------------------------------------------ boot 2
boot_second() {
  if wait_until 60 unit_active; then
    echo "BENCH boot 2: qeld.service active $(awk -v us="$(prop ActiveEnterTimestampMonotonic)" 'BEGIN { printf "%.1f", us / 1e6 }') s after the kernel started"
    pass "boot 2: qeld.service active at boot, $(awk -v us="$(prop ActiveEnterTimestampMonotonic)" 'BEGIN { printf "%.1f", us / 1e6 }') s after the kernel started"
  else
    fail "boot 2: qeld.service not active: $(systemctl is-active qeld.service)"
  fi
  check_service "boot 2"
  ipmitool sel elist 2>/dev/null | sed 's/^/INFO: sel: /'
  check "the SEL holds boot 1's graceful shutdown event" sh -c 'ipmitool sel elist | grep -qi "graceful shutdown"'
  check_eq "boot events in the SEL (boot 1 and boot 2)" 2 "$(ipmitool sel elist | grep -ci 'boot completed')"

  # The span (qel.span= seconds, ten minutes in the long run): the timer
  # keeps running, is reset on schedule (never lower than the period minus
  # the agent's cadence), and never expires.
  span=$(sed -n 's/.*qel\.span=\([0-9]*\).*/\1/p' /proc/cmdline)
  initial=$(wd 'Initial Countdown' | sed -n 's/^\([0-9]*\).*/\1/p')
  start=$(mono); low=999999; samples=0
  cpu0=$(prop CPUUsageNSec)
  while awk -v a="$start" -v b="$(mono)" 'BEGIN { exit !(b - a < '"${span:-600}"') }'; do
    left=$(wd_left)
    wd_running || { fail "the timer stopped during the span"; break; }
    [ -n "$left" ] && [ "$left" -lt "$low" ] && low=$left
    samples=$((samples + 1))
    sleep 10
  done
  cpu1=$(prop CPUUsageNSec)
  echo "BENCH qeld CPU over the span of ${span} s: $(awk -v a="$cpu0" -v b="$cpu1" 'BEGIN { printf "%.3f", (b - a) / 1e9 }') s"
  info "span of ${span} s: $samples samples, initial countdown ${initial} s, lowest present countdown ${low} s"
  check "span: the timer never below two thirds of its ${initial} s (lowest ${low} s)" \
    test "$low" -ge $((initial * 2 / 3))
  check_never_expired "span"
  check_eq "span: the System Info Parameters note, still once" 1 \
    "$(journal_count 'does not know Set System Info Parameters')"

  # The event log into the journal: a record added by hand (a temperature
  # event, as a sensor would log it) is in the journal within about a
  # minute with its fields; one logged while the agent is stopped is
  # forwarded when it starts again; none twice.
  id=$(add_event 20 00 01 30 01 59 5a 55)
  t=$(mono)
  if [ -n "$id" ] && wait_until 90 forwarded "$id"; then
    pass "SEL: record $id in the journal after $(awk -v a="$t" -v b="$(mono)" 'BEGIN { printf "%.0f", b - a }') s"
    entry=$(journal_json | grep "\"QEL_SEL_RECORD_ID\":\"$(hex16 "$id")\"")
    info "SEL: journal entry: $entry"
    check "SEL: the entry's event data" matches "$entry" '"QEL_SEL_EVENT_DATA":"595A55"'
    check "SEL: the entry's sensor type" matches "$entry" '"QEL_SEL_SENSOR_TYPE_CODE":"0x01"'
    check "SEL: the entry's sensor number" matches "$entry" '"QEL_SEL_SENSOR_NUMBER":"0x30"'
    check "SEL: the entry's message names the sensor type" matches "$entry" '"MESSAGE":"[^"]*[Tt]emperature'
  else
    fail "SEL: record '$id' not in the journal within 90 s"
    show_unit
  fi
  systemctl stop qeld.service
  id=$(add_event 20 00 02 31 01 57 5a 55)
  systemctl start qeld.service
  t=$(mono)
  if [ -n "$id" ] && wait_until 90 forwarded "$id"; then
    pass "SEL: record $id, logged while the agent was stopped, in the journal $(awk -v a="$t" -v b="$(mono)" 'BEGIN { printf "%.0f", b - a }') s after the start"
  else
    fail "SEL: record '$id', logged while the agent was stopped, not in the journal within 90 s of the start"
    show_unit
  fi
  check_eq "SEL: records forwarded twice" "" "$(forwarded_twice)"

  # One owner for the timer: with ipmi_watchdog loaded and systemd using it
  # (RuntimeWatchdogSec=), the agent leaves the timer to the kernel.
  modprobe ipmi_watchdog
  mkdir -p /etc/systemd/system.conf.d
  printf '[Manager]\nRuntimeWatchdogSec=30\n' > /etc/systemd/system.conf.d/qel-vm.conf
  systemctl daemon-reexec
  check "systemd holds /dev/watchdog" wait_until 10 sh -c 'ls -l /proc/1/fd | grep -q /dev/watchdog'
  systemctl restart qeld.service
  check "kernel owner: the agent active" wait_until 60 unit_active
  check_eq "kernel owner: the agent's note" 1 "$(journal_count "kernel's IPMI watchdog driver is loaded")"
  qeld_journal | grep "kernel's IPMI watchdog" | sed 's/^/INFO: journal: /'
  sleep 90
  check_eq "kernel owner: the timer's period is systemd's, not the agent's" 30 \
    "$(wd 'Initial Countdown' | sed -n 's/^\([0-9]*\).*/\1/p')"
  check "kernel owner: the timer running" wd_running
  ipmitool mc watchdog get 2>&1 | sed 's/^/INFO: kernel owner: /'
  check_never_expired "kernel owner"
  rm /etc/systemd/system.conf.d/qel-vm.conf
  systemctl daemon-reexec
  wait_until 10 sh -c '! ls -l /proc/1/fd | grep -q /dev/watchdog'
  rmmod ipmi_watchdog
  systemctl restart qeld.service
  check "the agent keeps the timer again" wait_until 60 sh -c \
    '[ "$(ipmitool mc watchdog get | sed -n "s/^Initial Countdown: *\([0-9]*\).*/\1/p")" -ge 240 ]'

  # Stop and purge: the timer is stopped.
  systemctl stop qeld.service
  check "systemctl stop: the timer stopped" wd_stopped
  systemctl start qeld.service
  wait_until 60 unit_active && wait_until 30 wd_running
  apt-get purge -y qeld > "$state/apt.log" 2>&1 || cat "$state/apt.log"
  check_eq "purged" "" "$(dpkg-query -W -f='${Status}' qeld 2>/dev/null | grep installed)"
  check "apt-get purge: the timer stopped" wd_stopped
  check "apt-get purge: /etc/default/qeld gone" test ! -e /etc/default/qeld
  check_never_expired "purge"
  # Installed again for the negative control, which boots it masked.
  check "reinstalled" install_qeld "$new_deb"
  finish
}

# ------------------------------------------------------------------ negative
boot_negative() {
  # (systemd.mask= on the kernel command line masks it for this boot only.)
  check_eq "qeld masked" masked-runtime "$(systemctl is-enabled qeld.service 2>/dev/null)"
  check "/dev/ipmi0 there" wait_until 30 test -c /dev/ipmi0
  check "the timer not running" wd_stopped
  # SMS/OS, hard reset, no pre-timeout, expiration flags cleared, 30 s: time
  # for the checks below on an emulated machine, which take seconds each.
  ipmitool raw 0x06 0x24 0x04 0x01 0x00 0x3e 0x2c 0x01 >/dev/null
  ipmitool mc watchdog reset >/dev/null
  echo "QEL-VM-ARMED uptime=$(mono)"
  ipmitool mc watchdog get 2>&1 | sed 's/^/INFO: armed: /'
  check "armed: running" wd_running
  sleep 120
  fail "the machine was not reset within 120 s of a 30 s hard-reset watchdog"
  finish
}

# ------------------------------------------------------------------ bench
# The agent's cost on the real driver (bench/bench_debian_boot.sh). A disk
# the bench prepared with qel.test=bench-install; every bench boot starts
# from it afresh. The VM's CPU (all non-idle time of /proc/stat) and the
# agent's (its unit's CPUUsageNSec) over qel.span= seconds, three times:
# the agent as installed (with the event log forwarder), the agent with
# --no-sel, and the agent stopped.
bench_install() {
  udevadm settle --timeout=300
  mkdir -p /etc/systemd/system/qeld.service.d
  printf '[Service]\nEnvironment="QELD_OPTIONS=--watchdog 300 --watchdog-action reset"\n' \
    > /etc/systemd/system/qeld.service.d/watchdog.conf
  check "apt-get install $new_deb" install_qeld "$new_deb"
  check "qeld.service active" wait_until 120 unit_active
  check "the controller's timer running" wait_until 30 wd_running
  finish
}
# Non-idle clock ticks of the whole VM (user, nice, system, irq, softirq,
# steal), and ticks a second.
vm_busy() { awk '/^cpu / { print $2 + $3 + $4 + $7 + $8 + $9 }' /proc/stat; }
# bench_span LABEL: the VM's and the agent's CPU over the span.
bench_span() {
  a=$(vm_busy); c0=$(prop CPUUsageNSec); t0=$(mono)
  sleep "$span"
  b=$(vm_busy); c1=$(prop CPUUsageNSec); t1=$(mono)
  hz=$(getconf CLK_TCK)
  case $c0$c1 in *[!0-9]*|'') agent=-;; *) agent=$(awk -v a="$c0" -v b="$c1" 'BEGIN { printf "%.3f", (b - a) / 1e9 }');; esac
  echo "BENCH $1: VM CPU $(awk -v a="$a" -v b="$b" -v hz="$hz" 'BEGIN { printf "%.3f", (b - a) / hz }') s, agent CPU $agent s over $(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.1f", b - a }') s"
}
bench_boot() {
  span=$(sed -n 's/.*qel\.span=\([0-9]*\).*/\1/p' /proc/cmdline)
  if wait_until 120 unit_active; then
    echo "BENCH active: qeld.service active $(awk -v us="$(prop ActiveEnterTimestampMonotonic)" 'BEGIN { printf "%.3f", us / 1e6 }') s after the kernel started"
  else
    fail "qeld.service not active: $(systemctl is-active qeld.service)"
    return 1
  fi
  # The boot's own work (udev, the first pass, the journal's flush) is
  # over before anything is measured.
  udevadm settle --timeout=300
  sleep 30
  bench_span "with the forwarder"
  printf '[Service]\nEnvironment="QELD_OPTIONS=--watchdog 300 --watchdog-action reset --no-sel"\n' \
    > /etc/systemd/system/qeld.service.d/watchdog.conf
  systemctl daemon-reload
  systemctl restart qeld.service
  check "--no-sel: qeld.service active" wait_until 120 unit_active
  sleep 30
  bench_span "without the forwarder"
  systemctl stop qeld.service
  sleep 30
  bench_span "agent stopped"
  check_never_expired "bench"
  finish
}

case $test:$boot in
  debian:1) boot_install; exit 0 ;;
  debian:2) boot_second ;;
  negative:*) boot_negative ;;
  bench-install:*) bench_install ;;
  bench:*) bench_boot ;;
  *) echo "QEL-VM-ERROR no test '$test' for boot $boot"; false ;;
esac
echo "QEL-VM-STATUS $? boot=$boot uptime=$(mono)"
systemctl poweroff 2>/dev/null

#!/usr/bin/env bash
# The packages on a real server stack: a Debian system (debian-root.sh) booted
# by Debian's kernel under QEMU with systemd as PID 1, the kernel's IPMI
# driver on a KCS interface and QEMU's BMC behind it. The project's qeld
# package is installed in it with apt-get, as an administrator would, and the
# guest test (debian/run.sh) checks the service, the controller's timer and
# event log, a wedged, a killed and an upgraded agent, the kernel as the
# timer's owner, stop and purge. Two QEMU runs:
#
#   debian     boot 1 installs and checks, then powers off; QEMU pauses, and
#              the host boots the same machine again (system_reset), so boot
#              2 sees the same controller: its event log must hold boot 1's
#              shutdown. A reset of the guest by the controller's watchdog
#              shows as a boot that was not preceded by a poweroff.
#   negative   the same disk, qeld masked, the timer armed by hand for 30 s
#              with a hard reset: under -no-reboot QEMU must end by itself.
#
# The guest's clock is the host's: QEMU's BMC counts its watchdog on the
# same clock as the guest. Emulation without KVM on a shared machine is
# slow (a boot takes minutes), and -icount, which would let an idle guest's
# time run ahead, slows the emulation further and lets the guest's clock
# race ahead of its disk: so the watchdog span (ten minutes of the timer
# held alive) is $QEL_VM_WATCHDOG_SPAN seconds, 150 by default (two of the
# agent's resets at least), and 600 in the long run (QEL_VM_WATCHDOG_SPAN=600).
#
#   debian-boot.sh DIST_DIR [--out DIR]
#
# The packages are scripts/package.sh's. The old version for the upgrade is
# the same package repacked with a lower version (~vmprev), so the upgrade
# runs the maintainer scripts' upgrade path. QEL_SKIP_VM=1 skips (exit 77);
# QEL_VM_DEBIAN_RUNS names the runs ("debian negative", the default;
# "bench" is bench/bench_debian_boot.sh's, see run_bench).
# $QEL_DEBIAN_BOOT_LIMIT bounds the debian run (seconds, 2400).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
dist=${1:?usage: debian-boot.sh DIST_DIR [--out DIR]}
shift
out=/tmp/qel-debian-boot
while (($#)); do
  case $1 in
    --out) out=$2; shift 2 ;;
    *) echo "debian-boot.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
if [ "${QEL_SKIP_VM:-0}" = 1 ]; then
  echo "debian boot: SKIPPED because QEL_SKIP_VM=1 is set; no VM was booted"
  exit 77
fi
dist=$(cd "$dist" && pwd) || exit 2
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
fatal() { echo "debian boot: FAILED: $*"; exit 1; }
failed=()

deb=$(ls "$dist"/qeld_*.deb 2>/dev/null | head -1)
[ -f "$deb" ] || fatal "no qeld package in $dist (run scripts/package.sh)"
mkdir -p "$out" || fatal "cannot create $out"
t=$(now)
bash "$here/debian-root.sh" --out "$out" || fatal "the Debian root could not be built"

# ---------------------------------------------------------------- test disk
stage=$out/test-disk
rm -rf "$stage"; mkdir -p "$stage/debs"
cp "$here/debian/run.sh" "$here/debian/lib.sh" "$stage/"
cp "$deb" "$stage/debs/"
version=$(dpkg-deb -f "$deb" Version)
old=$out/old-deb
rm -rf "$old"; dpkg-deb -R "$deb" "$old" || fatal "cannot unpack $deb"
sed -i "s/^Version: .*/Version: ${version}~vmprev/" "$old/DEBIAN/control"
dpkg-deb -b -Zgzip "$old" "$stage/debs/qeld_${version}~vmprev_amd64.deb" >/dev/null || fatal "cannot repack $deb"
rm -rf "$old"
rm -f "$out/test.img"
mke2fs -q -t ext4 -L qel-test -d "$stage" "$out/test.img" 64M >/dev/null || fatal "cannot make the test disk"
rm -f "$out/disk.qcow2"
qemu-img create -q -f qcow2 -b "$(readlink -f "$out/debian-root.img")" -F raw "$out/disk.qcow2" \
  || fatal "cannot make the boot's overlay"
echo "debian boot: prepared in $(since "$t") s (qeld $version, and ${version}~vmprev for the upgrade)"

qemu=$(command -v qemu-system-x86_64) || fatal "qemu-system-x86_64 is not installed"

# qemu_cmd NAME DISK KERNEL-ARGS...: the command line of a boot, in $cmd.
qemu_cmd() {
  local name=$1 disk=$2; shift 2
  cmd=(nice "$qemu" -machine pc,smbios-entry-point-type=32 -accel tcg -cpu max -m 1024
    -display none -nic none
    -device ipmi-bmc-sim,id=bmc0 -device isa-ipmi-kcs,bmc=bmc0
    -kernel "$out/debian-kernel" -initrd "$out/debian-initrd.img"
    -append "root=/dev/vda rw console=ttyS0 quiet $boot_args $*"
    -drive "file=$disk,if=virtio,format=qcow2"
    -drive "file=$out/test.img,if=virtio,format=raw,readonly=on"
    -serial "file:$out/$name/console.log" -serial "file:$out/$name/test.raw")
}
# No login on the serial console (nothing logs in; its device would be
# waited for), no file system check of the throw-away overlay, and time-outs
# that an emulated machine on a busy host can meet.
boot_args="systemd.mask=serial-getty@ttyS0.service fsck.mode=skip systemd.default_timeout_start_sec=600"
boot_args+=" qel.span=${QEL_VM_WATCHDOG_SPAN:-150}"
marker() { tr -d '\r' 2>/dev/null < "$out/$1/test.raw" | grep -c "^$2" || true; }

# ---------------------------------------------------------------- debian
run_debian() {
  local dir=$out/debian limit=${QEL_DEBIAN_BOOT_LIMIT:-2400} start rc
  rm -rf "$dir"; mkdir -p "$dir"
  qemu_cmd debian "$out/disk.qcow2" qel.test=debian
  # Powering off pauses the machine (the same controller for the next boot);
  # the host's monitor pipe boots it again or ends QEMU.
  cmd+=(-action shutdown=pause -monitor "pipe:$dir/mon")
  mkfifo "$dir/mon.in" "$dir/mon.out"
  printf '%q ' "${cmd[@]}" > "$dir/qemu.cmd"
  start=$(now)
  timeout -k 5 "$limit" "${cmd[@]}" </dev/null >"$dir/qemu.out" 2>&1 &
  local qpid=$!
  cat "$dir/mon.out" > "$dir/mon.log" &
  local cpid=$!
  exec 7>"$dir/mon.in"
  # Polls the monitor only while a poweroff is due: after boot 1's
  # poweroff marker (then boots it again) and after boot 2's status (then
  # ends QEMU). "paused (shutdown)" lines are counted, not cleared.
  local handled=0 seen=0 pauses
  while kill -0 "$qpid" 2>/dev/null; do
    if { [ "$handled" -eq 0 ] && [ "$(marker debian QEL-VM-POWEROFF)" -ge 1 ]; } ||
       { [ "$handled" -eq 1 ] && [ "$(marker debian QEL-VM-STATUS)" -ge 2 ]; }; then
      echo "info status" >&7
      pauses=$(grep -ac 'paused (shutdown)' "$dir/mon.log")
      if [ "$pauses" -gt "$seen" ]; then
        seen=$pauses
        handled=$((handled + 1))
        if [ "$handled" -eq 1 ]; then
          echo "debian boot: boot 1 powered off after $(since "$start") s; booting the same machine again"
          echo system_reset >&7; echo cont >&7
        else
          echo quit >&7
        fi
      fi
    fi
    sleep 1
  done
  wait "$qpid"; rc=$?
  exec 7>&-
  kill "$cpid" 2>/dev/null; wait "$cpid" 2>/dev/null
  tr -d '\r' < "$dir/test.raw" > "$dir/test.log"
  sed 's/^/[debian] /' "$dir/test.log"
  local why=()
  [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ] && why+=("timed out after ${limit}s")
  # The order of the guest's markers: two boots, each reporting, the first
  # powered off by the test and not reset by the controller.
  local seq
  seq=$(grep -oE '^QEL-VM-(BOOT|STATUS [0-9]+|POWEROFF)' "$dir/test.log" | tr '\n' ' ')
  [ "$seq" = "QEL-VM-BOOT QEL-VM-STATUS 0 QEL-VM-POWEROFF QEL-VM-BOOT QEL-VM-STATUS 0 " ] \
    || why+=("markers '$seq', expected two boots each with status 0, the first powered off")
  grep -q '^FAIL' "$dir/test.log" && why+=("guest checks failed")
  echo "figure: debian run (2 boots, the 10-minute span) $(since "$start") s wall"
  if ((${#why[@]})); then
    printf '[debian] FAIL: %s\n' "${why[@]}"
    echo "[debian] --- console (last 40 lines):"
    tr -d '\r' < "$dir/console.log" | tail -40 | sed 's/^/[debian] /'
    failed+=(debian)
  else
    echo "[debian] ok"
  fi
}

# ---------------------------------------------------------------- negative
run_negative() {
  local dir=$out/negative limit=600 start rc
  rm -rf "$dir"; mkdir -p "$dir"
  qemu_cmd negative "$out/disk.qcow2" qel.test=negative systemd.mask=qeld.service
  cmd+=(-no-reboot)
  printf '%q ' "${cmd[@]}" > "$dir/qemu.cmd"
  start=$(now)
  timeout -k 5 "$limit" "${cmd[@]}" </dev/null >"$dir/qemu.out" 2>&1
  rc=$?
  tr -d '\r' < "$dir/test.raw" > "$dir/test.log"
  sed 's/^/[negative] /' "$dir/test.log"
  local why=()
  [ "$rc" -eq 0 ] || why+=("QEMU ended with status $rc, not by the guest's reset (-no-reboot)")
  grep -q '^QEL-VM-ARMED' "$dir/test.log" || why+=("the guest did not arm the timer")
  grep -q '^QEL-VM-STATUS' "$dir/test.log" && why+=("the guest reported a status: it was not reset")
  grep -q '^FAIL' "$dir/test.log" && why+=("guest checks failed")
  echo "figure: negative control $(since "$start") s wall"
  if ((${#why[@]})); then
    printf '[negative] FAIL: %s\n' "${why[@]}"
    failed+=(negative)
  else
    echo "[negative] ok: the machine was reset by the controller's watchdog"
  fi
}

# ---------------------------------------------------------------- bench
# bench/bench_debian_boot.sh's runs. bench: one boot installs the package
# (an overlay of the root kept as the bench's disk), then
# $QEL_VM_BENCH_BOOTS boots (3) each from a fresh overlay of that disk:
# the time from QEMU's start to qeld.service active, and the VM's and the
# agent's CPU over qel.span= seconds with the forwarder, without it
# (--no-sel) and with the agent stopped. Prints "BENCH ..." lines.
# bench_boot NAME DISK LIMIT KERNEL-ARGS...: one boot that ends by powering
# off (-no-reboot); the seconds from QEMU's start to the kernel's in
# $kernel_at (the guest's marker carries its uptime).
bench_boot() {
  local name=$1 disk=$2 limit=$3 start rc seen=0; shift 3
  local dir=$out/$name
  rm -rf "$dir"; mkdir -p "$dir"
  qemu_cmd "$name" "$disk" "$@"
  cmd+=(-no-reboot)
  start=$(now)
  timeout -k 5 "$limit" "${cmd[@]}" </dev/null >"$dir/qemu.out" 2>&1 &
  local qpid=$!
  kernel_at=
  while kill -0 "$qpid" 2>/dev/null; do
    if [ "$seen" = 0 ] && [ "$(marker "$name" QEL-VM-BOOT)" -ge 1 ]; then
      local up
      up=$(tr -d '\r' < "$dir/test.raw" | sed -n 's/^QEL-VM-BOOT .*uptime=\([0-9.]*\).*/\1/p' | head -1)
      kernel_at=$(awk -v a="$start" -v b="$(now)" -v u="$up" 'BEGIN { printf "%.1f", b - a - u }')
      seen=1
    fi
    sleep 0.2
  done
  wait "$qpid"; rc=$?
  tr -d '\r' < "$dir/test.raw" > "$dir/test.log"
  sed "s/^/[$name] /" "$dir/test.log"
  [ "$rc" -eq 0 ] && grep -q '^QEL-VM-STATUS 0' "$dir/test.log"
}
run_bench() {
  local base=$out/bench-base.qcow2 span=${QEL_VM_BENCH_SPAN:-600} i n=${QEL_VM_BENCH_BOOTS:-3}
  rm -f "$base"
  qemu-img create -q -f qcow2 -b "$(readlink -f "$out/debian-root.img")" -F raw "$base" \
    || fatal "cannot make the bench's disk"
  bench_boot bench-install "$base" 1200 qel.test=bench-install || { failed+=(bench-install); return; }
  for i in $(seq 1 "$n"); do
    rm -f "$out/bench-$i.qcow2"
    qemu-img create -q -f qcow2 -b "$(readlink -f "$base")" -F qcow2 "$out/bench-$i.qcow2" || fatal "cannot make a bench overlay"
    if bench_boot "bench-$i" "$out/bench-$i.qcow2" $((span * 3 + 1200)) qel.test=bench "qel.span=$span"; then
      local active
      active=$(sed -n 's/^BENCH active: qeld.service active \([0-9.]*\) s.*/\1/p' "$out/bench-$i/test.log")
      echo "BENCH boot $i: kernel started ${kernel_at:-?} s after QEMU's start; qeld.service active $(awk -v k="${kernel_at:-0}" -v a="$active" 'BEGIN { printf "%.1f", k + a }') s after QEMU's start"
    else
      failed+=("bench-$i")
    fi
  done
}

for run in ${QEL_VM_DEBIAN_RUNS:-debian negative}; do
  case $run in
    debian) run_debian ;;
    negative) run_negative ;;
    bench) run_bench ;;
    *) fatal "no run named '$run'" ;;
  esac
done
if ((${#failed[@]})); then
  echo "debian boot: FAILED: ${failed[*]}"
  exit 1
fi
echo "debian boot: all passed"

#!/usr/bin/env bash
# The VM tier: the library on a real kernel IPMI stack. Assembles the guest
# (assemble.sh), boots it under QEMU once per guest test and passes each
# guest's result back:
#
#   qemu-bmc       QEMU's BMC through the kernel's KCS driver: transport,
#                  identity, watchdog, SMBIOS below 1 MiB, benchmark
#   qemu-sensors   QEMU's BMC with an SDR repository of our own (qemu-sdr.sh):
#                  qelctl sensors against ipmitool sdr list and elist
#   smbios-high    a table above 1 MiB; an ALDERCROFT blade
#   lockdown       the same blade on a kernel booted with lockdown=integrity:
#                  /dev/mem refused, the tables read from sysfs instead
#   watchdog-fire  a hard-reset watchdog left alone resets the guest; the
#                  second boot finds the expiration flag
#   bmcsim         the project's simulated controller (qel-bmcsim) behind
#                  the KCS interface over QEMU's external-BMC protocol:
#                  transport, identity, watchdog, and a reset that the
#                  simulator's watchdog asks QEMU for; the host checks the
#                  simulator's traffic and state afterwards
#
#   run-vm-tests.sh --out DIR --probe FILE --lib LIBQELBASE [--qeld FILE]
#                   [--qelctl FILE] [--bmcsim QEL-BMCSIM] [--iana N]
#
# Every boot is bounded by a host-side timeout, all boots together by
# $QEL_VM_BUDGET seconds (default 500; the quiet run takes about 220, and a
# loaded machine twice that). A VM that cannot start fails the run
# with the reason. QEL_SKIP_VM=1 skips the tier (exit 77, which ctest reports
# as skipped) and says so. QEL_VM_ONLY="name ..." boots only the named guest
# tests (a shorter run while working on one of them).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
out= probe= lib= qeld= qelctl= bmcsim= iana=32473
while (($#)); do
  case $1 in
    --out) out=$2; shift 2 ;;
    --probe) probe=$2; shift 2 ;;
    --lib) lib=$2; shift 2 ;;
    --qeld) qeld=$2; shift 2 ;;
    --qelctl) qelctl=$2; shift 2 ;;
    --bmcsim) bmcsim=$2; shift 2 ;;
    --iana) iana=$2; shift 2 ;;
    *) echo "run-vm-tests.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$out" ] && [ -n "$probe" ] && [ -n "$lib" ] || {
  echo "usage: run-vm-tests.sh --out DIR --probe FILE --lib LIBQELBASE [--qeld FILE]" >&2; exit 2; }

if [ "${QEL_SKIP_VM:-0}" = 1 ]; then
  echo "vm tier: SKIPPED because QEL_SKIP_VM=1 is set; no VM was booted"
  exit 77
fi

now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
fatal() { echo "vm tier: FAILED: $*"; exit 1; }

mkdir -p "$out" || fatal "cannot create $out"
figures=$out/figures.txt
: > "$figures"
note() { echo "$*" | tee -a "$figures"; }

# ---------------------------------------------------------------- assemble
t=$(now)
asm=(bash "$here/assemble.sh" --out "$out" --probe "$probe" --lib "$lib")
[ -n "$qeld" ] && asm+=(--qeld "$qeld")
[ -n "$qelctl" ] && asm+=(--qelctl "$qelctl")
if ! "${asm[@]}" > "$out/assemble.log" 2>&1; then
  cat "$out/assemble.log"
  fatal "the VM could not be assembled (see above)"
fi
cat "$out/assemble.log"
note "assemble: $(since "$t") s in all"

qemu=$(command -v qemu-system-x86_64) || fatal "qemu-system-x86_64 is not installed"
devices=$("$qemu" -device help 2>&1) \
  || fatal "$qemu does not run: $(head -c 300 <<<"$devices")"
grep -q '"ipmi-bmc-sim"' <<<"$devices" || fatal "$qemu has no ipmi-bmc-sim device"

# ---------------------------------------------------------------- boots
budget=${QEL_VM_BUDGET:-500}
tier_start=$(now)
. "$here/guest/boots.sh"
failed=()

# The -smbios options of a boot, from the values in boots.sh (PREFIX_...).
smbios_args() {
  local p=$1 v i n s=""
  args=()
  eval "v=\${${p}_SYS_MANUFACTURER:-}"
  [ -n "$v" ] || return 0  # QEMU's own defaults
  eval "args+=(-smbios \"type=1,manufacturer=\${${p}_SYS_MANUFACTURER},product=\${${p}_SYS_PRODUCT},version=\${${p}_SYS_VERSION},serial=\${${p}_SYS_SERIAL},sku=\${${p}_SYS_SKU},family=\${${p}_SYS_FAMILY}\")"
  eval "args+=(-smbios \"type=3,manufacturer=\${${p}_CHASSIS_MANUFACTURER},version=\${${p}_CHASSIS_VERSION},serial=\${${p}_CHASSIS_SERIAL},asset=\${${p}_CHASSIS_ASSET}\")"
  eval "n=\${${p}_OEM_STRINGS:-0}"
  for ((i = 1; i <= n; i++)); do
    s=$(printf 'QEL-OEM-%02d-%0240d' "$i" 0)
    args+=(-smbios "type=11,value=$s")
  done
}

# Whether QEL_VM_ONLY (names separated by blanks or commas) lets boot NAME run.
wanted() {
  [ -z "${QEL_VM_ONLY:-}" ] && return 0
  case " ${QEL_VM_ONLY//,/ } " in *" $1 "*) return 0 ;; esac
  return 1
}

# boot NAME LIMIT BOOTS [BMC]: one QEMU run of guest test NAME, at most LIMIT
# seconds, in which the guest is expected to boot BOOTS times. BMC is "qemu"
# (QEMU's own, the default) or "bmcsim" (qel-bmcsim over a socket).
boot() {
  local name=$1 limit=$2 boots=$3 bmc=${4:-qemu} dir=$out/$1 prefix left start wall rc
  if ! wanted "$name"; then
    echo "[$name] not booted: QEL_VM_ONLY=$QEL_VM_ONLY"
    return
  fi
  prefix=${name^^}; prefix=${prefix//-/_}
  left=$(awk -v b="$budget" -v s="$tier_start" -v n="$(now)" 'BEGIN { printf "%d", b - (n - s) }')
  if [ "$left" -lt 20 ]; then
    echo "[$name] FAIL: not started, the tier's budget of ${budget}s is used up"
    failed+=("$name")
    return
  fi
  [ "$limit" -gt "$left" ] && limit=$left
  rm -rf "$dir"; mkdir -p "$dir"
  smbios_args "$prefix"
  local kargs
  eval "kargs=\${${prefix}_KERNEL_ARGS:-}"
  local bmcdev=(-device ipmi-bmc-sim,id=bmc0) sdr
  # A boot may give QEMU's BMC an SDR repository of its own: PREFIX_SDR
  # names the script that writes it (qemu-sdr.sh). QEMU's option syntax
  # takes a comma in the path doubled.
  eval "sdr=\${${prefix}_SDR:-}"
  if [ -n "$sdr" ]; then
    if ! bash "$here/$sdr" "$dir/sdr.bin" 2>"$dir/sdr.err"; then
      echo "[$name] FAIL: $sdr could not write the SDR file: $(cat "$dir/sdr.err")"
      failed+=("$name")
      return
    fi
    bmcdev=(-device "ipmi-bmc-sim,id=bmc0,sdrfile=${dir//,/,,}/sdr.bin")
  fi
  if [ "$bmc" = bmcsim ]; then
    start_bmcsim "$dir" || { failed+=("$name"); return; }
    bmcdev=(-chardev "socket,id=c0,host=127.0.0.1,port=$bmcsim_port,reconnect=10"
      -device ipmi-bmc-extern,chardev=c0,id=bmc0)
  fi
  local cmd=("$qemu" -machine pc,smbios-entry-point-type=32 -accel tcg -cpu max -m 512
    -display none -monitor none -nic none
    "${bmcdev[@]}" -device isa-ipmi-kcs,bmc=bmc0
    -kernel "$out/kernel" -initrd "$out/initrd.img"
    -append "console=ttyS0 panic=-1 quiet qel.test=$name qel.iana=$iana qel.agent=$bmcsim_agent${kargs:+ $kargs}"
    -serial "file:$dir/console.log" -serial "file:$dir/test.raw" "${args[@]}")
  # A guest that should not reboot makes QEMU exit when it tries.
  [ "$boots" -eq 1 ] && cmd+=(-no-reboot)
  printf '%q ' "${cmd[@]}" > "$dir/qemu.cmd"
  start=$(now)
  timeout -k 5 "$limit" "${cmd[@]}" </dev/null >"$dir/qemu.out" 2>&1
  rc=$?
  wall=$(since "$start")
  tr -d '\r' < "$dir/test.raw" > "$dir/test.log" 2>/dev/null
  sed "s/^/[$name] /" "$dir/test.log"

  local why=() seen status
  if [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ]; then why+=("timed out after ${limit}s")
  elif [ "$rc" -ne 0 ]; then why+=("QEMU exited with status $rc: $(head -c 400 "$dir/qemu.out")")
  fi
  [ -s "$dir/test.raw" ] || why+=("the guest wrote nothing to its test port (no boot reached /init)")
  seen=$(grep -c '^QEL-VM-BOOT ' "$dir/test.log")
  [ "$seen" -eq "$boots" ] || why+=("the guest booted $seen times, expected $boots")
  status=$(sed -n 's/^QEL-VM-STATUS \([0-9]*\).*/\1/p' "$dir/test.log" | tail -1)
  if [ -z "$status" ]; then why+=("the guest reported no status")
  elif [ "$status" -ne 0 ]; then why+=("the guest test exited with status $status")
  fi
  if [ "$boots" -gt 1 ]; then
    # Every boot but the last must end armed and without a status: the reset
    # came from the watchdog, not from the script.
    awk '/^QEL-VM-BOOT /{b++} /^QEL-VM-ARMED/{a[b]=1} /^QEL-VM-STATUS/{s[b]=1}
         END { for (i = 1; i < b; i++) if (!a[i] || s[i]) exit 1 }' "$dir/test.log" \
      || why+=("an earlier boot ended otherwise than armed and reset")
  fi

  # Figures: the kernel's uptime at /init, at the test script and at its end;
  # what the wall clock has beyond the last boot's uptime is QEMU's start,
  # the firmware and the kernel's self-decompression.
  local upb upr ups
  upb=$(sed -n 's/^QEL-VM-BOOT .*uptime=\([0-9.]*\).*/\1/p' "$dir/test.log" | tail -1)
  upr=$(sed -n 's/^QEL-VM-READY uptime=\([0-9.]*\).*/\1/p' "$dir/test.log" | tail -1)
  ups=$(sed -n 's/^QEL-VM-STATUS .*uptime=\([0-9.]*\).*/\1/p' "$dir/test.log" | tail -1)
  if [ -n "$upr" ] && [ -n "$ups" ]; then
    note "boot $name: ${wall} s wall for $seen boot(s); last boot: kernel to /init ${upb} s," \
      "to test script ${upr} s (uptime), test script $(awk -v a="$upr" -v b="$ups" 'BEGIN { printf "%.1f", b - a }') s," \
      "before the kernel ~$(awk -v w="$wall" -v u="$ups" -v n="$seen" 'BEGIN { printf "%.1f", n == 1 ? w - u : 0 }') s"
  else
    note "boot $name: ${wall} s wall"
  fi
  sed -n 's/^BENCH /bench: /p' "$dir/test.log" | tee -a "$figures"
  if [ "$bmc" = bmcsim ]; then
    check_bmcsim "$dir"
    stop_bmcsim "$dir"
  fi

  if ((${#why[@]})); then
    failed+=("$name")
    printf "[$name] FAIL: %s\n" "${why[@]}"
    echo "[$name] --- kernel console (last 30 lines):"
    tr -d '\r' < "$dir/console.log" 2>/dev/null | tail -30 | sed "s/^/[$name] /"
  else
    echo "[$name] ok"
  fi
}

# ---------------------------------------------------------------- qel-bmcsim
bmcsim_port=
bmcsim_agent=0
bmcsim_dir=
# A simulator left behind by an interrupted run would hold its port.
trap '[ -n "$bmcsim_dir" ] && stop_bmcsim "$bmcsim_dir"' EXIT
# Starts qel-bmcsim for a boot: its control socket in DIR, QEMU's port on
# the loopback interface (a free one is searched).
start_bmcsim() {
  local dir=$1 try
  bmcsim_dir=$dir
  echo "deviceid $BMCSIM_DEVICE_ID" > "$dir/bmcsim.conf"
  # The agent's controller: a blade with its management board, the NIC
  # ports in the PNI FRU, the software watchdog in the configuration space.
  bmcsim_agent=0
  if [ -n "$qeld" ] && "$bmcsim" --keywords | grep -q '^soft-watchdog ' \
     && "$bmcsim" --keywords | grep -q '^nic-ports '; then
    bmcsim_agent=1
    {
      echo "board extended"
      echo "board-slot 3"
      echo "nic-ports $BMCSIM_NIC1 $BMCSIM_NIC2"
      echo "soft-watchdog on $BMCSIM_SOFT_WATCHDOG"
    } >> "$dir/bmcsim.conf"
  fi
  for try in 1 2 3 4 5 6 7 8; do
    bmcsim_port=$((20000 + (RANDOM * 7 + $$ + try * 811) % 40000))
    if "$bmcsim" --socket "$dir/bmc.sock" --pidfile "$dir/bmc.pid" --config "$dir/bmcsim.conf" \
         --qemu-port "$bmcsim_port" --daemon </dev/null >/dev/null 2>>"$dir/bmcsim.err"; then
      return 0
    fi
    grep -q 'in use' "$dir/bmcsim.err" || break
  done
  echo "[${dir##*/}] FAIL: qel-bmcsim did not start: $(tail -3 "$dir/bmcsim.err")"
  return 1
}
stop_bmcsim() {
  local dir=$1
  bmcsim_dir=
  [ -e "$dir/bmc.sock" ] || return 0
  "$bmcsim" --socket "$dir/bmc.sock" ctl shutdown >/dev/null 2>&1 \
    || { [ -s "$dir/bmc.pid" ] && kill "$(cat "$dir/bmc.pid")" 2>/dev/null; }
  return 0
}
# What the simulator recorded: the library's own watchdog bytes arrived
# unchanged through the kernel's driver, the watchdog ran out once, and the
# simulator asked QEMU for a reset (0x04).
check_bmcsim() {
  local dir=$1 name=${1##*/} why=()
  "$bmcsim" --socket "$dir/bmc.sock" ctl dump > "$dir/bmcsim.dump" 2>&1 || why+=("ctl dump failed")
  "$bmcsim" --socket "$dir/bmc.sock" ctl requests > "$dir/bmcsim.requests" 2>&1 || why+=("ctl requests failed")
  local arm
  arm=$(printf 'netfn 06 cmd 24 data 04 01 00 10 %02x 00' "$BMCSIM_COUNTDOWN")
  grep -q "$arm\$" "$dir/bmcsim.requests" || why+=("no Set Watchdog Timer '$arm' recorded")
  grep -q 'netfn 06 cmd 22 data$' "$dir/bmcsim.requests" || why+=("no Reset Watchdog Timer recorded")
  grep -q '^expiries 1$' "$dir/bmcsim.dump" || why+=("the simulator's watchdog did not run out exactly once")
  # Among the control commands sent to QEMU (the interrupt switched on and
  # off by the guest's driver, 05/06), exactly one reset (04).
  local resets
  resets=$(awk '/^commands-sent/ { for (i = 2; i <= NF; i++) if ($i == "04") n++ } END { print n + 0 }' \
    "$dir/bmcsim.dump")
  [ "$resets" = 1 ] || why+=("the simulator sent $resets resets to QEMU, not one")
  grep -q '^protocol-version 1$' "$dir/bmcsim.dump" || why+=("QEMU did not announce protocol version 1")
  grep -q '^dropped-frames 0$' "$dir/bmcsim.dump" || why+=("frames were dropped")
  if [ "$bmcsim_agent" = 1 ]; then
    # The agent's work as the controller saw it: the watchdog programmed
    # from the configuration space (300 s, no action), the interface's
    # addresses in the configuration space and in the PNI record of its MAC,
    # and the agent's connection status "disconnected" after SIGTERM.
    local wdset
    wdset=$(printf 'netfn 06 cmd 24 data 04 00 00 10 %02x %02x' $((BMCSIM_SOFT_WATCHDOG * 10 & 255)) \
      $((BMCSIM_SOFT_WATCHDOG * 10 >> 8)))
    grep -q "$wdset\$" "$dir/bmcsim.requests" || why+=("the agent's Set Watchdog Timer '$wdset' not recorded")
    grep -q "^address-1 $BMCSIM_IPV4 " "$dir/bmcsim.dump" || why+=("configuration-space address 1 is not $BMCSIM_IPV4")
    grep -q "nic $BMCSIM_NIC1 ipv4 $BMCSIM_IPV4 ipv6 $BMCSIM_IPV6" "$dir/bmcsim.dump" \
      || why+=("the PNI record of $BMCSIM_NIC1 does not carry $BMCSIM_IPV4 and $BMCSIM_IPV6")
    grep -q '^agent-connection 2 ' "$dir/bmcsim.dump" || why+=("the agent connection status is not 2")
    echo "[$name] simulator: $(sed -n 's/^address-1 //p' "$dir/bmcsim.dump"); $(grep " nic $BMCSIM_NIC1 " "$dir/bmcsim.dump")"
  elif [ -z "$qeld" ]; then
    echo "[$name] NOT RUN: the agent against the simulator (no qeld target in the build)"
  else
    echo "[$name] NOT RUN: the agent against the simulator (qel-bmcsim lacks the soft-watchdog/nic-ports keywords)"
  fi
  echo "[$name] simulator: $(grep -c . "$dir/bmcsim.requests") requests recorded;" \
    "$(sed -n 's/^connections //p' "$dir/bmcsim.dump") connection(s) from QEMU;" \
    "commands sent: $(sed -n 's/^commands-sent *//p' "$dir/bmcsim.dump")"
  if ((${#why[@]})); then
    printf "[$name] FAIL: simulator: %s\n" "${why[@]}"
    failed+=("$name")
  fi
}

boot qemu-bmc 150 1
boot qemu-bmc-sel 180 2
boot qemu-sensors 90 1
boot smbios-high 90 1
boot lockdown 90 1
boot watchdog-fire 150 2
if ! wanted bmcsim; then
  echo "[bmcsim] not booted: QEL_VM_ONLY=$QEL_VM_ONLY"
elif [ -n "$bmcsim" ]; then
  boot bmcsim 150 2 bmcsim
else
  echo "vm tier: FAIL: no qel-bmcsim given (--bmcsim); the boot against the project's simulator cannot run"
  failed+=(bmcsim)
fi

note "vm tier: $(since "$tier_start") s for all boots (budget ${budget} s)"
if ((${#failed[@]})); then
  echo "vm tier: FAILED: ${failed[*]}"
  exit 1
fi
echo "vm tier: all boots passed"

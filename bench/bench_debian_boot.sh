#!/usr/bin/env bash
# bench_debian_boot.sh [DIST_DIR] [BOOTS] [SPAN]
#
# The agent on a real server stack: the Debian system of the VM tier's
# Debian boot (tests/vm/debian-boot.sh: Debian's kernel under QEMU, the
# kernel's IPMI driver on KCS, QEMU's BMC, systemd as PID 1), the qeld
# package from DIST_DIR (dist/, scripts/package.sh) installed once with
# apt-get, then BOOTS boots (3) of that installed disk, each measuring:
#  - the time from QEMU's start to qeld.service active (the host's clock to
#    the kernel's start, the guest's for the rest: systemd's
#    ActiveEnterTimestampMonotonic);
#  - the VM's CPU (every non-idle tick of the guest's /proc/stat) and the
#    agent's (its unit's CPUUsageNSec) over SPAN seconds (600) three times:
#    the agent as installed (with the event log forwarder), with --no-sel,
#    and stopped. The agent's cost is the VM's CPU with it less the VM's CPU
#    without it; on the real driver every request goes through ipmi_si.
# Prints min/median/max over the boots. Emulation without KVM: the guest's
# CPU figures are those of an emulated CPU (tens of times slower than the
# host's), so they compare with one another, not with a real server's.
# Takes BOOTS x (3 x SPAN + about 3 minutes), plus an install boot.
# Not part of the test suite: run it by hand on a quiet machine.
# On the 2-core machine, `bench_debian_boot.sh dist 3 200` (42 minutes):
# QEMU's start to active 58.7 / 63.9 / 74.4 s; agent CPU over 200 s 0.066 /
# 0.068 / 0.083 s with the forwarder, 0.039 / 0.040 / 0.044 s with --no-sel;
# VM CPU 0.72 / 0.83 / 0.89 s with it, 0.69 / 0.75 / 0.78 s stopped (the
# VM's swing is larger than the agent's cost).
set -uo pipefail
cd "$(dirname "$0")/.."
dist=${1:-dist}
boots=${2:-3}
span=${3:-600}
out=build/bench-debian-boot
log=$out/bench.log
mkdir -p "$out"
QEL_VM_DEBIAN_RUNS=bench QEL_VM_BENCH_BOOTS=$boots QEL_VM_BENCH_SPAN=$span \
  bash tests/vm/debian-boot.sh "$dist" --out "$out" | tee "$log"
rc=${PIPESTATUS[0]}

# stats: min/median/max of the numbers on standard input.
stats() {
  sort -n | awk '{ v[NR] = $1 } END { if (NR == 0) { print "-"; exit }
    printf "%.3f / %.3f / %.3f (%d)", v[1], v[int((NR + 1) / 2)], v[NR], NR }'
}
echo
echo "== $boots boots, spans of $span s (min / median / max (boots))"
row() { printf '%-46s %s\n' "$1" "$2"; }
row "QEMU's start to qeld.service active, s" \
  "$(sed -n 's/.*BENCH boot [0-9]*: .*qeld.service active \([0-9.]*\) s after QEMU.*/\1/p' "$log" | stats)"
for what in "with the forwarder" "without the forwarder" "agent stopped"; do
  row "VM CPU, $what, s" "$(sed -n "s/.*BENCH $what: VM CPU \([0-9.]*\) s.*/\1/p" "$log" | stats)"
done
for what in "with the forwarder" "without the forwarder"; do
  row "agent CPU, $what, s" "$(sed -n "s/.*BENCH $what: .*agent CPU \([0-9.]*\) s.*/\1/p" "$log" | stats)"
done
# The agent's cost per boot: the VM's CPU with it less without it.
for what in "with the forwarder" "without the forwarder"; do
  row "VM CPU $what less stopped, s" "$(paste \
    <(sed -n "s/.*BENCH $what: VM CPU \([0-9.]*\) s.*/\1/p" "$log") \
    <(sed -n "s/.*BENCH agent stopped: VM CPU \([0-9.]*\) s.*/\1/p" "$log") |
    awk 'NF == 2 { printf "%.3f\n", $1 - $2 }' | stats)"
done
exit "$rc"

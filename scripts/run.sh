#!/usr/bin/env bash
# The main job: build the agent and show it at work.
#
# On a host with an IPMI device it asks the controller for its identity and
# runs one pass of the agent (qeld --once) against it. On a host without one
# it starts the simulated controller (qel-bmcsim with the default description:
# a blade with its management board, a PNI FRU whose two NIC ports carry this
# host's interface MACs, the software watchdog at 300 s, a LAN channel), runs
# `qeld --once` and a few seconds of `qeld --foreground` against it, and
# prints what the agent sent and what the controller holds afterwards.
#
# It installs only what these programs are built with (the build tools, and
# CLI11 and nlohmann-json for qelctl), not the test tools, and builds only the
# three programs it runs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --run
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF >/dev/null
cmake --build build/run -j"$(nproc)" --target qeld qelctl qel-bmcsim >/dev/null
qeld=build/run/tools/qeld/qeld
qelctl=build/run/tools/qelctl/qelctl
bmcsim=build/run/sim/server/qel-bmcsim

device=
for dev in /dev/ipmi0 /dev/ipmi/0 /dev/ipmidev/0; do
  [ -e "$dev" ] && device=$dev && break
done
if [ -n "$device" ]; then
  echo "== this host has an IPMI device ($device): the controller's identity"
  "$qelctl" device-id
  echo
  echo "== one pass of the agent on this controller: qeld --once"
  status=0
  "$qeld" --once --stderr || status=$?
  echo "qeld --once: exit status $status"
  echo "(the watchdog keeper runs as a service: packaging/qeld.service, qeld --foreground)"
  exit "$status"
fi

echo "(no IPMI device on this host: using the simulated controller)"
work=$(mktemp -d /tmp/qel-run.XXXXXX)
sock=$work/bmc.sock
agent=
cleanup() {
  [ -n "$agent" ] && kill -9 "$agent" 2>/dev/null || true
  "$bmcsim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT
"$bmcsim" --socket "$sock" --config sim/descriptions/default.conf --pidfile "$work/bmc.pid" --daemon
ctl() { "$bmcsim" --socket "$sock" ctl "$@"; }

# The controller's state dump, told readably: what the agent sent (by
# command) and what the controller holds.
show() {
  ctl dump | awk '
    /^\[/ { section = $0; next }
    section == "[traffic]" && $1 == "sent" {
      n = $4 ~ /^x/ ? $4 : $5; sub(/^x/, "", n)
      name = $0; sub(/^sent [^ ]+ [^ ]+( [a-z]+)? x[0-9]+  /, "", name)
      sent = sent sprintf("     %3d x %s (%s %s)\n", n, name, $2, $3); next }
    section == "[watchdog]" && $1 == "timer" { timer = $2 }
    section == "[watchdog]" && $1 == "timer-use" { sub(/^timer-use /, ""); use = $0 }
    section == "[watchdog]" && $1 == "timeout-action" { sub(/^timeout-action [0-9]+ /, ""); action = $0; gsub(/[()]/, "", action) }
    section == "[watchdog]" && $1 == "initial-countdown" { initial = $3; gsub(/[()]/, "", initial) }
    section == "[watchdog]" && $1 == "expiries" { expiries = $2 }
    section == "[confspace]" && $1 ~ /^address-/ { slots = slots " " $2 }
    section == "[confspace]" && $1 == "agent-connection" { sub(/^agent-connection /, ""); agent = $0 }
    section == "[confspace]" && $1 == "soft-watchdog" { sub(/^soft-watchdog /, ""); soft = $0 }
    section == "[pni]" && $1 == "adapter" { pni = pni "     " $0 "\n" }
    section == "[board]" && $1 == "os-status" { sub(/^os-status /, ""); status = $0 }
    section == "[board]" && $1 == "os-text" { sub(/^os-text /, ""); sub(/ via .*/, ""); ostext = $0 }
    section == "[board]" && $1 == "platform-text" { sub(/^platform-text /, ""); sub(/ via .*/, ""); ptext = $0 }
    section == "[board]" && $1 == "report" { reports = reports "     " $0 "\n" }
    section == "[board]" && $1 == "sel-event" {
      evlog = evlog (evlog == "" ? " " : ", ") ($3 == "1f" ? "OS boot" : $3 == "20" ? "OS shutdown" : "sensor type " $3) " (offset " $5 ")" }
    END {
      printf "   what the agent sent:\n%s", sent == "" ? "     nothing\n" : sent
      printf "   what the controller holds:\n"
      printf "     watchdog: %s, timer use %s, countdown %s s, time-out action: %s, expired %s times\n", timer, use, initial, action, expiries
      printf "     configuration space: software watchdog %s; address slots 1-4:%s; agent %s\n", soft, slots, agent
      printf "     PNI records (adapter, port, function: the NIC, its addresses):\n%s", pni
      printf "     management board: OS status %s (5 running, 6 shut down); OS text %s; platform text %s\n",
        status == "-" ? "none" : status, ostext == "" ? "none" : ostext, ptext == "" ? "none" : ptext
      if (reports != "") printf "     port reports to the board:\n%s", reports
      printf "     the controller'"'"'s event log, from the agent:%s\n", evlog == "" ? " nothing" : evlog
    }'
}

echo
echo "== 1. one pass of the agent: qeld --once"
status=0
"$qeld" --once --bmc-socket "$sock" --stderr || status=$?
echo "   qeld --once: exit status $status (no watchdog command in this mode)"
show

echo
echo "== 2. the watchdog keeper: qeld --foreground (the loop in a worker thread), then SIGTERM"
ctl clear-requests >/dev/null
"$qeld" --foreground --bmc-socket "$sock" --stderr &
agent=$!
for _ in $(seq 200); do  # up to 10 s for the first pass
  [ "$(ctl dump | awk '$1 == "timer" { print $2; exit }')" == running ] && break
  sleep 0.05
done
echo "   -- while it runs:"
show
kill -TERM "$agent"
status=0
wait "$agent" || status=$?
agent=
echo "   -- after SIGTERM: qeld --foreground exit status $status"
show
echo
echo "(the same in one process: $qeld --once --simulate --report)"

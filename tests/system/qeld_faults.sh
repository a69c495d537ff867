#!/usr/bin/env bash
# A running qeld --daemon (in a network namespace of its own, loop waits
# shortened with --test-time-scale=100: a 20 s pass takes 0.2 s, so info
# passes come every 1.2 s) while the controller misbehaves and the network
# changes under it. It must keep running, keep the watchdog alive, log what
# failed, and republish when the network changes. This is the library's own
# loop (--strict), whose historic publication the steps below pin down; the
# host agent's counterpart is qeld_host_agent.sh.
source "$(dirname "$0")/qeld-lib.sh"

M1=02:00:00:00:0c:01
M2=02:00:00:00:0c:02
start_syslog
start_bmcsim "board extended" "board-slot 3" "nic-ports $M1 $M2" "soft-watchdog on 300" "lan-channel 1 on"

new_netns faults
add_port() { # NAME MAC ADDRESS/PREFIX: a veth end with an IPv4 address
  ip -n "$NS" link add "$1" address "$2" type veth peer name "$1p"
  ip -n "$NS" addr add "$3" dev "$1"
  ip -n "$NS" link set "$1" up
  ip -n "$NS" link set "$1p" up
}
add_port p1 "$M1" 10.11.0.1/24
RUN_IN=(ip netns exec "$NS")

pni_line() { ctl dump | grep "^adapter .* nic $1 "; }
pni_has() { pni_line "$1" | grep -q "ipv4 $2 "; }
pni_lacks() { ! pni_has "$@"; }
slot_is() { [ "$(dump_value "address-$1" | cut -d' ' -f1)" == "$2" ]; }
slot_writes() { dump_value "address-$1" | sed 's/.*writes //'; }
info_passes() { sent_count "30 b1"; }  # every info pass sends the platform text
info_passes_at_least() { [ "$(info_passes)" -ge "$1" ]; }
alive() { kill -0 "$DAEMON_PID" 2>/dev/null && [ -z "$(daemon_status "$DAEMON_PID")" ]; }
# Faults are taken one per exchange; two info passes (a dozen passes of
# several exchanges each) use up the ones injected.
faults_used_up() {
  local passes
  passes=$(info_passes)
  wait_until 30 "two more info passes" info_passes_at_least $((passes + 2))
}
# Two more resets from now: the loop goes on and keeps the watchdog.
keeps_resetting() {
  local now
  now=$(sent_count "06 22")
  wait_until 20 "two more watchdog resets" resets_at_least $((now + 2))
}

step "the daemon publishes its interface"
start_daemon --strict --test-time-scale=100
wait_until 20 "PNI address of p1" pni_has "$M1" 10.11.0.1
expect_true "slot 1 holds p1's address" slot_is 1 10.11.0.1
expect_eq "the other NIC has none" "$(pni_line "$M2" | sed 's/.* ipv4 //')" "- ipv6 -"

step "an unchanged network is published once"
writes=$(slot_writes 1)
fru_writes=$(sent_count "0a 12")
passes=$(info_passes)
wait_until 20 "three more info passes" info_passes_at_least $((passes + 3))
expect_eq "slot 1 writes" "$(slot_writes 1)" "$writes"
expect_eq "Write FRU Data requests" "$(sent_count "0a 12")" "$fru_writes"

step "an interface appears: republished"
add_port p2 "$M2" 10.12.0.1/24
wait_until 20 "PNI address of p2" pni_has "$M2" 10.12.0.1
wait_until 10 "slot 2 with p2's address" slot_is 2 10.12.0.1
# The agent clears the PNI addresses before each interface it publishes, so
# the records keep only the last interface's (as the library is meant to).
expect_true "p1's PNI address cleared by p2's publication" pni_lacks "$M1" 10.11.0.1
expect_ge "slot 1 writes" "$(slot_writes 1)" $((writes + 1))

step "the interface disappears: republished without it"
writes=$(slot_writes 1)
ip -n "$NS" link del p2
wait_until 20 "p2's PNI address cleared" pni_lacks "$M2" 10.12.0.1
wait_until 20 "p1 published again" pni_has "$M1" 10.11.0.1
expect_ge "slot 1 writes" "$(slot_writes 1)" $((writes + 1))
expect_true "the daemon runs" alive

step "the controller stops answering (no reply at all, 60 exchanges)"
for i in $(seq 60); do ctl fault no-reply; done
faults_used_up
ctl clear-faults
expect_true "the daemon runs" alive
keeps_resetting
expect_eq "watchdog" "$(dump_value timer)" running

step "the controller answers busy (0xC0) to 60 exchanges"
for i in $(seq 60); do ctl fault completion-code c0; done
faults_used_up
ctl clear-faults
expect_true "the daemon runs" alive
keeps_resetting

step "the controller answers garbage: odd bytes, oversized, foreign message ids, empty"
for i in $(seq 15); do
  ctl fault raw-reply 00 ff 13 37
  ctl fault oversize-reply 400
  ctl fault foreign-msgid
  ctl fault empty-reply
done
faults_used_up
ctl clear-faults
expect_true "the daemon runs" alive
keeps_resetting

step "the device is gone while the network changes: logged, and republished once it is back"
: >"$SYSLOG"
ctl set all-paths-missing on
add_port p3 "$M2" 10.13.0.1/24
wait_until 20 "the failure in syslog" syslog_has 171 qel_daemon 'Error: Open failed: No such file or directory(qelIpmi,111)\n'
expect_true "the daemon runs" alive
ctl set all-paths-missing off
wait_until 20 "p3 published once the device is back" pni_has "$M2" 10.13.0.1
keeps_resetting

step "through all of it the watchdog never ran out"
expect_eq "expiries" "$(dump_value expiries)" 0
expect_eq "watchdog" "$(dump_value timer)" running

step "SIGTERM still ends it cleanly"
signal_when_idle TERM
wait_until 10 "end of the daemon" daemon_gone "$DAEMON_PID"
expect_eq "daemon's exit status" "$(daemon_status "$DAEMON_PID")" 0
expect_eq "watchdog" "$(dump_value timer)" stopped

finish

#!/usr/bin/env bash
# qeld's default loop, the host agent, on a host the library's own loop
# cannot serve: a VIP (a secondary IPv4 address with a label), an IPv6-only
# NIC and six NICs with IPv4, in a network namespace, against a controller
# process whose PNI FRU has a NIC function for each of the namespace's MACs.
# `qeld --foreground --test-time-scale=100` runs through more than an hour of
# its own time (a 20 s pass takes 0.2 s) while links go down and up, an
# interface comes and goes, a FRU write fails and the controller is busy.
#
# What the FRU holds is read back by ipmitool (`fru read`, through the
# stand-in /dev/ipmi0) and decoded by pni_decode.py, which walks the record
# and checks every checksum without the library; FreeIPMI's ipmi-fru checks
# the image's areas too. Then `qeld --strict` on the same host: the library's
# loop, which the VIP ends with status 2.
source "$(dirname "$0")/qeld-lib.sh"
: "${PRELOAD:?set PRELOAD to libqelsim-preload.so}"
command -v ipmitool >/dev/null || { echo "FAIL: ipmitool is missing (scripts/install-deps.sh)"; exit 1; }
IPMI_FRU=$(command -v ipmi-fru || echo /usr/sbin/ipmi-fru)

M=(02:00:00:00:0e:01 02:00:00:00:0e:02 02:00:00:00:0e:03 02:00:00:00:0e:04
   02:00:00:00:0e:05 02:00:00:00:0e:06 02:00:00:00:0e:07 02:00:00:00:0e:08)
start_syslog
start_bmcsim "board extended" "board-slot 3" "pni-nics ${M[*]}" "soft-watchdog on 300" "lan-channel 1 on"

new_netns hostagent
add_nic() { # NAME MAC: a veth end, up
  ip -n "$NS" link add "$1" address "$2" type veth peer name "$1p"
  ip -n "$NS" link set "$1" up
  ip -n "$NS" link set "$1p" up
}
for n in 1 2 3 4 5 6; do
  add_nic "v$n" "${M[$((n - 1))]}"
  ip -n "$NS" addr add "10.31.$n.1/24" dev "v$n"
done
ip -n "$NS" addr add 10.31.1.100/24 dev v1 label v1:vip       # the VIP: a secondary
ip -n "$NS" addr add 2001:db8:1::1/64 dev v1 nodad
add_nic v7 "${M[6]}"
ip -n "$NS" addr add 2001:db8:7::1/64 dev v7 nodad             # IPv6-only
RUN_IN=(ip netns exec "$NS")

# The PNI record as the independent decoder reads it from ipmitool's copy.
fru_copy() {
  rm -f "$T/fru.bin"
  LD_PRELOAD=$PRELOAD QEL_BMCSIM_SOCKET=$SOCK ipmitool -I open fru read 1 "$T/fru.bin" >/dev/null 2>&1 &&
    python3 "$SYSTEM_DIR/pni_decode.py" "$T/fru.bin" >"$T/pni" 2>"$T/pni.err"
}
pni_of() { grep "^$1 " "$T/pni" | cut -d' ' -f2-; }
pni_is() { # MAC "ipv4=... ipv6=..."
  fru_copy && [ "$(pni_of "$1")" == "$2" ]
}
everything_published() {
  fru_copy || return 1
  local n
  for n in 2 3 4 5 6; do [ "$(pni_of "${M[$((n - 1))]}")" == "ipv4=10.31.$n.1 ipv6=-" ] || return 1; done
  [ "$(pni_of "${M[0]}")" == "ipv4=10.31.1.1 ipv6=2001:db8:1::1" ] &&
    [ "$(pni_of "${M[6]}")" == "ipv4=- ipv6=2001:db8:7::1" ] &&
    [ "$(pni_of "${M[7]}")" == "ipv4=- ipv6=-" ]
}
alive() { kill -0 "$FG" 2>/dev/null; }
passes_at_least() { passes_done "$1"; }
logged() { grep -qE " QELD\[[0-9]+\]: $1" "$SYSLOG"; }

step "the host agent publishes every NIC: the VIP host, the IPv6-only NIC, six with IPv4"
ctl set confspace-var 2300 01
with_log_bg "$QELD" --foreground --bmc-socket "$SOCK" --no-stderr --test-time-scale=100 --test-stats="$T/stats"
FG=$BG_PID
wait_until 30 "every NIC's addresses in the FRU" everything_published
expect_eq "slot 1" "$(dump_value address-1 | cut -d' ' -f1)" 10.31.1.1
expect_eq "slot 4" "$(dump_value address-4 | cut -d' ' -f1)" 10.31.4.1
expect_true "the decoder is happy" test ! -s "$T/pni.err"
decoded=$("$IPMI_FRU" -vv --fru-file="$T/fru.bin" 2>&1 || true)
expect_eq "ipmi-fru finds no bad checksum" "$(echo "$decoded" | grep -ci 'checksum invalid' || true)" 0
expect_true "qeld runs" alive

step "a link goes down and up: the NICs keep their addresses"
ip -n "$NS" link set v3 down
passes=$(sed -n 's/^passes //p' "$T/stats")
wait_until 30 "two info passes" passes_at_least $((passes + 12))
expect_true "v3 still published while down" pni_is "${M[2]}" "ipv4=10.31.3.1 ipv6=-"
ip -n "$NS" link set v3 up
passes=$(sed -n 's/^passes //p' "$T/stats")
wait_until 30 "two info passes" passes_at_least $((passes + 12))
expect_true "everything still published" everything_published

step "an interface appears, and disappears again"
add_nic v8 "${M[7]}"
ip -n "$NS" addr add 10.31.8.1/24 dev v8
wait_until 30 "v8 published" pni_is "${M[7]}" "ipv4=10.31.8.1 ipv6=-"
ip -n "$NS" link del v8
wait_until 30 "v8's addresses gone" pni_is "${M[7]}" "ipv4=- ipv6=-"
expect_true "the others kept theirs" everything_published

step "a FRU write fails part way: logged once, retried, logged once as cleared"
ctl fault completion-code c0 for 0a 12
ip -n "$NS" addr add 10.31.2.2/24 dev v2   # a secondary: the NIC's primary stays, the inventory changed
wait_until 30 "the failure logged" logged "PNI addresses failed: "
wait_until 30 "and cleared" logged "PNI addresses works again"
expect_eq "failure lines" "$(grep -c 'PNI addresses failed' "$SYSLOG")" 1
expect_eq "cleared lines" "$(grep -c 'PNI addresses works again' "$SYSLOG")" 1
expect_true "every NIC still published" everything_published

step "the controller is busy for a minute of the agent's time"
for i in $(seq 40); do ctl fault completion-code c0; done
passes=$(sed -n 's/^passes //p' "$T/stats")
wait_until 30 "five more passes" passes_at_least $((passes + 5))
expect_true "qeld runs" alive

step "the controller answers garbage: odd bytes, oversized replies, foreign message ids, empty replies"
for i in $(seq 10); do
  ctl fault raw-reply 00 ff 13 37
  ctl fault oversize-reply 400
  ctl fault foreign-msgid
  ctl fault empty-reply
done
passes=$(sed -n 's/^passes //p' "$T/stats")
wait_until 30 "ten more passes" passes_at_least $((passes + 10))
expect_true "qeld runs" alive
# A garbage reply can land in the middle of a publication: the agent logs it
# and writes the addresses again on its next info pass.
wait_until 60 "every NIC published again" everything_published

step "an hour of the agent's time: the watchdog was kept all along"
wait_until 60 "180 passes (an hour)" passes_at_least 180
expect_eq "expiries" "$(dump_value expiries)" 0
expect_eq "watchdog" "$(dump_value timer)" running
expect_true "qeld runs" alive
expect_true "every NIC still published" everything_published

step "the true OS name on the board and in the System Info Parameters"
. /etc/os-release
expect_eq "board OS text" "$(dump_value os-text | sed 's/ via.*//')" "\"$PRETTY_NAME\""
expect_eq "board platform text" "$(dump_value platform-text | sed 's/ via.*//')" "\"$(uname -r)\""
sysinfo() { LD_PRELOAD=$PRELOAD QEL_BMCSIM_SOCKET=$SOCK ipmitool -I open mc getsysinfo "$1" 2>&1; }
expect_eq "System Info: OS name (ipmitool)" "$(sysinfo os_name)" "$NAME"
expect_eq "System Info: present OS version" "$(dump_value sysinfo-5)" "\"${VERSION:-$(uname -r)}\""

step "SIGTERM ends it: watchdog stopped, exit 0"
kill -TERM "$FG"
set +e
wait "$FG"
status=$?
set -e
expect_eq "exit status" "$status" 0
expect_eq "watchdog" "$(dump_value timer)" stopped

step "qeld --strict on the same host: the library's loop ends at the VIP with status 2"
set +e
with_log "$QELD" --strict --once --bmc-socket "$SOCK" --no-stderr
status=$?
set -e
expect_eq "exit status" "$status" 2

finish

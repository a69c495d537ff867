#!/usr/bin/env bash
# qelctl against the simulated controller process, every command in text and
# in JSON (parsed by Python's json module), with ipmitool (through the
# stand-in /dev/ipmi0) as the independent reader: Get Device ID and the
# watchdog field by field, and the values qelctl writes read back. Also the
# controller refusing a command (exit 1, the completion code named), no
# controller (3) and bad usage (2).
source "$(dirname "$0")/qeld-lib.sh"
: "${QELCTL:?set QELCTL to the qelctl program}" "${PRELOAD:?set PRELOAD to libqelsim-preload.so}"

start_bmcsim
qelctl() { "$QELCTL" --bmc-socket "$SOCK" "$@"; }
ipmi() { LD_PRELOAD=$PRELOAD QEL_BMCSIM_SOCKET=$SOCK ipmitool -I open "$@"; }
# jq-like: json_get FILE PYTHON-EXPRESSION-ON-d
json_get() { python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); print(eval(sys.argv[2]))' "$1" "$2"; }
ipmitool_field() { ipmi "$1" "$2" "${3:-}" 2>/dev/null | sed -n "s/^$4 *: *//p" | head -1; }

step "identity: text and JSON agree with ipmitool mc info"
qelctl identity >"$T/id.txt"
expect_eq "exit status" "$?" 0
qelctl --json identity >"$T/id.json"
expect_eq "JSON parses" "$(json_get "$T/id.json" 'type(d).__name__')" dict
for pair in "device_id:Device ID" "firmware_revision:Firmware Revision" "ipmi_version:IPMI Version" \
            "manufacturer_id:Manufacturer ID"; do
  key=${pair%%:*}; label=${pair#*:}
  expect_eq "$key" "$(json_get "$T/id.json" "d['$key']")" "$(ipmi mc info | sed -n "s/^$label *: *//p" | head -1)"
done
expect_eq "product_id" "$(json_get "$T/id.json" "d['product_id']")" "$(ipmi mc info | sed -n 's/^Product ID *: *\([0-9]*\).*/\1/p')"
expect_true "text shows the firmware revision" grep -q "^Firmware Revision: *1.07$" "$T/id.txt"

step "watchdog set / get / reset / stop, read back by ipmitool"
qelctl watchdog set --timeout 300 >/dev/null
expect_eq "set exit status" "$?" 0
qelctl --json watchdog get >"$T/wd.json"
expect_eq "initial_countdown" "$(json_get "$T/wd.json" "d['initial_countdown']")" "300.0"
expect_eq "ipmitool: initial countdown" "$(ipmi mc watchdog get | sed -n 's/^Initial Countdown: *\([0-9.]*\) sec/\1/p')" "300.0"
expect_eq "timer_use" "$(json_get "$T/wd.json" "d['timer_use']")" "SMS/OS"
expect_eq "ipmitool: timer use" "$(ipmi mc watchdog get | sed -n 's/^Watchdog Timer Use: *\(.*\) (0x.*)/\1/p')" "SMS/OS"
qelctl watchdog reset >/dev/null
expect_eq "running after reset" "$(qelctl --json watchdog get | python3 -c 'import json,sys; print(json.load(sys.stdin)["running"])')" True
expect_eq "ipmitool: running" "$(ipmi mc watchdog get | sed -n 's/^Watchdog Timer Is: *//p')" "Started/Running"
qelctl watchdog stop >/dev/null
expect_eq "ipmitool: stopped" "$(ipmi mc watchdog get | sed -n 's/^Watchdog Timer Is: *//p')" "Stopped"
set +e
qelctl watchdog set --timeout 300 --action reset >/dev/null 2>"$T/err"
status=$?
set -e
expect_eq "an action without qeld running needs --yes" "$status" 2
expect_true "it says why" grep -q "give --yes" "$T/err"
qelctl watchdog set --timeout 120 --action reset --yes >/dev/null 2>&1
expect_eq "ipmitool: action" "$(ipmi mc watchdog get | sed -n 's/^Watchdog Timer Action: *//p')" "Hard Reset (0x01)"
qelctl watchdog stop >/dev/null

step "config list / get / set"
qelctl --json config list >"$T/config.json"
expect_eq "variables" "$(json_get "$T/config.json" "len(d['variables'])")" 21
expect_eq "soft-watchdog-time before" "$(json_get "$T/config.json" "[v['value'] for v in d['variables'] if v['name'] == 'soft-watchdog-time'][0]")" 300
qelctl config set soft-watchdog-time 600 >/dev/null
expect_eq "set exit status" "$?" 0
expect_eq "the controller holds 600 s (its own dump)" "$(dump_value soft-watchdog | cut -d' ' -f2)" 600
expect_eq "read back by number" "$(qelctl --json config get 0x43 | python3 -c 'import json,sys; print(json.load(sys.stdin)["value"])')" 600
qelctl config set cabinet-location "Row 9, rack 3" >/dev/null
expect_eq "text read back" "$(qelctl --json config get cabinet-location | python3 -c 'import json,sys; print(json.load(sys.stdin)["value"])')" "Row 9, rack 3"
set +e
qelctl config set soft-watchdog-time soon >/dev/null 2>"$T/err"
expect_eq "a bad value: exit 1" "$?" 1
qelctl config get no-such-variable >/dev/null 2>&1
expect_eq "an unknown variable: exit 1" "$?" 1
set -e

step "inventory, host, status, metrics"
qelctl --json inventory >"$T/inv.json"
expect_eq "inventory lists lo" "$(json_get "$T/inv.json" "[i['name'] for i in d['interfaces']][0]")" lo
expect_eq "inventory matches ip" "$(json_get "$T/inv.json" "len(d['interfaces'])")" "$(ip -o link | wc -l)"
qelctl --json host >"$T/host.json"
. /etc/os-release
expect_eq "host os_name" "$(json_get "$T/host.json" "d['os_name']")" "$PRETTY_NAME"
expect_eq "host os_release" "$(json_get "$T/host.json" "d['os_release']")" "$(uname -r)"
qelctl --json status >"$T/status.json"
expect_eq "status exit" "$?" 0
expect_eq "status holds the watchdog" "$(json_get "$T/status.json" "d['watchdog']['timer_use']")" "SMS/OS"
expect_eq "status: qeld" "$(json_get "$T/status.json" "d['qeld']['running']")" False
qelctl metrics >"$T/metrics"
expect_true "metrics: timer state" grep -qx "ipmi_bmc_watchdog_timer_state 0" "$T/metrics"
expect_true "metrics: initial countdown" grep -qx "ipmi_bmc_watchdog_initial_countdown_seconds 120" "$T/metrics"
expect_true "metrics: every line a comment or a sample" \
  sh -c "! grep -vE '^(# (HELP|TYPE) [a-z_]+ .*|[a-z_]+(\{[a-z_]+=\"([^\"\\\\]|\\\\.)*\"(,[a-z_]+=\"([^\"\\\\]|\\\\.)*\")*\})? (-?[0-9.e+-]+|NaN|[+-]Inf))$' '$T/metrics'"
expect_true "metrics: the collectors up" grep -qx 'ipmi_up{collector="bmc"} 1' "$T/metrics"
expect_true "metrics: the controller's identity" grep -q '^ipmi_bmc_info{firmware_revision="[^"]*",manufacturer_id="[0-9]*",system_firmware_version="' "$T/metrics"

step "lan: agrees with ipmitool lan print"
qelctl --json lan >"$T/lan.json"
expect_eq "lan exit" "$?" 0
lanprint=$(ipmi lan print "$(json_get "$T/lan.json" "d['channel']")" 2>/dev/null)
expect_eq "ipv4_address" "$(json_get "$T/lan.json" "d['ipv4_address']")" "$(echo "$lanprint" | sed -n 's/^IP Address  *: *//p')"
expect_eq "subnet_mask" "$(json_get "$T/lan.json" "d['subnet_mask']")" "$(echo "$lanprint" | sed -n 's/^Subnet Mask  *: *//p')"
expect_eq "default_gateway" "$(json_get "$T/lan.json" "d['default_gateway']")" "$(echo "$lanprint" | sed -n 's/^Default Gateway IP  *: *//p')"
expect_eq "mac_address" "$(json_get "$T/lan.json" "d['mac_address']")" "$(echo "$lanprint" | sed -n 's/^MAC Address  *: *//p')"
expect_true "text output" sh -c "$QELCTL --bmc-socket $SOCK lan | grep -q '^IP Address:'"

step "pni: agrees with ipmitool's copy decoded independently"
qelctl --json pni --raw >"$T/pni.json"
expect_eq "pni exit" "$?" 0
expect_eq "checks" "$(json_get "$T/pni.json" "d['checks']")" ok
ipmi fru read "$(json_get "$T/pni.json" "d['fru_device_id']")" "$T/fru.bin" >/dev/null 2>&1
python3 "$SYSTEM_DIR/pni_decode.py" "$T/fru.bin" >"$T/pni.independent"
json_get "$T/pni.json" "'\n'.join('%s ipv4=%s ipv6=%s' % (f['mac'], ','.join(f['ipv4']) or '-', ','.join(f['ipv6']) or '-') for a in d['adapters'] for p in a['ports'] for f in p['functions'] if f['type'] == 'NIC')" >"$T/pni.ours"
expect_eq "every NIC function as the independent decoder reads it" "$(cat "$T/pni.ours")" "$(cat "$T/pni.independent")"
expect_true "--raw gives the record bytes" sh -c "[ -n \"\$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))[\"raw\"])' $T/pni.json)\" ]"

step "board"
qelctl --json board >"$T/board.json"
expect_eq "board exit" "$?" 0
expect_eq "blade_system is a boolean" "$(json_get "$T/board.json" "type(d['blade_system']).__name__")" bool

step "every command in text and in JSON"
for c in status identity device-id "watchdog get" "config list" lan pni board inventory host metrics; do
  # shellcheck disable=SC2086
  qelctl $c >"$T/text" 2>"$T/err"
  expect_eq "qelctl $c: exit" "$?" 0
  expect_true "qelctl $c: text output" test -s "$T/text"
  # shellcheck disable=SC2086
  qelctl --json $c >"$T/json" 2>"$T/err"
  expect_eq "qelctl --json $c parses as one JSON object" \
    "$(python3 -c 'import json,sys; print(type(json.load(open(sys.argv[1]))).__name__)' "$T/json" 2>&1)" dict
done
expect_eq "identity: product_line is a boolean" "$(json_get "$T/id.json" "type(d.get('product_line')).__name__")" bool
qelctl --json host >"$T/host.json"
expect_true "host: boot time in CIM form" sh -c "python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))[\"boot_time\"])' $T/host.json | grep -Eq '^[0-9]{14}\.[0-9]{6}[+-][0-9]{3}$'"

step "every command the controller refuses: exit 1, the command and the completion code named"
refused() { # NETFN CMD QELCTL-ARGS...: the first such request answers 0xC1
  local netfn=$1 cmd=$2 status
  shift 2
  ctl clear-faults >/dev/null
  ctl fault completion-code c1 for "$netfn" "$cmd"
  set +e
  qelctl "$@" >/dev/null 2>"$T/err"
  status=$?
  set -e
  ctl clear-faults >/dev/null
  expect_eq "qelctl $* refused: exit" "$status" 1
  expect_true "qelctl $* says 0xC1 invalid command" grep -q "0xC1 invalid command" "$T/err"
}
refused 06 01 identity
refused 06 01 --json identity
refused 06 25 watchdog get
# The sensors need the SDR repository; a sensor the controller refuses is a
# sensor without a reading (qel_sensors_oracle.sh), not a failed command.
refused 0a 20 sensors
refused 0a 20 --json sensors
refused 06 24 watchdog set --timeout 300
refused 06 22 watchdog reset
refused 2e e0 config get soft-watchdog-time
refused 2e e0 config list
refused 2e e0 config set soft-watchdog-time 300
refused 0c 02 lan
refused 34 40 pni
refused 0a 11 pni
refused 06 25 status
refused 06 25 metrics

step "independent readers after qelctl wrote"
qelctl config set soft-watchdog-time 900 >/dev/null
n=${QEL_VENDOR_IANA:-32473}
iana=$(printf '0x%02x 0x%02x 0x%02x' $((n & 255)) $((n >> 8 & 255)) $((n >> 16 & 255)))
# shellcheck disable=SC2086
expect_eq "ipmitool raw reads the variable qelctl wrote (900 s)" \
  "$(ipmi raw 0x2e 0xe0 $iana 0x01 0x00 0x43 0x00 | tr -s ' \n' ' ' | sed 's/^ //; s/ $//')" \
  "$(printf '%02x %02x %02x' $((n & 255)) $((n >> 8 & 255)) $((n >> 16 & 255))) 02 84 03"
IPMI_FRU=$(command -v ipmi-fru || echo /usr/sbin/ipmi-fru)
expect_eq "ipmi-fru finds no bad checksum in the FRU qelctl pni decoded" \
  "$("$IPMI_FRU" -vv --fru-file="$T/fru.bin" 2>&1 | grep -ci 'checksum invalid' || true)" 0

step "the controller refuses: exit 1, the completion code named"
ctl fault completion-code c1 for 06 25
set +e
qelctl watchdog get >/dev/null 2>"$T/err"
status=$?
set -e
expect_eq "exit status" "$status" 1
expect_eq "message" "$(cat "$T/err")" "qelctl: watchdog get: Get Watchdog Timer: 0xC1 invalid command"

step "no controller, bad usage"
set +e
"$QELCTL" --bmc-socket "$T/nobody.sock" identity >/dev/null 2>&1
expect_eq "no controller: exit 3" "$?" 3
"$QELCTL" --bmc-socket "$T/nobody.sock" status >"$T/out" 2>"$T/err"
expect_eq "status without a controller: exit 3" "$?" 3
expect_eq "status without a controller: one line on stderr" "$(grep -c '' "$T/err")" 1
expect_true "... that says so as qeld does" grep -q "^qelctl: no IPMI controller: no controller at $T/nobody.sock (" "$T/err"
expect_true "... and the host's own sections still shown" grep -q '^os: ' "$T/out"
"$QELCTL" frobnicate >/dev/null 2>&1
expect_eq "unknown command: exit 2" "$?" 2
"$QELCTL" --simulate --bmc-socket "$SOCK" identity >/dev/null 2>&1
expect_eq "--simulate with --bmc-socket: exit 2" "$?" 2
set -e

step "the manual page and the bash completion"
if command -v man >/dev/null; then
  MANWIDTH=80 man --warnings -l "$QEL_SOURCE_DIR/packaging/qelctl.8" >"$T/man.txt" 2>"$T/man.err"
  expect_eq "man warnings" "$(cat "$T/man.err")" ""
  for c in status identity watchdog config lan pni board sensors power inventory host metrics; do
    expect_true "the manual names $c" grep -qw "$c" "$T/man.txt"
  done
fi
expect_true "the completion script parses" bash -n "$QEL_SOURCE_DIR/packaging/qelctl.bash-completion"

finish

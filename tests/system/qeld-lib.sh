# Shared by the qeld process-level tests (tests/system/qeld_*.sh); sourced.
#
# The environment names the programs (ctest sets it, tests/CMakeLists.txt):
#   QELD, BMCSIM, SYSLOG_SINK, SUBREAPER, QEL_SOURCE_DIR
# Every test works in a temp directory $T: the controller process serves
# $T/bmc.sock, the stand-in logger $T/log.sock (lines in $T/syslog), a daemon
# gets --root $T/root, so its pid file is $T/root/var/run/qeld.pid.
#
# Waiting is never a bare sleep: wait_until polls a condition with a bound.
# Checks (expect_*) count failures and go on; finish reports them.
set -euo pipefail

: "${QELD:?set QELD to the qeld program}" "${BMCSIM:?}" "${SYSLOG_SINK:?}" "${SUBREAPER:?}" "${QEL_SOURCE_DIR:?}"
SYSTEM_DIR=$QEL_SOURCE_DIR/tests/system
DEFAULT_DESCRIPTION=$QEL_SOURCE_DIR/sim/descriptions/default.conf

if [ "$(id -u)" -ne 0 ]; then
  echo "FAIL: the qeld process-level tests need root (mount and network namespaces)" >&2
  exit 1
fi

T=$(mktemp -d /tmp/qeld-test.XXXXXX)
# The agent's own directories (the event log forwarding's state, the sensor
# names' cache, its status), as the service manager would give them: each
# test its own, and the host's /var left alone.
export STATE_DIRECTORY=$T/state CACHE_DIRECTORY=$T/cache RUNTIME_DIRECTORY=$T/runtime
SOCK=$T/bmc.sock
ROOT=$T/root
PIDFILE=$ROOT/var/run/qeld.pid
SYSLOG=$T/syslog
EXITS=$T/exits
mkdir -p "$ROOT/var/run"
: >"$SYSLOG"
: >"$EXITS"
failures=0
NETNS=()
KILL_AT_END=()

cleanup() {
  local pid
  for pid in "${KILL_AT_END[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
  if [ -f "$PIDFILE" ]; then kill -9 "$(cat "$PIDFILE")" 2>/dev/null || true; fi
  [ -S "$SOCK" ] && "$BMCSIM" --socket "$SOCK" ctl shutdown >/dev/null 2>&1 || true
  [ -f "$T/sink.pid" ] && kill "$(cat "$T/sink.pid")" 2>/dev/null || true
  for ns in "${NETNS[@]}"; do ip netns del "$ns" 2>/dev/null || true; done
  if [ "$failures" -ne 0 ] || [ -n "${KEEP_TEMP:-}" ]; then
    echo "(kept $T for a look)" >&2
  else
    rm -rf "$T"
  fi
}
trap cleanup EXIT

# ---------------------------------------------------------------- checks

source "$(dirname "${BASH_SOURCE[0]}")/checks-lib.sh"

now_ms() { echo $(($(date +%s%N) / 1000000)); }

# ---------------------------------------------------------------- the controller

# start_bmcsim [DESCRIPTION LINE...]: a controller process at $SOCK built from
# the lines (none: the default description). It returns once it serves.
start_bmcsim() {
  if [ $# -eq 0 ]; then
    cp "$DEFAULT_DESCRIPTION" "$T/description"
  else
    printf '%s\n' "$@" >"$T/description"
  fi
  "$BMCSIM" --socket "$SOCK" --config "$T/description" --pidfile "$T/bmc.pid" --daemon
}
ctl() { "$BMCSIM" --socket "$SOCK" ctl "$@"; }
# The value behind "KEY " in the controller's dump (first such line).
dump_value() { ctl dump | awk -v k="$1" 'index($0, k " ") == 1 { print substr($0, length(k) + 2); exit }'; }
# How often the agent sent NETFN CMD ("06 22"), from the dump's traffic.
sent_count() {
  local n
  n=$(ctl dump | awk -v k="sent $1 x" 'index($0, k) == 1 { sub(/^x/, "", $4); print $4; exit }')
  echo "${n:-0}"
}
# The recorded requests as "NETFN CMD DATA..." lines.
request_lines() { ctl requests | sed -e 's/.* netfn \(..\) cmd \(..\) data */\1 \2 /' -e 's/ *$//'; }
watchdog_running() { [ "$(dump_value timer)" == running ]; }
resets_at_least() { [ "$(sent_count "06 22")" -ge "$1" ]; }

# ---------------------------------------------------------------- the logger

start_syslog() { "$SYSLOG_SINK" "$T/log.sock" "$SYSLOG" "$T/sink.pid"; }
# syslog_has PRI IDENT TEXT: a line "<PRI>... IDENT[pid]: TEXT" arrived.
syslog_has() {
  # Through the environment: awk -v would turn a "\n" in the text into a
  # line feed, where the logger keeps the two characters.
  PRI="<$1>" ID="$2" TEXT="$3" awk '
    index($0, ENVIRON["PRI"]) == 1 {
      i = index($0, " " ENVIRON["ID"] "[")
      if (i == 0) next
      rest = substr($0, i + length(ENVIRON["ID"]) + 2)
      j = index(rest, "]: ")
      if (j > 0 && substr(rest, j + 3) == ENVIRON["TEXT"]) { found = 1; exit }
    }
    END { exit found ? 0 : 1 }' "$SYSLOG"
}
# The pid in the first "IDENT[pid]: TEXT" line.
syslog_pid() {
  ID="$1" TEXT="$2" awk '{
      i = index($0, " " ENVIRON["ID"] "[")
      if (i == 0) next
      rest = substr($0, i + length(ENVIRON["ID"]) + 2)
      j = index(rest, "]: ")
      if (j > 0 && substr(rest, j + 3) == ENVIRON["TEXT"]) { print substr(rest, 1, j - 1); exit }
    }' "$SYSLOG"
}

# with_log COMMAND...: runs COMMAND with /dev/log being our logger, in a
# private mount namespace.
# RUN_IN is put in front (ip netns exec NS, say).
RUN_IN=()
with_log() { "${RUN_IN[@]}" unshare -m --propagation private bash "$SYSTEM_DIR/with-devlog.sh" "$T/log.sock" "$@"; }
# with_log_bg COMMAND...: the same in the background; BG_PID is COMMAND's own
# pid (each step execs the next), so signals sent to it reach it.
with_log_bg() {
  (exec "${RUN_IN[@]}" unshare -m --propagation private bash "$SYSTEM_DIR/with-devlog.sh" "$T/log.sock" "$@") &
  BG_PID=$!
  KILL_AT_END+=("$BG_PID")
}

# ---------------------------------------------------------------- the daemon

# start_daemon [QELD OPTIONS...]: `qeld --daemon` against $SOCK with --root
# $ROOT, under the subreaper (so the daemon's own exit status is seen) and
# the logger, in the background. Waits for the parent's exit and the pid file;
# sets DAEMON_PID and REAPER_PID. The daemon keeps its pass count in
# $T/stats (--test-stats), so a test can wait until a pass is over.
start_daemon() {
  : >"$EXITS"
  rm -f "$T/stats"
  with_log_bg "$SUBREAPER" "$EXITS" "$QELD" --daemon --bmc-socket "$SOCK" --root "$ROOT" --no-stderr \
    --test-stats="$T/stats" "$@"
  REAPER_PID=$BG_PID
  wait_until 10 "exit of the daemon's parent" grep -q '^command ' "$EXITS" || return 1
  DAEMON_PID=
  wait_until 10 "pid file" test -s "$PIDFILE" || return 1
  DAEMON_PID=$(cat "$PIDFILE")
  KILL_AT_END+=("$DAEMON_PID")
}
# passes_done N: N passes of the loop are over (it waits between passes).
passes_done() { [ "$(sed -n 's/^passes //p' "$T/stats" 2>/dev/null)" -ge "$1" ] 2>/dev/null; }
# wait_idle: the daemon has finished its first pass and waits. Its signal
# handlers talk to the controller (as the agent is specified), which is only
# safe while the loop waits: a signal in the middle of an exchange can
# deadlock on the allocator's lock. Tests signal it only then.
wait_idle() { wait_until 20 "end of the daemon's first pass" passes_done 1; }
# signal_when_idle SIG: sends SIG right after a pass ended, while the loop
# waits (for the short passes of --test-time-scale).
signal_when_idle() {
  local done
  done=$(sed -n 's/^passes //p' "$T/stats")
  wait_until 20 "the end of a pass" passes_done $((done + 1))
  kill -"$1" "$DAEMON_PID"
}
parent_status() { sed -n 's/^command pid [0-9]* exit //p' "$EXITS"; }
# The daemon's exit status once it ended ("" before).
daemon_status() { sed -n "s/^pid $1 exit //p; s/^pid $1 signal /signal /p" "$EXITS"; }
daemon_gone() { [ -n "$(daemon_status "$1")" ]; }

# ---------------------------------------------------------------- network namespaces

# new_netns NAME: a network namespace removed at the end, named in $NS, with
# its loopback up and no automatic IPv6 link-local addresses (they would come
# whenever the kernel gets round to it).
new_netns() {
  NS=qeld-$$-$1
  ip netns add "$NS"
  NETNS+=("$NS")
  ip netns exec "$NS" sh -c 'echo 1 >/proc/sys/net/ipv6/conf/default/addr_gen_mode; echo 1 >/proc/sys/net/ipv6/conf/all/addr_gen_mode'
  ip -n "$NS" link set lo up
}

#!/usr/bin/env bash
# Sensor names from the controller are data: a name with a line break, an
# escape sequence, quotes and bytes that are no UTF-8, and OEM records of
# any bytes, reach qeld's forwarded lines and qelctl's listing escaped
# (\xNN), never raw, and the same in both; names that are plain text stay as they are.
#
#   qeld_sel_names.sh QELD QEL-BMCSIM QELCTL
set -euo pipefail
qeld=$1
sim=$2
qelctl=$3

T=$(mktemp -d /tmp/qeld-selnames.XXXXXX)
export STATE_DIRECTORY=$T/state CACHE_DIRECTORY=$T/cache RUNTIME_DIRECTORY=$T/runtime
sock=$T/bmc.sock
q=
cleanup() {
  [ -n "$q" ] && kill -KILL "$q" 2>/dev/null || true
  "$sim" --socket "$sock" ctl shutdown >/dev/null 2>&1 || true
  rm -rf "$T"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
ctl() { "$sim" --socket "$sock" ctl "$@"; }

cat >"$T/sim.conf" <<'CONF'
sensor 0x21 temperature "EVIL\x0a\x1b[2J\"x\"\xff\xc3" unit=celsius uc=90 reading=40
sensor 0x22 temperature "Inlet Temp" unit=celsius uc=45 reading=24
CONF
"$sim" --socket "$sock" --config "$T/sim.conf" --daemon --pidfile "$T/sim.pid"
# An upper critical event on each, and an OEM record (non-timestamped, 0xE0)
# whose bytes are a line break, an escape and a NUL.
ctl sel add 00 00 02 00 00 00 00 20 00 04 01 21 01 59 5f 5a >/dev/null
ctl sel add 00 00 02 00 00 00 00 20 00 04 01 22 01 59 5f 5a >/dev/null
ctl sel add 00 00 e0 0a 1b 00 41 0d 0a 1b 5b 32 4a ff fe 00 >/dev/null

"$qeld" --foreground --bmc-socket "$sock" --no-stderr --test-time-scale=100 --test-sel-log="$T/sel.log" \
  --sel-replay >"$T/qeld.out" 2>&1 &
q=$!
three() { [ "$(grep -c '^b94984b79cc44ea099a87728d5a050b2 ' "$T/sel.log" 2>/dev/null || echo 0)" -ge 3 ]; }
deadline=$((SECONDS + 60))
until three; do
  kill -0 "$q" 2>/dev/null || fail "qeld ended: $(cat "$T/qeld.out")"
  ((SECONDS < deadline)) || fail "three records not forwarded within 60 s: $(cat "$T/sel.log" 2>/dev/null)"
  sleep 0.1
done
kill -TERM "$q"
wait "$q" || true
q=
"$qelctl" --bmc-socket "$sock" sel list >"$T/list.txt"

for f in "$T/sel.log" "$T/list.txt"; do
  # Nothing but printable text and line ends.
  if LC_ALL=C grep -q $'[\x01-\x08\x0b-\x1f\x7f]' "$f"; then fail "$f holds control characters"; fi
  iconv -f UTF-8 -t UTF-8 "$f" >/dev/null 2>&1 || fail "$f is not valid UTF-8"
  [ "$(wc -l <"$f")" -eq 3 ] || fail "$f has $(wc -l <"$f") lines, not one per record"
  grep -qF 'Temperature EVIL\x0A\x1B[2J"x"\xFF\xC3 (#0x21): Upper Critical going high, asserted' "$f" ||
    fail "$f: the hostile name is not shown escaped: $(sed -n 1p "$f")"
  grep -qF 'Temperature Inlet Temp (#0x22): Upper Critical going high, asserted' "$f" ||
    fail "$f: the plain name changed: $(sed -n 2p "$f")"
done
echo "ok: hostile names and OEM bytes escaped in qeld's lines and qelctl's listing; plain names as they are"

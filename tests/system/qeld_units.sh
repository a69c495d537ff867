#!/usr/bin/env bash
# The systemd unit and the manual page: systemd-analyze verify on the unit
# (with the built qeld in place of /usr/sbin/qeld), the unit's choices that
# keep a host from being left without its watchdog keeper, and the manual
# page renders without warnings and names every exit status qeld --help names.
# Skipped (77) when neither systemd-analyze nor man is there.
source "$(dirname "$0")/qeld-lib.sh"

UNIT=$QEL_SOURCE_DIR/packaging/qeld.service
MAN=$QEL_SOURCE_DIR/packaging/qeld.8
ran=0

if command -v systemd-analyze >/dev/null; then
  ran=1
  step "systemd-analyze verify"
  sed "s#/usr/sbin/qeld#$QELD#g" "$UNIT" >"$T/qeld.service"
  # --man=no: the page is checked below, it need not be installed.
  if systemd-analyze verify --man=no "$T/qeld.service" >"$T/verify" 2>&1; then
    echo "   ok: the unit verifies"
  else
    fail "systemd-analyze verify: $(cat "$T/verify")"
  fi
  step "what the unit says"
  value() { sed -n "s/^$1=//p" "$UNIT"; }
  expect_eq "Type" "$(value Type)" notify
  expect_eq "ExecStart" "$(value ExecStart)" "/usr/sbin/qeld --foreground \$QELD_OPTIONS"
  expect_eq "ExecStopPost (the watchdog stopped after any end)" "$(value ExecStopPost)" "-/usr/sbin/qeld --shutdown \$QELD_OPTIONS"
  # systemd's watchdog must outlast a pass (20 s apart, a few exchanges of
  # at most 5 s) and fire well inside the BMC's shortest timer (240 s, reset
  # at least every 80 s).
  watchdog_sec=$(value WatchdogSec)
  expect_ge "WatchdogSec" "$watchdog_sec" 60
  expect_le "WatchdogSec" "$watchdog_sec" 120
  expect_le "OOMScoreAdjust" "$(value OOMScoreAdjust)" -500
  step "the sandbox (systemd-analyze security --offline)"
  if systemd-analyze security --offline=true --no-pager "$T/qeld.service" >"$T/security" 2>&1; then
    exposure=$(sed -n 's/.*Overall exposure level for qeld.service: \([0-9.]*\).*/\1/p' "$T/security")
    expect_true "exposure '$exposure' at most 2.5" awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.5) }'
    # Every exposure left is explained in the unit's comments.
    for setting in $(sed -n 's/^✗ \([A-Za-z]*\)=.*/\1/p' "$T/security" | sort -u); do
      expect_true "the unit explains $setting" grep -q "^#.*$setting" "$UNIT"
    done
  else
    fail "systemd-analyze security: $(cat "$T/security")"
  fi
  expect_eq "Restart" "$(value Restart)" on-failure
  expect_eq "no restart for: no controller, pid file, usage" "$(value RestartPreventExitStatus)" "3 4 64"
  # Automatic restarts alone never reach the start limit.
  restarts=$(($(value StartLimitIntervalSec) / $(value RestartSec) + 1))
  expect_le "starts per interval from Restart= alone" "$restarts" $(($(value StartLimitBurst) - 1))
fi

if command -v man >/dev/null; then
  ran=1
  step "the manual page"
  # Wide, so that no sentence is broken or hyphenated.
  MANWIDTH=400 man --warnings -l "$MAN" >"$T/man.txt" 2>"$T/man.err" || fail "man failed"
  expect_eq "warnings" "$(cat "$T/man.err")" ""
  expect_true "has an EXIT STATUS section" grep -q '^EXIT STATUS' "$T/man.txt"
  for status in $("$QELD" --help | sed -n '/^Exit status:/,$p' | awk '/^  [0-9]/ { print $1 }'); do
    expect_true "exit status $status described" grep -qE "^ +$status +[A-Z-]" "$T/man.txt"
  done
  expect_true "names the known limitation" grep -q 'KNOWN LIMITATION' "$T/man.txt"
  expect_true "with the inventory's text" grep -q '"if entry for name is already existing."' "$T/man.txt"
fi

if [ "$ran" -eq 0 ]; then
  echo "neither systemd-analyze nor man here: skipped"
  exit 77
fi
finish

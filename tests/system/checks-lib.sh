# Checks shared by the system tests; sourced. Checks (expect_*) count
# failures in $failures and go on; finish reports them. Waiting is never a
# bare sleep: wait_until polls a condition with a bound.
failures=${failures:-0}

step() { echo "-- $*"; }
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
expect_eq() { # WHAT ACTUAL EXPECTED
  if [ "$2" == "$3" ]; then echo "   ok: $1 = $3"; else fail "$1: expected '$3', got '$2'"; fi
}
expect_ne() { # WHAT ACTUAL UNEXPECTED
  if [ "$2" != "$3" ]; then echo "   ok: $1 != $3"; else fail "$1: got '$2'"; fi
}
expect_ge() { # WHAT ACTUAL LEAST
  if [ "$2" -ge "$3" ]; then echo "   ok: $1 = $2 >= $3"; else fail "$1: $2 is below $3"; fi
}
expect_le() { # WHAT ACTUAL MOST
  if [ "$2" -le "$3" ]; then echo "   ok: $1 = $2 <= $3"; else fail "$1: $2 is above $3"; fi
}
expect_true() { # WHAT COMMAND...
  local what=$1
  shift
  if "$@"; then echo "   ok: $what"; else fail "$what"; fi
}
finish() {
  if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
  fi
  echo "all checks passed"
}

# wait_until SECONDS WHAT COMMAND...: polls COMMAND every 50 ms until it
# succeeds; a check failure when SECONDS pass first.
wait_until() {
  local limit=$1 what=$2
  shift 2
  local deadline=$(($(date +%s%N) + limit * 1000000000))
  until "$@"; do
    if [ "$(date +%s%N)" -gt "$deadline" ]; then
      fail "no $what within $limit s"
      return 1
    fi
    sleep 0.05
  done
  return 0
}

#!/usr/bin/env bash
# Builds everything and runs every test: the plain build, the whole suite
# under AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded code
# under ThreadSanitizer. Installs what a fresh Debian machine lacks first.
# Exits non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
jobs=$(nproc)

# Each step's heading says when it started, so a slow one shows in CI's log.
phase() { echo "== $* (at $((SECONDS / 60))m$((SECONDS % 60))s)"; }

scripts/install-deps.sh

# configure_and_build DIR TARGET CMAKE_OPTIONS...
configure_and_build() {
  local dir=$1 target=$2; shift 2
  phase "build $dir ($target)"
  cmake -S "$top" -B "$dir" -DQEL_BUILD_BENCH=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs" --target "$target"
}

run_tests() {
  local dir=$1; shift
  phase "test $dir $*"
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j"$jobs" "$@"
}

configure_and_build build/plain all -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_tests build/plain

# A clone of the repository alone passes: the committed HEAD cloned into an
# empty temporary directory, with nothing beside it, builds and passes the
# SMBIOS tests there (it checks HEAD; uncommitted changes are not in it).
run_tests build/plain -C clone -L clone

# The Debian packages (built from this tree with debhelper into dist/): their
# files, lintian and the manual pages, then installed and run under a real
# systemd in a container that leaves the host untouched.
phase packages
scripts/package.sh --no-lintian
phase "packages: their files, installed"
bash tests/system/packages.sh dist
phase "packages: under systemd in a container"
bash tests/system/qeld_systemd.sh dist
# The same packages on a Debian system booted in QEMU with the kernel's IPMI
# driver and QEMU's BMC (tests/vm/debian-boot.sh): installed with apt-get,
# kept alive through kills, a wedge, an upgrade, the kernel's watchdog
# driver, stop and purge; then the negative control, a boot whose timer
# must reset the machine. About 20 minutes here; the span of the held
# timer is 150 s (QEL_VM_WATCHDOG_SPAN=600 for the ten minutes).
# QEL_SKIP_VM=1 skips it (as the VM tier).
phase "packages: a Debian system in QEMU"
rc=0
bash tests/vm/debian-boot.sh dist --out build/debian-boot || rc=$?
[ "$rc" -eq 0 ] || [ "$rc" -eq 77 ] || exit "$rc"

configure_and_build build/asan all -DCMAKE_BUILD_TYPE=Debug -DQEL_SANITIZE=address,undefined -DQEL_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_tests build/asan

# Only the threaded tests: the rest of the suite has no threads to race.
configure_and_build build/tsan qel-tsan-tests -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_SANITIZE=thread -DQEL_BUILD_BENCH=OFF
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_tests build/tsan -L tsan

# Every fuzz target for a bounded time over the repository's corpus (which
# holds the input of every fixed finding), two at a time, and the planted bug
# that the SMBIOS target must find: the fuzz tree is its own build with clang.
phase "fuzz (bounded)"
scripts/fuzz.sh --build-only --planted
run_tests build/fuzz -L fuzz

# The benchmarks build in the plain tree; run each once, briefly, so a broken
# benchmark is noticed here and not on the day somebody measures.
phase "bench smoke"
for b in build/plain/bench/bench_*; do
  [ -x "$b" ] || continue
  "$b" --benchmark_min_time=0.01 >/dev/null
done
phase "all tests passed"

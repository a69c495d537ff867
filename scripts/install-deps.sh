#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, and
# nothing when they are all present already (so a warm machine does not wait
# for apt). Needs root; the project's machines run as root.
#
#   scripts/install-deps.sh              everything below (scripts/test.sh)
#   scripts/install-deps.sh --run        only what the main job needs (scripts/run.sh)
#   scripts/install-deps.sh PACKAGE...   just these (for scripts that need few)
set -euo pipefail

# The main job: the build tools and what the programs are built with. The
# library, qeld and qel-bmcsim need only the C++ standard library and the OS;
# qelctl parses its command line with CLI11 and writes JSON with nlohmann-json
# (both header-only). A newcomer's first run waits for these alone.
run_packages=(
  cmake g++ make                     # build
  libcli11-dev nlohmann-json3-dev    # qelctl: command line and JSON (header-only)
)

# Everything else is for the tests, the benchmarks, fuzzing and packaging.
test_packages=(
  pkg-config git                     # the installed library's consumers; the clone-alone check
  libgtest-dev libgmock-dev          # unit tests
  libbenchmark-dev                   # benchmarks
  iproute2                           # network-namespace tests: ip netns, veth, macvlan
  dmidecode                          # independent reader of SMBIOS tables
  python3                            # JSON oracle helpers in the system tests
  ipmitool                           # independent IPMI decoder against the shared simulated controller
  freeipmi-tools                     # ipmi-fru: a second FRU decoder, one that checks the area checksums
  clang libclang-rt-14-dev           # the fuzz tree: clang, and libFuzzer with the sanitizer runtimes
  debhelper dpkg-dev lintian         # the Debian packages (scripts/package.sh) and their checks
  systemd systemd-container          # systemd-analyze; systemd-nspawn: the packages under a real systemd
  prometheus-node-exporter           # the container test: a real textfile collector reads qeld.prom
  python3-prometheus-client          # ... and a real parser of the text format
  man-db binutils                    # manual pages rendered with warnings; objdump for SONAMEs
)

packages=("${run_packages[@]}" "${test_packages[@]}")
if [ "${1:-}" == --run ]; then
  packages=("${run_packages[@]}")
  shift
  (($# == 0)) || { echo "install-deps: --run takes no packages" >&2; exit 2; }
fi
(($#)) && packages=("$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "install-deps: need root to install ${missing[*]}" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

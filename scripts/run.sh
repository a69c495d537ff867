#!/usr/bin/env bash
# The main job: build the agent's tools and ask the controller for its
# identity. On a machine without a BMC (no /dev/ipmi0) the built-in simulated
# controller answers.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build/run -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_BUILD_TESTS=OFF -DQEL_BUILD_BENCH=OFF >/dev/null
cmake --build build/run -j"$(nproc)" >/dev/null
sim=--simulate
for dev in /dev/ipmi0 /dev/ipmi/0 /dev/ipmidev/0; do
  [ -e "$dev" ] && sim=
done
[ -n "$sim" ] && echo "(no IPMI device on this host: using the simulated controller)"
exec build/run/tools/qelctl/qelctl $sim device-id

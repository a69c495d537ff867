#!/usr/bin/env bash
# Builds the fuzz tree (build/fuzz, clang, libFuzzer + ASan + UBSan) and runs
# a campaign: every fuzz target for N seconds over the repository's corpus,
# at most two at a time, each under nice -n 19 (the machine is shared).
#
#   scripts/fuzz.sh --seconds N [--parallel 1|2] [--targets "fuzz_pni ..."]
#   scripts/fuzz.sh --build-only [--planted]
#
# Options:
#   --seconds N       how long each target runs at most (default 60)
#   --runs N          ... or until it executed N inputs, whichever comes first
#   --parallel J      targets run at once, 1 or 2 (default 1; the machine is shared)
#   --targets LIST    the targets to run (default: all eight)
#   --build-dir DIR   the fuzz tree (default build/fuzz)
#   --planted         also build fuzz_smbios_planted, the target over a
#                     deliberately broken copy of the SMBIOS reader (kept
#                     in the tree's cache for later runs)
#   --build-only      configure and build, run nothing
#
# New inputs go to DIR/campaign/<target>/ (the repository's fuzz/corpus is
# only read); crashes to DIR/campaign/artifacts/. At the end a table gives
# per target: executions, exec/s, cov:, ft:, corpus size; the full libFuzzer
# output is in DIR/campaign/<target>.log. fuzz/merge-corpus.sh then folds
# what the campaign found into fuzz/corpus. Exits non-zero when any target
# crashed.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

seconds=60
runs=-1
parallel=1
# The slowest first, so that two at a time finish close together.
targets="fuzz_agents fuzz_ipmi_replies fuzz_smbios fuzz_qelctl fuzz_pni fuzz_network fuzz_sel fuzz_sdr fuzz_sensors"
build=build/fuzz
planted=
build_only=0
while (($#)); do
  case $1 in
    --seconds) seconds=$2; shift 2 ;;
    --runs) runs=$2; shift 2 ;;
    --parallel) parallel=$2; shift 2 ;;
    --targets) targets=$2; shift 2 ;;
    --build-dir) build=$2; shift 2 ;;
    --planted) planted=ON; shift ;;
    --build-only) build_only=1; shift ;;
    -h|--help) sed -n "2,25p" "$0"; exit 0 ;;
    *) echo "fuzz.sh: unknown option $1" >&2; exit 64 ;;
  esac
done
case $parallel in 1|2) ;; *) echo "fuzz.sh: --parallel is 1 or 2" >&2; exit 64 ;; esac

echo "== build $build (fuzz targets, clang)"
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -DQEL_FUZZ=ON ${planted:+-DQEL_FUZZ_PLANTED_BUG=$planted} \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)"
((build_only)) && exit 0

# dict_of TARGET: the dictionary a target uses.
dict_of() {
  case $1 in
    fuzz_qelctl) echo "$top/fuzz/dict/qelctl.dict" ;;
    fuzz_pni) echo "$top/fuzz/dict/fru.dict" ;;
    fuzz_smbios) echo "$top/fuzz/dict/smbios.dict" ;;
    fuzz_network) echo "$top/fuzz/dict/netlink.dict" ;;
    *) echo "$top/fuzz/dict/ipmi.dict" ;;
  esac
}

campaign=$build/campaign
mkdir -p "$campaign/artifacts"
run_one() {
  local t=$1
  mkdir -p "$campaign/$t"
  echo "-- $t: ${seconds}s"
  # -rss_limit_mb: the default 2 GiB; -timeout: a single input that runs for
  # seconds is a hang worth reporting.
  nice -n 19 "$build/fuzz/$t" -max_total_time="$seconds" -runs="$runs" -print_final_stats=1 -timeout=10 \
    -dict="$(dict_of "$t")" -artifact_prefix="$campaign/artifacts/$t-" \
    "$campaign/$t" "$top/fuzz/corpus/$t" >"$campaign/$t.log" 2>&1
}

status=0
pids=()
names=()
for t in $targets; do
  run_one "$t" &
  pids+=($!)
  names+=("$t")
  if ((${#pids[@]} >= parallel)); then
    wait "${pids[0]}" || { echo "!! ${names[0]} crashed: see $campaign/${names[0]}.log"; status=1; }
    pids=("${pids[@]:1}")
    names=("${names[@]:1}")
  fi
done
for i in "${!pids[@]}"; do
  wait "${pids[$i]}" || { echo "!! ${names[$i]} crashed: see $campaign/${names[$i]}.log"; status=1; }
done

printf '\n%-18s %12s %8s %7s %7s %7s\n' target executions exec/s cov ft corpus
for t in $targets; do
  log=$campaign/$t.log
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  last=$(grep -E '^#[0-9]+' "$log" | grep -E 'cov: ' | tail -1)
  cov=$(sed -n 's/.*cov: \([0-9]*\).*/\1/p' <<<"$last")
  ft=$(sed -n 's/.*ft: \([0-9]*\).*/\1/p' <<<"$last")
  corpus=$(sed -n 's/.*corp: \([0-9]*\)\/.*/\1/p' <<<"$last")
  printf '%-18s %12s %8s %7s %7s %7s\n' "$t" "${runs:-?}" "${rate:-?}" "${cov:-?}" "${ft:-?}" "${corpus:-?}"
done
exit $status

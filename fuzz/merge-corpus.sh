#!/usr/bin/env bash
# Folds a campaign's inputs into the repository's corpus and minimises it:
# for each target, libFuzzer's -merge=1 keeps the smallest set of inputs
# (from fuzz/corpus/<target> and the campaign's <target>/) that reaches the
# same coverage edges, and fuzz/corpus/<target> becomes that set. Edges, not
# hit counts (-use_counters=0): the repository keeps a few hundred small
# inputs a target instead of thousands, and the campaign directory keeps the
# rest. Inputs named seed-* (fuzz/make-seeds.sh) and finding-* (the inputs
# of fixed findings) are always kept, and the merge adds only what reaches
# edges they do not.
#
#   fuzz/merge-corpus.sh [BUILD_DIR] [TARGET...]
# BUILD_DIR defaults to build/fuzz (its campaign/ holds the campaign's inputs).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/fuzz}
shift || true
targets=${*:-fuzz_ipmi_replies fuzz_pni fuzz_smbios fuzz_network fuzz_agents fuzz_qelctl fuzz_sel fuzz_sdr fuzz_sensors}
for t in $targets; do
  corpus=fuzz/corpus/$t
  mkdir -p "$corpus" "$build/campaign/$t"
  merged=$(mktemp -d)
  before=$(find "$corpus" -type f | wc -l)
  # The kept inputs go first: libFuzzer then adds only what goes beyond them.
  find "$corpus" -type f \( -name 'seed-*' -o -name 'finding-*' \) -exec cp {} "$merged/" \;
  nice -n 10 "$build/fuzz/$t" -merge=1 -use_counters=0 -timeout=10 "$merged" "$corpus" "$build/campaign/$t" \
    >"$build/campaign/$t.merge.log" 2>&1
  find "$corpus" -type f -delete
  cp "$merged"/* "$corpus/" 2>/dev/null || true
  rm -rf "$merged"
  echo "$t: $before -> $(find "$corpus" -type f | wc -l) inputs"
done

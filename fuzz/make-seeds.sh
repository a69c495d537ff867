#!/usr/bin/env bash
# Regenerates the seeds of fuzz/corpus/ from the simulator's PNI image
# builder and the repository's SMBIOS tables:
#   fuzz/make-seeds.sh [BUILD_DIR] [SMBIOS_TABLE_DIR]
# BUILD_DIR is the fuzz tree (default build/fuzz, configured if missing);
# SMBIOS_TABLE_DIR defaults to $QEL_SMBIOS_TESTDATA, else tests/data/smbios.
# Seeds are written beside what the corpus already holds; run
# fuzz/merge-corpus.sh afterwards to drop what adds no coverage.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/fuzz}
tables=${2:-${QEL_SMBIOS_TESTDATA:-tests/data/smbios}}
scripts/fuzz.sh --build-only --build-dir "$build"
"$build/fuzz/qel-fuzz-seeds" fuzz/corpus ${tables:+"$tables"}

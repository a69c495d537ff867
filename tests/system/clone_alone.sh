#!/usr/bin/env bash
# A clone of the repository alone passes its SMBIOS tests: the committed HEAD
# of SOURCE_DIR is cloned into a new temporary directory that holds nothing
# else (no shared test data beside the clone, no build tree, nothing from the
# caller's environment pointing elsewhere), configured there, and the SMBIOS
# test programs are built and run in it.
#
#   bash tests/system/clone_alone.sh SOURCE_DIR
#
# It checks HEAD, not the work tree: changes that are not committed are not in
# the clone, and the run says so when there are any. Exit status 77 (skipped)
# when SOURCE_DIR is not a git work tree or git is missing; 1 when anything
# fails. Takes a few minutes: the library and two test programs are built.
set -euo pipefail
source "$(dirname "$0")/checks-lib.sh"

src=${1:?usage: clone_alone.sh SOURCE_DIR}
if ! command -v git >/dev/null; then
  echo "SKIPPED: git is needed to clone the repository (apt-get install git)"
  exit 77
fi
if ! head=$(git -C "$src" rev-parse --verify -q HEAD); then
  echo "SKIPPED: $src is not a git work tree with a commit; there is nothing to clone"
  exit 77
fi
if [ -n "$(git -C "$src" status --porcelain --untracked-files=normal)" ]; then
  echo "note: $src has changes that are not committed; the clone checks HEAD ($head) without them"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/qel-clone-alone.XXXXXX")
trap 'rm -rf "$work"' EXIT
clone=$work/qelbase

step "clone HEAD ($head) into $clone"
# A shallow clone of the commit HEAD names, whatever branch (or none) it is
# on: the repository's own files and nothing else.
git init -q "$clone"
git -C "$clone" fetch -q --depth 1 "file://$(cd "$src" && pwd)" "$head"
git -C "$clone" checkout -q --detach FETCH_HEAD
expect_eq "the clone's commit" "$(git -C "$clone" rev-parse HEAD)" "$head"
expect_true "nothing beside the clone" test "$(ls -A "$work")" == qelbase
expect_true "the SMBIOS tables are in the clone" test -f "$clone/tests/data/smbios/MANIFEST.tsv"
[ "$failures" -eq 0 ] || finish

step "configure and build the SMBIOS tests in the clone"
build=$clone/build
cmake -S "$clone" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_BUILD_BENCH=OFF >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log"; fail "configure"; finish; }
cmake --build "$build" -j"$(nproc)" --target test_qelSmbios test_qelHostFacts >"$work/build.log" 2>&1 ||
  { tail -n 50 "$work/build.log"; fail "build"; finish; }

step "run them with nothing pointing outside the clone"
for program in test_qelSmbios test_qelHostFacts; do
  binary=$build/tests/$program
  status=0
  # A missing corpus fails (the default), never skips; the tables are found
  # from the clone's own location.
  (cd "$work" && env -u QEL_SMBIOS_TESTDATA -u QEL_SMBIOS_CORPUS_OPTIONAL "$binary" --gtest_brief=1) \
    >"$work/$program.log" 2>&1 || status=$?
  expect_eq "$program exit status" "$status" 0
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$work/$program.log"
  fi
  expect_eq "$program: tests skipped" "$(grep -c '^\[  SKIPPED \]' "$work/$program.log" || true)" 0
done
# The corpus tests ran over every table (one test per table).
expect_true "every real table was compared with dmidecode" \
  grep -q '^\[  PASSED  \] [0-9]* tests' "$work/test_qelSmbios.log"
passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests.*/\1/p' "$work/test_qelSmbios.log")
expect_ge "tests passed in test_qelSmbios (87 of them over the real tables)" "${passed:-0}" 87
finish

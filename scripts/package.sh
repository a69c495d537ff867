#!/usr/bin/env bash
# Builds the Debian packages (libqelbase1, libqelbase-dev, qeld, qel-bmcsim,
# and the source package) from the working tree with debhelper, checks them
# with lintian, and puts them in dist/. Installs what a fresh Debian machine
# lacks for that first.
#
#   scripts/package.sh [--no-lintian]
#
# The build runs in a copy of the tree's files under a temporary directory,
# so the working tree gets no build products (dpkg-buildpackage writes its
# results beside the source directory).
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
lintian=1
case ${1:-} in
  --no-lintian) lintian=0 ;;
  "") ;;
  -h|--help) sed -n '2,11p' "$0"; exit 0 ;;
  *) echo "package.sh: unknown option $1" >&2; exit 64 ;;
esac

scripts/install-deps.sh build-essential debhelper dpkg-dev cmake pkg-config libcli11-dev nlohmann-json3-dev lintian

version=$(dpkg-parsechangelog -l debian/changelog -S Version)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
src=$work/qelbase-$version
mkdir -p "$src"
# The files git knows, as they are in the working tree (committed or not);
# outside a git checkout, everything but build trees and results.
if git -C "$top" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  git -C "$top" ls-files -z --cached --others --exclude-standard | grep -zv '^dist/' |
    xargs -0 -I{} sh -c 'test -e "$1" || test -L "$1" && printf "%s\0" "$1"' _ {} |
    tar -C "$top" --null -T - -cf - | tar -C "$src" -xf -
else
  tar -C "$top" --exclude=./build --exclude=./dist --exclude=./.git -cf - . | tar -C "$src" -xf -
fi

echo "== dpkg-buildpackage (qelbase $version)"
(cd "$src" && dpkg-buildpackage -us -uc -j"$(nproc)") >"$work/build.log" 2>&1 || {
  tail -n 60 "$work/build.log"
  echo "package.sh: dpkg-buildpackage failed (the whole log: rerun with the tree at $src)" >&2
  exit 1
}

rm -rf dist
mkdir -p dist
find "$work" -maxdepth 1 -type f \( -name '*.deb' -o -name '*.dsc' -o -name '*.tar.*' -o -name '*.changes' \
  -o -name '*.buildinfo' \) -exec cp {} dist/ \;
cp "$work/build.log" dist/build.log
ls -l dist

if ((lintian)); then
  echo "== lintian"
  # Errors and warnings fail; every override carries its reason.
  lintian --fail-on error,warning --display-info --info dist/*.changes | tee dist/lintian.txt
fi
echo "== packages in dist/"

#!/usr/bin/env bash
# The Debian packages of scripts/package.sh, as files: what each holds (the
# library with its SONAME link, headers, pc file and CMake package, the unit,
# the manual pages, the completion, the defaults), what each depends on,
# lintian over all of them (no error, no warning), and every manual page
# rendering without a warning at 80 columns.
#
#   packages.sh DIST_DIR
set -euo pipefail
dist=$(cd "${1:?usage: packages.sh DIST_DIR}" && pwd)
source "$(dirname "$0")/checks-lib.sh"
src=$(cd "$(dirname "$0")/../.." && pwd)

T=$(mktemp -d /tmp/qel-packages.XXXXXX)
trap 'rm -rf "$T"' EXIT

deb() { local f; f=$(ls "$dist"/"$1"_*.deb 2>/dev/null | head -n1); [ -n "$f" ] || { fail "no $1 package in $dist"; exit 1; }; echo "$f"; }
# has PACKAGE PATH [-> TARGET]: the package holds the path (a link to TARGET).
files() { dpkg-deb -c "$(deb "$1")" | awk '{ p = $6; sub(/^\./, "", p); if ($7 == "->") p = p " -> " $8; print p }'; }
has() { local pkg=$1; shift; expect_true "$pkg: $*" grep -qxF "$*" <(files "$pkg"); }

step "libqelbase1: the shared library and its SONAME link"
has libqelbase1 /usr/lib/x86_64-linux-gnu/libqelbase.so.1.0.0
has libqelbase1 "/usr/lib/x86_64-linux-gnu/libqelbase.so.1 -> libqelbase.so.1.0.0"
dpkg-deb -x "$(deb libqelbase1)" "$T/lib"
expect_eq "SONAME" "$(objdump -p "$T/lib/usr/lib/x86_64-linux-gnu/libqelbase.so.1.0.0" | awk '/SONAME/ { print $2 }')" libqelbase.so.1
dpkg-deb --ctrl-tarfile "$(deb libqelbase1)" | tar -C "$T" -xf - ./symbols ./shlibs
expect_true "a symbols file" grep -q '^libqelbase.so.1 libqelbase1 #MINVER#' "$T/symbols"
expect_eq "no header or development link" "$(files libqelbase1 | grep -cE '\.h$|libqelbase\.so ->')" 0

step "libqelbase-dev: headers, the development link, pkg-config, CMake, libqelbase(3)"
for h in $(find "$src/src" -name "*.h"); do has libqelbase-dev "/usr/include/qelbase/$(basename "$h")"; done
has libqelbase-dev "/usr/lib/x86_64-linux-gnu/libqelbase.so -> libqelbase.so.1"
has libqelbase-dev /usr/lib/x86_64-linux-gnu/pkgconfig/qelbase.pc
has libqelbase-dev /usr/lib/x86_64-linux-gnu/cmake/qelbase/qelbaseConfig.cmake
has libqelbase-dev /usr/lib/x86_64-linux-gnu/cmake/qelbase/qelbaseConfigVersion.cmake
has libqelbase-dev /usr/share/man/man3/libqelbase.3.gz
expect_true "libqelbase-dev depends on the same libqelbase1" \
  grep -q 'libqelbase1 (= 1' <(dpkg-deb -f "$(deb libqelbase-dev)" Depends)

step "qeld: the daemon, qelctl, the unit, manual pages, completion, defaults"
has qeld /usr/sbin/qeld
has qeld /usr/bin/qelctl
has qeld /lib/systemd/system/qeld.service
has qeld /lib/systemd/system/qeld-metrics.service
has qeld /lib/systemd/system/qeld-metrics.timer
has qeld /usr/share/man/man8/qeld.8.gz
has qeld /usr/share/man/man8/qelctl.8.gz
has qeld /usr/share/bash-completion/completions/qelctl
has qeld /etc/default/qeld
# The agent and qelctl carry the library's objects: apt-get install of the
# qeld package alone gives a working agent.
for p in qeld qel-bmcsim; do
  depends=$(dpkg-deb -f "$(deb "$p")" Depends)
  expect_true "$p depends on libc ('$depends')" grep -q 'libc6' <<<"$depends"
  expect_true "$p does not need libqelbase1" bash -c "! grep -q libqelbase1 <<<'$depends'"
done
dpkg-deb --ctrl-tarfile "$(deb qeld)" | tar -C "$T" -xf - ./postinst ./prerm ./postrm ./conffiles
expect_true "postinst enables the unit" grep -q "deb-systemd-helper enable 'qeld.service'" "$T/postinst"
expect_true "postinst starts the unit" grep -q "_dh_action=start" "$T/postinst"
expect_true "prerm stops the unit on removal" grep -q "deb-systemd-invoke stop 'qeld.service'" "$T/prerm"
expect_true "/etc/default/qeld is a conffile" grep -qx /etc/default/qeld "$T/conffiles"
# The metrics timer is shipped off: never started by the package (whether
# it stays off is the container test's, qeld_systemd.sh).
expect_true "postinst starts no metrics unit" bash -c "! grep -q \"deb-systemd-invoke .*qeld-metrics\" '$T/postinst'"
expect_true "prerm stops the metrics timer on removal" grep -q "deb-systemd-invoke stop qeld-metrics.timer" "$T/prerm"
expect_true "postrm purges the metrics units' state" grep -q "deb-systemd-helper purge 'qeld-metrics.timer'" "$T/postrm"

step "qel-bmcsim: the simulated controller, its preload library, its default"
has qel-bmcsim /usr/bin/qel-bmcsim
has qel-bmcsim /usr/lib/x86_64-linux-gnu/qelbase/libqelsim-preload.so
has qel-bmcsim /usr/share/qelbase/descriptions/default.conf
has qel-bmcsim /usr/share/man/man1/qel-bmcsim.1.gz

step "lintian: no error, no warning"
if lintian --fail-on error,warning "$dist"/*.changes >"$T/lintian" 2>&1; then
  echo "   ok: lintian ($(grep -c '' "$T/lintian") lines of information)"
else
  fail "lintian: $(grep -E '^(E|W):' "$T/lintian" || cat "$T/lintian")"
fi

step "every manual page renders without a warning at 80 columns"
for p in qeld qel-bmcsim libqelbase-dev; do dpkg-deb -x "$(deb "$p")" "$T/root"; done
while read -r page; do
  MANWIDTH=80 man --warnings -l "$page" >"$T/page.txt" 2>"$T/page.err" || fail "man -l $page"
  expect_eq "warnings of ${page#"$T"/root}" "$(cat "$T/page.err")" ""
done < <(find "$T/root/usr/share/man" -name '*.gz')

finish

#!/usr/bin/env bash
# Assembles the test VM from Debian packages alone: a kernel and a cpio
# initramfs holding busybox, ipmitool, dmidecode, strace, the kernel's IPMI
# modules, and the project's binaries with the guest test scripts.
#
#   assemble.sh --out DIR --probe FILE --lib LIBQELBASE [--qeld FILE] [--qelctl FILE]
#
# Writes DIR/kernel (a link into the cache) and DIR/initrd.img. The packages are fetched with
# `apt-get download` and everything derived from them (the extracted trees and
# the package part of the initramfs) is cached outside the repository, in
# $QEL_VM_CACHE, else $XDG_CACHE_HOME/qel-vm, else /var/cache/qel-vm, keyed by
# the package versions, the host libraries copied in and this script. The
# project's part of the initramfs is built on every run (it is small) and
# appended as a second archive, which the kernel unpacks over the first.
#
# Installs the host packages it needs when they are missing (root only).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
out= probe= lib= qeld= qelctl=
while (($#)); do
  case $1 in
    --out) out=$2; shift 2 ;;
    --probe) probe=$2; shift 2 ;;
    --lib) lib=$2; shift 2 ;;
    --qeld) qeld=$2; shift 2 ;;
    --qelctl) qelctl=$2; shift 2 ;;
    *) echo "assemble.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$out" ] && [ -n "$probe" ] && [ -n "$lib" ] || {
  echo "usage: assemble.sh --out DIR --probe FILE --lib LIBQELBASE [--qeld FILE]" >&2; exit 2; }

die() { echo "assemble.sh: $*" >&2; exit 1; }
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }

t0=$(now)

# ---------------------------------------------------------------- host packages
# ipmitool, dmidecode and strace are on the host for their shared libraries:
# the guest gets the binaries from the downloaded packages and the libraries
# that ldd finds for them here.
host_packages=(cpio gzip xz-utils binutils qemu-system-x86 ipmitool dmidecode strace)
missing=()
for p in "${host_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  [ "$(id -u)" -eq 0 ] || die "host packages missing and not root to install them: ${missing[*]}"
  echo "assemble: installing host packages: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq || die "apt-get update failed"
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null \
    || die "apt-get install ${missing[*]} failed"
fi

# ---------------------------------------------------------------- cache
if [ -n "${QEL_VM_CACHE:-}" ]; then cache=$QEL_VM_CACHE
elif [ -n "${XDG_CACHE_HOME:-}" ]; then cache=$XDG_CACHE_HOME/qel-vm
elif [ -w /var/cache ]; then cache=/var/cache/qel-vm
else cache=$HOME/.cache/qel-vm
fi
mkdir -p "$cache/debs" "$cache/x" || die "cannot create the cache $cache"

# One apt-cache call (each costs seconds): the candidate versions, and the
# kernel image package that linux-image-amd64 (6.1) points at, with its
# exact version.
show_candidates() {
  apt-cache show --no-all-versions linux-image-amd64 busybox-static ipmitool dmidecode strace 2>/dev/null \
    | awk '/^Package: / { p = $2 } /^Version: / { print p, $2 }
           p == "linux-image-amd64" && /^Depends: / {
             if (match($0, /linux-image-[^ ,]+ \(= [^)]+\)/)) {
               split(substr($0, RSTART, RLENGTH), d, /[ ()=]+/); print "KERNEL", d[1], d[2] } }'
}
candidates=$(show_candidates)
if ! grep -q '^KERNEL ' <<<"$candidates"; then
  apt-get update -qq || die "apt-get update failed"
  candidates=$(show_candidates)
fi
read -r _ kernel_pkg kernel_version < <(grep '^KERNEL ' <<<"$candidates") \
  || die "cannot resolve linux-image-amd64 to a kernel package (apt lists?)"

packages=("$kernel_pkg" busybox-static ipmitool dmidecode strace)
declare -A version
version[$kernel_pkg]=$kernel_version
for p in busybox-static ipmitool dmidecode strace; do
  v=$(awk -v p="$p" '$1 == p { print $2; exit }' <<<"$candidates")
  [ -n "$v" ] || die "no candidate version for $p"
  version[$p]=$v
done

# debs/<package>/<version>/*.deb, so a lookup needs no file-name mangling.
fetched=0
deb=
deb_of() {  # sets $deb
  local p=$1 v=${version[$1]} d
  d=$cache/debs/$p/${v//:/%3a}
  if ! ls "$d"/*.deb >/dev/null 2>&1; then
    mkdir -p "$d"
    (cd "$d" && apt-get download -q "$p=$v" >/dev/null 2>"$d/.err") \
      || die "apt-get download $p=$v failed: $(cat "$d/.err")"
    fetched=1
  fi
  deb=$(ls "$d"/*.deb | head -1)
}
# x/<package>_<version>/: the package's files (the kernel only in part).
tree_of() { echo "$cache/x/${1}_${version[$1]//:/%3a}"; }

for p in busybox-static ipmitool dmidecode strace; do
  deb_of "$p"
  t=$(tree_of "$p")
  if [ ! -e "$t/.done" ]; then
    rm -rf "$t"; mkdir -p "$t"
    dpkg-deb -x "$deb" "$t" || die "cannot unpack $deb"
    touch "$t/.done"
  fi
done

# The kernel package is large (each pass over it unpacks some 400 MB): one
# pass takes the image and the IPMI driver's directory; a module elsewhere is
# looked up in a listing made only when one is needed.
deb_of "$kernel_pkg"
kdeb=$deb
ktree=$(tree_of "$kernel_pkg")
# The guest's modules: the IPMI driver, and dummy for network interfaces
# whose addresses the agent publishes.
guest_modules=(ipmi_msghandler ipmi_si ipmi_devintf dummy)
kpatterns=('./boot/vmlinuz-*' './lib/modules/*/kernel/drivers/char/ipmi/*'
  './lib/modules/*/kernel/drivers/net/dummy.ko')
if [ "$(cat "$ktree/.done" 2>/dev/null)" != "${kpatterns[*]}" ]; then
  rm -rf "$ktree"; mkdir -p "$ktree"
  dpkg-deb --fsys-tarfile "$kdeb" | tar -x -C "$ktree" --wildcards "${kpatterns[@]}" \
    || die "cannot unpack $kdeb"
  echo "${kpatterns[*]}" > "$ktree/.done"
fi
vmlinuz=$(cd "$ktree" && ls ./boot/vmlinuz-* | head -1)
[ -n "$vmlinuz" ] || die "no kernel image in $kdeb"
kextract() {  # paths as listed ("./lib/...")
  local want=() f
  for f in "$@"; do [ -e "$ktree/$f" ] || want+=("$f"); done
  ((${#want[@]})) || return 0
  dpkg-deb --fsys-tarfile "$kdeb" | tar -x -C "$ktree" "${want[@]}" || die "cannot extract ${want[*]} from $kdeb"
}
module_path() {  # module name (dashes or underscores) -> path under $ktree
  local n=${1//-/_} alt found
  alt=${n//_/-}
  found=$(cd "$ktree" && find ./lib/modules -regextype egrep -regex ".*/(${n}|${alt})\.ko(\.xz)?" | head -1)
  if [ -z "$found" ]; then
    [ -s "$ktree/.list" ] || dpkg-deb --fsys-tarfile "$kdeb" | tar -t > "$ktree/.list" || die "cannot list $kdeb"
    found=$(grep -m1 -E "/(${n}|${alt})\.ko(\.xz)?\$" "$ktree/.list") || die "module $1 not in $kdeb"
  fi
  echo "$found"
}
# Dependency order from each module's own depends= field (the package has no
# modules.dep): a module comes after everything it depends on.
declare -A placed
order=()
place() {
  local name=$1 path deps d
  [ -n "${placed[$name]:-}" ] && return 0
  placed[$name]=pending
  path=$(module_path "$name")
  kextract "$path"
  deps=$(tr '\0' '\n' < "$ktree/$path" | sed -n 's/^depends=//p' | head -1)
  for d in ${deps//,/ }; do place "${d//-/_}"; done
  placed[$name]=$path
  order+=("$name")
}
for m in "${guest_modules[@]}"; do place "$m"; done
for m in "${order[@]}"; do
  case ${placed[$m]} in *.xz) die "compressed module ${placed[$m]}: busybox insmod cannot load it" ;; esac
done

# Under emulation the kernel's self-decompression costs some ten seconds per
# boot. The payload is unpacked here once instead, and QEMU starts the ELF
# image directly through its PVH entry point; a kernel without one (or a
# payload we cannot unpack) boots as the compressed image.
kernel=$ktree/$vmlinuz
if [ ! -e "$ktree/.vmlinux-tried" ]; then
  # The xz stream's magic inside the compressed image.
  off=$(LC_ALL=C grep -obUaP '\xfd7zXZ\x00' "$ktree/$vmlinuz" | head -1 | cut -d: -f1 || true)
  if [ -n "$off" ]; then
    tail -c +$((off + 1)) "$ktree/$vmlinuz" | xz -dc > "$ktree/vmlinux.tmp" 2>/dev/null || true
    if readelf -n "$ktree/vmlinux.tmp" 2>/dev/null | grep -qE 'note type: \(0x00000012\)|PHYS32_ENTRY'; then
      mv "$ktree/vmlinux.tmp" "$ktree/vmlinux"
    fi
  fi
  rm -f "$ktree/vmlinux.tmp"
  touch "$ktree/.vmlinux-tried"
fi
[ -s "$ktree/vmlinux" ] && kernel=$ktree/vmlinux

# ---------------------------------------------------------------- libraries
# The shared libraries a binary needs, as the host's loader resolves them.
libs_of() {
  local f=$1
  ldd "$f" 2>&1 | awk -v f="$f" '
    /not found/ { print "MISSING " $1 " (for " f ")"; next }
    $2 == "=>" && $3 ~ /^\// { print $3; next }
    $1 ~ /^\// { print $1 }'
}
guest_bins=(
  "$(tree_of busybox-static)/bin/busybox"
  "$(tree_of ipmitool)/usr/bin/ipmitool"
  "$(tree_of dmidecode)/usr/sbin/dmidecode"
  "$(tree_of strace)/usr/bin/strace"
)
base_libs=()
for b in "${guest_bins[@]}"; do
  [ -x "$b" ] || die "missing $b"
  # busybox-static has no dynamic section; ldd says so and prints no path.
  while read -r l; do
    case $l in MISSING*) die "host library ${l#MISSING } not installed" ;; esac
    base_libs+=("$l")
  done < <(libs_of "$b" | grep -E '^(/|MISSING)' || true)
done
mapfile -t base_libs < <(printf '%s\n' "${base_libs[@]}" | sort -u)

# ---------------------------------------------------------------- package archive
key=$( {
  for p in "${packages[@]}"; do echo "$p=${version[$p]}"; done
  printf '%s\n' "${order[@]}"
  for l in "${base_libs[@]}"; do sha256sum "$(readlink -f "$l")" | cut -d' ' -f1; done
  sha256sum "$0" | cut -d' ' -f1
} | sha256sum | cut -c1-16)
base=$cache/base-$key.cpio.gz
base_state=cached
if [ ! -s "$base" ]; then
  base_state=built
  stage=$(mktemp -d "$cache/stage.XXXXXX")
  trap 'rm -rf "$stage"' EXIT
  r=$stage/root
  mkdir -p "$r"/{bin,sbin,usr/bin,usr/sbin,usr/local/bin,usr/local/lib,proc,sys,dev,tmp,run,etc,lib/modules/qel,var}
  ln -s ../run "$r/var/run"
  install -m755 "${guest_bins[0]}" "$r/bin/busybox"
  install -m755 "${guest_bins[1]}" "$r/usr/bin/ipmitool"
  install -m755 "${guest_bins[2]}" "$r/usr/sbin/dmidecode"
  install -m755 "${guest_bins[3]}" "$r/usr/bin/strace"
  for l in "${base_libs[@]}"; do
    mkdir -p "$r$(dirname "$l")"
    cp -L "$l" "$r$l"
  done
  for m in "${order[@]}"; do cp "$ktree/${placed[$m]}" "$r/lib/modules/qel/$m.ko"; done
  printf '%s\n' "${order[@]}" > "$r/lib/modules/qel/order"
  echo "${vmlinuz#./boot/vmlinuz-}" > "$r/etc/qel-kernel-release"
  # The kernel opens /dev/console before /init runs; as root we can make it.
  [ "$(id -u)" -eq 0 ] && mknod "$r/dev/console" c 5 1
  (cd "$r" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) | gzip -1 > "$base.tmp" \
    || die "cannot write $base"
  mv "$base.tmp" "$base"
  rm -rf "$stage"; trap - EXIT
fi
# Only the current versions stay in the cache.
for f in "$cache"/base-*.cpio.gz; do [ "$f" = "$base" ] || rm -f "$f"; done
for p in "${packages[@]}"; do
  for d in "$cache/debs/$p"/*; do
    [ -d "$d" ] && [ "${d##*/}" != "${version[$p]//:/%3a}" ] && rm -rf "$d"
  done
done
for d in "$cache"/x/*; do
  keep=0
  for p in "${packages[@]}"; do [ "$d" = "$(tree_of "$p")" ] && keep=1; done
  ((keep)) || rm -rf "$d"
done
t_base=$(since "$t0")

# ---------------------------------------------------------------- project archive
t1=$(now)
mkdir -p "$out"
proj=$out/project-root
rm -rf "$proj"
mkdir -p "$proj/usr/local/bin" "$proj/usr/local/lib" "$proj/qel"
cp -r "$here/guest/." "$proj/qel/"
mv "$proj/qel/init" "$proj/init"
chmod 755 "$proj/init"
install -m755 "$probe" "$proj/usr/local/bin/qel-vm-probe"
cp -L "$lib" "$proj/usr/local/lib/$(objdump -p "$lib" | awk '/SONAME/ { print $2 }')"
proj_bins=("$probe")
if [ -n "$qeld" ]; then
  install -m755 "$qeld" "$proj/usr/local/bin/qeld"
  proj_bins+=("$qeld")
fi
if [ -n "$qelctl" ]; then
  install -m755 "$qelctl" "$proj/usr/local/bin/qelctl"
  proj_bins+=("$qelctl")
fi
for b in "${proj_bins[@]}" "$lib"; do
  while read -r l; do
    case $l in
      MISSING*) die "host library ${l#MISSING } not installed" ;;
      */libqelbase.so*) continue ;;
    esac
    mkdir -p "$proj$(dirname "$l")"
    [ -e "$proj$l" ] || cp -L "$l" "$proj$l"
  done < <(libs_of "$b" | grep -E '^(/|MISSING)' || true)
done
(cd "$proj" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) | gzip -1 > "$out/project.cpio.gz"
cat "$base" "$out/project.cpio.gz" > "$out/initrd.img"
ln -sfn "$kernel" "$out/kernel"
t_proj=$(since "$t1")

echo "assemble: kernel ${vmlinuz#./boot/vmlinuz-} (${version[$kernel_pkg]}), busybox ${version[busybox-static]}," \
  "ipmitool ${version[ipmitool]}, dmidecode ${version[dmidecode]}, strace ${version[strace]}"
echo "assemble: modules in load order: ${order[*]}; kernel booted as ${kernel##*/}"
echo "assemble: package archive $base_state$( ((fetched)) && echo ", packages downloaded") in ${t_base}s," \
  "project archive in ${t_proj}s; cache $cache"

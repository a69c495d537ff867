#!/usr/bin/env bash
# Builds the Debian system the VM tier boots with systemd as PID 1: a root
# file system from Debian's packages alone (mmdebstrap, variant minbase) with
# systemd, udev, kmod, ipmitool, dmidecode and Debian's kernel with a small
# initramfs, written into an ext4 image.
#
#   debian-root.sh --out DIR
#
# Writes DIR/debian-root.img (the ext4 image, read-only to the boots: each
# boot writes into a qcow2 overlay of its own), DIR/debian-kernel and
# DIR/debian-initrd.img (links into the cache). The image is cached beside
# assemble.sh's files ($QEL_VM_CACHE, else $XDG_CACHE_HOME/qel-vm, else
# /var/cache/qel-vm), keyed by the package list and the customization: it
# is rebuilt when either changes, and only the current one is kept.
set -euo pipefail

out=
while (($#)); do
  case $1 in
    --out) out=$2; shift 2 ;;
    *) echo "debian-root.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done
[ -n "$out" ] || { echo "usage: debian-root.sh --out DIR" >&2; exit 2; }

die() { echo "debian-root.sh: $*" >&2; exit 1; }
now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
t0=$(now)

for tool in mmdebstrap mke2fs qemu-img; do
  command -v "$tool" >/dev/null && continue
  [ "$(id -u)" -eq 0 ] || die "$tool missing and not root to install it"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -qq --no-install-recommends mmdebstrap e2fsprogs qemu-utils >/dev/null \
    || die "apt-get install mmdebstrap e2fsprogs qemu-utils failed"
done
[ "$(id -u)" -eq 0 ] || die "needs root (mmdebstrap in root mode, device nodes in the image)"

if [ -n "${QEL_VM_CACHE:-}" ]; then cache=$QEL_VM_CACHE
elif [ -n "${XDG_CACHE_HOME:-}" ]; then cache=$XDG_CACHE_HOME/qel-vm
elif [ -w /var/cache ]; then cache=/var/cache/qel-vm
else cache=$HOME/.cache/qel-vm
fi
mkdir -p "$cache" || die "cannot create the cache $cache"

suite=bookworm
# What the boots need: systemd as init with udev and the journal, the module
# tools (modules-load.d, the udev rule's modprobe), the IPMI and SMBIOS
# readers the tests compare with, procps for kill/pgrep, the kernel with
# initramfs-tools (its initramfs mounts the virtio disk).
packages=(systemd systemd-sysv udev kmod procps ipmitool dmidecode linux-image-amd64 initramfs-tools)
# The customization, written first: the cache key covers it and the
# package list, so an image is rebuilt when either changes (and not for
# edits elsewhere in this script).
hook=$(mktemp)
trap 'rm -f "$hook"' EXIT
cat > "$hook" <<'HOOK'
#!/bin/sh
# Runs with the finished tree as $1.
set -e
r=$1
printf 'virtio_pci\nvirtio_blk\next4\n' >> "$r/etc/initramfs-tools/modules"
printf '/dev/vda / ext4 rw,errors=remount-ro 0 1\n' > "$r/etc/fstab"
echo qel-vm > "$r/etc/hostname"
printf '127.0.0.1 localhost\n127.0.1.1 qel-vm\n' > "$r/etc/hosts"
# A machine id at the first boot, written back to the (writable) root.
: > "$r/etc/machine-id"
# Nothing of the boot waits on the network or on timers that fetch.
for u in apt-daily.timer apt-daily-upgrade.timer systemd-networkd-wait-online.service \
         getty@tty1.service; do
  ln -sf /dev/null "$r/etc/systemd/system/$u"
done
# The journal kept on disk, so a second boot (and the host, from the
# image) can read the first boot's.
mkdir -p "$r/var/log/journal"
# The guest test: a unit that runs /qel/run.sh from the second disk (the
# project's packages and the scripts), its output on the second serial port.
cat > "$r/etc/systemd/system/qel-vm-test.service" <<'UNIT'
[Unit]
Description=QEL VM tier: the guest test from the second disk
After=multi-user.target
ConditionPathExists=/dev/vdb

[Service]
Type=oneshot
ExecStart=/bin/sh -c 'mkdir -p /qel && mount -o ro /dev/vdb /qel && exec /bin/sh /qel/run.sh'
StandardOutput=tty
StandardError=inherit
TTYPath=/dev/ttyS1
TTYReset=no
TTYVHangup=no
TimeoutStartSec=infinity
UNIT
mkdir -p "$r/etc/systemd/system/multi-user.target.wants"
ln -sf ../qel-vm-test.service "$r/etc/systemd/system/multi-user.target.wants/qel-vm-test.service"
# The initramfs with the short module list (the kernel's postinst made one
# before the list was written).
chroot "$r" update-initramfs -u -k all >/dev/null
# Modules no boot of this tier loads: the image stays small.
for d in "$r"/lib/modules/*/kernel; do
  rm -rf "$d/sound" "$d/drivers/gpu" "$d/drivers/media" "$d/drivers/net/wireless" \
    "$d/drivers/net/ethernet" "$d/drivers/infiniband" "$d/drivers/staging" "$d/drivers/scsi" \
    "$d/drivers/bluetooth" "$d/drivers/iio" "$d/drivers/usb" "$d/drivers/hid" "$d/drivers/md" \
    "$d/drivers/isdn" "$d/drivers/input" "$d/net/wireless" "$d/net/mac80211" "$d/net/bluetooth"
  chroot "$r" depmod "$(basename "$(dirname "$d")")"
done
rm -rf "$r/var/cache/apt/archives"/*.deb "$r/var/lib/apt/lists"/* "$r/usr/share/doc" "$r/usr/share/man" \
  "$r/usr/share/locale"
HOOK
key=$( { echo "$suite"; printf '%s\n' "${packages[@]}"; cat "$hook"; } | sha256sum | cut -c1-16)
dir=$cache/debian-$key
if [ ! -s "$dir/root.img" ]; then
  echo "debian-root: building $suite (${packages[*]}) into $dir"
  rm -rf "$dir"; mkdir -p "$dir"
  tree=$dir/tree
  include=$(IFS=,; echo "${packages[*]}")
  # The initramfs only has to find the virtio disk and mount ext4: a short
  # module list instead of "most" keeps it small, which counts when an
  # emulated CPU unpacks it at every boot.
  setup_hook='mkdir -p "$1/etc/initramfs-tools/conf.d" && printf "MODULES=list\nCOMPRESS=gzip\n" > "$1/etc/initramfs-tools/conf.d/qel-vm.conf"'
  cp "$hook" "$dir/customize.sh"
  customize=$dir/customize.sh
  chmod 755 "$customize"
  mmdebstrap --variant=minbase --mode=root --include="$include" \
    --aptopt='APT::Install-Recommends "false"' \
    --setup-hook="$setup_hook" --customize-hook="$customize \"\$1\"" \
    "$suite" "$tree" \
    "deb http://deb.debian.org/debian $suite main" \
    "deb http://deb.debian.org/debian $suite-updates main" \
    "deb http://deb.debian.org/debian-security $suite-security main" \
    > "$dir/mmdebstrap.log" 2>&1 || { tail -40 "$dir/mmdebstrap.log"; die "mmdebstrap failed (log: $dir/mmdebstrap.log)"; }
  cp -L "$tree"/boot/vmlinuz-* "$dir/vmlinuz" || die "no kernel in the tree"
  cp -L "$tree"/boot/initrd.img-* "$dir/initrd.img" || die "no initramfs in the tree"
  ls "$tree"/boot/vmlinuz-* | sed 's/.*vmlinuz-//' > "$dir/kernel-release"
  # Room for the packages, the journal and a second kernel's worth of state.
  size=$(( $(du -sm "$tree" | cut -f1) + 384 ))
  mke2fs -q -t ext4 -L qel-root -d "$tree" "$dir/root.img.tmp" "${size}M" >/dev/null \
    || die "mke2fs of the tree failed"
  mv "$dir/root.img.tmp" "$dir/root.img"
  rm -rf "$tree"
  state=built
else
  state=cached
fi
for d in "$cache"/debian-*; do [ "$d" = "$dir" ] || rm -rf "$d"; done

mkdir -p "$out"
ln -sfn "$dir/root.img" "$out/debian-root.img"
ln -sfn "$dir/vmlinuz" "$out/debian-kernel"
ln -sfn "$dir/initrd.img" "$out/debian-initrd.img"
echo "debian-root: $suite with kernel $(cat "$dir/kernel-release"), image $state in $(since "$t0") s," \
  "$(du -m "$dir/root.img" | cut -f1) MB; cache $dir"

#!/usr/bin/env bash
# with-devlog.sh SOCKET COMMAND [ARGS...]
#
# Runs COMMAND with /dev/log being SOCKET (a qel-syslog-sink), so that what
# the program logs through syslog(3) - priority, identity, pid, text - can be
# read by a test. Run it in a private mount namespace (unshare -m): the mounts
# it makes are gone with the namespace and the host's logger never notices.
set -euo pipefail
sock=$1
shift
if [ -e /dev/log ] || [ -L /dev/log ]; then
  # Over the host's logger socket (or what its symlink names).
  mount --bind "$sock" /dev/log
else
  # No logger on this host, so no /dev/log to cover: give /dev a fresh tmpfs
  # that carries every old entry (bound from a copy of the old /dev) plus a
  # /dev/log of ours.
  # The old /dev stays reachable at a directory beside the socket, which the
  # caller removes with its own temp directory.
  old=$(dirname "$sock")/.olddev-$$
  mkdir -p "$old"
  mount --rbind /dev "$old"
  mount -t tmpfs -o mode=0755 qel-dev /dev
  for entry in "$old"/* "$old"/.[!.]*; do
    [ -e "$entry" ] || [ -L "$entry" ] || continue
    name=/dev/${entry##*/}
    if [ -L "$entry" ]; then
      cp -P "$entry" "$name"
    elif [ -d "$entry" ]; then
      mkdir "$name"
      mount --rbind "$entry" "$name"
    else
      touch "$name"
      mount --bind "$entry" "$name"
    fi
  done
  ln -s "$sock" /dev/log
fi
exec "$@"

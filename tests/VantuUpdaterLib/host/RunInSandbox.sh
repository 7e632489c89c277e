#!/bin/sh
# Runs a host program as an administrator (supplementary group root) in a private mount namespace
# whose /var/lib, /opt and /dev/shm are empty memory file systems, with a fresh sandbox folder as
# its one argument. Nothing of the machine changes.
# usage: RunInSandbox.sh PROGRAM        (as root; exits 77, a skip, otherwise)
set -eu
if [ "${1:-}" = --inside ]; then
  mount --make-rprivate /
  for dir in /var/lib /opt /dev/shm; do mount -t tmpfs -o mode=1777 tmpfs "$dir"; done
  exec setpriv --groups=0 "$2" "$3"
fi
[ "$(id -u)" = 0 ] || exit 77
sandbox=$(mktemp -d)
trap 'rm -rf "$sandbox"' EXIT
unshare -m sh "$0" --inside "$1" "$sandbox"

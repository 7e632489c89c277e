#!/bin/sh
# Runs a host program as an administrator (supplementary group root) in a private mount namespace
# whose /var/lib, /opt and /dev/shm are empty memory file systems, with the scenario's name and a
# fresh sandbox folder as its arguments. With USER, the host runs as that user id (and group id),
# to whom the sandbox folder then belongs; otherwise as root. Nothing of the machine changes.
# usage: RunInSandbox.sh PROGRAM SCENARIO [USER]   (as root; exits 77, a skip, otherwise)
set -eu
if [ "${1:-}" = --inside ]; then
  mount --make-rprivate /
  for dir in /var/lib /opt /dev/shm; do mount -t tmpfs -o mode=1777 tmpfs "$dir"; done
  if [ -n "$5" ]; then
    exec setpriv --reuid="$5" --regid="$5" --groups=0 "$2" "$3" "$4"
  fi
  exec setpriv --groups=0 "$2" "$3" "$4"
fi
[ "$(id -u)" = 0 ] || exit 77
sandbox=$(mktemp -d)
trap 'rm -rf "$sandbox"' EXIT
[ -z "${3:-}" ] || chown "$3:$3" "$sandbox"
unshare -m sh "$0" --inside "$1" "$2" "$sandbox" "${3:-}"

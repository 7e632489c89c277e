#!/bin/sh
# Runs the demo host through the whole story in a sandbox. In private mount and process
# namespaces, /var/lib, /etc, /opt and the system library folder are overlays whose changes land
# in BUILD/demo, /dev/shm (where the lock semaphores live) is empty, the home and runtime folders
# lie in BUILD/demo, a session bus of its own runs, and the reference updater is installed in the
# sandbox as root installs it, which also provisions the machine-wide folder. The host then runs
# as an ordinary administrator (uid 1000, supplementary update group), and once more as a user
# outside that group (uid 1002), who may not change the machine-wide store. Nothing of the real
# machine is changed and nothing is left running; what the demo wrote stays in BUILD/demo.
#
# usage: run-demo.sh BUILD_DIR        (as root; exits 77 when the namespaces are not possible)
# CMAKE names the cmake program used to install the updater (default: cmake).
set -eu

updater_program="/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app"
updater_program="$updater_program/Contents/MacOS/Vantu Updater"

# --- Inside the private mount namespace --------------------------------------------------------
if [ "${1:-}" = --inside ]; then
  build=$2
  sandbox=$build/demo
  # Overlaying /var/lib of the machine itself would outlive this script: refuse.
  if [ "$(readlink /proc/self/ns/mnt)" = "${3:-}" ]; then
    echo "run-demo.sh: --inside must run in a mount namespace of its own" >&2
    exit 1
  fi

  bus_pid=
  stop_everything() {
    # Updaters still running in this namespace, by process id (the namespace's end would kill
    # them too, but not before they noticed their bus vanish).
    self_ns=$(readlink /proc/self/ns/mnt)
    for proc in /proc/[0-9]*; do
      if [ "$(readlink "$proc/exe" 2>/dev/null)" = "$updater_program" ] &&
         [ "$(readlink "$proc/ns/mnt" 2>/dev/null)" = "$self_ns" ]; then
        kill "${proc#/proc/}" 2>/dev/null || true
      fi
    done
    if [ -n "$bus_pid" ]; then
      kill "$bus_pid" 2>/dev/null || true
      wait "$bus_pid" 2>/dev/null || true
    fi
  }
  trap stop_everything EXIT

  # The locks are named semaphores in /dev/shm; a private one keeps the sandbox's stores, whose
  # paths are the real machine's, from sharing locks with the machine's own hosts.
  mount -t tmpfs -o mode=1777 tmpfs /dev/shm
  layers=$sandbox
  # The tmpfiles snippet installs below the library folder (/lib, often a link to /usr/lib).
  libdir=$(readlink -f /lib | cut -c2-)
  for dir in var/lib etc opt "$libdir"; do
    layer=$layers/$(echo "$dir" | tr / -)
    mkdir -p "$layer/upper" "$layer/work"
    if ! mount -t overlay overlay -o "lowerdir=/$dir,upperdir=$layer/upper,workdir=$layer/work" \
        "/$dir" 2>/dev/null; then
      # Some file systems (an overlay itself, in a container) cannot hold an overlay's changes;
      # memory can, for the length of the demo.
      [ "$layers" = "$sandbox" ] || exit 1
      echo "(this file system cannot hold the overlays' changes: they are kept in memory)"
      layers=$sandbox/layers
      mkdir -p "$layers"
      mount -t tmpfs tmpfs "$layers"
      layer=$layers/$(echo "$dir" | tr / -)
      mkdir -p "$layer/upper" "$layer/work"
      mount -t overlay overlay -o "lowerdir=/$dir,upperdir=$layer/upper,workdir=$layer/work" "/$dir"
    fi
  done

  # The update group: the first of the administrators' groups the machine has.
  group=
  for name in admin sudo wheel; do
    group=$(getent group "$name" | cut -d: -f3) && [ -n "$group" ] && break
  done
  if [ -z "$group" ]; then
    echo "run-demo.sh: none of the groups admin, sudo, wheel exists (groupadd --system sudo)" >&2
    exit 1
  fi
  admin=1000
  outsider=1002
  # Each user's own folders, theirs alone.
  for who in $admin $outsider; do
    install -d -o $who -g $who -m 0700 "$sandbox/home-$who" "$sandbox/run-$who" \
      "$sandbox/tmp-$who"
  done
  as_user() {
    who=$1
    shift
    HOME=$sandbox/home-$who XDG_DATA_HOME=$sandbox/home-$who/.local/share \
      XDG_CONFIG_HOME=$sandbox/home-$who/.config XDG_CACHE_HOME=$sandbox/home-$who/.cache \
      XDG_RUNTIME_DIR=$sandbox/run-$who TMPDIR=$sandbox/tmp-$who \
      DBUS_SESSION_BUS_ADDRESS=unix:path=$sandbox/run-$who/bus \
      setpriv --reuid=$who --regid=$who "$@"
  }
  if ! as_user $admin --groups="$group" test -x "$build/tools/demo/demo_host"; then
    echo "run-demo.sh: user $admin cannot reach $build: build in a folder others may read" >&2
    exit 1
  fi

  echo "Provisioning: root installs the updater; the tmpfiles snippet makes the folders"
  echo "  cmake --install $build --component VantuUpdaterApp --prefix /"
  "${CMAKE:-cmake}" --install "$build" --component VantuUpdaterApp --prefix / |
    sed -n 's/^-- Created /  created /p'
  stat -c '  %A %U:%G %n' /var/lib/Vantu /var/lib/Vantu/Updater5
  # The catalogue stands in for the update server: it knows of a new version of the demo host.
  cat >/var/lib/Vantu/Updater5/VantuUpdateCatalog.xml <<'CATALOG'
<?xml version="1.0" encoding="UTF-8"?>
<UpdateCatalog>
  <Update appID="com.example.DemoHost" version="2.0"/>
</UpdateCatalog>
CATALOG

  XDG_RUNTIME_DIR=$sandbox/run-$admin
  as_user $admin --groups="$group" \
    dbus-daemon --session --address="unix:path=$XDG_RUNTIME_DIR/bus" --nofork --nopidfile \
    2>/dev/null &
  bus_pid=$!
  tries=0
  while [ ! -S "$XDG_RUNTIME_DIR/bus" ]; do
    tries=$((tries + 1))
    if [ "$tries" -gt 100 ]; then
      echo "run-demo.sh: the session bus did not start" >&2
      exit 1
    fi
    sleep 0.05
  done

  echo
  echo "=== As an administrator: uid $admin, supplementary group $(getent group "$group" | cut -d: -f1)"
  status=0
  as_user $admin --groups="$group" -- "$build/tools/demo/demo_host" \
    "$sandbox/home-$admin/.local/share/Vantu/Updater5/roz.log" || status=$?

  echo
  echo "=== As a user outside the group: uid $outsider, no supplementary group"
  as_user $outsider --clear-groups -- "$build/tools/demo/demo_host" --outside-group || status=$?
  exit $status
fi

# --- Outside: prepare, enter the namespace, tidy up ---------------------------------------------
if [ $# -ne 1 ] || [ ! -d "$1" ]; then
  echo "usage: run-demo.sh BUILD_DIR" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
sandbox=$build/demo
case $sandbox in
  *,* | *:*) echo "run-demo.sh: the build folder's path may not hold ',' or ':'" >&2; exit 2 ;;
esac
if [ "$(id -u)" != 0 ]; then
  echo "run-demo.sh: the demo needs root for its private mount namespace (try: sudo make demo)" >&2
  exit 77
fi
if ! why=$(unshare --mount --pid --fork --mount-proc --propagation private true 2>&1); then
  echo "run-demo.sh: cannot make private mount and process namespaces: $why" >&2
  if ! mountpoint -q /; then
    echo "run-demo.sh: / is not a mount point (a chroot?): bind-mount the chroot's folder onto" \
         "itself before entering it (mount --bind DIR DIR), or run the demo outside it" >&2
  else
    echo "run-demo.sh: run it as root on the host, or in a container allowed to unshare" \
         "(for example with --privileged)" >&2
  fi
  exit 77
fi

rm -rf "$sandbox"
mkdir -p "$sandbox"
echo "Sandbox: /var/lib, /etc and /opt are overlays whose changes go to $sandbox;"
echo "homes are in $sandbox; private /dev/shm, processes and session bus."
status=0
# A process namespace of its own too: the library looks for a running updater among all
# processes, and must find the demo's alone. When the script inside ends, the kernel ends
# whatever it left running.
unshare --mount --pid --fork --mount-proc --propagation private -- \
  sh "$0" --inside "$build" "$(readlink /proc/self/ns/mnt)" || status=$?
# The overlays' work folders are the kernel's scratch space, of no use afterwards.
rm -rf "$sandbox"/*/work
if [ -n "${SUDO_UID:-}" ]; then chown -R "$SUDO_UID:${SUDO_GID:-$SUDO_UID}" "$sandbox"; fi
echo "The updater's log: $sandbox/home-1000/.local/share/Vantu/Updater5/roz.log"
exit $status

#!/bin/sh
# Builds the Debian packages from BUILD_DIR, checks them with lintian (when installed), and
# installs them with apt-get into a throw-away copy of the machine: in a private mount namespace
# /usr, /etc, /var and /opt are overlays whose changes live in memory. There a C host is built
# with pkg-config against the installed package and run as an ordinary administrator (it
# registers) and as a user outside the update group (refused); then the packages are removed,
# which keeps the registered applications, and purged, which leaves nothing.
# Usage: PackageCheck.sh BUILD_DIR [CPACK]   (as root; 77 when that or the namespace is missing)
set -eu
build=$(cd "$1" && pwd)
cpack=${2:-cpack}

if [ "${3:-}" != --inside ]; then
  if [ "$(id -u)" != 0 ]; then echo "needs root for its private mount namespace"; exit 77; fi
  if ! unshare --mount --propagation private true 2>/dev/null; then
    echo "no private mount namespace"; exit 77
  fi
  work=$(mktemp -d "${TMPDIR:-/tmp}/vantu-packages-XXXXXX")
  trap 'rm -rf "$work"' EXIT INT TERM
  "$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; exit 1; }
  if command -v lintian >/dev/null 2>&1; then
    # Errors fail the check; warnings are printed for the packager. Lintian leaves cache files in
    # its temporary folder, so it gets one that goes with the rest.
    mkdir "$work/tmp"
    TMPDIR="$work/tmp" lintian --tag-display-limit 0 "$work"/debs/*.deb >"$work/lintian.log" 2>&1 ||
      true
    cat "$work/lintian.log"
    if grep -q '^E:' "$work/lintian.log"; then exit 1; fi
  fi
  unshare --mount --propagation private -- sh "$0" "$build" "$cpack" --inside "$work"
  exit $?
fi

# --- Inside the namespace ---------------------------------------------------------------------
work=$4
mkdir -p "$work/layers"
mount -t tmpfs tmpfs "$work/layers"
for dir in usr etc var opt; do
  mkdir -p "$work/layers/$dir/upper" "$work/layers/$dir/work"
  mount -t overlay overlay \
    -o "lowerdir=/$dir,upperdir=$work/layers/$dir/upper,workdir=$work/layers/$dir/work" "/$dir"
done
export DEBIAN_FRONTEND=noninteractive
fail() { echo "FAILED: $*"; exit 1; }

apt-get install -y -qq --no-install-recommends "$work"/debs/*.deb >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log"; fail "apt-get install"; }
group=$(awk '$1 == "d" && $2 == "/var/lib/Vantu/Updater5" { print $5 }' \
  /usr/lib/tmpfiles.d/vantu-updater.conf)
[ "$(stat -c '%U:%G %a' /var/lib/Vantu)" = "root:root 755" ] || fail "/var/lib/Vantu"
[ "$(stat -c '%U:%G %a' /var/lib/Vantu/Updater5)" = "root:$group 2775" ] ||
  fail "/var/lib/Vantu/Updater5 is $(stat -c '%U:%G %a' /var/lib/Vantu/Updater5)"
[ -x "/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app/Contents/MacOS/Vantu Updater" ] ||
  fail "the updater is not in /opt"

cat >"$work/host.c" <<'HOST'
#include <VantuUpdater/VantuUpdater.h>
#include <stdio.h>
int main(int argc, char** argv) {
  const int32_t result = ROZRegisterApplication(argc > 1 ? argv[1] : "",
                                                (const unsigned char*)"Host",
                                                (const unsigned char*)"/opt/host");
  printf("ROZRegisterApplication -> %d\n", (int)result);
  return (int)result;
}
HOST
# shellcheck disable=SC2046
cc -o "$work/host" "$work/host.c" $(pkg-config --cflags --libs vantuupdater) ||
  fail "building a host with pkg-config"
chmod 0755 "$work" "$work/host"
as_user() {
  who=$1
  shift
  install -d -o "$who" -g "$who" -m 0700 "$work/home-$who"
  HOME=$work/home-$who XDG_RUNTIME_DIR=$work/home-$who setpriv --reuid="$who" --regid="$who" "$@"
}
as_user 1000 --groups="$(getent group "$group" | cut -d: -f3)" "$work/host" com.example.Admin ||
  fail "an administrator could not register"
status=0
as_user 1002 --clear-groups "$work/host" com.example.Outsider || status=$?
[ "$status" = 4 ] || fail "a user outside the group got $status"

packages="libvantuupdater5 libvantuupdater-dev vantu-updater"
# shellcheck disable=SC2086
apt-get remove -y -qq $packages >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "remove"; }
for gone in /usr/lib/libVantuUpdater.so.5 /usr/include/VantuUpdater /opt/Vantu\ Utilities.localized \
    /usr/lib/tmpfiles.d/vantu-updater.conf; do
  [ ! -e "$gone" ] || fail "$gone is left after the removal"
done
[ -f /var/lib/Vantu/Updater5/VantuESDGlobalApps.xml ] || fail "the removal lost the registrations"
apt-get purge -y -qq vantu-updater >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "purge"; }
[ ! -e /var/lib/Vantu ] || fail "/var/lib/Vantu is left after the purge"
echo "installed, used as two users, removed and purged"

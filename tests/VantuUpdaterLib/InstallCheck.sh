#!/bin/sh
# Installs the library into a temporary prefix the way a packager would, then builds the C host
# against the installed copy twice, as host projects do: with pkg-config and with CMake's
# find_package. Each build is run.
# Usage: InstallCheck.sh BUILD_DIR HOST_SOURCE_DIR [CMAKE [C_COMPILER [HOST_FLAGS]]]
# HOST_FLAGS are added to the hosts' compile and link lines (a sanitizer build needs its runtime
# in the host too).
set -eu
build=$1
host=$2
cmake=${3:-cmake}
cc=${4:-cc}
flags=${5:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/vantu-install-XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
prefix=$work/prefix

for component in VantuUpdater VantuUpdaterDev; do
  "$cmake" --install "$build" --prefix "$prefix" --component $component >/dev/null
done
library=$(find "$prefix" -name 'libVantuUpdater.so' | head -n 1)
test -n "$library" || { echo "libVantuUpdater.so was not installed"; exit 1; }
libdir=$(dirname "$library")
# The development link leads to the soname link, which leads to the versioned file.
test "$(readlink "$libdir/libVantuUpdater.so")" = libVantuUpdater.so.5
test "$(readlink "$libdir/libVantuUpdater.so.5")" = libVantuUpdater.so.5.1.0
test -f "$libdir/libVantuUpdater.so.5.1.0"
test -f "$prefix/include/VantuUpdater/VantuUpdater.h"

# The hosts run against the real machine with a home of their own.
HOME=$work/home
XDG_RUNTIME_DIR=$work/home
export HOME XDG_RUNTIME_DIR
mkdir -p "$HOME"

PKG_CONFIG_PATH=$libdir/pkgconfig
export PKG_CONFIG_PATH
test "$(pkg-config --modversion vantuupdater)" = 5.1.0
# shellcheck disable=SC2046,SC2086
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror $flags -o "$work/host-pkgconfig" "$host/CHost.c" \
  $(pkg-config --cflags --libs vantuupdater) -Wl,-rpath,"$libdir"
"$work/host-pkgconfig"

"$cmake" -S "$host" -B "$work/host-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  >/dev/null
"$cmake" --build "$work/host-cmake" >/dev/null
"$work/host-cmake/CHost"
echo "installed library found through pkg-config and find_package"

#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the layout, and builds
# a consumer with pkg-config and with find_package(KovaApi).
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

status=0
expect() {
  if [ -e "$prefix/$1" ]; then echo "installed: $1"; else echo "MISSING: $1"; status=1; fi
}
libdir=lib
[ -d "$prefix/lib" ] || libdir=$(cd "$prefix" && ls -d lib* | head -1)
expect include/kova_api.h
expect "$libdir/libkova-api.so"
expect "$libdir/libkova-api.so.0"
expect "$libdir/pkgconfig/kova-api.pc"
expect "$libdir/cmake/KovaApi/KovaApiConfig.cmake"
expect "$libdir/cmake/KovaApi/KovaApiConfigVersion.cmake"
expect share/dbus-1/interfaces/org.zelta.tv.system.resource.xml
for extra in ${KOVA_EXPECT_INSTALLED:-}; do expect "$extra"; done
if [ "$(readlink "$prefix/$libdir/libkova-api.so.0")" = "" ]; then :; fi
soname=$(readelf -d "$prefix/$libdir/libkova-api.so" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libkova-api.so.0" ] || { echo "soname is '$soname'"; status=1; }

# pkg-config consumer.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
cc -Wall -Werror -o "$tmp/consumer-pc" "$src/tests/install/consumer.c" $(pkg-config --cflags --libs kova-api)
LD_LIBRARY_PATH=$prefix/$libdir "$tmp/consumer-pc"

# find_package consumer.
cmake -S "$src/tests/install" -B "$tmp/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/consumer-build" >/dev/null
"$tmp/consumer-build/consumer"
exit $status

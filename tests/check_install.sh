#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and checks it as a user
# would: the layout, the platform stand-ins only on demand, consumers built
# with pkg-config and with find_package(KovaApi), and the installed kova-sim
# and kovactl running with nothing but the prefix's bin/ on PATH.
# Usage: check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 src=$2
tmp=$(mktemp -d)
sim_pid=
trap '[ -z "$sim_pid" ] || kill "$sim_pid" 2>/dev/null; rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

status=0
expect() {
  if [ -e "$prefix/$1" ]; then echo "installed: $1"; else echo "MISSING: $1"; status=1; fi
}
libdir=lib
[ -d "$prefix/lib" ] || libdir=$(cd "$prefix" && ls -d lib* | head -1)
expect include/kova_api.h
expect include/kova/kova.hpp
expect "$libdir/libkova-api.so"
expect "$libdir/libkova-api.so.0"
expect "$libdir/pkgconfig/kova-api.pc"
expect "$libdir/cmake/KovaApi/KovaApiConfig.cmake"
expect "$libdir/cmake/KovaApi/KovaApiConfigVersion.cmake"
expect share/dbus-1/interfaces/org.zelta.tv.system.resource.xml
for extra in ${KOVA_EXPECT_INSTALLED:-}; do expect "$extra"; done
soname=$(readelf -d "$prefix/$libdir/libkova-api.so" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libkova-api.so.0" ] || { echo "soname is '$soname'"; status=1; }

# The stand-ins carry the platform's sonames: a default install leaves them
# out unless the build asked for them; their component adds them.
if grep -qx 'KOVA_INSTALL_PLATFORM_STANDINS:BOOL=ON' "$build/CMakeCache.txt"; then
  expect "$libdir/libmarlo.so.0"
elif [ -e "$prefix/$libdir/libmarlo.so.0" ]; then
  echo "a default install put a platform stand-in in $libdir"; status=1
fi
cmake --install "$build" --prefix "$prefix" --component platform-standins >/dev/null
for lib in libmarlo.so.0 libpelk.so libtarn-system-resource.so.1 libbrask.so.1 libostel.so.1; do
  expect "$libdir/$lib"
done

# pkg-config consumer.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
cc -Wall -Werror -o "$tmp/consumer-pc" "$src/tests/install/consumer.c" $(pkg-config --cflags --libs kova-api)
LD_LIBRARY_PATH=$prefix/$libdir "$tmp/consumer-pc"
c++ -std=c++17 -Wall -Werror -o "$tmp/consumer-pc-cpp" "$src/tests/install/consumer.cpp" \
  $(pkg-config --cflags --libs kova-api)
LD_LIBRARY_PATH=$prefix/$libdir "$tmp/consumer-pc-cpp"

# find_package consumer.
cmake -S "$src/tests/install" -B "$tmp/consumer-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/consumer-build" >/dev/null
"$tmp/consumer-build/consumer"
"$tmp/consumer-build/consumer_cpp"

# The installed tools, with only their bin/ on PATH.
env="env -i PATH=$prefix/bin HOME=$tmp"
sim_status=0
settings=$($env kova-sim --private-bus --sh-syntax) || sim_status=$?
eval "$settings"
sim_pid=${KOVA_SIM_PID:-}
[ "$sim_status" = 0 ] || { echo "kova-sim --sh-syntax exited with $sim_status"; exit 1; }
answer=$($env DBUS_SYSTEM_BUS_ADDRESS="$DBUS_SYSTEM_BUS_ADDRESS" PELK_ROOT="$PELK_ROOT" kovactl focus get)
echo "installed kovactl against the installed kova-sim: $answer"
case $answer in
  "audio-focus result=0 zone=1"*) ;;
  *) echo "unexpected answer"; status=1 ;;
esac
exit $status

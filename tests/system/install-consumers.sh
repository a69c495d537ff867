#!/usr/bin/env bash
# Installs the library from a build tree into a temporary prefix and builds
# two tiny programs against the installed tree: one with pkg-config, one with
# find_package(qelbase). Both must link and run.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name 'libqelbase.so.1' -printf '%h\n' | head -n1)
test -n "$libdir" || { echo "libqelbase.so.1 not installed"; exit 1; }
test -f "$prefix/include/qelbase/qelIpmi.h" || { echo "headers not under include/qelbase"; exit 1; }
soname=$(objdump -p "$libdir/libqelbase.so.1" | awk '/SONAME/ {print $2}')
test "$soname" = libqelbase.so.1 || { echo "SONAME is '$soname'"; exit 1; }

cat > "$work/consumer.cpp" <<'CPP'
#include <qelIpmi.h>
#include <cstdio>
int main() {
    qelIpmi::QelIpmi_request_msg msg(0x06, 0x01, 0, nullptr);
    qelIpmi::QelIpmiError e("x", "f", 7);
    std::printf("%s", e.what());
    return msg.netFn == 0x06 && qelIpmi::vendorIana[0] != 0 ? 0 : 1;
}
CPP

# pkg-config
PKG_CONFIG_PATH=$libdir/pkgconfig g++ -std=c++17 -o "$work/pc" "$work/consumer.cpp" \
  $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs qelbase)
LD_LIBRARY_PATH=$libdir "$work/pc" | grep -qx 'Error: x(f,7)'

# find_package
mkdir -p "$work/cm"
cat > "$work/cm/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qelbase 1 REQUIRED)
add_executable(consumer ../consumer.cpp)
target_link_libraries(consumer PRIVATE qelbase::qelbase)
CMAKE
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cm/build/consumer" | grep -qx 'Error: x(f,7)'
echo "install tree OK: pkg-config and find_package consumers built and ran"

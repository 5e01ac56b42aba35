#!/bin/sh
# Installs the build tree into a temporary prefix and builds the minimal_push
# example out of tree against it, once through pkg-config and once through
# find_package(daxoclient): both programs must link against the installed
# library and run (a missing argument makes the example exit with 2). The
# library's DAXO_GetVersion, the .pc file and the CMake package must name one
# version, and installed programs must find the library without help.
#
# usage: install_test.sh CMAKE BUILD_DIR EXAMPLE_SOURCE C_COMPILER
#        install_test.sh - PREFIX EXAMPLE_SOURCE C_COMPILER
# The second form checks a tree installed already (the packages in /usr).
set -eu
cmake=$1 build=$2 example=$3 cc=$4

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

base=${DAXO_TEST_TMP:-${TMPDIR:-/tmp}}
mkdir -p "$base"
work=$(mktemp -d "$base/install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
if [ "$cmake" = - ]; then
  cmake=cmake prefix=$build
else
  "$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; fail "cmake --install"; }
fi

# The layout: the real file, its SONAME link and the development link.
real=$(find "$prefix" -name 'libdaxoclient.so.*.*.*' -type f | head -n 1)
[ -n "$real" ] || fail "no libdaxoclient.so.X.Y.Z under $prefix"
libdir=$(dirname "$real")
[ -L "$libdir/libdaxoclient.so.1" ] || fail "no libdaxoclient.so.1 link"
[ -L "$libdir/libdaxoclient.so" ] || fail "no libdaxoclient.so link"
readelf -d "$real" | grep -q 'SONAME.*\[libdaxoclient\.so\.1\]' || fail "SONAME is not libdaxoclient.so.1"
[ -f "$prefix/include/daxo_client.h" ] || fail "no include/daxo_client.h"
[ -x "$prefix/bin/daxo-agent" ] || fail "no bin/daxo-agent"
[ -f "$libdir/pkgconfig/daxoclient.pc" ] || fail "no daxoclient.pc in $libdir/pkgconfig"
[ -f "$libdir/cmake/daxoclient/daxoclientConfig.cmake" ] || fail "no daxoclientConfig.cmake"

# pkg-config; the .pc file finds the prefix from its own place.
flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs daxoclient) ||
  fail "pkg-config --cflags --libs daxoclient"
echo "pkg-config: $flags"
# shellcheck disable=SC2086 # the flags are words
"$cc" -std=c11 -Wall -Wextra -Werror -o "$work/push_pkgconfig" "$example" $flags ||
  fail "building against pkg-config's flags"

# find_package, from a project that knows nothing but the prefix; it also
# builds a program that prints DAXO_GetVersion and notes the package's version.
mkdir "$work/consumer"
cat >"$work/consumer/version.c" <<'C'
#include <stdio.h>
#include "daxo_client.h"
int main(void) { return puts(DAXO_GetVersion()) < 0; }
C
cat >"$work/consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C)
find_package(daxoclient 1.0 REQUIRED)
file(WRITE "\${CMAKE_BINARY_DIR}/package_version" "\${daxoclient_VERSION}")
add_executable(push_cmake "$example")
add_executable(version version.c)
set_target_properties(push_cmake version PROPERTIES C_STANDARD 11)
target_link_libraries(push_cmake PRIVATE daxoclient::daxoclient)
target_link_libraries(version PRIVATE daxoclient::daxoclient)
CMAKE
# Ninja, like the project's presets: a fresh system has no make.
"$cmake" -S "$work/consumer" -B "$work/consumer/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >"$work/consumer.log" 2>&1 ||
  { cat "$work/consumer.log"; fail "configuring a find_package(daxoclient) project"; }
"$cmake" --build "$work/consumer/build" >"$work/consumer.log" 2>&1 ||
  { cat "$work/consumer.log"; fail "building a find_package(daxoclient) project"; }

for program in "$work/push_pkgconfig" "$work/consumer/build/push_cmake"; do
  resolved=$(LD_LIBRARY_PATH=$libdir ldd "$program" | grep 'libdaxoclient\.so\.1') ||
    fail "$program does not need libdaxoclient.so.1"
  case $resolved in
    *"=> $libdir/libdaxoclient.so.1 "*) ;;
    *) fail "$program resolves $resolved, not the installed library" ;;
  esac
  status=0
  LD_LIBRARY_PATH=$libdir "$program" >/dev/null 2>&1 || status=$?
  [ "$status" -eq 2 ] || fail "$program exited with $status, expected the usage status 2"
done
# One version everywhere: the library's answer, the .pc file, the CMake package.
library_version=$(LD_LIBRARY_PATH=$libdir "$work/consumer/build/version") ||
  fail "the DAXO_GetVersion program failed"
pc_version=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --modversion daxoclient)
cmake_version=$(cat "$work/consumer/build/package_version")
echo "versions: library $library_version, pkg-config $pc_version, CMake package $cmake_version"
[ -n "$library_version" ] && [ "$library_version" = "$pc_version" ] &&
  [ "$library_version" = "$cmake_version" ] || fail "the versions differ"

# A RUNPATH left over from the build would point into a folder that is gone.
# Under /usr (the packages) the system's paths serve; under a prefix of its
# own a program finds the library beside itself.
if runpath=$(readelf -d "$real" | grep -E '\((RPATH|RUNPATH)\)'); then
  fail "$real carries $runpath"
fi
for binary in "$prefix"/bin/daxo*; do
  runpath=$(readelf -d "$binary" | sed -n 's/.*(\(RPATH\|RUNPATH\)).*\[\(.*\)\]$/\2/p')
  case $prefix:$runpath in
    /usr:) ;;
    /usr:*) fail "$binary carries RUNPATH '$runpath'" ;;
    *:'$ORIGIN/../lib'*) ;;
    *) fail "$binary carries RUNPATH '$runpath', not one relative to itself" ;;
  esac
  env -u LD_LIBRARY_PATH "$binary" --help >/dev/null 2>&1 || fail "$binary --help does not run"
done
echo "installed tree usable through pkg-config and find_package"

#!/bin/sh
# Installs the Debian packages on a freshly bootstrapped Debian 12 as a
# product image would get them, from a package repository: libdaxoclient-dev
# must pull libdaxoclient1 and, through it, the libraries it links. Then an
# example is built against it with pkg-config and with find_package(daxoclient)
# and run, DAXO_GetVersion must give the packages' version, and the tools
# must run. Run by hand as root (it downloads a minimal system when ROOT_DIR
# does not hold one yet):
#   tests/packaging/clean_system.sh build/package ROOT_DIR
set -eu
debs=$(realpath "$1")
root=$2
here=$(dirname "$(realpath "$0")")

command -v debootstrap >/dev/null && command -v dpkg-scanpackages >/dev/null ||
  apt-get install -y -q debootstrap dpkg-dev
[ -x "$root/usr/bin/apt-get" ] || debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian
cp /etc/resolv.conf "$root/etc/"
rm -rf "$root/tmp/daxo"
mkdir -p "$root/tmp/daxo/repo"
cp "$debs"/libdaxoclient1_*.deb "$debs"/libdaxoclient-dev_*.deb "$debs"/daxoclient-tools_*.deb \
  "$root/tmp/daxo/repo/"
(cd "$root/tmp/daxo/repo" && dpkg-scanpackages -m . >Packages 2>/dev/null)
echo "deb [trusted=yes] file:/tmp/daxo/repo ./" >"$root/etc/apt/sources.list.d/daxo.list"
cp "$here/../../examples/minimal_push.c" "$root/tmp/daxo/"
cat >"$root/tmp/daxo/version.c" <<'C'
#include <stdio.h>
#include "daxo_client.h"
int main(void) { return puts(DAXO_GetVersion()) < 0; }
C
cat >"$root/tmp/daxo/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(minimal_push C)
find_package(daxoclient REQUIRED)
add_executable(minimal_push minimal_push.c)
target_link_libraries(minimal_push PRIVATE daxoclient::daxoclient)
CMAKE

chroot "$root" sh -eu <<'CHROOT'
cd /tmp/daxo
fail() { echo "FAIL: $*" >&2; exit 1; }
apt-get update -q
apt-get install -y -q --no-install-recommends libdaxoclient-dev
dpkg-query -W -f='${Status}\n' libdaxoclient1 | grep -q "install ok installed" ||
  fail "libdaxoclient-dev did not pull libdaxoclient1"
for p in libdaxoclient1 libdaxoclient-dev; do
  echo "$p: Depends: $(dpkg-query -W -f='${Depends}' "$p")"
done
apt-get install -y -q --no-install-recommends gcc libc6-dev pkg-config cmake make
multiarch=$(gcc -print-multiarch)
echo "pkg-config: $(pkg-config --cflags --libs daxoclient)"
gcc -std=c11 -Wall -Wextra -Werror -o minimal_push_pc minimal_push.c $(pkg-config --cflags --libs daxoclient)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null && cmake --build build >/dev/null
for program in ./minimal_push_pc build/minimal_push; do
  status=0; "$program" 2>/dev/null || status=$?
  [ "$status" -eq 2 ] || fail "$program: exit $status, expected 2 (usage)"
  ldd "$program" | grep -Eq "libdaxoclient.so.1 => (/usr)?/lib/$multiarch/" ||
    fail "$program: not linked to the package"
done

gcc -std=c11 -o version version.c $(pkg-config --cflags --libs daxoclient)
library=$(./version)
package=$(dpkg-query -W -f='${Version}' libdaxoclient1)
pc=$(pkg-config --modversion daxoclient)
echo "versions: library $library, package $package, pkg-config $pc"
[ "$library" = "$package" ] && [ "$library" = "$pc" ] || fail "the versions differ"

apt-get install -y -q --no-install-recommends daxoclient-tools
echo "daxoclient-tools: Depends: $(dpkg-query -W -f='${Depends}' daxoclient-tools)"
daxoctl --help >/dev/null
daxo-agent --help >/dev/null 2>&1 || [ $? -eq 2 ]
for binary in /usr/bin/daxoctl /usr/bin/daxo-agent /usr/lib/$multiarch/libdaxoclient.so.1; do
  if readelf -d "$binary" 2>/dev/null | grep -E '\((RPATH|RUNPATH)\)'; then
    fail "$binary carries a RUNPATH"
  fi
done
echo "clean system: packages installed from a repository, example built both ways and run"
CHROOT

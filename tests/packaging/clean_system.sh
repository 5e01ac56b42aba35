#!/bin/sh
# Installs the Debian package on a freshly bootstrapped Debian 12 and builds
# an example against it, with pkg-config and with find_package(daxoclient).
# Run by hand as root (it downloads a minimal system):
#   tests/packaging/clean_system.sh build/package/libdaxoclient_1.0.0_amd64.deb ROOT_DIR
set -eu
deb=$(realpath "$1")
root=$2
here=$(dirname "$(realpath "$0")")

command -v debootstrap >/dev/null || apt-get install -y -q debootstrap
[ -x "$root/usr/bin/apt-get" ] || debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian
cp /etc/resolv.conf "$root/etc/"
mkdir -p "$root/tmp/daxo"
cp "$deb" "$here/../../examples/minimal_push.c" "$root/tmp/daxo/"
cat >"$root/tmp/daxo/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(minimal_push C)
find_package(daxoclient REQUIRED)
add_executable(minimal_push minimal_push.c)
target_link_libraries(minimal_push PRIVATE daxoclient::daxoclient)
CMAKE

chroot "$root" sh -eu <<'CHROOT'
cd /tmp/daxo
apt-get update -q
apt-get install -y -q ./libdaxoclient_*.deb
apt-get install -y -q --no-install-recommends gcc libc6-dev pkg-config cmake make
echo "pkg-config: $(pkg-config --cflags --libs daxoclient)"
gcc -std=c11 -Wall -Wextra -Werror -o minimal_push_pc minimal_push.c $(pkg-config --cflags --libs daxoclient)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null && cmake --build build >/dev/null
for program in ./minimal_push_pc build/minimal_push; do
  status=0; "$program" 2>/dev/null || status=$?
  [ "$status" -eq 2 ] || { echo "$program: exit $status, expected 2 (usage)"; exit 1; }
  ldd "$program" | grep -Eq 'libdaxoclient.so.1 => (/usr)?/lib/x86_64-linux-gnu/' || { echo "$program: not linked to the package"; exit 1; }
done
daxoctl --help >/dev/null
daxo-agent --help >/dev/null 2>&1 || [ $? -eq 2 ]
echo "clean system: package installed, example built both ways and run"
CHROOT

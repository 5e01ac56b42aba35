#!/bin/sh
# Installs the Debian packages on a freshly bootstrapped Debian 12 as a
# product image would get them, from a package repository: libdaxoclient-dev
# must pull libdaxoclient1 and, through it, the libraries it links. Then
# install_test.sh checks the installed tree, DAXO_GetVersion must give the
# packages' version, and the tools must run. Run by hand as root (it
# downloads a minimal system when ROOT_DIR does not hold one yet):
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
cp "$here/install_test.sh" "$here/../../examples/minimal_push.c" "$root/tmp/daxo/"

chroot "$root" sh -eu <<'CHROOT'
cd /tmp/daxo
fail() { echo "FAIL: $*" >&2; exit 1; }
apt-get update -q
apt-get install -y -q --no-install-recommends libdaxoclient-dev
dpkg-query -W -f='${Status}\n' libdaxoclient1 | grep -q "install ok installed" ||
  fail "libdaxoclient-dev did not pull libdaxoclient1"
apt-get install -y -q --no-install-recommends daxoclient-tools gcc libc6-dev pkg-config cmake \
  ninja-build
for p in libdaxoclient1 libdaxoclient-dev daxoclient-tools; do
  echo "$p: Depends: $(dpkg-query -W -f='${Depends}' "$p")"
done
# The installed tree as the build tree's install is checked: both ways of
# building against it, one version, no RUNPATH.
sh ./install_test.sh - /usr /tmp/daxo/minimal_push.c gcc
[ "$(pkg-config --modversion daxoclient)" = "$(dpkg-query -W -f='${Version}' libdaxoclient1)" ] ||
  fail "the library's version is not the package's"
daxoctl --help >/dev/null
daxo-agent --help >/dev/null 2>&1 || [ $? -eq 2 ]
echo "clean system: packages installed from a repository, example built both ways and run"
CHROOT

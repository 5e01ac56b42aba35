#!/bin/sh
# The README's promise, checked: bootstraps a Debian 12 minbase, adds only
# git and ca-certificates, clones this repository into it and runs the
# commands of the README's "Quick start" block exactly as written, one after
# the other, timing each. Run as root (CI runs it):
#   tests/packaging/fresh_system.sh [ROOT_DIR]
# ROOT_DIR (default build/fresh-system) is made anew; it is left behind for
# a look at what failed.
set -eu
repo=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)
root=${1:-$repo/build/fresh-system}

command -v debootstrap >/dev/null ||
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends debootstrap >/dev/null

cleanup() {
  for m in dev/pts dev sys proc; do
    mountpoint -q "$root/$m" && umount -l "$root/$m"
  done
  return 0
}
trap cleanup EXIT
cleanup
rm -rf "$root"

started=$(date +%s)
debootstrap --variant=minbase bookworm "$root" http://deb.debian.org/debian >"$root.debootstrap.log" 2>&1 ||
  { tail -n 20 "$root.debootstrap.log"; exit 1; }
for m in proc sys dev dev/pts; do mount --bind "/$m" "$root/$m"; done
cp /etc/resolv.conf "$root/etc/"
chroot "$root" sh -c 'apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends git ca-certificates' >/dev/null
git clone -q "$repo" "$root/root/libdaxoclient"
echo "fresh system: bootstrapped with git and ca-certificates in $(($(date +%s) - started)) s"

# The block's lines, comments and blank lines left out.
commands=$(sed -n '/^## Quick start/,/^## /p' "$repo/README.md" |
  sed -n '/^```sh$/,/^```$/p' | sed '1d;$d' | sed 's/[[:space:]]*#.*$//' | grep -v '^[[:space:]]*$')
[ -n "$commands" ] || { echo "fresh system: no Quick start commands in README.md"; exit 1; }

echo "$commands" | while IFS= read -r command; do
  echo "== fresh system: $command"
  begin=$(date +%s)
  status=0
  chroot "$root" sh -c "cd /root/libdaxoclient && $command" </dev/null || status=$?
  echo "== fresh system: '$command' exited $status after $(($(date +%s) - begin)) s"
  [ "$status" -eq 0 ] || exit "$status"
done
echo "fresh system: the README's Quick start passed in $(($(date +%s) - started)) s"

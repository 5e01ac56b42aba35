#!/bin/sh
# The README's promise, checked: bootstraps a Debian 12 minbase, adds only
# git and ca-certificates, clones this repository into it and runs the
# commands of the README's "Quick start" block exactly as written, one after
# the other, timing each; then its set-up of a broker and the development
# agent, and its lifecycle program built against the installed packages
# with its commands. Run as root (CI runs it):
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

# The commands of the first block of LANGUAGE in the README's section
# HEADING, continued lines joined; with "strip", comments and blank lines
# left out.
block() {  # HEADING LANGUAGE [strip]
  sed -n "/^#* $1/,/^#\{1,\} /p" "$repo/README.md" |
    sed -n "/^\`\`\`$2\$/,/^\`\`\`\$/{p;/^\`\`\`\$/q}" | sed '1d;$d' |
    sed -e ':a' -e '/\\$/N; s/\\\n//; ta' |
    if [ "${3:-}" = strip ]; then
      sed 's/[[:space:]]*#.*$//' | grep -v '^[[:space:]]*$'
    else
      cat
    fi
}

run() {  # COMMAND [FOLDER]
  echo "== fresh system: $1"
  begin=$(date +%s)
  status=0
  chroot "$root" sh -c "cd ${2:-/root/libdaxoclient} && $1" </dev/null || status=$?
  echo "== fresh system: '$1' exited $status after $(($(date +%s) - begin)) s"
  [ "$status" -eq 0 ] || exit "$status"
}

commands=$(block 'Quick start' sh strip)
[ -n "$commands" ] || { echo "fresh system: no Quick start commands in README.md"; exit 1; }
echo "$commands" | while IFS= read -r command; do run "$command"; done
echo "fresh system: the README's Quick start passed in $(($(date +%s) - started)) s"

# The set-up block: a line marked "# terminal N" runs in the background, as
# in a terminal of its own, and is stopped at the end.
setup=$(block 'Setting up a broker' sh)
[ -n "$setup" ] || { echo "fresh system: no set-up commands in README.md"; exit 1; }
pids=""
stop() {
  for pid in $pids; do kill "$pid" 2>/dev/null || true; done
  for pid in $pids; do wait "$pid" 2>/dev/null || true; done
  pids=""
}
trap 'stop; cleanup' EXIT
n=0
while IFS= read -r line; do
  command=$(echo "$line" | sed 's/[[:space:]]*#.*$//')
  [ -n "$command" ] || continue
  case $line in
  *'# terminal'*)
    n=$((n + 1))
    log=$root/root/terminal$n.log
    echo "== fresh system, in the background: $command"
    chroot "$root" sh -c "cd /root/libdaxoclient && exec $command" </dev/null >"$log" 2>&1 &
    pids="$pids $!"
    # The broker says it runs, the agent that it is ready.
    waited=0
    until grep -q -e ' running$' -e 'daxo-agent: ready' "$log"; do
      kill -0 $! 2>/dev/null && [ $waited -lt 300 ] ||
        { echo "fresh system: '$command' did not start:"; cat "$log"; stop; exit 1; }
      sleep 0.1
      waited=$((waited + 1))
    done
    ;;
  *) run "$command" ;;
  esac
done <<EOF
$setup
EOF
stop
echo "fresh system: the README's set-up passed in $(($(date +%s) - started)) s"

# An application against the installed packages: the README's lifecycle
# program, built with the README's commands as written.
run scripts/package
run 'apt-get install -y -q --no-install-recommends ./build/package/*.deb'
mkdir -p "$root/root/app"
block 'The lifecycle in C' c >"$root/root/app/app.c"
builds=$(sed -n 's/^Build it with `\(.*\)`\.$/\1/p' "$repo/README.md"; block Installing sh strip)
[ -s "$root/root/app/app.c" ] && [ -n "$builds" ] ||
  { echo "fresh system: no application or build commands in README.md"; exit 1; }
echo "$builds" | while IFS= read -r command; do
  rm -f "$root/root/app/a.out"
  run "$command" /root/app
  # Without a configuration file it must say so, through the library.
  chroot "$root" sh -c 'cd /root/app && ./a.out' 2>&1 | grep 'cannot create the client' ||
    { echo "fresh system: the application did not run as expected"; exit 1; }
done
echo "fresh system: the README's set-up and an application passed in $(($(date +%s) - started)) s"

#!/usr/bin/env bash
# Installs the packages in FOLDER on a clean Debian of its own, as an administrator would,
# starts the locator by its unit's command line beside three simulated devices, upgrades,
# downgrades, removes and purges it: packaging/debian_test.sh FOLDER. Needs root.
set -euo pipefail

folder=$(realpath "$1")
root=$(mktemp -d /tmp/talvorn-debian.XXXXXX)
chmod 755 "$root"
here=talvorn-here-$$
there=talvorn-there-$$

say() { printf '%s\n' "package test: $*"; }
fail() {
  say "FAILED: $*" >&2
  exit 1
}

clean_up() {
  ip netns pids "$here" 2>/dev/null | xargs -r kill -9 || true
  ip netns pids "$there" 2>/dev/null | xargs -r kill -9 || true
  ip netns delete "$here" 2>/dev/null || true
  ip netns delete "$there" 2>/dev/null || true
  umount "$root/proc" 2>/dev/null || true
  rm -rf "$root"
}
trap clean_up EXIT

# In the clean Debian; then there on one of the two hosts.
inside() { DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 chroot "$root" "$@"; }
on() {
  local host=$1
  shift
  DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 ip netns exec "$host" chroot "$root" "$@"
}

# All files but those that the package manager keeps for itself.
files() {
  find "$root" -xdev \( -path "$root/proc" -o -path "$root/var/cache" -o -path "$root/var/lib/apt" \
    -o -path "$root/var/lib/dpkg" -o -path "$root/var/log" -o -path "$root/tmp" \
    -o -path "$root/etc/*-" -o -path "$root/debs" \) -prune -o -printf '%P %y\n' | sort
}

wait_for() {
  local what=$1
  shift
  for ((i = 0; i < 300; ++i)); do
    "$@" && return
    sleep 0.1
  done
  fail "$what"
}

install_packages() {
  inside apt-get install -y -qq --allow-downgrades "$@" >>"$folder/apt.log" 2>&1 ||
    fail "apt-get install $*; see $folder/apt.log"
}

say "making a clean Debian"
debootstrap --variant=minbase --include=systemd bookworm "$root" >"$folder/debootstrap.log" 2>&1 ||
  fail "debootstrap; see $folder/debootstrap.log"
mount -t proc proc "$root/proc"
mkdir "$root/debs"
names=
for deb in "$folder"/{talvorn-locator,talvorn-tools,libtalvorn1,libtalvorn-dev}_*.deb; do
  cp "$deb" "$root/debs"
  # The same once more as the next version.
  dpkg-deb -R "$deb" "$root/debs/next"
  sed -i -e 's/^\(Version: .*\)/\1+next/' -e 's/(= \([^)]*\))/(= \1+next)/' "$root/debs/next/DEBIAN/control"
  name=$(basename "$deb" | cut -d_ -f1)
  dpkg-deb -b "$root/debs/next" "$root/debs/$name-next.deb" >/dev/null
  rm -r "$root/debs/next"
  names+=" $name"
done
inside apt-get install -y -qq libmnl0 libnettle8 libstdc++6 >/dev/null 2>&1 || fail "the libraries"
files >"$folder/files-before"

say "install"
first=$(cd "$root" && printf '/%s ' debs/*_*.deb)
install_packages $first
[[ $(inside stat -c '%U %a' /run/talvorn) == 'talvorn 755' ]] || fail "the runtime directory"

ip netns add "$here"
ip netns add "$there"
ip -n "$here" link add dev0 type veth peer name dev1 netns "$there"
for side in "$here dev0 1" "$there dev1 2"; do
  read -r host device number <<<"$side"
  ip -n "$host" link set lo up
  ip -n "$host" addr add "10.48.17.$number/24" dev "$device"
  ip -n "$host" link set "$device" up
done
for number in 3 4; do ip -n "$there" addr add "10.48.17.$number/24" dev dev1; done

start_locator() {
  read -ra command < <(sed -n 's/^ExecStart=//p' "$root/lib/systemd/system/talvorn-locator.service")
  (exec ip netns exec "$here" chroot "$root" setpriv --reuid talvorn --regid talvorn \
    --clear-groups --inh-caps=-all --bounding-set=-all --no-new-privs "${command[@]}") &
  locator=$!
}
devices() { on "$here" talvorn devices --json 2>/dev/null | grep -o '"serial"' | wc -l; }
three_devices() { [[ $(devices) == 3 ]]; }

say "run"
on "$there" talvorn-sim --interface dev1 --ipv4 --devices 3 &
disown
start_locator
wait_for "three devices" three_devices
on "$here" talvorn version

say "a program in C, built with the installed library"
export PKG_CONFIG_SYSROOT_DIR=$root
export PKG_CONFIG_LIBDIR=$(echo "$root"/usr/lib/*/pkgconfig)
cc "$(dirname "$0")/../examples/c/devices.c" $(pkg-config --cflags --libs talvorn) -o "$root/tmp/devices" ||
  fail "the program in C"
[[ $(on "$here" /tmp/devices | wc -l) == 3 ]] || fail "what the program in C prints"

say "upgrade, with settings of the administrator"
cp "$root/usr/share/doc/talvorn-locator/examples/settings.reg" "$root/etc/talvorn/talvorn.reg"
install_packages $(cd "$root" && printf '/%s ' debs/*-next.deb)
inside dpkg -s talvorn-locator | grep -q '^Version: .*+next' || fail "the next version is not there"
three_devices || fail "the running locator did not outlive the upgrade"
kill "$locator"
wait "$locator" || fail "the locator's end"
start_locator
wait_for "three devices from the next version" three_devices

say "downgrade"
install_packages $first
[[ -s $root/etc/talvorn/talvorn.reg ]] || fail "the settings are gone"

say "remove"
kill "$locator"
wait "$locator" || true
inside apt-get remove -y -qq $names >/dev/null 2>&1 || fail "apt-get remove"
[[ ! -e $root/usr/sbin/talvorn-locator && -s $root/etc/talvorn/talvorn.reg ]] ||
  fail "the program stays, or the settings do not"

say "purge"
inside dpkg --purge $names >/dev/null 2>&1 || fail "dpkg --purge"
files >"$folder/files-after"
diff "$folder/files-before" "$folder/files-after" || fail "what is left after the purge"
! grep -q talvorn "$root/etc/passwd" || fail "the account is left"
say "all is well"

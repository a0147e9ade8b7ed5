#!/bin/sh
# Installs the packages into roots of their own, uses, upgrades and removes them. Nothing of the host
# is touched but the two directories.
#   run.sh PACKAGES NEXT CACHE
#     PACKAGES   DEB and RPM packages
#     NEXT       the RPM packages with a higher revision
#     CACHE      kept from run to run: a minimal Debian system and what apt has fetched
set -eu
here=$(cd "$(dirname "$0")" && pwd)
if [ "${TEMBRIX_PACKAGE_TEST:-}" != inside ]; then
  [ "$(id -u)" -eq 0 ] || { echo "package test: roots need root; run this as root" >&2; exit 1; }
  TEMBRIX_PACKAGE_TEST=inside exec \
    unshare --mount --propagation private --pid --fork --kill-child "$0" "$@"
fi
packages=$1 next=$2 cache=$3
root=$cache/root
source=$here/../..  # whose lists say what is in the packages
# Of the packages' names, "tembrix_9.0.0-1_amd64.deb".
named=$(basename "$packages"/tembrix_*.deb)
named=${named#tembrix_}
named=${named%_*}
version=${named%-*} revision=${named##*-}

# again COMMAND...: up to three times, since what it downloads may not come at once.
again() { "$@" || { sleep 10; "$@"; } || { sleep 30; "$@"; }; }

# The archive that this machine's apt is set up with, as "deb URI RELEASE COMPONENT".
sources() {
  apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Created-By: Packages' 'Origin: Debian' | sort -u
}
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
mkdir -p "$cache/archives/partial"
[ -n "$(sources)" ] || again apt-get -qq update
mirror=$(sources | awk -v suite="$suite" '$3 == suite { print $2; exit }')
[ -n "$mirror" ] || { echo "package test: apt knows no archive of Debian $suite" >&2; exit 1; }

make_base() {
  rm -rf --one-file-system "$cache/base.new" || return
  debootstrap --variant=minbase --cache-dir="$cache/archives" "$suite" "$cache/base.new" "$mirror" \
    >"$cache/debootstrap.log" 2>&1
}
if [ ! -d "$cache/base" ]; then
  again make_base || { tail "$cache/debootstrap.log" >&2; exit 1; }
  mv "$cache/base.new" "$cache/base"
fi
rm -rf --one-file-system "$root"
mkdir "$root"
# In memory where there is plenty: a package manager waits for the disk at every step.
if awk '/^MemAvailable/ { exit $2 > 4000000 ? 0 : 1 }' /proc/meminfo; then
  mount -t tmpfs -o mode=0755 tmpfs "$root"
fi
cp -aT "$cache/base" "$root"
sources >"$root/etc/apt/sources.list"
cp /etc/resolv.conf "$root/etc/resolv.conf"
apt-config dump | grep -E '^Acquire::https?::' >"$root/etc/apt/apt.conf.d/90host" || true
echo force-unsafe-io >"$root/etc/dpkg/dpkg.cfg.d/unsafe"
echo 'APT::Keep-Downloaded-Packages "true"; Acquire::Retries "5";' >"$root/etc/apt/apt.conf.d/91test"
mount -t proc proc "$root/proc"
mount --bind "$cache/archives" "$root/var/cache/apt/archives"
mkdir "$root/given"
cp "$packages"/*.deb "$packages"/*.rpm "$root/given"
cp "$here"/programs/* "$here/../install/run_examples.sh" "$root/given"
in_root() { chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
again in_root apt-get -qq -o APT::Update::Error-Mode=any update

. "$here/steps.sh"
. "$here/deb_steps.sh"
. "$here/rpm_steps.sh"
deb_steps
rpm_steps
umount "$root/proc" "$root/var/cache/apt/archives"
! mountpoint -q "$root" || umount "$root"
rm -rf --one-file-system "$root"

#!/bin/sh
# Gives a package what CPack cannot: the field Multi-Arch, and no maintainer scripts that call
# ldconfig, for which the library's trigger stands.
#   finish.sh PACKAGE_FILE...
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for file in "$@"; do
  dpkg-deb -R "$file" "$work/package"
  control=$work/package/DEBIAN
  case $(dpkg-deb -f "$file" Package) in
    tembrix) kind=foreign ;;
    *) kind=same; rm -f "$control/postinst" "$control/postrm" ;;
  esac
  sed -i "/^Architecture:/a Multi-Arch: $kind" "$control/control"
  dpkg-deb --root-owner-group -Zxz -b "$work/package" "$file" >/dev/null
  rm -r "$work/package"
done

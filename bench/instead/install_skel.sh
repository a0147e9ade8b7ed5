#!/bin/sh
# What an administrator would write in place of `tembrix --install-skel`: the same store, but with
# the archive's type taken from its name.
#   install_skel.sh ARCHIVE STORE
set -e
archive=$1
store=$2

rm -rf "$store"
mkdir -m 0755 "$store"
case $archive in
  *.zip) unzip -o -qq "$archive" -d "$store" ;;
  *.tgz) tar -xzf "$archive" -C "$store" ;;
  *.tar) tar -xf "$archive" -C "$store" ;;
esac
find "$store" -mindepth 1 -maxdepth 1 ! -name httpdocs ! -name cgi-bin ! -name anon_ftp \
  ! -name error_docs ! -name statistics ! -name webspace -exec rm -rf {} +
find "$store" -name .quota -prune -exec rm -rf {} +
chown -R root:root "$store"
find "$store" -type f -exec chmod 0644 {} +
find "$store" -type d -exec chmod 0755 {} +

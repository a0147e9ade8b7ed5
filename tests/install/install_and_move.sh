#!/bin/sh
# Installs a build and moves the whole to its final place, so that a path of the first place that was
# written into a file shows in every test that follows.
#   install_and_move.sh CMAKE BUILD_DIRECTORY PREFIX
set -eu
rm -rf "$3" "$3.first"
"$1" --install "$2" --prefix "$3.first" >/dev/null
mv "$3.first" "$3"
if grep -rlF "$3.first" "$3"; then
  echo "these files hold the path that they were installed to" >&2
  exit 1
fi

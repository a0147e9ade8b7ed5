#!/bin/sh
# Plants includes that break the order of the rooms, one at a time, and wants each to be found.
#   planted_includes.sh SOURCE_DIRECTORY
set -eu

copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
mkdir "$copy/docs"
cp -r "$1/src" "$1/scripts" "$copy"
cp -r "$1/docs/images" "$copy/docs"

"$copy/scripts/architecture" --check || { echo "the order is broken as it is" >&2; exit 1; }

planted() { # FILE INCLUDED WHAT_IS_SAID
  cp "$copy/src/$1" "$copy/kept"
  echo "#include $2" >>"$copy/src/$1"
  if said=$("$copy/scripts/architecture" --check 2>&1); then
    echo "not found: $2 in $1" >&2
    exit 1
  fi
  case $said in
    *"$3"*) ;;
    *) echo "$2 in $1: $said" >&2; exit 1 ;;
  esac
  cp "$copy/kept" "$copy/src/$1"
}

planted log/messlog.cpp '"fs/tree.h"' 'log may not include fs/tree.h'
planted log/messlog.cpp '<vhost/layout.h>' 'log may not include vhost/layout.h'
planted exec/forkexec.cpp '"fs/tree.h"' 'exec may not include fs/tree.h'
planted tool/modes.cpp '"vhost/misc.h"' 'tool may not include vhost/misc.h'
planted tool/archive.cpp '<mysql.h>' '<mysql.h> belongs to'
planted vhost/clean.cpp '<libxml/parser.h>' '<libxml/parser.h> belongs to'

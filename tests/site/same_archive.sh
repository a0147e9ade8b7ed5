#!/bin/sh
# Makes the default skeleton of copies of its sources: on two file systems, which list their entries
# in different orders, under two umasks, by two users, with files of other times and modes. Compares
# the bytes with those that the build made.
#   same_archive.sh CMAKE SOURCES ARCHIVE
set -eu
cmake=$1
sources=$2
built=$3
disk=$(mktemp -d)
memory=$(mktemp -d /dev/shm/skeleton.XXXXXX)
trap 'rm -rf "$disk" "$memory"' EXIT
chmod 0755 "$disk"
chmod 0777 "$memory"
unset SOURCE_DATE_EPOCH

# copy_to PLACE MODE TIME
copy_to() {
  cp -R "$sources" "$1"
  chmod "$2" "$1/cgi-bin/test.cgi"
  find "$1" -exec touch -d "$3" {} +
}

# make_in PLACE SOURCES UMASK [COMMAND...]
make_in() {
  place=$1
  copy=$2
  umask "$3"
  shift 3
  (cd / && "$@" "$cmake" -DARCHIVE="$place/skeleton.tgz" -DSTAGE="$place/the stage" -P "$copy/make_archive.cmake")
  umask 022
}

copy_to "$disk/sources" 0600 '1999-12-31 23:59:59'
make_in "$disk" "$disk/sources" 077
cmp "$disk/skeleton.tgz" "$built"

copy_to "$disk/other sources" 0777 '2030-01-01 00:00:00'
make_in "$memory" "$disk/other sources" 000 setpriv --reuid=65534 --regid=65534 --clear-groups
cmp "$memory/skeleton.tgz" "$built"

SOURCE_DATE_EPOCH=86400
export SOURCE_DATE_EPOCH
make_in "$disk" "$disk/sources" 022
if tar -tvzf "$disk/skeleton.tgz" --utc | grep -v ' 1970-01-02 00:00 '; then
  echo "same_archive: these are of another time than SOURCE_DATE_EPOCH" >&2
  exit 1
fi

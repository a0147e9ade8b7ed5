#!/bin/sh
# Makes the default skeleton of copies of its sources at two places, under two umasks, at two times,
# and compares the bytes with those that the build made.
#   same_archive.sh CMAKE SOURCES ARCHIVE
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset SOURCE_DATE_EPOCH

# make_at PLACE UMASK MODE TIME
make_at() {
  (
    umask "$2"
    cp -R "$sources" "$work/$1"
    chmod "$3" "$work/$1/cgi-bin/test.cgi"
    find "$work/$1" -exec touch -d "$4" {} +
    cd /
    "$cmake" -DARCHIVE="$work/$1.tgz" -DSTAGE="$work/stage of $1" -P "$work/$1/make_archive.cmake"
  )
  cmp "$work/$1.tgz" "$built"
}

cmake=$1
sources=$2
built=$3
make_at one 077 0600 '1999-12-31 23:59:59'
make_at 'another place' 000 0777 '2030-01-01 00:00:00'

SOURCE_DATE_EPOCH=86400
export SOURCE_DATE_EPOCH
if make_at dated 022 0644 '2030-01-01 00:00:00' >/dev/null; then
  echo "same_archive: SOURCE_DATE_EPOCH has no effect" >&2
  exit 1
fi
if tar -tvzf "$work/dated.tgz" --utc | grep -v ' 1970-01-02 00:00 '; then
  echo "same_archive: these are of another time than SOURCE_DATE_EPOCH" >&2
  exit 1
fi

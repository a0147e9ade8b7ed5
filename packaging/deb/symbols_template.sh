#!/bin/sh
# Turns the list of exported symbols (standard input) into a template for dpkg-gensymbols.
#   symbols_template.sh PACKAGE   libfrask9, say
set -eu
echo "libfrask.so.${1#libfrask} $1 #MINVER#"
echo "* Build-Depends-Package: libfrask-dev"
awk '
  /^# since / { version = $3 }
  /^#/ { next }
  { sub(/ \[[0-9]+ bytes\]$/, "") }
  /^[A-Za-z0-9_]+$/ { print " " $0 "@Base " version; next }
  { print " (c++)\"" $0 "@Base\" " version }'
